/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_topic_core.h"

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "case_name.hpp"
#include "door.hpp"
#include "output.hpp"
#include "qor_sched_delegate.h"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

constexpr int32_t topics = 3;

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_topic_core", function, text);
}

/* What every operation prints for a bad topic number. */
std::string bad_topic_line()
{
    return line("qor_topic_core_topic_check", "topic invalid.\n");
}

class TopicCore : public testing::Test {
protected:
    ~TopicCore() override
    {
        for (qor_context_topic_t topic = 0; topic < topics; topic++) {
            while (qor_topic_core_someone_subscribed(table, topic)) {
                for (Actor *actor : {&a, &b, &c}) {
                    qor_topic_core_unsubscribe(table, actor->get(), topic);
                }
            }
        }
        qor_topic_core_destroy(table);
    }

    qor_topic_core_t *table = qor_topic_core_create(topics);
    Journal journal;
    Actor a{journal, "a"}, b{journal, "b"}, c{journal, "c"};
    Output out;
};

/* Contexts of a bus, for what only shows while the library itself walks. */
struct Publication {
    Publication()
    {
        for (Actor *actor : {&p, &a, &b, &c}) {
            actor->attach(bus.get(), QOR_BUS_ROLE_USER);
        }
    }

    /* Sends a request to topic 0, which is handled on this thread; listeners follow in run_all().
     */
    void publish()
    {
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 1, 0, nullptr, 0);
        qor_context_handler_publishx(p.get(), &msg);
    }

    /* For filters and listeners of the point before the handler only. */
    qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p{journal, "p"}, a{journal, "a"}, b{journal, "b"}, c{journal, "c"};
};

/* One of the three lists of a topic, and the operations on it. */
struct Kind {
    const char *name;
    const char *by_node_name;
    const char *add_name;
    qor_topic_node_t *(*add)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t,
                             qor_context_topic_attr_t *);
    void (*remove)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t);
    void (*remove_node)(qor_topic_core_t *, qor_topic_node_t *);
    int32_t (*someone)(qor_topic_core_t *, qor_context_topic_t);
    qor_topic_node_t *(*next)(qor_topic_core_t *, qor_context_topic_t, qor_topic_node_t *);
    list_head qor_topic_t::*head;
    hal_thread_mutex_t qor_topic_t::*mutex;
    int32_t someone_of_bad_topic;
};

void PrintTo(const Kind &kind, std::ostream *os)
{
    *os << kind.name;
}

const Kind kinds[] = {
    {"Subscriber", "qor_topic_core_unsubscribe_by_node", "qor_topic_core_subscribe",
     qor_topic_core_subscribe, qor_topic_core_unsubscribe, qor_topic_core_unsubscribe_by_node,
     qor_topic_core_someone_subscribed, qor_topic_core_subscriber_node_next,
     &qor_topic_t::subscriber_head, &qor_topic_t::subscriber_mutex, 0},
    {"Listener", "qor_topic_core_unlisten_by_node", "qor_topic_core_listen", qor_topic_core_listen,
     qor_topic_core_unlisten, qor_topic_core_unlisten_by_node, qor_topic_core_someone_listened,
     qor_topic_core_listener_node_next, &qor_topic_t::listener_head, &qor_topic_t::listener_mutex,
     0},
    {"Filter", "qor_topic_core_unfilter_by_node", "qor_topic_core_filter", qor_topic_core_filter,
     qor_topic_core_unfilter, qor_topic_core_unfilter_by_node, qor_topic_core_someone_filtered,
     qor_topic_core_filter_node_next, &qor_topic_t::filter_head, &qor_topic_t::filter_mutex, -1},
};

class TopicCoreKind : public testing::TestWithParam<Kind> {
protected:
    ~TopicCoreKind() override
    {
        for (qor_topic_node_t *node : made) {
            kind.remove_node(table, node);
        }
        qor_topic_core_destroy(table);
    }

    /* Registers until the end of the test. */
    qor_topic_node_t *add(Actor &actor, qor_context_topic_t topic = 1,
                          qor_context_topic_attr_t *attr = nullptr)
    {
        made.push_back(kind.add(table, actor.get(), topic, attr));
        return made.back();
    }

    /* The names of the contexts that a walk visits, in order. */
    std::string walk(qor_context_topic_t topic = 1)
    {
        std::string names;
        for (qor_topic_node_t *node = kind.next(table, topic, nullptr); node;
             node = kind.next(table, topic, node)) {
            names += Actor::of(node->context).name;
        }
        return names;
    }

