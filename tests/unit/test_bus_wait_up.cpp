/* SPDX-License-Identifier: Apache-2.0 */
/* Waiting until the modules of a bus are up, and what is told of each. */
#include "qor_start.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "door.hpp"
#include "endless_module.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_core.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "start_report.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

const std::string own_line = line("wait_up", "a task of the bus would wait for itself.");

int32_t fail(qor_context_t *)
{
    return -2;
}

void leave(qor_context_t *)
{
    pthread_exit(nullptr);
}

int32_t console(qor_context_t *)
{
    return 0;
}

/* Three modules: two of the first phase, and one of the second between them. */
class WaitUp : public testing::Test {
protected:
    /* Looks once. */
    int32_t look(qor_bus_t *bus) { return qor_bus_wait_up(bus, 0, report.get()); }

    Output out;
    Module a{"a"}, b{"b", 0}, c{"c"};
    StartReport report;
};

/* The same, with a number of workers. */
class WaitUpWorkers : public WaitUp, public testing::WithParamInterface<uint32_t> {};

} // namespace

TEST_F(WaitUp, BeforeStartUpEveryModuleIsPending)
{
    StillBus bus({&a, &b, &c});

    EXPECT_EQ(look(bus.get()), -1);

    EXPECT_EQ(report.text(), "a: pending, b: pending, c: pending");
    EXPECT_EQ(report.report.total, 3U);
    EXPECT_EQ(report.entries[0].init_time, -1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(WaitUp, ModulesComeUpOneByOne)
{
    StillBus bus({&a, &b, &c});
    std::vector<std::string> seen;

    for (int i = 0; i < 3; i++) {
        bus.run_next();
        EXPECT_EQ(look(bus.get()), -1);
        seen.push_back(report.text());
    }
    bus.run_next();

    EXPECT_EQ(look(bus.get()), 0);
    EXPECT_EQ(seen[0], "a: pending, b: pending, c: pending");
    EXPECT_EQ(seen[1], "a: pending, b: pending, c: up");
    EXPECT_EQ(seen[2], "a: up, b: pending, c: up");
    EXPECT_EQ(report.text(), "a: up, b: up, c: up");
}

TEST_F(WaitUp, AModuleIsUpWhenItsStartHasReturned)
{
    qor_bus_t *raw = nullptr;
    a.init = [&](qor_context_t *) {
        EXPECT_EQ(look(raw), -1);
        return 7;
    };
    StillBus bus({&a});
    raw = bus.get();

    bus.run_all();

    EXPECT_EQ(report.text(), "a: pending");
    EXPECT_GE(report.entries[0].init_time, 0);
    EXPECT_EQ(look(raw), 0);
    EXPECT_EQ(report.text(), "a: up");
    EXPECT_EQ(report.entries[0].init_time, -1);
}

TEST_F(WaitUp, AnEmptyTableIsUpOnceTheManagerIs)
{
    StillBus bus;
    EXPECT_EQ(look(bus.get()), -1);

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 0);
    EXPECT_EQ(report.report.total, 0U);
}

TEST_F(WaitUp, AFailedInitLeavesTheOthers)
{
    c.init = fail; /* finishes before a */
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: up, b: up, c: init failed");
}

TEST_F(WaitUp, AModuleHasFailedBeforeItIsTakenDown)
{
    int32_t result = -1;
    qor_bus_t *raw = nullptr;
    a.init = fail;
    a.unreg = [&](qor_context_t *) { result = look(raw); };
    StillBus bus({&a});
    raw = bus.get();

    bus.run_all();

    EXPECT_EQ(result, 1);
    EXPECT_EQ(report.text(), "a: init failed");
}

TEST_F(WaitUp, TheSecondPhaseNeverBeginsBecauseOfTheLastThatFails)
{
    a.init = fail; /* finishes after c */
    StillBus bus({&a, &b, &c});
    bus.run_next();
    bus.run_next();
    EXPECT_EQ(look(bus.get()), -1);

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: init failed, b: never because of a, c: up");
}

TEST_F(WaitUp, OfSeveralThatFailTheLastIsNamed)
{
    a.init = c.init = fail;
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: init failed, b: never because of a, c: init failed");
}

TEST_F(WaitUp, AFailureInTheSecondPhaseStopsNothing)
{
    Module d("d", 0);
    d.init = fail;
    StillBus bus({&a, &b, &d});

    bus.run_all();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: up, b: up, d: init failed");
}

TEST_F(WaitUp, WithoutAPureModuleNothingWillComeUp)
{
    Module d("d", 0);
    StillBus bus({&b, &d});
    EXPECT_EQ(look(bus.get()), -1);

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "b: no pure, d: no pure");
}

