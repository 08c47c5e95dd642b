/* SPDX-License-Identifier: Apache-2.0 */
/* Filters around a request. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "sched_delegate_fixture.hpp"

TEST_F(SchedDelegate, AFailingFilterDoesNotPreventDelivery)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    c.on_message = [](qor_context_msg_t *) { return -1; };

    EXPECT_EQ(publish(), 0);
    bus.run_all();

    EXPECT_EQ(journal.text(), "c:FILTER_BEFORE b:FILTER_BEFORE a:REQUEST c:FILTER_AFTER "
                              "b:FILTER_AFTER p:RESPONSE");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, FilterChangesTheMessageThatGoesOn)
{
    int32_t number = 1;
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    b.on_message = [](qor_context_msg_t *msg) {
        const int32_t changed = msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE ? 2 : 3;
        memcpy(msg->request.buf, &changed, sizeof(changed));
        return 0;
    };
    int32_t at_subscriber = 0, at_publisher = 0;
    a.on_message = [&](qor_context_msg_t *msg) {
        memcpy(&at_subscriber, msg->request.buf, sizeof(at_subscriber));
        return 0;
    };
    p.on_message = [&](qor_context_msg_t *msg) {
        memcpy(&at_publisher, msg->request.buf, sizeof(at_publisher));
        return 0;
    };
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, topic, &number, sizeof(number));

    qor_context_handler_publish(p.get(), &msg);
    EXPECT_EQ(number, 2); /* the caller's own buffer before the clone */
    bus.run_all();

    EXPECT_EQ(at_subscriber, 2);
    EXPECT_EQ(at_publisher, 3);
    EXPECT_EQ(number, 2);
}

TEST_F(SchedDelegate, FilterMayTurnAMessageToAnotherTopic)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_subscribe(b.get(), 0, nullptr);
    qor_context_filter(p.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    c.on_message = [](qor_context_msg_t *msg) {
        msg->topic = 0;
        return 0;
    };

    publish();
    bus.run_all();

    /* The walk goes on where it began. */
    EXPECT_EQ(journal.text(), "c:FILTER_BEFORE p:FILTER_BEFORE b:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, FilterWalkEndsAtAContextThatCannotBeLeft)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    c.on_pause = [] { return -1; };
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), 0);

    EXPECT_EQ(journal.text(), "c:FILTER_BEFORE a:REQUEST c:FILTER_AFTER");
    const std::string text = "pause failed. context = c";
    EXPECT_EQ(out.printed(), line("filter_dispatch", text) + line("filter_dispatch", text));
}

TEST_F(SchedDelegate, FilterThatCannotBeEnteredEndsTheWalkNotTheDelivery)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    c.on_resume = [] { return -1; };
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), 0);

    EXPECT_EQ(journal.text(), "a:REQUEST");
    EXPECT_EQ(out.count("resume failed. context = c"), 2);
}

TEST_F(SchedDelegate, APassedOverRegistrationStaysEntered)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_topic_attr_t after = at_point(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    qor_context_filter(b.get(), topic, &after);
    qor_context_handler_listen(c.get(), topic, &after);
    qor_context_msg_t msg = request();

    qor_context_handler_publishx(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST b:FILTER_AFTER c:LISTEN_AFTER");
    EXPECT_EQ(b.entries, 2);
    EXPECT_EQ(b.leaves, 1);
    EXPECT_EQ(c.entries, 2);
    EXPECT_EQ(c.leaves, 1);
}

TEST_F(SchedDelegate, RegistrationThatRemovesItselfDoesNotEndTheWalk)
{
    qor_context_handler_listen(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    b.on_message = [&](qor_context_msg_t *) {
        return qor_context_handler_unlisten(b.get(), topic);
    };
    qor_context_msg_t msg = request();

    qor_context_handler_publishx(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE a:LISTEN_BEFORE a:LISTEN_AFTER");
}