    const Kind kind = GetParam();
    qor_topic_core_t *table = qor_topic_core_create(topics);
    std::vector<qor_topic_node_t *> made;
    Journal journal;
    Actor a{journal, "a"}, b{journal, "b"}, c{journal, "c"};
    Output out;
};

INSTANTIATE_TEST_SUITE_P(All, TopicCoreKind, testing::ValuesIn(kinds), case_name<Kind>);

} // namespace

TEST_F(TopicCore, IsCreatedWithEmptyNumberedTopics)
{
    EXPECT_EQ(table->id_max, topics);
    for (int32_t i = 0; i < topics; i++) {
        qor_topic_t &topic = table->ids[i];
        EXPECT_EQ(topic.topic, i);
        EXPECT_TRUE(list_empty(&topic.subscriber_head));
        EXPECT_TRUE(list_empty(&topic.listener_head));
        EXPECT_TRUE(list_empty(&topic.filter_head));
    }
}

TEST_F(TopicCore, WithoutTopicsRejectsEveryNumber)
{
    qor_topic_core_t *empty = qor_topic_core_create(0);

    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(qor_topic_core_subscribe(empty, a.get(), 0, nullptr), nullptr);
    EXPECT_EQ(out.printed(), bad_topic_line());
    qor_topic_core_destroy(empty);
}

TEST_F(TopicCore, SomeoneFilteredAnswersMinusOneForABadTopic)
{
    EXPECT_EQ(qor_topic_core_someone_filtered(table, topics), -1);
    EXPECT_EQ(qor_topic_core_someone_subscribed(table, topics), 0);
    EXPECT_EQ(qor_topic_core_someone_listened(table, topics), 0);
}

TEST_F(TopicCore, NullTableIsReported)
{
    EXPECT_EQ(qor_topic_core_subscribe(nullptr, a.get(), 0, nullptr), nullptr);

    EXPECT_EQ(out.printed(), line("qor_topic_core_topic_check", "!(_this) == true."));
}

TEST_F(TopicCore, DestroyLeavesRegistrationsAllocated)
{
    qor_topic_core_t *other = qor_topic_core_create(1);
    qor_topic_node_t *node = qor_topic_core_subscribe(other, a.get(), 0, nullptr);

    qor_topic_core_destroy(other);

    EXPECT_EQ(node->context, a.get());
    INIT_LIST_HEAD(&node->topic_node); /* the list's head is gone */
    qor_topic_node_destroy(node);
}

TEST_F(TopicCore, AWalkEndsAtAContextThatCannotBeEntered)
{
    for (Actor *actor : {&a, &b, &c}) {
        qor_topic_core_subscribe(table, actor->get(), 0, nullptr);
    }
    b.on_resume = [] { return -1; };

    qor_topic_node_t *first = qor_topic_core_subscriber_node_next(table, 0, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->context, c.get());
    EXPECT_EQ(qor_topic_core_subscriber_node_next(table, 0, first), nullptr);

    EXPECT_EQ(a.entries, 0);
    EXPECT_EQ(out.printed(), line("qor_topic_core_node_next", "resume failed. context = b"));
}

TEST_F(TopicCore, KindsAndTopicsAreIndependent)
{
    qor_topic_core_subscribe(table, a.get(), 1, nullptr);

    EXPECT_EQ(qor_topic_core_someone_subscribed(table, 1), 1);
    EXPECT_EQ(qor_topic_core_someone_listened(table, 1), 0);
    EXPECT_EQ(qor_topic_core_someone_filtered(table, 1), 0);
    EXPECT_EQ(qor_topic_core_someone_subscribed(table, 0), 0);
    qor_topic_core_unlisten(table, a.get(), 1);
    qor_topic_core_unfilter(table, a.get(), 1);
    EXPECT_EQ(qor_topic_core_someone_subscribed(table, 1), 1);
}

TEST_F(TopicCore, RegisteringDoesNotWaitForAContextThatIsBeingEntered)
{
    Door start;
    a.on_resume = [&] { return start.pass() ? 0 : -1; };
    qor_topic_core_subscribe(table, a.get(), 0, nullptr);
    Thread delivery([&] { qor_topic_core_subscriber_node_next(table, 0, nullptr); });
    ASSERT_TRUE(start.await(1));

    Thread registering([&] { qor_topic_core_subscribe(table, b.get(), 0, nullptr); });
    registering.join();

    start.open();
    delivery.join();
    EXPECT_EQ(a.entries, 1);
}

