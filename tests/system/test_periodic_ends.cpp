/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers of a module whose init fails, and what the monitor sees of runs. */
#include <string>

#include <gtest/gtest.h>

#include "beat.hpp"
#include "door.hpp"
#include "failed_init_fixture.hpp"
#include "falling_due.hpp"
#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_periodic.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"
#include "thread_exit_fixture.hpp"

namespace {

constexpr int32_t never = 3600000; /* ms: a period that no test waits for */

/* A timer's argument that writes its release down. */
void recycle(void *journal)
{
    static_cast<Journal *>(journal)->add("recycle");
}

void no_run(qor_context_t *, int32_t, void *, uint32_t)
{
    ADD_FAILURE();
}

} // namespace

TEST_F(FailedInit, PeriodicTimersEndBeforeTheUninit)
{
    doomed.init = [&](qor_context_t *self) {
        EXPECT_GE(qor_context_every(self, no_run, &journal, recycle, never), 0);
        EXPECT_GE(qor_context_every(self, no_run, &journal, recycle, never), 0);
        return -1;
    };
    RunningBus bus({&doomed});

    ASSERT_TRUE(doomed.gone());

    EXPECT_EQ(journal.text(), "unreg recycle recycle uninit");
}

TEST_F(FailedInit, ARunThatIsQueuedIsRecycledBeforeTheUninit)
{
    doomed.init = [&](qor_context_t *self) {
        EXPECT_GE(qor_context_every(self, no_run, &journal, recycle, 1), 0);
        const qor_bus_t *bus =
            static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(&doomed.core()->base))
                ->bus;
        EXPECT_TRUE(await([bus] { return qor_que_count(bus->que) == 1; }));
        return -1;
    };
    RunningBus bus({&doomed}, 8, 1);

    ASSERT_TRUE(doomed.gone());

    EXPECT_EQ(journal.text(), "unreg recycle uninit");
}

TEST_F(FailedInit, ARunThatIsUnderWayIsWaitedFor)
{
    Beat beat;
    Door door;
    beat.body = [&] {
        door.pass();
        journal.add("run");
    };
    doomed.init = [&](qor_context_t *self) {
        EXPECT_GE(beat.arm(self, 1), 0);
        EXPECT_TRUE(door.await(1));
        return -1;
    };
    doomed.uninit = [&](qor_context_t *) {
        journal.add("uninit after " + std::to_string(beat.recycles));
    };
    RunningBus bus({&doomed}, 8, 2);
    ASSERT_TRUE(journal.await(1));
    EXPECT_EQ(journal.text(), "unreg");

    door.open();
    ASSERT_TRUE(doomed.gone());

    EXPECT_EQ(journal.text(), "unreg run uninit after 1");
    EXPECT_EQ(beat.begun, 1);
}

/* What else the module has is recycled meanwhile, and waits until the timer waits again. */
TEST_F(FailedInit, ARunThatIsDueWhileItsModuleIsTakenDownIsNotBegun)
{
    Note task(journal, "task");
    doomed.init = [&](qor_context_t *self) {
        const int32_t session = qor_context_every(self, no_run, &journal, recycle, never);
        qor_time_que_t *timers =
            static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(&doomed.core()->base))
                ->bus->time_que;
        task.at_recycle = [timers, session] {
            fall_due(timers, session);
            EXPECT_TRUE(
                await([timers] { /* the task has the other timer */
                                 hal_scoped_lock lock(timers->mutex);
                                 const auto *first =
                                     reinterpret_cast<qor_time_que_node_t *>(timers->head.next);
                                 return timers->count == 2 && first->when > util_timestamp();
                }));
        };
        EXPECT_EQ(task.post(self, never), 0);
        return -1;
    };
    RunningBus bus({&doomed});

    ASSERT_TRUE(doomed.gone());

    EXPECT_EQ(journal.text(), "unreg -task recycle uninit");
}

TEST_F(FailedInit, NoPeriodicTimerIsArmedAfterIt)
{
    Beat beat;
    doomed.init = [](qor_context_t *) { return -1; };
    doomed.uninit = [&](qor_context_t *self) { EXPECT_EQ(beat.arm(self, 1), -1); };
    RunningBus bus({&doomed});

    ASSERT_TRUE(doomed.gone());

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(out.count("[qor_periodic][err][qor_context_every]:the bus has quit, or the init has "
                        "failed, source: doomed\n"),
              1);
    EXPECT_EQ(beat.begun, 0);
    EXPECT_EQ(beat.recycles, 0);
}

TEST_F(FailedInit, PeriodicTimersOfOthersGoOn)
{
    Module other("other");
    Beat beat;
    doomed.init = [&](qor_context_t *) {
        EXPECT_TRUE(beat.await_runs(2));
        return -1;
    };
    other.init = [&](qor_context_t *self) { return beat.arm(self, 1) < 0 ? -1 : 0; };
    RunningBus bus({&doomed, &other}, 8, 3);
    ASSERT_TRUE(doomed.gone());

    EXPECT_TRUE(beat.await_runs(beat.over + 2));

    EXPECT_EQ(beat.recycles, 0);
    bus.end();
    EXPECT_EQ(beat.recycles, 1);
}

namespace {

class WatchedBeat : public testing::Test {
protected:
    WatchedBeat()
    {
        EXPECT_TRUE(bus.up());
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    }

    Output out;
    Door door;
    Module module{"beating"};
    Beat beat;
    RunningBus bus{{&module}, 8, 2};
};

} // namespace

TEST_F(WatchedBeat, TheMonitorWatchesARunWhileItIsUnderWay)
{
    beat.body = [&] {
        door.pass();
        qor_context_timer_cancel(beat.self, beat.given);
    };
    ASSERT_GE(beat.arm(module.context(), 1), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(watches(), 1);

    door.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(watches(), 0);
}

TEST_F(WatchedBeat, ARunThatEndsItsThreadIsNotWatchedAnyMore)
{
    std::atomic<int> left{0};
    beat.body = [&] {
        qor_context_timer_cancel(beat.self, beat.given);
        leave(left);
    };
    ASSERT_GE(beat.arm(module.context(), 1), 0);

    ASSERT_TRUE(beat.await_recycle());

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(watches(), 0);
}
