/* SPDX-License-Identifier: Apache-2.0 */
/* Cancel of a delayed task: with it goes the timer, or the run, that was to start it. */
#include <string>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_time_que.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "thread.hpp"
#include "time_que_length.hpp"

namespace {

constexpr int32_t far = 60000; /* ms */

/* Two modules on a bus whose tasks the test runs. */
class CancelDelayed : public testing::Test {
protected:
    CancelDelayed()
    {
        recycled = 0;
        ran = 0;
        bus.run_all();
        EXPECT_TRUE(a.started() && b.started());
        tasks_before = qor_que_count(bus.get()->que);
    }

    static int32_t post(const Module &module, int32_t session, int32_t delay, int32_t async = 0)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, nullptr, "task", session,
            [](void *) -> void * {
                ran++;
                return nullptr;
            },
            nullptr);
        task.delay = delay;
        task.async = async;
        task.recycle = [](void *) { recycled++; };
        return qor_context_handler_post(module.context(), &task);
    }

    static int32_t cancel(const Module &module, int32_t session)
    {
        return qor_context_timer_cancel(module.context(), session);
    }

    int32_t timers() { return length_of(bus.get()->time_que); }
    int32_t tasks() { return qor_que_count(bus.get()->que) - tasks_before; }

    /* Due time of the first timer, in milliseconds from now. */
    int32_t first_due()
    {
        int32_t delay = 0;
        EXPECT_EQ(qor_time_que_next_delay(bus.get()->time_que, &delay), 0);
        return delay;
    }

    static int recycled;
    static int ran;
    Output out;
    Module a{"a"}, b{"b"};
    StillBus bus{{&a, &b}};
    int32_t tasks_before = 0; /* those that the test has run stay counted */
};

int CancelDelayed::recycled;
int CancelDelayed::ran;

} // namespace

TEST_F(CancelDelayed, TakesTheTimerToo)
{
    for (int32_t async : {0, 1}) {
        ASSERT_EQ(post(a, 7, far, async), 0);
        ASSERT_EQ(timers(), 1);

        EXPECT_EQ(cancel(a, 7), 0);

        EXPECT_EQ(timers(), 0);
        EXPECT_EQ(length_of(a.core()->que), 0);
    }
    EXPECT_EQ(recycled, 2);
    EXPECT_EQ(a.core()->refcount, 0);
}

TEST_F(CancelDelayed, GivesNoSlotBack)
{
    ASSERT_EQ(post(a, 6, 0), 0);
    ASSERT_EQ(a.core()->refcount, 1);
    ASSERT_EQ(post(a, 7, far), 0);

    EXPECT_EQ(cancel(a, 7), 0);

    EXPECT_EQ(a.core()->refcount, 1);
    EXPECT_EQ(timers(), 0);
    bus.run_all();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(a.core()->refcount, 0);
}

TEST_F(CancelDelayed, TakesTheRunOfOneThatHasJustFallenDue)
{
    ASSERT_EQ(post(a, 6, 0), 0);
    bus.run_all();
    ASSERT_EQ(post(a, 7, 1), 0);
    const int32_t before = tasks();
    qor_bus_thread_num_set(bus.get(), 0); /* nobody takes the run */
    Thread loop([&] { qor_bus_loop(bus.get()); });
    EXPECT_TRUE(await([&] { return tasks() == before + 1; }));

    EXPECT_EQ(cancel(a, 7), 0);

    EXPECT_EQ(tasks(), before);
    EXPECT_EQ(timers(), 0);
    EXPECT_EQ(recycled, 2);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(a.core()->refcount, 0);
    qor_bus_quit(bus.get());
    loop.join();
}

TEST_F(CancelDelayed, TakesTheTimerOfTheTaskThatItTakes)
{
    ASSERT_EQ(post(a, 7, far), 0);
    ASSERT_EQ(post(a, 7, 2 * far), 0);
    ASSERT_EQ(post(a, 7, 3 * far), 0);

    EXPECT_EQ(cancel(a, 7), 0); /* the first */

    EXPECT_EQ(timers(), 2);
    EXPECT_GT(first_due(), far);
    EXPECT_EQ(cancel(a, 7), 0);
    EXPECT_EQ(timers(), 1);
    EXPECT_GT(first_due(), 2 * far);
    EXPECT_EQ(cancel(a, 7), 0);
    EXPECT_EQ(timers(), 0);
    EXPECT_EQ(recycled, 3);
}

/* Posted in the other order: what decides is when they are due. */
TEST_F(CancelDelayed, TellsTasksOfOneNumberByMoreThanThat)
{
    ASSERT_EQ(post(a, 7, 2 * far), 0);
    ASSERT_EQ(post(a, 7, far), 0);

    EXPECT_EQ(cancel(a, 7), 0);

    EXPECT_EQ(timers(), 1);
    EXPECT_GT(first_due(), far);
    EXPECT_EQ(length_of(a.core()->que), 1);
}

TEST_F(CancelDelayed, LeavesTheTimersOfOthers)
{
    ASSERT_EQ(post(b, 7, far), 0);
    ASSERT_EQ(post(a, 7, 2 * far), 0);

    EXPECT_EQ(cancel(a, 7), 0);

    EXPECT_EQ(timers(), 1);
    EXPECT_LE(first_due(), far);
    EXPECT_EQ(length_of(b.core()->que), 1);
    EXPECT_EQ(cancel(b, 7), 0);
    EXPECT_EQ(timers(), 0);
}

TEST_F(CancelDelayed, OfAnImmediateTaskLeavesATimerOfItsNumber)
{
    ASSERT_EQ(post(a, 7, 0), 0);
    ASSERT_EQ(post(a, 7, far), 0);

    EXPECT_EQ(cancel(a, 7), 0); /* the one that is due */

    EXPECT_EQ(timers(), 1);
    EXPECT_EQ(length_of(a.core()->que), 1);
    bus.run_all();
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(a.core()->refcount, 0);
}

TEST_F(CancelDelayed, ByTheBusFindsNoTimer)
{
    ASSERT_EQ(post(a, 7, far), 0);
    qor_context_task_t timer = {};
    qor_context_task_init(&timer, nullptr, "timer", 8, nullptr, nullptr);
    timer.delay = far;
    ASSERT_EQ(qor_bus_timer_post(bus.get(), &timer), 0);

    EXPECT_EQ(qor_bus_cancel(bus.get(), 7), -1);
    EXPECT_EQ(qor_bus_cancel(bus.get(), 8), -1);

    EXPECT_EQ(timers(), 2);
    EXPECT_EQ(recycled, 0);
}

TEST_F(CancelDelayed, FindsNoneThatWentPastAFullQueue)
{
    for (int32_t i = 0; i < 50; i++) {
        ASSERT_EQ(post(a, 100000 + i, far), 0);
    }
    ASSERT_EQ(post(a, 7, far), 0);
    ASSERT_EQ(timers(), 51);

    EXPECT_EQ(cancel(a, 7), -1);

    EXPECT_EQ(timers(), 51);
    EXPECT_EQ(recycled, 0);
    EXPECT_EQ(out.count("cancel a timer failed, source:a, session=7"), 1);
    EXPECT_EQ(cancel(a, 100049), 0); /* the last one that found room */
    EXPECT_EQ(timers(), 50);
}

TEST_F(CancelDelayed, AfterQuitLeavesTheRestToTheLoop)
{
    ASSERT_EQ(post(a, 7, far), 0);
    qor_bus_quit(bus.get());

    EXPECT_EQ(cancel(a, 7), 0);

    EXPECT_EQ(timers(), 0);
    EXPECT_EQ(recycled, 1);
}
