/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_sched_delegate.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "case_name.hpp"
#include "output.hpp"
#include "qor_sys.h"
#include "qor_topic_core.h"
#include "test_bus.hpp"

namespace {

constexpr qor_context_topic_t topic = 2;

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_sched_delegate", "qor_sched_delegate_" + function, text);
}

std::string bad_topic_line()
{
    return err_line("qor_topic_core", "qor_topic_core_topic_check", "topic invalid.\n");
}

qor_context_topic_attr_t at_point(int32_t point)
{
    return {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
}

/* A request of the session 77 on the test's topic. */
qor_context_msg_t request(qor_context_topic_t number = topic)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 77, number, nullptr, 0);
    return msg;
}

/* A publisher p, three more contexts of the application, and a system module s. Tasks run in
 * bus.run(), on the test's thread. */
class SchedDelegate : public testing::Test {
protected:
    SchedDelegate()
    {
        for (Actor *actor : {&p, &a, &b, &c}) {
            actor->attach(bus.get(), QOR_BUS_ROLE_USER);
        }
        s.attach(bus.get(), QOR_BUS_ROLE_SYS);
    }

    int32_t publish()
    {
        qor_context_msg_t msg = request();
        return qor_context_handler_publish(p.get(), &msg);
    }

    Output out;
    PumpedBus bus;
    Journal journal;
    Actor p{journal, "p"}, a{journal, "a"}, b{journal, "b"}, c{journal, "c"}, s{journal, "s"};
};

/* A posted task that writes down the session it runs under. */
void *note_run(qor_context_t *context, int32_t session, void *)
{
    Actor::of(context).journal.write("ran " + std::to_string(session));
    return nullptr;
}

qor_context_task_t note_task(Actor &actor, int32_t session, int32_t delay)
{
    qor_context_task_t task = {};
    qor_context_taskx_init(&task, actor.get(), "note", session, note_run, nullptr);
    task.delay = delay;
    return task;
}

} // namespace

/* ---- creating and destroying ---- */

TEST_F(SchedDelegate, CreateAttachesTheContext)
{
    Actor actor(journal, "new");

    qor_sched_delegate_t *delegate =
        qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_SYS, actor.get());

    ASSERT_NE(delegate, nullptr);
    EXPECT_EQ(delegate->bus, bus.get());
    EXPECT_EQ(delegate->role, QOR_BUS_ROLE_SYS);
    EXPECT_EQ(delegate->context, actor.get());
    EXPECT_TRUE(list_empty(&delegate->subscriber_head));
    EXPECT_TRUE(list_empty(&delegate->listener_head));
    EXPECT_TRUE(list_empty(&delegate->filter_head));
    EXPECT_EQ(qor_context_pub_data_get(actor.get()), delegate);
    EXPECT_EQ(reinterpret_cast<void *>(actor.get()->pub_data_recycle),
              reinterpret_cast<void *>(qor_sched_delegate_destroy));
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, AllDelegatesShareOneHandlerTable)
{
    EXPECT_NE(qor_context_handler_get(p.get()), nullptr);
    EXPECT_EQ(qor_context_handler_get(p.get()), qor_context_handler_get(s.get()));
}

TEST_F(SchedDelegate, PostxAndCancelxAreEmpty)
{
    qor_context_task_t task = note_task(p, 5, 0);

    EXPECT_EQ(qor_context_handler_postx(p.get(), &task), -1);
    EXPECT_EQ(qor_context_handler_cancelx(p.get(), 5), -1);

    EXPECT_EQ(out.printed(), err_line("qor_context_handler", "qor_context_handler_postx",
                                      "!(handler->postx) == true.") +
                                 err_line("qor_context_handler", "qor_context_handler_cancelx",
                                          "!(handler->cancelx) == true."));
}

