/* SPDX-License-Identifier: Apache-2.0 */
/* Requests by way of the bus: relay, subscriber, response. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "output.hpp"
#include "sched_delegate_fixture.hpp"
#include "still_bus.hpp"

TEST_F(SchedDelegate, RequestAndResponseAreTwoTasks)
{
    qor_context_subscribe(a.get(), topic, nullptr);

    EXPECT_EQ(publish(), 0);
    EXPECT_EQ(journal.text(), "");

    qor_context_task_t *relay = bus.take();
    ASSERT_NE(relay, nullptr);
    EXPECT_EQ(relay->session, 77);
    EXPECT_EQ(relay->context, p.get());
    EXPECT_EQ(relay->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(relay->recycle, nullptr);
    EXPECT_EQ(relay->delay, 0);
    EXPECT_EQ(std::string(relay->name).substr(0, 5), "task:");
    qor_context_task_excute(relay);
    StillBus::finish(relay);
    EXPECT_EQ(journal.text(), "a:REQUEST");

    qor_context_task_t *response = bus.take();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->session, 77);
    EXPECT_EQ(response->context, p.get());
    EXPECT_EQ(response->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(response->delay, 0);
    EXPECT_EQ(std::string(response->name).substr(0, 5), "task:");
    EXPECT_EQ(reinterpret_cast<void *>(response->recycle),
              reinterpret_cast<void *>(qor_context_msg_destroy));
    qor_context_task_excute(response);
    StillBus::finish(response);
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, SubscriberTakesTheRelayAndPublisherTheResponse)
{
    std::string taken;
    for (Actor *actor : {&p, &a}) {
        actor->on_task = [&taken, actor](qor_context_task_t *task) {
            taken += actor->name + std::to_string(task->session) + " ";
            return qor_context_handler_post(actor->get(), task);
        };
    }
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    EXPECT_EQ(taken, "a77 ");
    bus.run_all();
    EXPECT_EQ(taken, "a77 p77 ");
}

TEST_F(SchedDelegate, PublishReturnsWhatTheSubscribersTaskHandlerSays)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    a.on_task = [](qor_context_task_t *) { return -9; };

    EXPECT_EQ(publish(), -9);

    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, ClonesTravelAndTheCallersMessageStays)
{
    char question[] = "how far";
    char room[8] = "";
    std::string asked, answered;
    int32_t answer_session = 0;
    qor_context_subscribe(a.get(), topic, nullptr);
    a.on_message = [&](qor_context_msg_t *msg) {
        asked = static_cast<char *>(msg->request.buf);
        memcpy(msg->response.buf, "3 miles", 8);
        return 12;
    };
    p.on_message = [&](qor_context_msg_t *msg) {
        answered = static_cast<char *>(msg->response.buf) + std::to_string(msg->ret);
        answer_session = msg->session;
        return 0;
    };
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 123, topic, question, sizeof(question), room, sizeof(room));

    EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), 0);
    memset(question, 'x', sizeof(question) - 1); /* the caller may reuse it at once */
    bus.run_all();

    EXPECT_EQ(asked, "how far");
    EXPECT_EQ(answered, "3 miles12");
    EXPECT_EQ(answer_session, 123);
    EXPECT_STREQ(room, "");
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(msg.ret, 0);
}

