/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_bus.h"

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "case_name.hpp"
#include "fault.h"
#include "output.hpp"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"

namespace {

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_bus", "qor_bus_" + function, text);
}

qor_context_module_t *no_modules[] = {nullptr};

void *count_run(void *arg)
{
    ++*static_cast<std::atomic<int> *>(arg);
    return nullptr;
}

/* Allocations of a creation, in order; the last one that fails it is the task queue's. */
struct CreationCase {
    const char *name;
    int nth;
    const char *lines;
};

void PrintTo(const CreationCase &creation, std::ostream *os)
{
    *os << creation.name;
}

class BusFaultsCreation : public testing::TestWithParam<CreationCase> {};

INSTANTIATE_TEST_SUITE_P(
    All, BusFaultsCreation,
    testing::Values(
        CreationCase{"Record", 0, "[qor_bus][err][qor_bus_create]:!(bus) == true.\n"},
        CreationCase{"Head", 1, "[qor_bus][err][qor_bus_init]:head create failed.\n"},
        CreationCase{"UserTable", 2,
                     "[qor_topic_core][err][qor_topic_core_create]:malloc \"qor_topic_core_t\" "
                     "failed.\n\n"
                     "[qor_bus][err][qor_bus_init]:user_topic_core create failed.\n"},
        CreationCase{"UserTopics", 3,
                     "[qor_topic_core][err][qor_topic_core_create]:malloc a lots of "
                     "\"qor_topic_t\" failed.\n\n"
                     "[qor_bus][err][qor_bus_init]:user_topic_core create failed.\n"},
        CreationCase{"SystemTable", 4,
                     "[qor_topic_core][err][qor_topic_core_create]:malloc \"qor_topic_core_t\" "
                     "failed.\n\n"
                     "[qor_bus][err][qor_bus_init]:sys_topic_core create failed.\n"},
        CreationCase{"SystemTopics", 5,
                     "[qor_topic_core][err][qor_topic_core_create]:malloc a lots of "
                     "\"qor_topic_t\" failed.\n\n"
                     "[qor_bus][err][qor_bus_init]:sys_topic_core create failed.\n"},
        CreationCase{"TaskQueue", 6,
                     "[qor_que][err][qor_que_create]:!(_this) == true.\n"
                     "[qor_bus][err][qor_bus_init]:create \"qor_que_t\" failed.\n"}),
    case_name<CreationCase>);

} // namespace

TEST_P(BusFaultsCreation, LeavesNothingBehind)
{
    Output out;
    fault_arm(FAULT_ALLOC, GetParam().nth);

    EXPECT_EQ(qor_bus_create(no_modules, 5), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(out.printed(), GetParam().lines);
}

TEST(BusFaults, CloseGivesBackWhatCreationTook)
{
    fault_arm(FAULT_ALLOC, -1);

    qor_bus_close(qor_bus_create(no_modules, 5));

    EXPECT_EQ(fault_live(), 0);
}

TEST(BusFaults, CloseGivesBackWhatARunTook)
{
    Output out;
    std::atomic<int> runs{0};
    fault_arm(FAULT_ALLOC, -1);
    {
        RunningBus looping(RunningBus::by_start);
        looping.start();
        qor_bus_run(looping.get(), count_run, &runs, nullptr);
        EXPECT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    }

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(fault_live(), 0);
}

TEST(BusFaults, DestroyLeavesTimerQueueAndHead)
{
    fault_arm(FAULT_ALLOC, -1);
    qor_bus_t *bus = qor_bus_create(no_modules, 5);
    qor_time_que_t *time_que = bus->time_que;
    list_head *head = bus->head;

    qor_bus_destroy(bus);

    EXPECT_EQ(fault_live(), 2);
    qor_time_que_destroy(time_que);
    EXPECT_EQ(fault_live(), 1);
    free(head);
}

TEST(BusFaults, AMissingTimerQueueIsNotNoticedAtCreation)
{
    Output out;
    std::atomic<int> runs{0};
    fault_arm(FAULT_ALLOC, 7);
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    qor_bus_t *bus = looping.get();
    ASSERT_EQ(fault_fired(FAULT_ALLOC), 1);
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->time_que, nullptr);
    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_create", "!(_this) == true."));
    out.clear();

    qor_context_task_t timer = {};
    qor_context_task_init(&timer, nullptr, "timer", 1, count_run, &runs);
    timer.delay = 1;
    EXPECT_EQ(qor_bus_timer_post(bus, &timer), -1);
    EXPECT_EQ(out.count("[qor_time_que][err]"), 3); /* lock, append, unlock */
    out.clear();

    EXPECT_EQ(qor_bus_drain(bus, 0), -1);
    EXPECT_EQ(out.printed(), line("drain", "!(_this->time_que) == true."));
    out.clear();

    /* Tasks run all the same, and the loop waits for the workers until somebody quits. */
    drop_start_up(bus);
    looping.start();
    qor_bus_run(bus, count_run, &runs, nullptr);
    EXPECT_TRUE(await([&] { return runs == 1; }));
    EXPECT_TRUE(out.await("qor_time_que_deque_block_locked"));
    looping.quit();
    EXPECT_EQ(looping.returned(), 0);
}