TEST_F(SchedDelegate, DestroyRemovesEveryRegistration)
{
    for (qor_context_topic_t number = 0; number < 3; number++) {
        qor_context_subscribe(a.get(), number, nullptr);
        qor_context_subscribe(a.get(), number, nullptr);
        qor_context_listen(a.get(), number, nullptr);
        qor_context_filter(a.get(), number, nullptr);
        qor_context_subscribe(b.get(), number, nullptr);
    }

    qor_sched_delegate_destroy(a.delegate());

    for (qor_context_topic_t number = 0; number < 3; number++) {
        qor_topic_t &left = bus.get()->user_topic_core->ids[number];
        EXPECT_TRUE(list_empty(&left.listener_head));
        EXPECT_TRUE(list_empty(&left.filter_head));
        EXPECT_EQ(qor_topic_core_subscriber_node_next(bus.get()->user_topic_core, number, nullptr)
                      ->context,
                  b.get());
        EXPECT_EQ(left.subscriber_head.next->next, &left.subscriber_head);
    }
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, DestroyGoesFromSubscriptionsToListenersToFilters)
{
    qor_topic_core_t *table = bus.get()->user_topic_core;
    qor_topic_t &held = table->ids[topic];
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_listen(a.get(), topic, nullptr);
    qor_context_filter(a.get(), topic, nullptr);
    pthread_mutex_lock(&held.listener_mutex);
    pthread_mutex_lock(&held.filter_mutex);
    std::thread destroying([&] { qor_sched_delegate_destroy(a.delegate()); });

    EXPECT_TRUE(await([&] { return qor_topic_core_someone_subscribed(table, topic) == 0; }));
    EXPECT_EQ(qor_topic_core_someone_listened(table, topic), 1);
    pthread_mutex_unlock(&held.listener_mutex);
    EXPECT_TRUE(await([&] { return qor_topic_core_someone_listened(table, topic) == 0; }));
    EXPECT_EQ(qor_topic_core_someone_filtered(table, topic), 1);
    pthread_mutex_unlock(&held.filter_mutex);
    destroying.join();

    EXPECT_EQ(qor_topic_core_someone_filtered(table, topic), 0);
}

TEST_F(SchedDelegate, DestroyReportsNull)
{
    qor_sched_delegate_destroy(nullptr);

    EXPECT_EQ(out.printed(), line("destroy", "!(_this) == true."));
}

TEST_F(SchedDelegate, DestroyLeavesTheRecord)
{
    qor_sched_delegate_t *delegate = a.delegate();

    qor_sched_delegate_destroy(delegate);
    qor_sched_delegate_destroy(delegate);

    EXPECT_EQ(delegate->context, a.get());
    EXPECT_TRUE(list_empty(&delegate->subscriber_head));
}

TEST_F(SchedDelegate, DestroyedDelegateTakesNoRegistrations)
{
    qor_sched_delegate_destroy(a.delegate());

    EXPECT_EQ(qor_context_subscribe(a.get(), topic, nullptr), -1);

    EXPECT_EQ(qor_topic_core_someone_subscribed(bus.get()->user_topic_core, topic), 0);
    EXPECT_EQ(out.printed(), line("subscribe", "create node failed."));
}

TEST_F(SchedDelegate, DestroyedDelegateStillServesTasksThatNameIt)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    ASSERT_EQ(publish(), 0);

    qor_sched_delegate_destroy(p.delegate());
    bus.run();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, RegistrationsUnderWayEndWithTheDelegate)
{
    for (int i = 0; i < 200; i++) {
        Actor actor(journal, "brief");
        qor_sched_delegate_t *delegate = actor.attach(bus.get(), QOR_BUS_ROLE_USER);
        std::thread registering([&] {
            for (int k = 0; k < 1000 && qor_context_subscribe(actor.get(), topic, nullptr) == 0;
                 k++) {
                qor_context_handler_listen(actor.get(), topic, nullptr);
                qor_context_filter(actor.get(), topic, nullptr);
            }
        });
        qor_sched_delegate_destroy(delegate);
        registering.join();

        qor_topic_t &left = bus.get()->user_topic_core->ids[topic];
        ASSERT_TRUE(list_empty(&left.subscriber_head));
        ASSERT_TRUE(list_empty(&left.listener_head));
        ASSERT_TRUE(list_empty(&left.filter_head));
    }
}

/* ---- registering ---- */

namespace {

struct Registration {
    const char *name;
    const char *function;
    const char *reverse_function;
    int32_t (*add)(qor_context_t *, qor_context_topic_t, qor_context_topic_attr_t *);
    int32_t (*remove)(qor_context_t *, qor_context_topic_t);
    list_head qor_topic_t::*of_topic;
    list_head qor_sched_delegate_t::*of_delegate;
    hal_thread_mutex_t qor_sched_delegate_t::*mutex;
    int32_t (*someone)(qor_topic_core_t *, qor_context_topic_t);
    void (*remove_from_table)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t);
};