TEST_F(SchedDelegate, OnlyTheNewestSubscriberReceives)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_subscribe(b.get(), topic, nullptr);

    publish();
    bus.run_all();
    EXPECT_EQ(journal.text(), "b:REQUEST p:RESPONSE");

    journal.clear();
    qor_context_unsubscribe(b.get(), topic);
    publish();
    bus.run_all();
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, PublisherMayBeItsOwnSubscriber)
{
    qor_context_subscribe(p.get(), topic, nullptr);

    publish();
    bus.run_all();

    EXPECT_EQ(journal.text(), "p:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, SystemContextsPublishOnTheSystemTopics)
{
    Actor t(journal, "t");
    t.attach(bus.get(), QOR_BUS_ROLE_SYS);
    qor_context_subscribe(t.get(), topic, nullptr);
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publish(s.get(), &msg), 0);
    bus.run_all();

    EXPECT_EQ(journal.text(), "t:REQUEST s:RESPONSE");
}

TEST_F(SchedDelegate, SystemPublicationsPassThePointsOfTheSystemTopics)
{
    Actor t(journal, "t");
    t.attach(bus.get(), QOR_BUS_ROLE_SYS);
    qor_context_subscribe(t.get(), topic, nullptr);
    qor_context_filter(t.get(), topic, nullptr);
    qor_context_handler_listen(t.get(), topic, nullptr);
    qor_context_filter(a.get(), topic, nullptr); /* of the application's topic */
    qor_context_handler_listen(a.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(s.get(), &msg), 0);
    bus.run_all();

    EXPECT_EQ(journal.text(),
              "t:FILTER_BEFORE t:REQUEST t:FILTER_AFTER t:LISTEN_BEFORE t:LISTEN_AFTER");
}

TEST_F(SchedDelegate, MessagePassesAllPointsInOrder)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);

    publish();
    EXPECT_EQ(journal.text(), "c:FILTER_BEFORE");
    journal.clear();
    EXPECT_EQ(bus.run_all(), 4); /* two for the listener, relay, response */

    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE a:REQUEST c:FILTER_AFTER b:LISTEN_AFTER p:RESPONSE");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, MessageOfAnotherTypeIsRefused)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    msg.type = QOR_CONTEXT_MSG_RESPONSE;

    EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);

    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(journal.text(), "");
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_RESPONSE);
    const std::string text = "not support message type, source:p, topic:2, session=77";
    EXPECT_EQ(out.printed(), line("publish", text) + line("publishx", text));
}

TEST_F(SchedDelegate, PublishWithoutSubscriberFailsAfterTheBeforePoints)
{
    qor_context_filter(a.get(), topic, nullptr);
    qor_context_handler_listen(b.get(), topic, nullptr);

    EXPECT_EQ(publish(), -1);
    EXPECT_EQ(journal.text(), "a:FILTER_BEFORE");
    EXPECT_EQ(out.printed(), line("publish", "no one subscribe, source:p, topic:2, session=77"));

    journal.clear();
    EXPECT_EQ(bus.run_all(), 1);
    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE");
}

TEST_F(SchedDelegate, PublishOnABadTopicIsReportedByEveryStep)
{
    qor_context_msg_t msg = request(4);

    EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);

    /* someone filters? (-1, so the filters are walked), someone listens?, the subscriber */
    EXPECT_EQ(out.printed(), bad_topic_line() + bad_topic_line() + bad_topic_line() +
                                 bad_topic_line() +
                                 line("publish", "no one subscribe, source:p, topic:4, "
                                                 "session=77"));
}

TEST_F(SchedDelegate, PublishToASubscriberThatRefusesFails)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    a.on_resume = [] { return -1; };

    EXPECT_EQ(publish(), -1);

    EXPECT_EQ(out.printed(),
              err_line("qor_topic_core", "qor_topic_core_node_next", "resume failed. context = a") +
                  line("publish", "no one subscribe, source:p, topic:2, "
                                  "session=77"));
    EXPECT_EQ(bus.run_all(), 0);
}

TEST_F(SchedDelegate, PublishLeavesTheSubscriberEntered)
{
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    EXPECT_EQ(a.entries, 1);
    EXPECT_EQ(a.leaves, 0);
    bus.run_all();

    EXPECT_EQ(a.entries, 2); /* the relay enters and leaves once more */
    EXPECT_EQ(a.leaves, 1);
    EXPECT_EQ(p.entries, 1);
    EXPECT_EQ(p.leaves, 1);
}

TEST_F(SchedDelegate, TheRelayLooksTheSubscriberUpAgain)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_subscribe(b.get(), topic, nullptr);
    publish();
    qor_context_unsubscribe(b.get(), topic);

    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, RelayThatFindsNoSubscriberGivesAResponseAllTheSame)
{
    int32_t ret = 0;
    p.on_message = [&](qor_context_msg_t *msg) { return ret = msg->ret; };
    qor_context_subscribe(a.get(), topic, nullptr);
    publish();
    qor_context_unsubscribe(a.get(), topic);

    bus.run_all();

    EXPECT_EQ(journal.text(), "p:RESPONSE");
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(out.printed(),
              line("publish_relay", "handle message failed, ret = -1 source = p, topic = 2, "
                                    "session = 77"));
}

