/* SPDX-License-Identifier: Apache-2.0 */
/* The end of a bus: where it may be asked for, what it waits for, what becomes of work in flight,
 * and in which order things are taken down. */
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

constexpr int32_t topic = 1;

/* A module with a console. The console is the test's. */
class Talker : public Module {
public:
    explicit Talker(const std::string &name, uint32_t pure = 1) : Module(name, pure)
    {
        descriptor.console = [](qor_context_t *context) {
            return static_cast<Talker &>(Module::of(context)).console();
        };
        unreg = [this](qor_context_t *) { leaving = true; };
    }

    std::function<int32_t()> console;
    std::atomic<bool> leaving{false}; /* its unreg has been called */
};

class Stop : public testing::Test {
protected:
    static void serve(Module &module)
    {
        module.reg = [](qor_context_t *context) {
            EXPECT_EQ(qor_context_subscribe(context, topic, nullptr), 0);
        };
    }

    /* Writes down each step of a module. */
    void trace(Module &module, const std::string &name)
    {
        module.reg = [this, name](qor_context_t *) { journal.add(name + ".reg"); };
        module.unreg = [this, name](qor_context_t *) { journal.add(name + ".unreg"); };
        module.uninit = [this, name](qor_context_t *) { journal.add(name + ".uninit"); };
    }

    Output out;
    Journal journal;
    Ledger ledger;
};

} // namespace

/* ---- close ---- */

TEST_F(Stop, AConsoleMayGoOnAskingAModuleThatIsTakenDown)
{
    Talker asker("asker");
    Module asked("asked", 0);
    std::atomic<int> requests{0};
    asker.console = [&] {
        while (!asker.leaving) {
            qor_context_req(asker.context(), topic, nullptr, 0);
            requests++;
            usleep(100);
        }
        return 0;
    };
    serve(asked);
    asked.unreg = [&](qor_context_t *) {
        const int before = requests;
        EXPECT_TRUE(await([&] { return requests > before + 2; }));
        EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_RESUME); /* was PAUSE */
    };
    RunningBus bus({&asker, &asked});
    ASSERT_TRUE(bus.up());

    bus.end();

    EXPECT_EQ(out.count("STOP failed"), 0);
    EXPECT_EQ(out.count("not ready to destroy"), 0);
}

TEST_F(Stop, AConsoleIsAwaitedWhateverTheModuleHasMadeOfItsLifecycle)
{
    Talker module("module");
    std::atomic<bool> ended{false};
    module.console = [&] {
        EXPECT_TRUE(await([&] { return module.leaving.load(); }));
        usleep(20000);
        ended = true;
        return 0;
    };
    module.uninit = [&](qor_context_t *) { EXPECT_TRUE(ended); };
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    bus.quit();
    qor_core_context_lifecycle_change(module.core(), QOR_USER_CONTEXT_LIFECYCLE_STOP);

    bus.end();

    EXPECT_TRUE(ended);
}

/* ---- drain ---- */

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
        std::vector<std::thread> drains;
        for (Sleeper &sleeper : sleepers) {
            drains.emplace_back([&] {
                sleeper.here();
                EXPECT_EQ(qor_bus_drain(raw, -1), -1);
            });
        }
        for (Sleeper &sleeper : sleepers) {
            ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));
        }
        qor_bus_quit(bus.get());
        door.open();

        bus.end(); /* a drain that still looks at the bus is reported by the sanitizers */

        for (std::thread &drain : drains) {
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
        self.refused += qor_bus_drain(self.bus, 2000) < 0;
        self.recycles++;
    };
    const auto begun = std::chrono::steady_clock::now();

    ASSERT_EQ(qor_bus_timer_post(bus.get(), &timer), 0);

    EXPECT_TRUE(await([&] { return timed.recycles == 2; })); /* the loop's, and the worker's */
    EXPECT_EQ(timed.refused, 2);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    EXPECT_EQ(out.count("a task of the bus would wait for itself."), 2);
}