void PrintTo(const Registration &registration, std::ostream *os)
{
    *os << registration.name;
}

class SchedDelegateRegistration : public SchedDelegate,
                                  public testing::WithParamInterface<Registration> {
protected:
    int length(const list_head &head)
    {
        int nodes = 0;
        for (const list_head *link = head.next; link != &head; link = link->next) {
            nodes++;
        }
        return nodes;
    }
    int in_topic(const qor_topic_core_t *table, qor_context_topic_t number = topic)
    {
        return length(table->ids[number].*kind.of_topic);
    }

    const Registration kind = GetParam();
    qor_topic_core_t *user = bus.get()->user_topic_core;
    qor_topic_core_t *sys = bus.get()->sys_topic_core;
};

INSTANTIATE_TEST_SUITE_P(
    All, SchedDelegateRegistration,
    testing::Values(
        Registration{"Subscribe", "subscribe", "unsubscribe", qor_context_handler_subscribe,
                     qor_context_handler_unsubscribe, &qor_topic_t::subscriber_head,
                     &qor_sched_delegate_t::subscriber_head,
                     &qor_sched_delegate_t::subscriber_mutex, qor_topic_core_someone_subscribed,
                     qor_topic_core_unsubscribe},
        Registration{"Listen", "listen", "unlisten", qor_context_handler_listen,
                     qor_context_handler_unlisten, &qor_topic_t::listener_head,
                     &qor_sched_delegate_t::listener_head, &qor_sched_delegate_t::listener_mutex,
                     qor_topic_core_someone_listened, qor_topic_core_unlisten},
        Registration{"Filter", "filter", "unfilter", qor_context_handler_filter,
                     qor_context_handler_unfilter, &qor_topic_t::filter_head,
                     &qor_sched_delegate_t::filter_head, &qor_sched_delegate_t::filter_mutex,
                     qor_topic_core_someone_filtered, qor_topic_core_unfilter}),
    case_name<Registration>);

} // namespace

TEST_P(SchedDelegateRegistration, GoesToTheTableOfTheRole)
{
    EXPECT_EQ(kind.add(a.get(), topic, nullptr), 0);
    EXPECT_EQ(in_topic(user), 1);
    EXPECT_EQ(in_topic(sys), 0);

    EXPECT_EQ(kind.add(s.get(), topic, nullptr), 0);
    EXPECT_EQ(in_topic(user), 1);
    EXPECT_EQ(in_topic(sys), 1);
}

TEST_P(SchedDelegateRegistration, OfAnUnknownRoleGoesToTheApplicationsTable)
{
    Actor odd(journal, "odd");
    odd.attach(bus.get(), 7);

    EXPECT_EQ(kind.add(odd.get(), topic, nullptr), 0);

    EXPECT_EQ(in_topic(user), 1);
}

TEST_P(SchedDelegateRegistration, IsKeptInTheDelegateOldestFirst)
{
    kind.add(a.get(), 3, nullptr);
    kind.add(a.get(), 0, nullptr);
    kind.add(a.get(), 1, nullptr);

    std::string order;
    const list_head &head = a.delegate()->*kind.of_delegate;
    for (list_head *link = head.next; link != &head; link = link->next) {
        char *at = reinterpret_cast<char *>(link) - offsetof(qor_topic_node_t, context_node);
        order += std::to_string(reinterpret_cast<qor_topic_node_t *>(at)->topic->topic);
    }

    EXPECT_EQ(order, "301");
}

TEST_P(SchedDelegateRegistration, CarriesItsAttributes)
{
    qor_context_topic_attr_t attr = {4, 6, -2};
    kind.add(a.get(), topic, &attr);

    list_head *link = (user->ids[topic].*kind.of_topic).next;
    char *at = reinterpret_cast<char *>(link) - offsetof(qor_topic_node_t, topic_node);
    const qor_topic_node_t *node = reinterpret_cast<qor_topic_node_t *>(at);

    EXPECT_EQ(node->attr.mask, 4);
    EXPECT_EQ(node->attr.point, 6);
    EXPECT_EQ(node->attr.priority, -2);
}