TEST_F(SchedDelegate, AFailedHandlerStillGivesAResponse)
{
    int32_t ret = 0;
    p.on_message = [&](qor_context_msg_t *msg) { return ret = msg->ret; };
    a.on_message = [](qor_context_msg_t *) { return -5; };
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);

    publish();
    bus.run_all();

    EXPECT_EQ(journal.text(), "b:FILTER_BEFORE a:REQUEST b:FILTER_AFTER p:RESPONSE");
    EXPECT_EQ(ret, -5);
    EXPECT_EQ(out.printed(),
              line("publish_relay", "handle message failed, ret = -5 source = p, topic = 2, "
                                    "session = 77"));
}

TEST_F(SchedDelegate, AfterPointsSeeTheResult)
{
    std::string rets;
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_handler_listen(c.get(), topic, nullptr);
    a.on_message = [](qor_context_msg_t *) { return 6; };
    for (Actor *actor : {&b, &c}) {
        actor->on_message = [&](qor_context_msg_t *msg) {
            rets += std::to_string(msg->ret);
            return 0;
        };
    }

    publish();
    bus.run_all();

    EXPECT_EQ(rets, "0066");
}

TEST_F(SchedDelegate, RelayReportsASubscriberThatCannotBeLeft)
{
    int32_t ret = 0;
    p.on_message = [&](qor_context_msg_t *msg) { return ret = msg->ret; };
    a.on_message = [](qor_context_msg_t *) { return 8; };
    a.on_pause = [] { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run_all();

    EXPECT_EQ(ret, 8); /* the handler's result counts */
    EXPECT_EQ(out.printed(), line("handle_message_aim", "pause failed. context = a"));
}

TEST_F(SchedDelegate, ResponseIsDroppedWhenThePublisherCannotBeEntered)
{
    p.on_resume = [] { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST");
    EXPECT_EQ(p.leaves, 0);
    EXPECT_EQ(out.printed(), line("handle_message_self", "resume failed. context = p"));
}

TEST_F(SchedDelegate, ResponseReportsAPublisherThatCannotBeLeft)
{
    p.on_pause = [] { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
    EXPECT_EQ(out.printed(), line("handle_message_self", "pause failed. context = p"));
}

TEST_F(SchedDelegate, TasksGiveTheirHandlersResults)
{
    p.on_message = [](qor_context_msg_t *) { return -31; };
    p.on_task = [&](qor_context_task_t *task) {
        return qor_context_handler_post(p.get(), task) + 17;
    };
    qor_context_subscribe(a.get(), topic, nullptr);
    publish();

    qor_context_task_t *relay = bus.take();
    EXPECT_EQ(reinterpret_cast<intptr_t>(qor_context_task_excute(relay)), 17);
    StillBus::finish(relay);
    qor_context_task_t *response = bus.take();
    EXPECT_EQ(reinterpret_cast<intptr_t>(qor_context_task_excute(response)), -31);
    p.on_resume = [] { return -1; };
    EXPECT_EQ(reinterpret_cast<intptr_t>(qor_context_task_excute(response)), -1);
    StillBus::finish(response);
}

TEST_F(SchedDelegate, RefusedResponseFreesItsClone)
{
    p.on_task = [](qor_context_task_t *) { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run_all(); /* the leak checker sees a clone that stays */

    EXPECT_EQ(journal.text(), "a:REQUEST");
}

TEST_F(SchedDelegate, RelayThatQuitDiscardsFreesItsClone)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    publish();

    qor_bus_quit(bus.get()); /* and close, which discards */

    EXPECT_EQ(publish(), -1);
    EXPECT_EQ(journal.text(), "");
}

TEST_F(SchedDelegate, CancelledRelayFreesItsClone)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    publish();

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 77), 0);

    EXPECT_EQ(bus.run_all(), 0);
}

TEST_F(SchedDelegate, NullMessageIsReported)
{
    EXPECT_EQ(qor_context_handler_publish(p.get(), nullptr), -1);
    EXPECT_EQ(qor_context_handler_publishx(p.get(), nullptr), -1);
    EXPECT_EQ(qor_context_handler_syscall(p.get(), nullptr), -1);
    EXPECT_EQ(qor_context_handler_syscallx(p.get(), nullptr), -1);

    const std::string text = "!(msg) == true.";
    EXPECT_EQ(out.printed(), line("publish", text) + line("publishx", text) +
                                 line("syscall", text) + line("syscallx", text));
}
