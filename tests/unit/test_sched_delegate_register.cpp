/* SPDX-License-Identifier: Apache-2.0 */
/* Subscribing, listening and filtering by way of a delegate. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "case_name.hpp"
#include "qor_topic_core.h"
#include "sched_delegate_fixture.hpp"
#include "thread.hpp"

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
    Thread registering([&] { EXPECT_EQ(kind.add(a.get(), topic, nullptr), 0); });
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