TEST_P(SchedDelegateRegistration, OnABadTopicIsReportedTwice)
{
    EXPECT_EQ(kind.add(a.get(), 4, nullptr), -1);

    EXPECT_EQ(out.printed(), bad_topic_line() + line(kind.function, "create node failed."));
    EXPECT_EQ(length(a.delegate()->*kind.of_delegate), 0);
}

TEST_P(SchedDelegateRegistration, EndsInBothLists)
{
    kind.add(a.get(), topic, nullptr);
    kind.add(b.get(), topic, nullptr);

    EXPECT_EQ(kind.remove(a.get(), topic), 0);

    EXPECT_EQ(in_topic(user), 1);
    EXPECT_EQ(length(a.delegate()->*kind.of_delegate), 0);
    EXPECT_EQ(length(b.delegate()->*kind.of_delegate), 1);
}

TEST_P(SchedDelegateRegistration, EndsOneAtATime)
{
    kind.add(a.get(), topic, nullptr);
    kind.add(a.get(), topic, nullptr);

    kind.remove(a.get(), topic);

    EXPECT_EQ(in_topic(user), 1);
    EXPECT_EQ(length(a.delegate()->*kind.of_delegate), 1);
}

TEST_P(SchedDelegateRegistration, ThatIsNotThereEndsSilently)
{
    EXPECT_EQ(kind.remove(a.get(), topic), 0);

    EXPECT_EQ(out.printed(), "");
}

TEST_P(SchedDelegateRegistration, OnABadTopicEndsWithTheTablesLine)
{
    EXPECT_EQ(kind.remove(a.get(), -1), 0);

    EXPECT_EQ(out.printed(), bad_topic_line());
}

TEST_P(SchedDelegateRegistration, ThatIsRemovedBeforeItIsFiledIsNotFiled)
{
    hal_thread_mutex_t &mutex = a.delegate()->*kind.mutex;
    pthread_mutex_lock(&mutex);
    std::thread registering([&] { EXPECT_EQ(kind.add(a.get(), topic, nullptr), 0); });
    const bool in_the_table = await([&] { return kind.someone(user, topic) != 0; });

    kind.remove_from_table(user, a.get(), topic);
    pthread_mutex_unlock(&mutex);
    registering.join();

    EXPECT_TRUE(in_the_table);
    EXPECT_EQ(in_topic(user), 0);
    EXPECT_EQ(length(a.delegate()->*kind.of_delegate), 0);
}

TEST_P(SchedDelegateRegistration, WithoutDelegateIsReported)
{
    qor_context_pub_data_set(a.get(), nullptr, nullptr);

    EXPECT_EQ(kind.add(a.get(), topic, nullptr), -1);
    EXPECT_EQ(kind.remove(a.get(), topic), -1);

    EXPECT_EQ(out.printed(), line(kind.function, "!(_this) == true.") +
                                 line(kind.reverse_function, "!(_this) == true."));
}

/* ---- session ---- */

TEST_F(SchedDelegate, SessionDrawsFromTheBus)
{
    bus.get()->session = 40;
    int32_t session = -1;

    EXPECT_EQ(qor_context_session(p.get(), &session), 0);
    EXPECT_EQ(session, 40);
    EXPECT_EQ(qor_context_session(s.get(), &session), 0);
    EXPECT_EQ(session, 41);
}

/* ---- publish ---- */

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
    PumpedBus::finish(relay);
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
    PumpedBus::finish(response);
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
    EXPECT_EQ(bus.run(), 0);
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
    bus.run();
    EXPECT_EQ(taken, "a77 p77 ");
}

TEST_F(SchedDelegate, PublishReturnsWhatTheSubscribersTaskHandlerSays)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    a.on_task = [](qor_context_task_t *) { return -9; };

    EXPECT_EQ(publish(), -9);

    EXPECT_EQ(bus.run(), 0);
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
    bus.run();

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
    bus.run();
    EXPECT_EQ(journal.text(), "b:REQUEST p:RESPONSE");

    journal.clear();
    qor_context_unsubscribe(b.get(), topic);
    publish();
    bus.run();
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, PublisherMayBeItsOwnSubscriber)
{
    qor_context_subscribe(p.get(), topic, nullptr);

    publish();
    bus.run();

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
    bus.run();

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
    bus.run();

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
    EXPECT_EQ(bus.run(), 4); /* two for the listener, relay, response */

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

    EXPECT_EQ(bus.run(), 0);
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
    EXPECT_EQ(bus.run(), 1);
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
    EXPECT_EQ(bus.run(), 0);
}

