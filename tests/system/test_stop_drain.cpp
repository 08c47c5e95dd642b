/* SPDX-License-Identifier: Apache-2.0 */
/* Draining a bus: what it waits for. */
#include <atomic>
#include <chrono>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "stop_fixture.hpp"
#include "thread.hpp"

TEST_F(Stop, ADrainUnderWayLeavesBeforeTheBusIsFreed)
{
    for (int round = 0; round < 100; round++) {
        Module module("module");
        RunningBus bus({&module});
        ASSERT_TRUE(bus.up());
        Door door;
        ledger.run(bus.get(), [&] { door.pass(); });
        ASSERT_TRUE(door.await(1));
        qor_bus_t *const raw = bus.get();
        Sleeper sleepers[3];
        std::vector<Thread> drains;
        for (Sleeper &sleeper : sleepers) {
            drains.emplace_back([&] {
                sleeper.here();
                EXPECT_EQ(qor_bus_drain(raw, -1), -1);
            });
        }
        const auto all_sleep = [&] {
            return sleepers[0].sleeps() && sleepers[1].sleeps() && sleepers[2].sleeps();
        };
        ASSERT_TRUE(await([&] { /* twice: at first one may wait for a lock of another's */
                                return all_sleep() && all_sleep();
        }));
        qor_bus_quit(bus.get());
        door.open();

        bus.end(); /* a drain that still looks at the bus is reported by the sanitizers */

        for (Thread &drain : drains) {
            drain.join();
        }
    }
}

TEST_F(Stop, ADrainByARecycleIsRefusedOnTheLoopThreadToo)
{
    struct Timed {
        qor_bus_t *bus;
        std::atomic<int> refused, recycles;
    };
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Timed timed = {bus.get(), {0}, {0}};
    qor_context_task_t timer = {};
    qor_context_task_init(
        &timer, nullptr, nullptr, 1, [](void *) -> void * { return nullptr; }, &timed);
    timer.delay = 1;
    timer.recycle = [](void *arg) {
        Timed &self = *static_cast<Timed *>(arg);
        self.refused += qor_bus_drain(self.bus, 30000) < 0;
        self.recycles++;
    };
    const auto begun = std::chrono::steady_clock::now();

    ASSERT_EQ(qor_bus_timer_post(bus.get(), &timer), 0);

    EXPECT_TRUE(await([&] { return timed.recycles == 2; })); /* the loop's, and the worker's */
    EXPECT_EQ(timed.refused, 2);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(30));
    EXPECT_EQ(out.count("a task of the bus would wait for itself."), 2);
}

TEST_F(Stop, DrainWaitsForPrivateQueuesAndNotForTheirTimers)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    std::atomic<int> runs{0};
    for (int32_t i = 0; i < 40; i++) { /* one after the other, each a while */
        ledger.post(module.context(), i, 0, 0, [&] {
            usleep(500);
            runs++;
        });
    }
    ledger.post(module.context(), 99, 3600000, 0, nullptr);

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);

    EXPECT_EQ(runs, 40);
    EXPECT_EQ(qor_bus_drain(bus.get(), 0), 0); /* one look */
    bus.end();
    EXPECT_EQ(ledger.errors(), "");
}

TEST_F(Stop, DrainOfABusyBusLooksOnceAndWaitsAsLongAsItIsTold)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Door door;
    ledger.run(bus.get(), [&] { door.pass(); });
    ASSERT_TRUE(door.await(1));

    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(qor_bus_drain(bus.get(), 0), -1);
    EXPECT_EQ(qor_bus_drain(bus.get(), 40), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(39));

    door.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), -1), 0);
    qor_bus_quit(bus.get());
    EXPECT_EQ(qor_bus_drain(bus.get(), -1), -1);
}
