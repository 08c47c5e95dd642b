/* SPDX-License-Identifier: Apache-2.0 */
/* Closing a bus: the order, and what is left. */
#include <atomic>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "running_bus.hpp"
#include "stop_fixture.hpp"

namespace {

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

} // namespace

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

TEST_F(Stop, CloseTakesModulesDownInReverseOrderOfTheirStartWithTheConsolesEnd)
{
    Talker early("early"), late("late", 0);
    trace(early, "early");
    trace(late, "late");
    for (Talker *talker : {&early, &late}) {
        const std::string name = talker->descriptor.name;
        const auto unreg = talker->unreg;
        talker->unreg = [=](qor_context_t *context) {
            EXPECT_EQ(talker->lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
            unreg(context);
            talker->leaving = true;
        };
        talker->console = [this, talker, name] {
            EXPECT_TRUE(await([&] { return talker->leaving.load(); }));
            journal.add(name + ".console");
            return 0;
        };
        talker->uninit = [this, talker, name](qor_context_t *) {
            EXPECT_EQ(talker->lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_STOP);
            journal.add(name + ".uninit");
        };
    }
    RunningBus bus({&early, &late});
    ASSERT_TRUE(bus.up());
    bus.quit();
    journal.clear();
    out.clear();

    bus.end();

    EXPECT_EQ(journal.text(), "late.unreg late.console late.uninit "
                              "early.unreg early.console early.uninit");
    EXPECT_EQ(out.printed(), "");
    EXPECT_TRUE(list_empty(&context_head));
}

TEST_F(Stop, CloseFreesModulesOfAllFates)
{
    Module failing("failing"), stuck("stuck"), good("good"), never("never", 0);
    Door door;
    trace(failing, "failing");
    trace(never, "never");
    failing.init = [](qor_context_t *) { return -1; };
    stuck.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    /* One worker, and init tasks come in reverse order: the stuck module's begins when those of the
     * others are over, to the last step. */
    RunningBus bus({&stuck, &failing, &good, &never}, 3, 1);
    ASSERT_TRUE(door.await(1));
    EXPECT_TRUE(good.started());
    EXPECT_EQ(failing.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_bus_quit(bus.get());
    door.open();
    bus.quit();
    EXPECT_EQ(journal.text(), "failing.reg failing.unreg failing.uninit never.reg");

    bus.end(); /* the leak checker sees what stays */

    EXPECT_EQ(journal.text(), "failing.reg failing.unreg failing.uninit never.reg "
                              "never.unreg never.uninit");

    EXPECT_TRUE(list_empty(&context_head));
    EXPECT_EQ(qor_bus_module.arg, nullptr);
    EXPECT_EQ(qor_mng_module.arg, nullptr);
}

TEST_F(Stop, ACleanRunPrintsNoErrorAndAnotherBusMayFollow)
{
    for (int round = 0; round < 3; round++) {
        Module module("module"), later("later", 0);
        serve(module);
        std::atomic<int> answered{0};
        later.handle = [&](qor_context_t *, qor_context_msg_t *) {
            answered++;
            return 0;
        };
        RunningBus bus({&module, &later});
        ASSERT_TRUE(bus.up());
        for (int i = 0; i < 20; i++) {
            EXPECT_GE(qor_context_req(later.context(), topic, nullptr, 0), 0);
        }

        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        EXPECT_EQ(answered, 20); /* requests, private queues and responses were awaited */
        bus.end();
    }
    EXPECT_EQ(out.count("[err]"), 0);
    EXPECT_EQ(out.count("[wrn]"), 0);
}