TEST_F(SchedDelegate, PublishLeavesTheSubscriberEntered)
{
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    EXPECT_EQ(a.entries, 1);
    EXPECT_EQ(a.leaves, 0);
    bus.run();

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

    bus.run();

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

    bus.run();

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
    bus.run();

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
    bus.run();

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
    bus.run();

    EXPECT_EQ(ret, 8); /* the handler's result counts */
    EXPECT_EQ(out.printed(), line("handle_message_aim", "pause failed. context = a"));
}

TEST_F(SchedDelegate, ResponseIsDroppedWhenThePublisherCannotBeEntered)
{
    p.on_resume = [] { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run();

    EXPECT_EQ(journal.text(), "a:REQUEST");
    EXPECT_EQ(p.leaves, 0);
    EXPECT_EQ(out.printed(), line("handle_message_self", "resume failed. context = p"));
}

TEST_F(SchedDelegate, ResponseReportsAPublisherThatCannotBeLeft)
{
    p.on_pause = [] { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run();

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
    PumpedBus::finish(relay);
    qor_context_task_t *response = bus.take();
    EXPECT_EQ(reinterpret_cast<intptr_t>(qor_context_task_excute(response)), -31);
    p.on_resume = [] { return -1; };
    EXPECT_EQ(reinterpret_cast<intptr_t>(qor_context_task_excute(response)), -1);
    PumpedBus::finish(response);
}

TEST_F(SchedDelegate, RefusedResponseFreesItsClone)
{
    p.on_task = [](qor_context_task_t *) { return -1; };
    qor_context_subscribe(a.get(), topic, nullptr);

    publish();
    bus.run(); /* the leak checker sees a clone that stays */

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

    EXPECT_EQ(bus.run(), 0);
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

/* ---- publishx ---- */

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
    EXPECT_EQ(bus.run(), 0);
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
    EXPECT_EQ(bus.run(), 2);
    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE b:LISTEN_AFTER");
}

TEST_F(SchedDelegate, PublishxWithoutSubscriberStillPassesTheAfterPoints)
{
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_handler_listen(c.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);
    bus.run();

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

/* ---- filters ---- */

TEST_F(SchedDelegate, AFailingFilterDoesNotPreventDelivery)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_filter(b.get(), topic, nullptr);
    qor_context_filter(c.get(), topic, nullptr);
    c.on_message = [](qor_context_msg_t *) { return -1; };

    EXPECT_EQ(publish(), 0);
    bus.run();

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
    bus.run();

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
    bus.run();

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
    bus.run();

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
    bus.run();

    EXPECT_EQ(journal.text(), "b:LISTEN_BEFORE a:LISTEN_BEFORE a:LISTEN_AFTER");
}

/* ---- points ---- */

namespace {

struct PointCase {
    const char *name;
    int32_t point;
    const char *others; /* the points at which another context's publication is seen */
    const char *own;    /* the same for the registered context's own publication */
};

void PrintTo(const PointCase &point, std::ostream *os)
{
    *os << point.name;
}

class SchedDelegatePoint : public SchedDelegate, public testing::WithParamInterface<PointCase> {
protected:
    /* What a sees when p, and then a itself, publishes; "before", "after" or both. */
    std::string seen(Actor &publisher)
    {
        journal.clear();
        qor_context_msg_t msg = request();
        qor_context_handler_publishx(publisher.get(), &msg);
        bus.run();
        std::string points = journal.text();
        for (const char *word : {"a:FILTER_", "a:LISTEN_"}) {
            for (size_t at; (at = points.find(word)) != std::string::npos;) {
                points.erase(at, strlen(word));
            }
        }
        return points;
    }
};

constexpr int32_t except_self = QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF;

INSTANTIATE_TEST_SUITE_P(
    All, SchedDelegatePoint,
    testing::Values(PointCase{"Before", QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, "BEFORE", "BEFORE"},
                    PointCase{"After", QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, "AFTER", "AFTER"},
                    PointCase{"Around", QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND, "BEFORE AFTER",
                              "BEFORE AFTER"},
                    PointCase{"AroundExceptSelf", QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | except_self,
                              "BEFORE AFTER", ""},
                    PointCase{"BeforeExceptSelf", QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE | except_self,
                              "BEFORE", ""},
                    PointCase{"ExceptSelfAlone", except_self, "", ""},
                    PointCase{"Nowhere", 0, "", ""}, PointCase{"UnknownBit", 8, "", ""}),
    case_name<PointCase>);

} // namespace

TEST_P(SchedDelegatePoint, DecidesWhenAFilterIsCalled)
{
    qor_context_topic_attr_t attr = at_point(GetParam().point);
    qor_context_filter(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
    EXPECT_EQ(seen(a), GetParam().own);
}

TEST_P(SchedDelegatePoint, DecidesWhenAListenerIsCalled)
{
    qor_context_topic_attr_t attr = at_point(GetParam().point);
    qor_context_handler_listen(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
    EXPECT_EQ(seen(a), GetParam().own);
}

TEST_P(SchedDelegatePoint, CountsWhateverTheMaskSays)
{
    qor_context_topic_attr_t attr = {0, GetParam().point, 0};
    qor_context_filter(a.get(), topic, &attr);

    EXPECT_EQ(seen(p), GetParam().others);
}

/* ---- listeners ---- */

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
    EXPECT_EQ(bus.run(), 1);

    ASSERT_EQ(clones.size(), 4u);
    EXPECT_EQ(clones[0], clones[1]);
    EXPECT_EQ(clones[2], clones[3]);
    EXPECT_NE(clones[0], clones[2]);
    EXPECT_NE(clones[0], &msg);
    PumpedBus::finish(before);
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
    bus.run();

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
    bus.run();

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
    bus.run();

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

/* ---- system calls ---- */

TEST_F(SchedDelegate, SyscallIsATaskWithoutResponse)
{
    qor_context_subscribe(s.get(), QOR_SYS_MONITOR_TASK, nullptr);
    qor_context_subscribe(a.get(), QOR_SYS_MONITOR_TASK, nullptr); /* the application's topic 3 */
    qor_context_msg_t msg = request(QOR_SYS_MONITOR_TASK);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), 0);
    EXPECT_EQ(journal.text(), "");
    qor_context_task_t *task = bus.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 77);
    EXPECT_EQ(task->context, p.get());
    EXPECT_EQ(reinterpret_cast<void *>(task->recycle),
              reinterpret_cast<void *>(qor_context_msg_destroy));
    EXPECT_EQ(qor_context_task_excute(task), nullptr);
    PumpedBus::finish(task);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(bus.run(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, SyscallLeavesFiltersAndListenersOut)
{
    Actor t(journal, "t");
    t.attach(bus.get(), QOR_BUS_ROLE_SYS);
    qor_context_filter(t.get(), topic, nullptr);
    qor_context_handler_listen(t.get(), topic, nullptr);
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    qor_context_handler_syscall(p.get(), &msg);
    qor_context_handler_syscallx(p.get(), &msg);
    bus.run();

    EXPECT_EQ(journal.text(), "s:REQUEST s:REQUEST");
}

TEST_F(SchedDelegate, SyscallHandsAClone)
{
    char question[] = "who";
    std::string asked;
    qor_context_subscribe(s.get(), topic, nullptr);
    s.on_message = [&](qor_context_msg_t *msg) {
        asked = static_cast<char *>(msg->request.buf);
        return -1;
    };
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, topic, question, sizeof(question));

    qor_context_handler_syscall(p.get(), &msg);
    memset(question, 'x', sizeof(question) - 1);
    bus.run();

    EXPECT_EQ(asked, "who");
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(out.printed(), ""); /* a failure goes nowhere */
}

TEST_F(SchedDelegate, SyscallReturnsWhatTheModulesTaskHandlerSays)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    s.on_task = [](qor_context_task_t *) { return -6; };
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -6);

    EXPECT_EQ(bus.run(), 0);
}

