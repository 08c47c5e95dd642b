/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_topic_core.h"

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "../../src/bus/qor_topic_epoch.hpp"
#include "actor.hpp"
#include "await.hpp"
#include "case_name.hpp"
#include "fault.h"
#include "output.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_topic_core", function, text);
}

struct Kind {
    const char *name;
    const char *function;
    qor_topic_node_t *(*add)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t,
                             qor_context_topic_attr_t *);
    int32_t (*someone)(qor_topic_core_t *, qor_context_topic_t);
};

void PrintTo(const Kind &kind, std::ostream *os)
{
    *os << kind.name;
}

class TopicCoreFaultsKind : public testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(
    All, TopicCoreFaultsKind,
    testing::Values(Kind{"Subscriber", "qor_topic_core_subscribe", qor_topic_core_subscribe,
                         qor_topic_core_someone_subscribed},
                    Kind{"Listener", "qor_topic_core_listen", qor_topic_core_listen,
                         qor_topic_core_someone_listened},
                    Kind{"Filter", "qor_topic_core_filter", qor_topic_core_filter,
                         qor_topic_core_someone_filtered}),
    case_name<Kind>);

void publish(Actor &publisher)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 0, nullptr, 0);
    qor_context_handler_publishx(publisher.get(), &msg);
}

} // namespace

TEST(TopicCoreFaults, TableWithoutMemoryPrintsALineAndAnEmptyOne)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_topic_core_create(3), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(out.printed(),
              line("qor_topic_core_create", "malloc \"qor_topic_core_t\" failed.\n"));
}

TEST(TopicCoreFaults, TopicsWithoutMemoryFreeTheTable)
{
    Output out;
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(qor_topic_core_create(3), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(out.printed(),
              line("qor_topic_core_create", "malloc a lots of \"qor_topic_t\" failed.\n"));
}

TEST(TopicCoreFaults, TableIsTwoBlocksAndGoesBack)
{
    fault_arm(FAULT_ALLOC, -1);
    qor_topic_core_t *table = qor_topic_core_create(100);

    EXPECT_EQ(fault_live(), 2);
    qor_topic_core_destroy(table);

    EXPECT_EQ(fault_live(), 0);
}

TEST(TopicCoreFaults, ATableWithoutTopicsNeedsNoMemoryForThem)
{
    Output out;

    qor_topic_core_t *table = qor_topic_core_create(0);

    ASSERT_NE(table, nullptr);
    EXPECT_EQ(out.printed(), "");
    qor_topic_core_destroy(table);
}

TEST(TopicCoreFaults, NodeWithoutMemoryIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_topic_node_create(nullptr, nullptr, nullptr), nullptr);

    EXPECT_EQ(out.printed(),
              line("qor_topic_node_create", "malloc \"qor_topic_node_t\" failed.\n"));
}

