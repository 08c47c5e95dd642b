/* SPDX-License-Identifier: Apache-2.0 */
/* Starts that somebody waits for, where a thread or memory is missing; and what the threads that
 * begin them leave behind. */
#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "pool.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "still_bus.hpp"

namespace {

void subscribe(qor_context_t *context)
{
    qor_context_subscribe(context, 0, nullptr);
}

int32_t leave(qor_context_t *)
{
    pthread_exit(nullptr);
}

/* A module that asks another one, as its init or whenever the test wants it to. */
class Pair : public testing::Test {
protected:
    Pair()
    {
        asked.reg = subscribe;
        asker.reg = [](qor_context_t *) { fault_arm(FAULT_THREAD, 0); }; /* the first helper */
        asker.init = ask;
    }
    ~Pair() override { fault_arm(FAULT_THREAD, -1); }

    static int32_t ask(qor_context_t *context) { return qor_context_x_req(context, 0, nullptr, 0); }

    Output out;
    Module asked{"asked"};
    Module asker{"asker"}; /* its init is queued first, being the newest */
};

using StartFaultsPair = Pair;

} // namespace

TEST(StartFaults, CloseGivesBackAHelperOfABusThatNeverLooped)
{
    Output out;
    Module asked("asked");
    Module asker("asker");
    asked.reg = subscribe;
    fault_arm(FAULT_ALLOC, -1);
    StillBus bus({&asked, &asker});
    bus.run_next(); /* the start-up: both inits are queued then */

    EXPECT_EQ(qor_context_x_req(asker.context(), 0, nullptr, 0), 0);

    EXPECT_TRUE(asked.started());
    EXPECT_FALSE(asker.started());
    bus.close();
    EXPECT_EQ(fault_live(), 0);
}

TEST(StartFaults, AHelperAsksForTheWorkersPriority)
{
    Module asked("asked");
    Module asker("asker");
    asked.reg = subscribe;
    int own = -1;
    asked.init = [&](qor_context_t *) {
        own = fault_own_priority();
        return 0;
    };
    StillBus bus({&asked, &asker});
    bus.run_next();
    qor_bus_priority_set(bus.get(), 31);

    EXPECT_EQ(qor_context_x_req(asker.context(), 0, nullptr, 0), 0);

    EXPECT_EQ(own, 31);
}

TEST_F(StartFaultsPair, WithoutAHelperTheWaitingThreadBeginsTheInit)
{
    pthread_t waiting{};
    pthread_t beginning{};
    asker.init = [&](qor_context_t *c) {
        waiting = pthread_self();
        return ask(c);
    };
    asked.init = [&](qor_context_t *) {
        beginning = pthread_self();
        return 0;
    };
    RunningBus bus({&asked, &asker}, 1, 1);

    EXPECT_TRUE(bus.up());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_TRUE(pthread_equal(waiting, beginning));
}