TEST_F(WaitUp, AModuleThatNoClassServes)
{
    c.descriptor.id = 4711;
    StillBus bus({&a, &b, &c});

    bus.run_all();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: up, b: up, c: no class");
}

TEST_F(WaitUp, AModuleThatNoClassServesMayKeepThePhaseFromBeginning)
{
    a.descriptor.id = 4711;
    StillBus bus({&a, &b});

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: no class, b: never because of a");
}

TEST_F(WaitUp, AClassThatMakesNoContextCountsAsWithoutMemory)
{
    qor_context_cls_t cls = {
        "none",
        4712,
        {nullptr, nullptr},
        [](qor_context_module_t *) { return static_cast<qor_context_t *>(nullptr); },
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr};
    qor_context_core_class_register(qor_context_core_instance_get(), &cls);
    a.descriptor.id = 4712;
    StillBus bus({&a});

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 1);
    EXPECT_EQ(report.text(), "a: no memory");
    qor_context_core_class_unregister(qor_context_core_instance_get(), &cls);
}

TEST_F(WaitUp, ADescriptorThatIsListedTwiceHasTwoStarts)
{
    StillBus bus({&a, &a});
    bus.run_next();
    bus.run_next();
    EXPECT_EQ(look(bus.get()), -1);
    EXPECT_EQ(report.text(), "a: pending, a: up");

    bus.run_next();

    EXPECT_EQ(look(bus.get()), 0);
}

TEST_F(WaitUp, AModuleWithItsConsoleIsUp)
{
    a.descriptor.console = console;
    StillBus bus({&a});

    bus.run_all();

    EXPECT_EQ(look(bus.get()), 0);
    EXPECT_EQ(report.text(), "a: up");
}

TEST_F(WaitUp, OnlySoManyEntriesAreWrittenAsThereIsRoomFor)
{
    StartReport small(2);
    small.report.capacity = 1;
    small.entries[1].state = 99;
    StillBus bus({&a, &b, &c});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), 0, small.get()), -1);

    EXPECT_STREQ(small.entries[0].name, "a");
    EXPECT_EQ(small.entries[1].state, 99);
    EXPECT_STREQ(small.entries[1].name, "");
    EXPECT_EQ(small.report.total, 3U);
}

TEST_F(WaitUp, ThereNeedBeNoReportAndNoEntries)
{
    qor_start_report_t none = {nullptr, 0, 4711};
    StillBus bus({&a, &c});
    bus.run_all();

    EXPECT_EQ(qor_bus_wait_up(bus.get(), 0, nullptr), 0);
    EXPECT_EQ(qor_bus_wait_up(bus.get(), 0, &none), 0);

    EXPECT_EQ(none.total, 2U);
}

TEST_F(WaitUp, ANameIsReadNoFurtherThanItMayBeLong)
{
    qor_context_module_t endless = endless_module();
    qor_context_module_t *table[] = {&endless, nullptr};
    qor_bus_t *bus = qor_bus_create(table, 1);

    EXPECT_EQ(look(bus), -1);

    EXPECT_STREQ(report.entries[0].name, "0123456789012345678");
    qor_bus_close(bus);
}