TEST(BusFaults, AStartUpTaskWithoutMemoryLeavesNothing)
{
    Output out;
    fault_arm(FAULT_ALLOC, 8);

    EXPECT_EQ(qor_bus_create(no_modules, 5), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(out.printed(),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed.") +
                  err_line("qor_bus", "qor_bus_init", "start-up task not queued."));
}

TEST(BusFaults, PostWithoutMemoryLeavesTheArgumentAlone)
{
    Output out;
    StillBus bus{StillBus::bare};
    std::atomic<int> runs{0};
    static int releases;
    releases = 0;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_bus_run(bus.get(), count_run, &runs, [](void *) { releases++; }), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(releases, 0);
    EXPECT_EQ(out.printed(),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed."));
}

TEST(BusFaults, TimerPostWithoutMemoryIsReported)
{
    Output out;
    StillBus bus{StillBus::bare};
    qor_context_task_t task = {};
    task.delay = 5;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_bus_timer_post(bus.get(), &task), -1);

    EXPECT_EQ(bus.get()->time_que->count, 0);
    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_node_create",
                                      "malloc \"qor_time_que_node_t\" failed."));
}

TEST(BusFaults, RefusedPostsFreeTheirNodes)
{
    StillBus bus{StillBus::bare};
    qor_context_task_t task = {};
    qor_bus_quit(bus.get());
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(qor_bus_post(bus.get(), &task), -1);
    EXPECT_EQ(qor_bus_timer_post(bus.get(), &task), -1);

    EXPECT_EQ(fault_live(), 0);
}

TEST(BusFaults, ATimerWithoutMemoryForItsTaskIsRefused)
{
    Output out;
    StillBus bus(StillBus::bare);
    qor_context_task_t task = {};
    task.delay = 5;
    fault_arm(FAULT_ALLOC, 1); /* the timer's node, then the task's */

    EXPECT_EQ(qor_bus_timer_post(bus.get(), &task), -1);

    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(bus.get()->time_que->count, 0);
    EXPECT_EQ(out.printed(),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed."));
}

TEST(BusFaults, AnAcceptedTimerNeedsNoMemory)
{
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    qor_bus_t *bus = looping.get();
    static std::atomic<int> releases;
    releases = 0;
    std::atomic<int> runs{0};
    drop_start_up(bus);
    qor_context_task_t timer = {};
    qor_context_task_init(&timer, nullptr, "timer", 1, count_run, &runs);
    timer.delay = 20;
    timer.recycle = [](void *) { releases++; };
    looping.start();
    ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    ASSERT_EQ(qor_bus_timer_post(bus, &timer), 0);
    fault_arm(FAULT_ALLOC, 0); /* whatever comes next */

    EXPECT_TRUE(await([] { return releases == 2; }));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    looping.quit();
    fault_arm(FAULT_ALLOC, -1);
}

TEST(BusFaults, LoopWithoutMemoryIsReported)
{
    Output out;
    StillBus bus{StillBus::bare};
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_bus_loop(bus.get()), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(), line("loop", "!(tid) == true."));
}