TEST_F(SchedDelegate, SyscallToATopicWithoutModuleIsReported)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), line("syscall", "!(node) == true."));
    EXPECT_EQ(bus.run(), 0);
}

TEST_F(SchedDelegate, SyscallToABadTopicIsReported)
{
    qor_context_msg_t msg = request(QOR_SYS_NUM);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), bad_topic_line() + line("syscall", "!(node) == true."));
}

TEST_F(SchedDelegate, SyscallWithoutDelegateOrBusIsReported)
{
    qor_context_msg_t msg = request();
    qor_bus_t *its_bus = p.delegate()->bus;
    p.delegate()->bus = nullptr;
    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);
    p.delegate()->bus = its_bus;

    qor_context_pub_data_set(p.get(), nullptr, nullptr);
    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    const std::string text = line("syscall", "!(_this && _this->bus) == true.");
    EXPECT_EQ(out.printed(), text + text);
}

TEST_F(SchedDelegate, SyscallWhoseModuleLeavesIsReportedByItsTask)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    qor_context_handler_syscall(p.get(), &msg);
    qor_context_unsubscribe(s.get(), topic);

    bus.run();

    EXPECT_EQ(journal.text(), "");
    EXPECT_EQ(out.printed(), line("syscallx", "no one subscribe, source:p, topic:2, session=77"));
}