TEST_F(TopicCore, AWalkGoesOnFromARemovedNode)
{
    Publication on;
    for (Actor *actor : {&on.a, &on.b, &on.c}) {
        qor_context_filter(actor->get(), 0, &on.before);
    }
    on.c.on_message = [&](qor_context_msg_t *) { return qor_context_unfilter(on.c.get(), 0); };

    on.publish();
    EXPECT_EQ(on.journal.text(), "c:FILTER_BEFORE b:FILTER_BEFORE a:FILTER_BEFORE");

    on.journal.clear();
    on.publish();
    EXPECT_EQ(on.journal.text(), "b:FILTER_BEFORE a:FILTER_BEFORE");
}

TEST_F(TopicCore, WalkPassesOverNodesThatWereRemovedAheadOfIt)
{
    Publication on;
    for (Actor *actor : {&on.a, &on.b, &on.c}) {
        qor_context_filter(actor->get(), 0, &on.before);
    }
    on.c.on_message = [&](qor_context_msg_t *) {
        qor_context_unfilter(on.c.get(), 0); /* leads to b, which leads to a */
        return qor_context_unfilter(on.b.get(), 0);
    };

    on.publish();

    EXPECT_EQ(on.journal.text(), "c:FILTER_BEFORE a:FILTER_BEFORE");
    EXPECT_EQ(on.b.entries, 0);
}

TEST_F(TopicCore, WalkEndsWhenNothingIsLeftBehindARemovedNode)
{
    Publication on;
    qor_context_filter(on.a.get(), 0, &on.before);
    qor_context_filter(on.b.get(), 0, &on.before);
    on.b.on_message = [&](qor_context_msg_t *) {
        qor_context_unfilter(on.b.get(), 0);
        return qor_context_unfilter(on.a.get(), 0);
    };

    on.publish();

    EXPECT_EQ(on.journal.text(), "b:FILTER_BEFORE");
    EXPECT_EQ(qor_topic_core_someone_filtered(on.bus.get()->user_topic_core, 0), 0);
}

TEST_F(TopicCore, WalkDoesNotTurnBackToWhoeverRegistersMeanwhile)
{
    Publication on;
    qor_context_filter(on.a.get(), 0, &on.before);
    qor_context_filter(on.b.get(), 0, &on.before);
    on.b.on_message = [&](qor_context_msg_t *) {
        qor_context_filter(on.c.get(), 0, &on.before);
        qor_context_unfilter(on.b.get(), 0);
        return qor_context_unfilter(on.a.get(), 0);
    };

    on.publish();
    EXPECT_EQ(on.journal.text(), "b:FILTER_BEFORE");

    on.publish();
    EXPECT_EQ(on.journal.text(), "b:FILTER_BEFORE c:FILTER_BEFORE");
}

TEST_F(TopicCore, WalkGoesOnFromANodeThatAnotherThreadRemoves)
{
    Publication on;
    qor_context_listen(on.a.get(), 0, &on.before);
    qor_context_listen(on.b.get(), 0, &on.before);
    on.b.on_message = [&](qor_context_msg_t *) {
        Thread([&] { qor_context_handler_unlisten(on.b.get(), 0); }).join();
        return 0;
    };

    on.publish();
    on.bus.run_all();

    EXPECT_EQ(on.journal.text(), "b:LISTEN_BEFORE a:LISTEN_BEFORE");
}

TEST_F(TopicCore, NodeMayBeRemovedWhileItsContextIsBeingEntered)
{
    Publication on;
    qor_context_subscribe(on.a.get(), 0, nullptr);
    on.a.on_resume = [&] {
        Thread([&] { qor_context_unsubscribe(on.a.get(), 0); }).join();
        return 0;
    };

    on.publish();

    EXPECT_EQ(on.journal.text(), "a:REQUEST");
    EXPECT_EQ(qor_topic_core_someone_subscribed(on.bus.get()->user_topic_core, 0), 0);
}

