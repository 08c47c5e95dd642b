/* SPDX-License-Identifier: Apache-2.0 */
/* Requests on the caller's own thread. */
#include "qor_sched_delegate.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "sched_delegate_fixture.hpp"

TEST_F(SchedDelegate, PublishxHandlesTheCallersOwnMessage)
{
    char room[4] = "";
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 9, topic, nullptr, 0, room, sizeof(room));
    const qor_context_msg_t *own = &msg;
    a.on_message = [own](qor_context_msg_t *seen) {
        EXPECT_EQ(seen, own);
        memcpy(seen->response.buf, "yes", 4);
        return 3;
    };

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), 3);

    EXPECT_STREQ(room, "yes");
    EXPECT_EQ(msg.ret, 3);
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_RESPONSE);
    EXPECT_EQ(journal.text(), "a:REQUEST");
    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(a.entries, 1);
    EXPECT_EQ(a.leaves, 1);
    EXPECT_EQ(p.entries, 0);
}

TEST_F(SchedDelegate, PublishxPassesAllPointsInOrder)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), 0);
    EXPECT_EQ(journal.text(), "c:FILTER_BEFORE a:REQUEST c:FILTER_AFTER");

    journal.clear();
    EXPECT_EQ(bus.run_all(), 2);
    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE b:LISTEN_AFTER");
}

TEST_F(SchedDelegate, PublishxWithoutSubscriberStillPassesTheAfterPoints)
{
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_handler_listen(c.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);
    bus.run_all();

    EXPECT_EQ(journal.text(), "b:FILTER_BEFORE b:FILTER_AFTER c:LISTEN_BEFORE c:LISTEN_AFTER");
    EXPECT_EQ(msg.ret, -1);
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_RESPONSE);
    EXPECT_EQ(out.printed(), line("publishx", "handle message failed, ret = -1 source = p, "
                                              "topic = 2, session = 77"));
}

TEST_F(SchedDelegate, PublishxOnABadTopicIsReportedByEveryStep)
{
    qor_context_msg_t msg = request(4);

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);

    /* at each point: someone filters? (-1, so the filters are walked), someone listens? */
    const std::string point = bad_topic_line() + bad_topic_line() + bad_topic_line();
    EXPECT_EQ(out.printed(), point + bad_topic_line() +
                                 line("publishx", "handle message failed, ret = -1 source = p, "
                                                  "topic = 4, session = 77") +
                                 point);
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_RESPONSE);
}

TEST_F(SchedDelegate, PublishxReportsAFailedHandler)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    a.on_message = [](qor_context_msg_t *) { return -44; };
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -44);

    EXPECT_EQ(msg.ret, -44);
    EXPECT_EQ(out.printed(), line("publishx", "handle message failed, ret = -44 source = p, "
                                              "topic = 2, session = 77"));
}