TEST_F(WaitUp, ANullBusIsReported)
{
    EXPECT_EQ(qor_bus_wait_up(nullptr, 0, report.get()), -1);

    EXPECT_EQ(out.printed(), line("wait_up", "!(_this) == true."));
    EXPECT_EQ(report.report.total, 4711U);
}

TEST_F(WaitUp, RoomWithoutEntriesIsReported)
{
    qor_start_report_t none = {nullptr, 3, 4711};
    StillBus bus({&a});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), 0, &none), -1);

    EXPECT_EQ(out.printed(),
              line("wait_up", "!(!report || report->entries || !report->capacity) == true."));
    EXPECT_EQ(none.total, 4711U);
}

TEST_F(WaitUp, QuitBeforeStartUpComesFirst)
{
    StillBus bus({&a});
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 2);

    EXPECT_EQ(report.text(), "a: pending");
}

TEST_F(WaitUp, QuitAfterwardsChangesNothing)
{
    StillBus bus({&a});
    bus.run_all();
    qor_bus_quit(bus.get());

    EXPECT_EQ(look(bus.get()), 0);
}

TEST_F(WaitUp, QuitThatCameFirstStaysFirst)
{
    Door door;
    a.init = [&](qor_context_t *) {
        door.pass();
        return 0;
    };
    RunningBus bus({&a});
    ASSERT_TRUE(door.await(1));
    qor_bus_quit(bus.get());
    EXPECT_EQ(look(bus.get()), 2);
    EXPECT_EQ(report.text(), "a: pending");
    door.open();
    bus.returned();

    EXPECT_EQ(look(bus.get()), 2);

    EXPECT_EQ(report.text(), "a: up");
}

TEST_F(WaitUp, QuitEndsAWait)
{
    Door door;
    a.init = [&](qor_context_t *) {
        door.pass();
        return 0;
    };
    RunningBus bus({&a, &b});
    ASSERT_TRUE(door.await(1));
    Sleeper sleeper;
    Thread waiting([&] {
        sleeper.here();
        EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 2);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps() && sleeper.sleeps(); }));

    qor_bus_quit(bus.get());
    waiting.join();

    EXPECT_EQ(report.text(), "a: pending, b: pending");
    door.open(); /* else the loop would not return */
}

TEST_F(WaitUp, AWaitEndsWithItsTime)
{
    Door door;
    a.init = [&](qor_context_t *) {
        door.pass();
        return 0;
    };
    RunningBus bus({&a, &b, &c}, 8, /* workers */ 2);
    ASSERT_TRUE(door.await(1));
    ASSERT_TRUE(await([&] { return c.started(); }));
    const int64_t begun = now();

    EXPECT_EQ(qor_bus_wait_up(bus.get(), 50, report.get()), -1);

    EXPECT_GE(now() - begun, 49);
    EXPECT_EQ(report.text(), "a: pending, b: pending, c: up");
    EXPECT_GE(report.entries[0].init_time, 49);
    EXPECT_EQ(report.entries[1].init_time, -1);
    EXPECT_EQ(report.entries[2].init_time, -1);
    door.open();
}

TEST_F(WaitUp, BeforeTheLoopItWaits)
{
    RunningBus bus(RunningBus::by_start, /* workers */ 1, {&a, &b});
    EXPECT_EQ(qor_bus_wait_up(bus.get(), 20, nullptr), -1);
    Sleeper sleeper;
    Thread waiting([&] {
        sleeper.here();
        EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 0);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps() && sleeper.sleeps(); }));

    bus.start();
    waiting.join();

    EXPECT_EQ(report.text(), "a: up, b: up");
}