TEST_F(SchedDelegate, SyscallxHandlesTheCallersOwnMessage)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    const qor_context_msg_t *own = &msg;
    s.on_message = [own](qor_context_msg_t *seen) {
        EXPECT_EQ(seen, own);
        return -21;
    };

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -21);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, SyscallxTakesAMessageOfAnyType)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    msg.type = QOR_CONTEXT_MSG_RESPONSE;

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), 0);

    EXPECT_EQ(journal.text(), "s:RESPONSE");
}

TEST_F(SchedDelegate, SyscallxWithoutModuleIsReported)
{
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), line("syscallx", "no one subscribe, source:p, topic:2, session=77"));
}

TEST_F(SchedDelegate, SyscallxToABadTopicIsReported)
{
    qor_context_msg_t msg = request(QOR_SYS_NUM);

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), bad_topic_line() + line("syscallx", "no one subscribe, source:p, "
                                                                 "topic:4, session=77"));
}

TEST_F(SchedDelegate, SystemCallsLeaveTheModuleEntered)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    qor_context_handler_syscallx(p.get(), &msg);
    EXPECT_EQ(s.entries, 1);
    qor_context_handler_syscall(p.get(), &msg);
    bus.run();

    EXPECT_EQ(s.entries, 3);
    EXPECT_EQ(s.leaves, 0);
}

/* ---- posting and cancelling ---- */

TEST_F(SchedDelegate, PostWithoutDelayGoesToTheTaskQueue)
{
    qor_context_task_t now = note_task(p, 5, 0);
    qor_context_task_t overdue = note_task(p, 6, INT32_MIN);

    EXPECT_EQ(qor_context_handler_post(p.get(), &now), 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &overdue), 0);

    EXPECT_EQ(bus.get()->time_que->count, 0);
    EXPECT_EQ(bus.run(), 2);
    EXPECT_EQ(journal.text(), "ran 5 ran 6");
}

TEST_F(SchedDelegate, PostWithADelayOfOneGoesToTheTimerQueue)
{
    qor_context_task_t task = note_task(p, 5, 1);

    EXPECT_EQ(qor_context_handler_post(p.get(), &task), 0);

    EXPECT_EQ(bus.get()->time_que->count, 1);
    EXPECT_EQ(bus.run(), 0);
}

TEST_F(SchedDelegate, ARefusedPostSpeaksOfATimer)
{
    qor_context_task_t now = note_task(p, 5, 0);
    qor_context_task_t later = note_task(p, 6, 1000);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_context_handler_post(p.get(), &now), -1);
    EXPECT_EQ(qor_context_handler_post(p.get(), &later), -1);

    EXPECT_EQ(out.printed(),
              line("post", "create a timer failed, source:p, task:note, session=5") +
                  line("post", "create a timer failed, source:p, task:note, session=6"));
}

TEST_F(SchedDelegate, NullTaskIsReported)
{
    EXPECT_EQ(qor_context_handler_post(p.get(), nullptr), -1);

    EXPECT_EQ(out.printed(), line("post", "!(task) == true."));
}

TEST_F(SchedDelegate, CancelledTaskDoesNotRun)
{
    qor_context_task_t task = note_task(p, 5, 0);
    qor_context_handler_post(p.get(), &task);

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), 0);

    EXPECT_EQ(bus.run(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, CancelOfATaskThatIsNotQueuedIsReported)
{
    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    EXPECT_EQ(out.printed(), line("cancel", "cancel a timer failed, source:p, session=5"));
    qor_context_task_t task = note_task(p, 5, 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), 0); /* the queue is still there */
    EXPECT_EQ(bus.run(), 1);
}

