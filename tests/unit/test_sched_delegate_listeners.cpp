/* SPDX-License-Identifier: Apache-2.0 */
/* Listeners of a request. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "sched_delegate_fixture.hpp"
#include "still_bus.hpp"

TEST_F(SchedDelegate, ListenersOfAPointShareOneCloneAndOneTask)
{
    std::vector<qor_context_msg_t *> clones;
    for (Actor *actor : {&a, &b}) {
        qor_context_handler_listen(actor->get(), topic, nullptr);
        actor->on_message = [&](qor_context_msg_t *msg) {
            clones.push_back(msg);
            return -1;
        };
    }
    bus.get()->session = 500;
    qor_context_msg_t msg = request();

    qor_context_handler_publishx(p.get(), &msg);
    qor_context_task_t *before = bus.take();
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(before->session, 500); /* drawn afresh */
    EXPECT_EQ(before->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(std::string(before->name).substr(0, 5), "task:");
    EXPECT_EQ(before->context, p.get());
    EXPECT_EQ(reinterpret_cast<void *>(before->recycle),
              reinterpret_cast<void *>(qor_context_msg_destroy));
    qor_context_task_excute(before);
    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE a:LISTEN_BEFORE");
    EXPECT_EQ(bus.run_all(), 1);

    ASSERT_EQ(clones.size(), 4u);
    EXPECT_EQ(clones[0], clones[1]);
    EXPECT_EQ(clones[2], clones[3]);
    EXPECT_NE(clones[0], clones[2]);
    EXPECT_NE(clones[0], &msg);
    StillBus::finish(before);
}

TEST_F(SchedDelegate, ListenerCannotChangeWhatOthersSee)
{
    int32_t number = 1, at_subscriber = 0;
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    b.on_message = [](qor_context_msg_t *msg) {
        memset(msg->request.buf, 0x5a, sizeof(number));
        return 0;
    };
    a.on_message = [&](qor_context_msg_t *msg) {
        memcpy(&at_subscriber, msg->request.buf, sizeof(at_subscriber));
        return 0;
    };
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, topic, &number, sizeof(number));

    qor_context_handler_publish(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(at_subscriber, 1);
    EXPECT_EQ(number, 1);
}

TEST_F(SchedDelegate, ListenerWalkEndsAtAContextThatCannotBeLeft)
{
    qor_context_handler_listen(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    b.on_pause = [] { return -1; };
    qor_context_subscribe(c.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    qor_context_handler_publishx(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(journal.text(), "c:REQUEST b:LISTEN_BEFORE b:LISTEN_AFTER");
    const std::string text = "pause failed. context = b";
    EXPECT_EQ(out.printed(),
              line("listen_dispatch_task", text) + line("listen_dispatch_task", text));
}

TEST_F(SchedDelegate, ListenerThatJoinsBeforeTheTaskRunsIsCalled)
{
    qor_context_topic_attr_t before = at_point(QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE);
    qor_context_handler_listen(a.get(), topic, &before);
    qor_context_msg_t msg = request();
    qor_context_handler_publishx(p.get(), &msg);

    qor_context_handler_listen(b.get(), topic, &before);
    qor_context_handler_unlisten(a.get(), topic);
    bus.run_all();

    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE");
}

TEST_F(SchedDelegate, RefusedListenerTaskFreesItsClone)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    qor_bus_quit(bus.get());
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), 0); /* nobody asks the listeners */

    EXPECT_EQ(journal.text(), "a:REQUEST");
}