TEST_F(TopicCore, OneContextMayRegisterAndUnregisterOnTwoThreads)
{
    constexpr int times = 2000;
    Publication on;
    Thread registering([&] {
        for (int i = 0; i < times; i++) {
            EXPECT_EQ(qor_context_subscribe(on.a.get(), 0, nullptr), 0);
        }
    });
    for (int i = 0; i < times; i++) {
        EXPECT_EQ(qor_context_unsubscribe(on.a.get(), 0), 0);
    }
    registering.join();

    for (int i = 0; i < times; i++) {
        qor_context_unsubscribe(on.a.get(), 0);
    }

    EXPECT_EQ(qor_topic_core_someone_subscribed(on.bus.get()->user_topic_core, 0), 0);
    EXPECT_TRUE(list_empty(&on.a.delegate()->subscriber_head));
}

TEST_F(TopicCore, WalksAndRemovalsRunSideBySide)
{
    constexpr int times = 2000;
    Publication on;
    qor_context_filter(on.a.get(), 0, &on.before);
    std::vector<Thread> threads;
    for (int i = 0; i < 2; i++) {
        threads.emplace_back([&] {
            for (int k = 0; k < times; k++) {
                on.publish();
            }
        });
    }
    for (Actor *actor : {&on.b, &on.c}) {
        threads.emplace_back([&on, actor] {
            for (int k = 0; k < times; k++) {
                qor_context_filter(actor->get(), 0, &on.before);
                qor_context_unfilter(actor->get(), 0);
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    /* Every walk, before and after the handler, has reached the oldest node. */
    EXPECT_EQ(on.a.entries, 2 * 2 * times);
    EXPECT_EQ(on.a.leaves, 2 * times);
}

TEST_F(TopicCore, NodeWithoutAttributesIsCalledAround)
{
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[2], a.get(), nullptr);

    EXPECT_EQ(node->topic, &table->ids[2]);
    EXPECT_EQ(node->context, a.get());
    EXPECT_EQ(node->attr.mask, QOR_CONTEXT_TOPIC_ATTR_POINT);
    EXPECT_EQ(node->attr.point, QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND);
    EXPECT_EQ(node->attr.priority, 0);
    EXPECT_TRUE(list_empty(&node->context_node));
    EXPECT_TRUE(list_empty(&node->topic_node));
    qor_topic_node_destroy(node);
}

TEST_F(TopicCore, NodeKeepsItsAttributesAsTheyAre)
{
    qor_context_topic_attr_t attr = {-9, 77, INT32_MIN};
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[0], a.get(), &attr);

    EXPECT_EQ(node->attr.mask, -9);
    EXPECT_EQ(node->attr.point, 77);
    EXPECT_EQ(node->attr.priority, INT32_MIN);
    qor_topic_node_destroy(node);
}

TEST_F(TopicCore, NodeDestroyUnlinksFromBothLists)
{
    list_head own;
    INIT_LIST_HEAD(&own);
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[0], a.get(), nullptr);
    list_add(&node->context_node, &own);
    list_add(&node->topic_node, &table->ids[0].filter_head);

    qor_topic_node_destroy(node);

    EXPECT_TRUE(list_empty(&own));
    EXPECT_TRUE(list_empty(&table->ids[0].filter_head));
}

TEST_F(TopicCore, NodeDestroyTakesNullLinksForUnlinked)
{
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[0], a.get(), nullptr);
    node->context_node = {nullptr, nullptr};
    node->topic_node = {nullptr, nullptr};

    qor_topic_node_destroy(node); /* would fault on the links */

    EXPECT_EQ(out.printed(), "");
}

TEST_F(TopicCore, NodeDestroyReportsNull)
{
    qor_topic_node_destroy(nullptr);

    EXPECT_EQ(out.printed(), line("qor_topic_node_destroy", "!(node) == true."));
}

TEST_P(TopicCoreKind, RegistrationStandsInTheListOfItsTopic)
{
    qor_context_topic_attr_t attr = {QOR_CONTEXT_TOPIC_ATTR_PRIORITY, 5, 8};

    qor_topic_node_t *node = add(a, 2, &attr);

    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->topic, &table->ids[2]);
    EXPECT_EQ(node->context, a.get());
    EXPECT_EQ(node->attr.mask, QOR_CONTEXT_TOPIC_ATTR_PRIORITY);
    EXPECT_EQ(node->attr.point, 5);
    EXPECT_EQ(node->attr.priority, 8);
    EXPECT_EQ((table->ids[2].*kind.head).next, &node->topic_node);
    EXPECT_TRUE(list_empty(&node->context_node));
}