TEST_F(SchedDelegate, CancelDoesNotFindATimer)
{
    qor_context_task_t task = note_task(p, 5, 60000);
    qor_context_handler_post(p.get(), &task);

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    EXPECT_EQ(bus.get()->time_que->count, 1);
}

TEST_F(SchedDelegate, EveryOperationReportsAContextWithoutDelegate)
{
    qor_context_pub_data_set(p.get(), nullptr, nullptr);
    qor_context_msg_t msg = request();
    qor_context_task_t task = note_task(p, 5, 0);
    int32_t session = 0;

    EXPECT_EQ(qor_context_session(p.get(), &session), -1);
    EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), -1);
    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    std::string lines;
    for (const char *function : {"session", "publish", "publishx", "syscallx", "post", "cancel"}) {
        lines += line(function, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), lines);
}

/* ---- on threads ---- */

TEST_F(SchedDelegate, PublishWaitsForItsSubscriberWhileOthersRegister)
{
    std::atomic<bool> waits{false}, started{false};
    a.on_resume = [&] {
        waits = true;
        return await([&] { return started.load(); }) ? 0 : -1;
    };
    qor_context_subscribe(a.get(), topic, nullptr);
    std::thread publishing([&] { EXPECT_EQ(publish(), 0); });
    ASSERT_TRUE(await([&] { return waits.load(); }));

    EXPECT_EQ(qor_context_subscribe(b.get(), topic, nullptr), 0);
    EXPECT_EQ(qor_context_unsubscribe(b.get(), topic), 0);
    started = true;
    publishing.join();
    bus.run();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST(SchedDelegateThreads, EveryRequestGetsItsResponse)
{
    constexpr int publishers = 3, times = 300;
    LoopingBus bus(/* workers */ 3);
    Journal journal;
    Actor a(journal, "a");
    std::atomic<int> responses{0};
    std::vector<std::unique_ptr<Actor>> actors;
    a.attach(bus.get(), QOR_BUS_ROLE_USER);
    a.on_message = [](qor_context_msg_t *msg) {
        int32_t number;
        memcpy(&number, msg->request.buf, sizeof(number));
        return number;
    };
    qor_context_subscribe(a.get(), 0, nullptr);
    for (int i = 0; i < publishers; i++) {
        actors.push_back(std::make_unique<Actor>(journal, "p"));
        actors.back()->attach(bus.get(), QOR_BUS_ROLE_USER);
        actors.back()->on_message = [&](qor_context_msg_t *msg) {
            EXPECT_EQ(msg->ret, msg->session); /* as the subscriber was asked */
            responses++;
            return 0;
        };
    }
    bus.start();

    std::vector<std::thread> threads;
    for (auto &actor : actors) {
        threads.emplace_back([&] {
            for (int k = 0; k < times; k++) {
                qor_context_msg_t msg;
                int32_t session = -1;
                qor_context_session(actor->get(), &session);
                qor_context_msg_fill(&msg, session, 0, &session, sizeof(session));
                EXPECT_EQ(qor_context_handler_publish(actor->get(), &msg), 0);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(await([&] { return responses == publishers * times; }));
    bus.stop();
}

TEST(SchedDelegateThreads, QuitEndsTheTrafficThatIsUnderWay)
{
    LoopingBus bus(/* workers */ 2);
    Journal journal;
    Actor a(journal, "a"), p(journal, "p");
    std::atomic<int> handled{0};
    Output out; /* refusals after the quit */
    for (Actor *actor : {&a, &p}) {
        actor->attach(bus.get(), QOR_BUS_ROLE_USER);
    }
    a.on_message = [&](qor_context_msg_t *) {
        handled++;
        return 0;
    };
    qor_context_subscribe(a.get(), 0, nullptr);
    qor_context_handler_listen(p.get(), 0, nullptr);
    bus.start();
    std::thread publishing([&] {
        for (int32_t sent = 0; sent >= 0;) {
            qor_context_msg_t msg;
            qor_context_msg_fill(&msg, 1, 0, &sent, sizeof(sent));
            sent = qor_context_handler_publish(p.get(), &msg);
        }
    });

    EXPECT_TRUE(await([&] { return handled > 20; }));
    bus.stop();
    publishing.join();

    EXPECT_EQ(bus.result, 0);
}