TEST(BusFaults, ARefusedPriorityKeepsTheLoopFromStarting)
{
    Output out;
    StillBus bus{StillBus::bare};
    qor_bus_priority_set(bus.get(), 10);
    fault_arm(FAULT_ALLOC, -1);
    fault_arm(FAULT_THREAD, -1);
    fault_arm(FAULT_SCHED, 0);

    EXPECT_EQ(qor_bus_loop(bus.get()), -1);

    EXPECT_EQ(fault_fired(FAULT_SCHED), 1);
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(out.printed(), line("loop", "set thread priority failed."));
}

TEST(BusFaults, ThePriorityGoesIntoTheAttribute)
{
    StillBus bus{StillBus::bare};
    qor_bus_priority_set(bus.get(), 17);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_bus_loop(bus.get()), 0);

    EXPECT_EQ(fault_sched_priority(), 17);
}

TEST(BusFaults, EachWorkerAsksForThePriorityItself)
{
    std::atomic<int> runs{0};
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    drop_start_up(looping.get());
    qor_bus_priority_set(looping.get(), 23);

    looping.start();
    qor_bus_run(looping.get(), count_run, &runs, nullptr);
    EXPECT_TRUE(await([&] { return runs == 1; }));

    EXPECT_EQ(fault_own_priority(), 23);
}

TEST(BusFaults, WithoutPriorityNoWorkerAsksForOne)
{
    std::atomic<int> runs{0};
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    const int before = fault_own_priority();
    drop_start_up(looping.get());

    looping.start();
    qor_bus_run(looping.get(), count_run, &runs, nullptr);
    EXPECT_TRUE(await([&] { return runs == 1; }));

    EXPECT_EQ(fault_own_priority(), before);
}

TEST(BusFaults, ALoopWithoutWorkersNeedsNoMemoryForThem)
{
    Output out;
    StillBus bus{StillBus::bare};
    qor_bus_thread_num_set(bus.get(), 0);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_bus_loop(bus.get()), 0);

    EXPECT_EQ(out.printed(), "");
}

TEST(BusFaults, ANegativePriorityLeavesTheAttributeAlone)
{
    StillBus bus{StillBus::bare};
    qor_bus_priority_set(bus.get(), -20);
    qor_bus_quit(bus.get());
    fault_arm(FAULT_SCHED, -1);

    EXPECT_EQ(qor_bus_loop(bus.get()), 0);

    EXPECT_EQ(fault_calls(FAULT_SCHED), 0);
}

TEST(BusFaults, TheLoopRunsWithTheWorkersThatStarted)
{
    Output out;
    RunningBus looping(RunningBus::by_start, /* workers */ 3);
    std::atomic<int> runs{0};
    drop_start_up(looping.get());
    fault_arm(FAULT_THREAD, 0);

    looping.start();
    qor_bus_run(looping.get(), count_run, &runs, nullptr);
    EXPECT_TRUE(await([&] { return runs == 1; }));
    EXPECT_TRUE(await([&] { return fault_calls(FAULT_THREAD) == 3; }));
    looping.quit();

    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(looping.returned(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(BusFaults, PostsAndRunsTakeOneBlockEach)
{
    StillBus bus{StillBus::bare};
    std::atomic<int> runs{0};
    fault_arm(FAULT_ALLOC, -1);

    qor_bus_run(bus.get(), count_run, &runs, nullptr);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
    bus.run_all();

    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}