TEST_P(TopicCoreKind, RegistrationWithoutAttributesIsCalledAround)
{
    const qor_topic_node_t *node = add(a);

    EXPECT_EQ(node->attr.mask, QOR_CONTEXT_TOPIC_ATTR_POINT);
    EXPECT_EQ(node->attr.point, QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND);
    EXPECT_EQ(node->attr.priority, 0);
}

TEST_P(TopicCoreKind, WalkGoesFromTheNewestToTheOldest)
{
    add(a);
    add(b);
    add(c);

    EXPECT_EQ(walk(), "cba");
    EXPECT_EQ(out.printed(), "");
}

TEST_P(TopicCoreKind, PriorityDoesNotOrderTheWalk)
{
    qor_context_topic_attr_t urgent = {QOR_CONTEXT_TOPIC_ATTR_PRIORITY, 3, 1000};
    add(a, 1, &urgent);
    add(b);

    EXPECT_EQ(walk(), "ba");
}

TEST_P(TopicCoreKind, WalkOfAnEmptyTopicEndsAtOnce)
{
    EXPECT_EQ(kind.next(table, 0, nullptr), nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(TopicCoreKind, EachStepEntersOneContextAndLeavesNone)
{
    add(a);
    add(b);

    qor_topic_node_t *first = kind.next(table, 1, nullptr);
    EXPECT_EQ(b.entries, 1);
    EXPECT_EQ(a.entries, 0);
    kind.next(table, 1, first);
    EXPECT_EQ(a.entries, 1);
    EXPECT_EQ(a.leaves + b.leaves, 0);
}

TEST_P(TopicCoreKind, WalkEndsAtAContextThatRefuses)
{
    add(a);
    add(b);
    add(c);
    b.on_resume = [] { return -3; };

    EXPECT_EQ(walk(), "c");
    EXPECT_EQ(a.entries, 0);
    EXPECT_EQ(out.printed(), line("qor_topic_core_node_next", "resume failed. context = b"));
}

TEST_P(TopicCoreKind, WalkUnderWayDoesNotSeeANewRegistration)
{
    add(a);
    add(b);
    qor_topic_node_t *first = kind.next(table, 1, nullptr);

    add(c);

    EXPECT_EQ(kind.next(table, 1, first)->context, a.get());
}

TEST_P(TopicCoreKind, ContextRegisteredTwiceIsVisitedTwice)
{
    add(a);
    add(b);
    add(a);

    EXPECT_EQ(walk(), "aba");
}

TEST_P(TopicCoreKind, RemoveTakesTheNewestOfTheContextOnly)
{
    add(a);
    add(b);
    kind.add(table, a.get(), 1, nullptr);

    kind.remove(table, a.get(), 1);

    EXPECT_EQ(walk(), "ba");
}

TEST_P(TopicCoreKind, RemoveFindsAContextBehindOthers)
{
    kind.add(table, a.get(), 1, nullptr);
    add(b);
    add(c);

    kind.remove(table, a.get(), 1);

    EXPECT_EQ(walk(), "cb");
}

TEST_P(TopicCoreKind, RemoveOfAStrangerIsSilent)
{
    add(a);

    kind.remove(table, b.get(), 1);
    kind.remove(table, a.get(), 0);

    EXPECT_EQ(walk(), "a");
    EXPECT_EQ(out.printed(), "");
}

TEST_P(TopicCoreKind, RemoveTakesTheNodeOutOfItsOwnersList)
{
    list_head own;
    INIT_LIST_HEAD(&own);
    qor_topic_node_t *node = kind.add(table, a.get(), 1, nullptr);
    list_add(&node->context_node, &own);

    kind.remove(table, a.get(), 1);

    EXPECT_TRUE(list_empty(&own));
}

TEST_P(TopicCoreKind, RemoveByNodeTakesThatNode)
{
    add(a);
    qor_topic_node_t *middle = kind.add(table, b.get(), 1, nullptr);
    add(c);

    kind.remove_node(table, middle);

    EXPECT_EQ(walk(), "ca");
}

TEST_P(TopicCoreKind, RemoveByNodeNeedsNoTable)
{
    qor_topic_node_t *node = kind.add(table, a.get(), 1, nullptr);

    kind.remove_node(nullptr, node);

    EXPECT_EQ(kind.someone(table, 1), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(TopicCoreKind, RemoveByNodeTakesANodeWithNullContextLinks)
{
    qor_topic_node_t *node = kind.add(table, a.get(), 1, nullptr);
    node->context_node = {nullptr, nullptr}; /* as list_del() leaves them */

    kind.remove_node(table, node);

    EXPECT_EQ(kind.someone(table, 1), 0);
}

TEST_P(TopicCoreKind, RemoveByNodeTakesANodeThatItsMakerLinked)
{
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[1], a.get(), nullptr);
    list_add(&node->topic_node, &(table->ids[1].*kind.head));

    kind.remove_node(table, node);

    EXPECT_EQ(kind.someone(table, 1), 0);
}

TEST_P(TopicCoreKind, RemoveTakesANodeThatItsMakerLinked)
{
    qor_topic_node_t *node = qor_topic_node_create(&table->ids[1], a.get(), nullptr);
    list_add(&node->topic_node, &(table->ids[1].*kind.head));

    kind.remove(table, a.get(), 1);

    EXPECT_EQ(kind.someone(table, 1), 0);
}

TEST_P(TopicCoreKind, RemoveByNodeReportsNull)
{
    kind.remove_node(table, nullptr);

    EXPECT_EQ(out.printed(), line(kind.by_node_name, "!(node) == true."));
}

TEST_P(TopicCoreKind, RemoveByNodeReportsANodeWithoutTopic)
{
    qor_topic_node_t *node = qor_topic_node_create(nullptr, a.get(), nullptr);

    kind.remove_node(table, node);

    EXPECT_EQ(out.printed(), line(kind.by_node_name, "!(node->topic) == true."));
    qor_topic_node_destroy(node);
}

TEST_P(TopicCoreKind, SomeoneTellsWhetherTheListHasANode)
{
    EXPECT_EQ(kind.someone(table, 1), 0);
    qor_topic_node_t *node = kind.add(table, a.get(), 1, nullptr);
    EXPECT_EQ(kind.someone(table, 1), 1);
    kind.remove_node(table, node);
    EXPECT_EQ(kind.someone(table, 1), 0);
}

TEST_P(TopicCoreKind, QuestionsAndTheEndsOfAWalkTakeNoLock)
{
    qor_topic_node_t *only = add(a);
    pthread_mutex_lock(&(table->ids[1].*kind.mutex));
    pthread_mutex_lock(&(table->ids[0].*kind.mutex));

    EXPECT_EQ(kind.someone(table, 1), 1);
    EXPECT_EQ(kind.next(table, 1, only), nullptr); /* the last one */
    EXPECT_EQ(kind.next(table, 0, nullptr), nullptr);

    pthread_mutex_unlock(&(table->ids[0].*kind.mutex));
    pthread_mutex_unlock(&(table->ids[1].*kind.mutex));
}

TEST_P(TopicCoreKind, OperationsTakeTheMutexOfTheirOwnListOnly)
{
    std::vector<hal_thread_mutex_t *> others;
    for (const Kind &other : kinds) {
        if (other.mutex != kind.mutex) {
            others.push_back(&(table->ids[1].*other.mutex));
            pthread_mutex_lock(others.back());
        }
    }

    kind.add(table, a.get(), 1, nullptr);
    kind.remove_node(table, kind.add(table, b.get(), 1, nullptr));
    EXPECT_EQ(walk(), "a");
    kind.remove(table, a.get(), 1);

    EXPECT_EQ(others.size(), 2u);
    EXPECT_EQ(kind.someone(table, 1), 0);
    for (hal_thread_mutex_t *other : others) {
        pthread_mutex_unlock(other);
    }
}

TEST_P(TopicCoreKind, LastNumberIsValid)
{
    EXPECT_NE(add(a, topics - 1), nullptr);
    EXPECT_EQ(walk(topics - 1), "a");
    EXPECT_EQ(out.printed(), "");
}

TEST_P(TopicCoreKind, BadNumbersAreReportedByEveryOperation)
{
    for (qor_context_topic_t topic : {-1, topics, INT32_MIN, INT32_MAX}) {
        out.clear();
        EXPECT_EQ(kind.add(table, a.get(), topic, nullptr), nullptr);
        EXPECT_EQ(out.printed(), bad_topic_line());
        out.clear();
        kind.remove(table, a.get(), topic);
        EXPECT_EQ(out.printed(), bad_topic_line());
        out.clear();
        EXPECT_EQ(kind.someone(table, topic), kind.someone_of_bad_topic);
        EXPECT_EQ(out.printed(), bad_topic_line());
        out.clear();
        EXPECT_EQ(kind.next(table, topic, nullptr), nullptr);
        EXPECT_EQ(out.printed(), bad_topic_line());
    }
}