TEST_P(WaitUpWorkers, ItWaitsUntilAllAreUp)
{
    a.init = b.init = [](qor_context_t *) {
        usleep(20000);
        return 0;
    };
    RunningBus bus({&a, &b, &c}, 8, GetParam());

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 0);

    EXPECT_EQ(report.text(), "a: up, b: up, c: up");
    EXPECT_TRUE(a.started() && b.started() && c.started());
}

TEST_P(WaitUpWorkers, ItWaitsUntilTheRestCannotComeUp)
{
    a.init = c.init = [](qor_context_t *) {
        usleep(20000);
        return -1;
    };
    RunningBus bus({&a, &b, &c}, 8, GetParam());

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.entries[0].state, QOR_START_INIT_FAILED);
    EXPECT_EQ(report.entries[1].state, QOR_START_NEVER);
    EXPECT_EQ(report.entries[2].state, QOR_START_INIT_FAILED);
    EXPECT_NE(std::string("ac").find(report.entries[1].because), std::string::npos);
    EXPECT_STRNE(report.entries[1].because, "");
}

/* Inits that end at once: whichever is last decides, and the report agrees with what happens. */
TEST_P(WaitUpWorkers, WhatItTellsOfTheSecondPhaseIsSo)
{
    a.init = fail;
    for (int round = 0; round < 100; round++) {
        RunningBus bus({&a, &b, &c}, 8, GetParam());

        EXPECT_EQ(qor_bus_wait_up(bus.get(), 60000, report.get()), 1);
        const std::string told = report.text();

        EXPECT_TRUE(told == "a: init failed, b: up, c: up" ||
                    told == "a: init failed, b: never because of a, c: up")
            << told;
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        EXPECT_EQ(b.started(), report.entries[1].state == QOR_START_UP);
        out.clear();
    }
}

TEST_P(WaitUpWorkers, SeveralMayWaitAtOnce)
{
    Door door;
    a.init = [&](qor_context_t *) {
        door.pass();
        return 0;
    };
    RunningBus bus({&a}, 8, GetParam());
    std::atomic<int> up{0};
    std::vector<Thread> waiting;
    for (int i = 0; i < 4; i++) {
        waiting.emplace_back([&] { up += qor_bus_wait_up(bus.get(), -1, nullptr) == 0; });
    }
    ASSERT_TRUE(door.await(1));
    door.open();

    for (Thread &thread : waiting) {
        thread.join();
    }

    EXPECT_EQ(up, 4);
}

INSTANTIATE_TEST_SUITE_P(Numbers, WaitUpWorkers, testing::Values(1U, 2U, 4U));

TEST_F(WaitUp, ThoseInsideLeaveBeforeTheBusIsFreed)
{
    for (int round = 0; round < 50; round++) {
        Door door;
        a.init = [&](qor_context_t *) {
            door.pass();
            return 0;
        };
        RunningBus bus({&a});
        ASSERT_TRUE(door.await(1));
        qor_bus_t *const raw = bus.get();
        Sleeper sleepers[3];
        std::vector<Thread> waits;
        for (Sleeper &sleeper : sleepers) {
            waits.emplace_back([&] {
                sleeper.here();
                StartReport own;
                EXPECT_EQ(qor_bus_wait_up(raw, -1, own.get()), 2);
            });
        }
        const auto all_sleep = [&] {
            return sleepers[0].sleeps() && sleepers[1].sleeps() && sleepers[2].sleeps();
        };
        ASSERT_TRUE(await([&] { /* twice: at first one may wait for a lock of another's */
                                return all_sleep() && all_sleep();
        }));
        qor_bus_quit(raw);
        door.open();

        bus.end(); /* a wait that still looks at the bus is reported by the sanitizers */

        for (Thread &wait : waits) {
            wait.join();
        }
    }
}

