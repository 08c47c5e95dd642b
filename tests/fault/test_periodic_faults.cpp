/* SPDX-License-Identifier: Apache-2.0 */
/* Arming a periodic timer without memory, and its runs without any more of it. */
#include "qor_periodic.h"

#include <string>

#include <gtest/gtest.h>

#include "beat.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_que.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"

namespace {

class PeriodicFaults : public testing::Test {
protected:
    PeriodicFaults()
    {
        qor_bus_watch_set(bus.get(), 0); /* the monitor's notes take memory of their own */
        bus.start();
        EXPECT_TRUE(bus.up());
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        out.clear();
    }
    ~PeriodicFaults() override { fault_arm(FAULT_ALLOC, -1); }

    /* What a failed allocation prints. */
    std::string refused(int failing)
    {
        fault_arm(FAULT_ALLOC, failing);
        EXPECT_EQ(beat.arm(module.context(), 1), -1);
        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        EXPECT_EQ(fault_live(), 0);
        return out.printed();
    }

    Output out;
    Module module{"beating"};
    Beat beat;
    RunningBus bus{RunningBus::by_start, 2, {&module}};
};

} // namespace

TEST_F(PeriodicFaults, ATimerThatCannotBeHadIsRefused)
{
    EXPECT_EQ(refused(0), err_line("qor_time_que", "qor_time_que_node_create",
                                   "malloc \"qor_time_que_node_t\" failed."));

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.begun, 0);
    EXPECT_EQ(beat.recycles, 0);
}

TEST_F(PeriodicFaults, ARunThatCannotBeHadIsRefused)
{
    EXPECT_EQ(refused(1),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed."));

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.begun, 0);
    EXPECT_EQ(beat.recycles, 0);
}

TEST_F(PeriodicFaults, OnceArmedItNeedsNoMemory)
{
    fault_arm_from(FAULT_ALLOC, 2);
    const int32_t session = beat.arm(module.context(), 1);
    ASSERT_GE(session, 0);

    EXPECT_TRUE(beat.await_runs(20));
    EXPECT_EQ(qor_context_timer_cancel(module.context(), session), 0);
    EXPECT_TRUE(beat.await_recycle());

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(PeriodicFaults, WhatHasEndedLeavesNoMemoryBehind)
{
    fault_arm(FAULT_ALLOC, -1);
    const int32_t session = beat.arm(module.context(), 1);
    ASSERT_TRUE(beat.await_runs(2));
    qor_context_timer_cancel(module.context(), session);
    ASSERT_TRUE(beat.await_recycle());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);

    EXPECT_EQ(fault_live(), 0);
}

namespace {

/* A module whose init fails below a run of its own timer: nobody else can be had to begin it. */
class PeriodicBelowAnInit : public testing::Test {
protected:
    ~PeriodicBelowAnInit() override { fault_arm(FAULT_THREAD, -1); }

    void reg(qor_context_t *self)
    {
        auto *delegate =
            static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(&module.core()->base));
        qor_que_t *tasks = delegate->bus->que;
        qor_context_subscribe(self, 0, nullptr);
        fault_arm_from(FAULT_THREAD, 0);
        const int32_t before = qor_que_count(tasks);
        EXPECT_GE(beat.arm(self, 1), 0);
        EXPECT_TRUE(await([&] { return qor_que_count(tasks) > before; })); /* before the init */
    }

    Output out;
    Module module{"first"};
    Beat beat;
    std::string order;
};

} // namespace

TEST_F(PeriodicBelowAnInit, TheRunIsNotWaitedFor)
{
    bool inside = false;
    module.reg = [&](qor_context_t *self) { reg(self); };
    module.init = [&](qor_context_t *) {
        EXPECT_TRUE(inside);
        return -1;
    };
    module.uninit = [&](qor_context_t *) { order += "uninit "; };
    beat.body = [&] {
        inside = true;
        EXPECT_EQ(qor_context_x_req(beat.self, 0, nullptr, 0), -1);
        inside = false;
        order += "run ";
    };
    RunningBus bus({&module}, 1, 1);

    ASSERT_TRUE(beat.await_recycle());

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(order, "uninit run ");
    EXPECT_EQ(beat.begun, 1);
    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(module.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}