TEST_P(TopicCoreFaultsKind, RegistrationWithoutMemoryLeavesTheListAlone)
{
    qor_topic_core_t *table = qor_topic_core_create(1);
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(GetParam().add(table, nullptr, 0, nullptr), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(GetParam().someone(table, 0), 0);
    EXPECT_EQ(out.printed(),
              line("qor_topic_node_create", "malloc \"qor_topic_node_t\" failed.\n") +
                  line(GetParam().function, "create node failed."));
    qor_topic_core_destroy(table);
}

TEST(TopicCoreFaults, NodeOfAQuietTopicGoesBackAtOnce)
{
    qor_topic_core_t *table = qor_topic_core_create(1);
    fault_arm(FAULT_ALLOC, -1);

    for (int i = 0; i < 3; i++) {
        qor_topic_core_subscribe(table, nullptr, 0, nullptr);
        EXPECT_EQ(fault_live(), 1);
        qor_topic_core_unsubscribe(table, nullptr, 0);
        EXPECT_EQ(fault_live(), 0);
    }
    qor_topic_core_destroy(table);
}

TEST(TopicCoreFaults, NodeUnderADispatchGoesBackWhenThatEnds)
{
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p(journal, "p"), a(journal, "a"), b(journal, "b");
    for (Actor *actor : {&p, &a, &b}) {
        actor->attach(bus.get(), QOR_BUS_ROLE_USER);
    }
    int under_the_walk = 0;
    qor_context_filter(a.get(), 0, nullptr);
    qor_context_subscribe(b.get(), 0, nullptr);
    a.on_message = [&](qor_context_msg_t *) {
        qor_context_unfilter(a.get(), 0);
        under_the_walk = fault_live();
        return 0;
    };
    fault_arm(FAULT_ALLOC, -1);

    publish(p);

    EXPECT_EQ(under_the_walk, 0); /* nothing has been freed yet */
    EXPECT_EQ(fault_live(), -1);
    qor_context_unsubscribe(b.get(), 0);
    EXPECT_EQ(fault_live(), -2);
}

TEST(TopicCoreFaults, MemoryGoesBackWhereTheCountOfDispatchesWraps)
{
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p(journal, "p"), a(journal, "a");
    p.attach(bus.get(), QOR_BUS_ROLE_USER);
    a.attach(bus.get(), QOR_BUS_ROLE_USER);
    Output out; /* no one subscribes */
    qor_topic_core_private &counts = bus.get()->user_topic_core->priv[0];
    a.on_message = [&](qor_context_msg_t *) { return qor_context_unfilter(a.get(), 0); };

    for (uint32_t turn = 0; turn < 2 * topic_entries; turn++) {
        const uint32_t epoch = turn % 2;
        qor_context_filter(a.get(), 0, nullptr);
        for (uint32_t &entered : counts.entered) {
            entered = epoch;
        }
        counts.entered[turn / 2] |= UINT32_MAX ^ 1; /* as after 2^31 - 1 of them, all over */
        counts.left[epoch] = UINT32_MAX >> 1;
        counts.left[epoch ^ 1] = counts.closed;
        fault_arm(FAULT_ALLOC, -1);

        publish(p);

        EXPECT_EQ(fault_live(), -1) << turn;
    }
}

TEST(TopicCoreFaults, MemoryGoesBackWhileDispatchesOverlapForEver)
{
    constexpr int rounds = 400;
    Output out; /* no one subscribes */
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p(journal, "p"), filter(journal, "f"), guest(journal, "g");
    for (Actor *actor : {&p, &filter, &guest}) {
        actor->attach(bus.get(), QOR_BUS_ROLE_USER);
    }
    qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    qor_context_filter(filter.get(), 0, &before);
    /* Each walk stays in the filter until the walk of the other thread has come in, so that never
     * none is under way, and meanwhile a registration comes and goes. */
    std::atomic<int> entered{0};
    int most = 0; /* written by the walk that has come in last, before it lets the other one go */
    filter.on_message = [&](qor_context_msg_t *) {
        const int mine = entered + 1;
        for (int i = 0; i < 3; i++) {
            qor_context_handler_listen(guest.get(), 0, nullptr);
            qor_context_handler_unlisten(guest.get(), 0);
        }
        most = fault_live() > most ? fault_live() : most;
        entered = mine;
        EXPECT_TRUE(mine >= 2 * rounds || await([&] { return entered > mine; }));
        return 0;
    };
    fault_arm(FAULT_ALLOC, -1);

    Thread odd([&] {
        for (int i = 0; i < rounds; i++) {
            ASSERT_TRUE(await([&] { return entered >= 2 * i; }));
            publish(p);
        }
    });
    for (int i = 0; i < rounds; i++) {
        ASSERT_TRUE(await([&] { return entered >= 2 * i + 1; }));
        publish(p);
    }
    odd.join();

    EXPECT_EQ(entered, 2 * rounds);
    EXPECT_LE(most, 12); /* of the 2400 that have come and gone */
    EXPECT_EQ(fault_live(), 0);
}
