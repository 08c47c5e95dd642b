/* SPDX-License-Identifier: Apache-2.0 */
/* Loops that cannot start, for want of an attribute, a stack or a thread: each leaves the bus as it
 * was. */
#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"

namespace {

class LoopFaults : public testing::Test {
protected:
    LoopFaults()
    {
        qor_bus_thread_num_set(bus.get(), 3);
        fault_arm(FAULT_ALLOC, -1);
        fault_arm(FAULT_THREAD, -1);
        locks = fault_locks();
    }

    ~LoopFaults() override
    {
        for (fault_kind kind : {FAULT_THREAD, FAULT_ATTR, FAULT_STACK, FAULT_KEY}) {
            fault_arm(kind, -1);
        }
    }

    void expect_not_to_start(const std::string &line, const std::string &before = "")
    {
        EXPECT_EQ(qor_bus_loop(bus.get()), -1);

        EXPECT_EQ(out.printed(), before + err_line("qor_bus", "qor_bus_loop", line));
        EXPECT_EQ(fault_live(), 0);
        EXPECT_EQ(fault_locks(), locks);
        EXPECT_EQ(qor_que_count(bus.get()->que), 1); /* the start-up still waits */
        out.clear();
        bus.close();
        EXPECT_EQ(out.printed(), "");
    }

    static std::string without_record()
    {
        return err_line("qor_bus", "qor_bus_task_loop", "no memory for a worker.");
    }

    Output out;
    StillBus bus;
    int locks = 0;
};

/* A loop with one worker, which runs a task that counts. */
void expect_to_run()
{
    Output out;
    RunningBus bus(RunningBus::by_start, 1);
    drop_start_up(bus.get());
    std::atomic<int> runs{0};
    bus.start();
    ASSERT_EQ(qor_bus_run(
                  bus.get(),
                  [](void *count) -> void * {
                      (*static_cast<std::atomic<int> *>(count))++;
                      return nullptr;
                  },
                  &runs, nullptr),
              0);

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(bus.quit(), 0);
    EXPECT_EQ(out.printed(), "");
}

} // namespace

TEST_F(LoopFaults, AnAttributeThatCannotBeMadeIsReported)
{
    fault_arm(FAULT_ATTR, 0);

    expect_not_to_start("thread attribute failed.");

    EXPECT_EQ(fault_fired(FAULT_ATTR), 1);
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
}

TEST_F(LoopFaults, AStackThatTheSystemRefusesInAnySizeIsReported)
{
    fault_arm_from(FAULT_STACK, 0);

    expect_not_to_start("set thread stack size failed.");

    EXPECT_EQ(fault_fired(FAULT_STACK), 2); /* what was asked for, and the least */
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
}

TEST_F(LoopFaults, AStackThatTheSystemRefusesIsTheLeastThatItTakes)
{
    fault_arm(FAULT_STACK, 0);

    expect_to_run();

    EXPECT_EQ(fault_fired(FAULT_STACK), 1);
}

TEST_F(LoopFaults, ThatNoWorkerStartsIsReported)
{
    fault_arm_from(FAULT_THREAD, 0);

    expect_not_to_start("no worker started.");

    EXPECT_EQ(fault_fired(FAULT_THREAD), 3);
}

TEST_F(LoopFaults, OneWorkerIsEnough)
{
    qor_bus_thread_num_set(bus.get(), 1);
    RunningBus running(RunningBus::by_start, 3);
    drop_start_up(running.get());
    fault_arm_from(FAULT_THREAD, 1);

    running.start();

    EXPECT_EQ(qor_bus_drain(running.get(), 60000), 0);
    EXPECT_EQ(running.quit(), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 2);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(LoopFaults, WithoutAWorkerWantedNoneIsMissed)
{
    RunningBus running(RunningBus::by_start, 0);
    fault_arm_from(FAULT_THREAD, 0);

    running.start();

    EXPECT_EQ(running.quit(), 0);
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(LoopFaults, WorkersWithoutARecordAreNone)
{
    fault_arm_from(FAULT_KEY, 0);

    const std::string lost = without_record();
    expect_not_to_start("no worker started.", lost + lost + lost);

    EXPECT_EQ(fault_fired(FAULT_KEY), 3);
}

TEST_F(LoopFaults, OneWorkerWithARecordIsEnough)
{
    RunningBus running(RunningBus::by_start, 2);
    drop_start_up(running.get());
    fault_arm(FAULT_KEY, 0);

    running.start();

    EXPECT_EQ(qor_bus_drain(running.get(), 60000), 0);
    EXPECT_EQ(running.quit(), 0);
    EXPECT_EQ(out.printed(), without_record());
}

/* Somebody else's: it has no node for its task yet. */
TEST(LoopFaultsTimer, ThatTheApplicationHasQueuedNeedsMemoryWhenItIsDue)
{
    Output out;
    RunningBus bus(RunningBus::by_start, 1);
    drop_start_up(bus.get());
    bus.start();
    std::atomic<int> runs{0};
    std::atomic<int> recycled{0};
    struct Counts {
        std::atomic<int> &runs, &recycled;
    } counts = {runs, recycled};
    const auto arm = [&] {
        qor_time_que_node_t *node = qor_time_que_node_create(7, 1, sizeof(qor_context_task_t));
        qor_context_task_t *task = static_cast<qor_context_task_t *>(qor_time_que_node_body(node));
        qor_context_task_init(
            task, nullptr, nullptr, 7,
            [](void *arg) -> void * {
                static_cast<Counts *>(arg)->runs++;
                return nullptr;
            },
            &counts);
        task->recycle = [](void *arg) { static_cast<Counts *>(arg)->recycled++; };
        return qor_time_que_enque(bus.get()->time_que, node);
    };

    ASSERT_EQ(arm(), 0);
    EXPECT_TRUE(await([&] { return recycled == 2; })); /* with the task, and with the timer */
    EXPECT_EQ(runs, 1);
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    fault_arm(FAULT_ALLOC, 1); /* the timer's own node is the test's */
    ASSERT_EQ(arm(), 0);

    EXPECT_TRUE(await([&] { return recycled == 3; }));
    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(runs, 1);
    fault_arm(FAULT_ALLOC, -1);
}
