/* SPDX-License-Identifier: Apache-2.0 */
/* A bus's session numbers, its table of topics and what can be set before it loops. */
#include "qor_bus.h"

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bus_fixture.hpp"
#include "case_name.hpp"
#include "thread.hpp"

TEST_F(Bus, SessionsRiseByOne)
{
    EXPECT_EQ(qor_bus_session(bus), 1);
    EXPECT_EQ(qor_bus_session(bus), 2);
    EXPECT_EQ(qor_bus_session(bus), 3);
}

TEST_F(Bus, SessionsStartAnewBehindTheLargest)
{
    bus->session = INT32_MAX - 1;

    EXPECT_EQ(qor_bus_session(bus), INT32_MAX - 1);
    EXPECT_EQ(qor_bus_session(bus), INT32_MAX);
    EXPECT_EQ(qor_bus_session(bus), 0);
    EXPECT_EQ(qor_bus_session(bus), 1);
}

TEST_F(Bus, SessionsDrawnByThreadsAreDistinct)
{
    constexpr int threads = 4, draws = 500;
    std::vector<int32_t> drawn[threads];
    std::vector<Thread> drawing;
    for (std::vector<int32_t> &own : drawn) {
        drawing.emplace_back([&] {
            for (int i = 0; i < draws; i++) {
                own.push_back(qor_bus_session(bus));
            }
        });
    }
    std::set<int32_t> all;
    for (int i = 0; i < threads; i++) {
        drawing[static_cast<size_t>(i)].join();
        all.insert(drawn[i].begin(), drawn[i].end());
    }

    EXPECT_EQ(all.size(), size_t{threads * draws});
    EXPECT_EQ(*all.rbegin(), threads * draws);
}

TEST_F(Bus, RolesSelectTheTopicTable)
{
    EXPECT_EQ(qor_bus_topic_core_get(bus, QOR_BUS_ROLE_SYS), bus->sys_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, QOR_BUS_ROLE_USER), bus->user_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, 2), bus->user_topic_core);
    EXPECT_EQ(qor_bus_topic_core_get(bus, -1), bus->user_topic_core);
}

TEST_F(Bus, SettersStoreWhatTheyAreGiven)
{
    qor_bus_priority_set(bus, 150);
    qor_bus_thread_num_set(bus, 0);

    EXPECT_EQ(bus->thread_priority, 150);
    EXPECT_EQ(bus->thread_num, 0u);
    qor_bus_priority_set(bus, INT32_MIN);
    qor_bus_thread_num_set(bus, UINT32_MAX);
    EXPECT_EQ(bus->thread_priority, INT32_MIN);
    EXPECT_EQ(bus->thread_num, UINT32_MAX);
}

namespace {

struct StackCase {
    const char *name;
    uint32_t asked, stored;
};

void PrintTo(const StackCase &stack, std::ostream *os)
{
    *os << stack.name;
}

class BusStack : public Bus, public testing::WithParamInterface<StackCase> {};

INSTANTIATE_TEST_SUITE_P(All, BusStack,
                         testing::Values(StackCase{"Nothing", 0, 0}, StackCase{"One", 1, 4096},
                                         StackCase{"Page", 4096, 4096},
                                         StackCase{"PageAndOne", 4097, 8192},
                                         StackCase{"TwoPages", 8192, 8192},
                                         StackCase{"Large", 0xffffefff, 0xfffff000},
                                         StackCase{"Largest", 0xfffff000, 0xfffff000},
                                         StackCase{"LargerThanThat", 0xfffff001, 0xfffff000},
                                         StackCase{"OfAllBits", UINT32_MAX, 0xfffff000}),
                         case_name<StackCase>);

} // namespace

TEST_P(BusStack, SizeIsRoundedUpToPages)
{
    qor_bus_thread_stack_size_set(bus, GetParam().asked);

    EXPECT_EQ(bus->thread_stack_size, GetParam().stored);
}

TEST_F(Bus, EveryFunctionReportsANullBus)
{
    qor_context_task_t task = job.task(1);

    EXPECT_EQ(qor_bus_post(nullptr, &task), -1);
    EXPECT_EQ(qor_bus_run(nullptr, Job::run, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_runx(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_timer_post(nullptr, &task), -1);
    EXPECT_EQ(qor_bus_cancel(nullptr, 0), -1);
    qor_bus_priority_set(nullptr, 0);
    qor_bus_thread_num_set(nullptr, 0);
    qor_bus_thread_stack_size_set(nullptr, 0);
    EXPECT_EQ(qor_bus_loop(nullptr), -1);
    EXPECT_EQ(qor_bus_quit(nullptr), -1);
    EXPECT_EQ(qor_bus_quitting(nullptr), -1);
    EXPECT_EQ(qor_bus_drain(nullptr, 0), -1);
    qor_bus_close(nullptr);

    std::string lines;
    for (const char *function :
         {"post", "run", "runx", "timer_post", "cancel", "priority_set", "thread_num_set",
          "thread_stack_size_set", "loop", "quit", "quitting", "drain", "close"}) {
        lines += line(function, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), lines);
}