TEST_F(WaitUp, ATaskIsRefused)
{
    RunningBus bus({&a});
    ASSERT_EQ(qor_bus_wait_up(bus.get(), -1, nullptr), 0);
    out.clear();
    Job job;
    int32_t result = 0;
    job.body = [&] { result = qor_bus_wait_up(bus.get(), -1, report.get()); };

    qor_bus_run(bus.get(), Job::run, &job, Job::recycle);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));

    EXPECT_EQ(result, -1);
    EXPECT_EQ(report.report.total, 4711U);
    EXPECT_EQ(out.printed(), own_line);
}

TEST_F(WaitUp, AnInitAndARegAreRefused)
{
    std::atomic<qor_bus_t *> raw{nullptr};
    int32_t in_reg = 0, in_init = 0;
    a.reg = [&](qor_context_t *) { in_reg = qor_bus_wait_up(raw, -1, report.get()); };
    a.init = [&](qor_context_t *) {
        in_init = qor_bus_wait_up(raw, -1, report.get());
        return 0;
    };
    RunningBus bus(RunningBus::by_start, /* workers */ 1, {&a});
    raw = bus.get();
    bus.start();

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, nullptr), 0);

    EXPECT_EQ(in_reg, -1);
    EXPECT_EQ(in_init, -1);
    EXPECT_EQ(out.count(own_line), 2);
}

TEST_F(WaitUp, ARecycleOnTheLoopThreadIsRefused)
{
    struct Timed {
        qor_bus_t *bus;
        std::atomic<int> refused, recycles;
    };
    RunningBus bus({&a});
    ASSERT_EQ(qor_bus_wait_up(bus.get(), -1, nullptr), 0);
    Timed timed = {bus.get(), {0}, {0}};
    qor_context_task_t timer = {};
    qor_context_task_init(
        &timer, nullptr, nullptr, 1, [](void *) -> void * { return nullptr; }, &timed);
    timer.delay = 1;
    timer.recycle = [](void *arg) {
        Timed &self = *static_cast<Timed *>(arg);
        self.refused += qor_bus_wait_up(self.bus, -1, nullptr) < 0;
        self.recycles++;
    };

    ASSERT_EQ(qor_bus_timer_post(bus.get(), &timer), 0);

    EXPECT_TRUE(await([&] { return timed.recycles == 2; })); /* the loop's, and the worker's */
    EXPECT_EQ(timed.refused, 2);
    EXPECT_EQ(out.count(own_line), 2);
}

TEST_F(WaitUp, AConsoleMayWait)
{
    static std::atomic<qor_bus_t *> raw;
    static std::atomic<int32_t> result;
    result = -2;
    a.descriptor.console = [](qor_context_t *) {
        result = qor_bus_wait_up(raw, -1, nullptr);
        return 0;
    };
    RunningBus bus(RunningBus::by_start, /* workers */ 1, {&a, &b});
    raw = bus.get();
    bus.start();

    EXPECT_TRUE(await([&] { return result == 0; }));
}

TEST_F(WaitUp, AnInitThatEndsItsThreadHasFailed)
{
    a.init = [](qor_context_t *context) {
        leave(context);
        return 0;
    };
    RunningBus bus({&a, &b});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.text(), "a: init failed, b: never because of a");
}

TEST_F(WaitUp, AnUninitThatEndsItsThreadKeepsNobodyWaiting)
{
    a.init = fail;
    a.uninit = leave;
    RunningBus bus({&a, &b});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.text(), "a: init failed, b: never because of a");
    EXPECT_EQ(qor_bus_drain(bus.get(), -1), 0);
    a.uninit = nullptr; /* close calls it on this thread */
}

TEST_F(WaitUp, ARegThatEndsItsThreadBreaksStartUp)
{
    c.reg = leave;
    RunningBus bus({&a, &b, &c});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.text(), "a: broken, b: broken, c: broken");
}

TEST_F(WaitUp, ARegThatEndsItsThreadBreaksItsPhase)
{
    b.reg = leave;
    RunningBus bus({&a, &b, &c});

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.text(), "a: up, b: broken, c: up");
}