TEST_F(StartFaultsPair, AnInitThatLeavesTheWorkerThatWaitedForItHasFailed)
{
    asked.init = leave;
    RunningBus bus({&asked, &asker}, 1, 1);

    EXPECT_TRUE(await([&] { return out.count("init failed =") == 2; }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(asker.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

/* The application's own thread, with one worker that is held up. */
TEST_F(StartFaultsPair, AnInitThatLeavesAThreadOfTheApplicationHasFailed)
{
    Door door;
    asker.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    asked.init = leave;
    RunningBus bus({&asked, &asker}, 1, 1);
    ASSERT_TRUE(door.await(1));
    pthread_t thread;

    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *self) -> void * {
                      ask(static_cast<Module *>(self)->context());
                      return self;
                  },
                  &asker),
              0);
    void *result = &thread;
    pthread_join(thread, &result);

    EXPECT_EQ(result, nullptr); /* it has left */
    EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    door.open();
    EXPECT_TRUE(await([&] { return asker.started(); }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}

/* Each init waits for the one before; all of them run on the worker's stack in the end. */
TEST(StartFaults, AChainOfTwentyInitsComesUpOnOneThread)
{
    constexpr int length = 20;
    std::vector<std::unique_ptr<Module>> chain;
    std::vector<Module *> modules;
    for (int i = 0; i < length; i++) {
        chain.push_back(std::make_unique<Module>("link" + std::to_string(i)));
        modules.push_back(chain.back().get());
        chain.back()->reg = [i](qor_context_t *c) {
            qor_context_subscribe(c, i, nullptr);
            if (i == 0) {
                fault_arm_from(FAULT_THREAD, 0);
            }
        };
        chain.back()->init = [i](qor_context_t *c) {
            return i == 0 ? 0 : qor_context_x_req(c, i - 1, nullptr, 0);
        };
    }
    RunningBus bus(RunningBus::by_start, 1, modules, length);
    qor_bus_thread_stack_size_set(bus.get(), 1 << 20); /* all of them stand on one stack */
    bus.start();

    EXPECT_TRUE(bus.up());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), length - 1);
    fault_arm(FAULT_THREAD, -1);
}

/* The inits of three modules are queued newest first; one of them finds no memory. */
class StartFaultsMemory : public testing::TestWithParam<int> {};

TEST_P(StartFaultsMemory, AnInitWithoutATaskHasFailed)
{
    Output out;
    std::vector<std::unique_ptr<Module>> phase;
    std::vector<Module *> modules;
    Module next("next", /* pure */ 0);
    std::atomic<int> inits{0}, unregs{0}, uninits{0};
    for (int i = 0; i < 3; i++) {
        phase.push_back(std::make_unique<Module>("module" + std::to_string(i)));
        Module &module = *phase.back();
        modules.push_back(&module);
        module.init = [&](qor_context_t *) {
            inits++;
            return 0;
        };
        module.unreg = [&](qor_context_t *) { unregs++; };
        module.uninit = [&](qor_context_t *) { uninits++; };
    }
    phase.back()->reg = [](qor_context_t *) { fault_arm(FAULT_ALLOC, GetParam()); };
    modules.push_back(&next);
    RunningBus bus(modules, 1, 1);

    EXPECT_TRUE(await([&] { return next.started(); }));
    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(inits, 2);
    EXPECT_EQ(unregs, 1);
    EXPECT_EQ(uninits, 1);
    const Module &failed = *phase[static_cast<size_t>(2 - GetParam())];
    EXPECT_EQ(failed.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(out.count("[qor_core_context][err][qor_core_context_init]:context init failed.\n"),
              1);
    EXPECT_EQ(out.count(std::string("============ ") + failed.descriptor.name + " context("), 1);
    bus.end();
    EXPECT_EQ(uninits, 3);
}

INSTANTIATE_TEST_SUITE_P(Newest, StartFaultsMemory, testing::Values(0, 1, 2),
                         testing::PrintToStringParamName());

/* A helper's attribute is made as those of the workers are; what it lacks is said as they do. */
TEST(StartFaults, AHelperWithoutAnAttributeIsDoneWithout)
{
    Output out;
    Module asked("asked"), asker("asker");
    asked.reg = subscribe;
    StillBus bus({&asked, &asker});
    bus.run_next();
    fault_arm(FAULT_ALLOC, -1);
    fault_arm(FAULT_ATTR, 0);

    EXPECT_EQ(qor_context_x_req(asker.context(), 0, nullptr, 0), 0);

    EXPECT_EQ(fault_fired(FAULT_ATTR), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_TRUE(asked.started());
    EXPECT_EQ(out.count("[qor_bus][err][qor_bus_loop]:thread attribute failed.\n"), 1);
}

/* Whether there was memory for the helper or not. */
TEST(StartFaults, AQuitWhileAHelperIsMadeLeavesTheInitAlone)
{
    for (const bool memory : {false, true}) {
        Output out;
        Module asked("asked");
        Module asker("asker");
        asked.reg = subscribe;
        int inits = 0;
        asked.init = [&inits](qor_context_t *) { return inits++; };
        StillBus bus({&asked, &asker});
        bus.run_next();
        struct Quit {
            qor_bus_t *bus;
            int result;
        } quit = {bus.get(), memory ? 0 : -1};
        const auto at_once = [](void *arg) {
            qor_bus_quit(static_cast<Quit *>(arg)->bus);
            return static_cast<Quit *>(arg)->result;
        };
        fault_arm_run(FAULT_ALLOC, 0, at_once, &quit);

        EXPECT_EQ(qor_context_x_req(asker.context(), 0, nullptr, 0), -1);

        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        fault_arm(FAULT_ALLOC, -1);
        EXPECT_EQ(inits, 0);
        EXPECT_FALSE(asked.started());
    }
}

TEST_F(StartFaultsPair, WithoutAHelperAPoolsThreadBeginsTheInit)
{
    StillBus bus({&asked, &asker});
    bus.run_next();
    fault_arm(FAULT_THREAD, -1);
    std::atomic<int32_t> result{1};
    Job job;
    job.body = [&] {
        fault_arm(FAULT_THREAD, 0);
        result = ask(asker.context());
    };
    Pool pool(1, 1);

    ASSERT_GE(job.post(pool), 0);

    EXPECT_TRUE(await([&] { return result <= 0; }));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(asked.started());
}
