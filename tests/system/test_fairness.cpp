/* SPDX-License-Identifier: Apache-2.0 */
/* A module that always has work does not keep others from a worker. */
#include <algorithm>
#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "running_bus.hpp"

namespace {

/* A module one of whose tasks posts itself again for as long as it is let. */
struct Busy {
    explicit Busy(const std::string &name) : module(name) {}

    void begin()
    {
        goes_on = true;
        EXPECT_GE(post(), 0);
    }

    int32_t post() { return qor_context_run(module.context(), run, this); }
    int32_t post_once() { return qor_context_run(module.context(), run_once, this); }

    static void *run(void *arg)
    {
        Busy &busy = *static_cast<Busy *>(arg);
        run_once(arg);
        if (busy.goes_on) {
            busy.post();
        }
        return nullptr;
    }

    static void *run_once(void *arg)
    {
        Busy &busy = *static_cast<Busy *>(arg);
        busy.most_beside = std::max(busy.most_beside.load(), ++busy.beside);
        busy.runs++;
        busy.beside--;
        return nullptr;
    }

    Module module;
    std::atomic<bool> goes_on{false};
    std::atomic<long> runs{0};
    std::atomic<int> beside{0}, most_beside{0};
};

class Fairness : public testing::TestWithParam<uint32_t> {
protected:
    Output out;
    Busy one{"one"}, two{"two"};
    Module other{"other"};
};

void *count(void *arg)
{
    (*static_cast<std::atomic<int> *>(arg))++;
    return nullptr;
}

} // namespace

TEST_P(Fairness, TasksAndTimersOfOthersRunWhileModulesAreBusy)
{
    RunningBus bus({&one.module, &two.module, &other}, 1, GetParam());
    ASSERT_TRUE(bus.up());
    one.begin();
    two.begin();
    std::atomic<int> tasks{0}, timers{0};

    for (int i = 1; i <= 20; i++) {
        ASSERT_GE(qor_context_timer(other.context(), count, &timers, 1), 0);
        ASSERT_GE(qor_context_run(other.context(), count, &tasks), 0);
        ASSERT_TRUE(await([&] { return tasks == i && timers == i; }));
    }

    EXPECT_TRUE(one.goes_on && two.goes_on);
    one.goes_on = two.goes_on = false;
}

TEST_P(Fairness, BothOfTwoBusyModulesGetOn)
{
    RunningBus bus({&one.module, &two.module, &other}, 1, GetParam());
    ASSERT_TRUE(bus.up());
    one.begin();
    two.begin();

    for (int i = 0; i < 10; i++) {
        const long first = one.runs, second = two.runs;
        ASSERT_TRUE(await([&] { return one.runs > first + 100 && two.runs > second + 100; }));
    }

    one.goes_on = two.goes_on = false;
}

TEST_P(Fairness, ARunThatGivesWayKeepsItsSlot)
{
    RunningBus bus({&one.module, &two.module, &other}, 1, GetParam());
    ASSERT_TRUE(bus.up());
    one.begin();
    two.begin();

    for (int i = 0; i < 500; i++) {
        ASSERT_GE(one.runs % 2 ? one.post_once() : two.post_once(), 0);
        ASSERT_TRUE(await([&, runs = one.runs + two.runs] { return one.runs + two.runs > runs; }));
    }
    one.goes_on = two.goes_on = false;
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);

    /* A task past the fiftieth may run beside the others; so many never wait here. */
    EXPECT_EQ(one.most_beside, 1);
    EXPECT_EQ(two.most_beside, 1);
    EXPECT_EQ(one.module.core()->refcount, 0);
    EXPECT_EQ(two.module.core()->refcount, 0);
}

INSTANTIATE_TEST_SUITE_P(Workers, Fairness, testing::Values(1u, 2u));

/* With one worker: how many tasks of one module's run go before a task of another's. */
TEST(FairnessOfATurn, ARunTakesSeveralTasksAndNotMoreThanItsShare)
{
    constexpr long share = 64; /* with the one that is held up */
    Output out;
    Busy one("one");
    Module other("other");
    RunningBus bus({&one.module, &other}, 1, 1u);
    ASSERT_TRUE(bus.up());
    struct Look {
        static void *run(void *arg)
        {
            Look &look = *static_cast<Look *>(arg);
            look.seen = look.one.runs.load();
            return nullptr;
        }
        Busy &one;
        std::atomic<long> seen;
    };
    long most = 0;

    for (int i = 0; i < 300 && most < share - 1; i++) {
        Door door;
        Look look{one, {-1}};
        one.runs = 0;
        ASSERT_GE(qor_context_run(
                      one.module.context(),
                      [](void *arg) -> void * {
                          static_cast<Door *>(arg)->pass();
                          return nullptr;
                      },
                      &door),
                  0);
        ASSERT_TRUE(door.await(1));
        ASSERT_GE(qor_context_run(other.context(), Look::run, &look), 0);
        one.begin();
        door.open();
        ASSERT_TRUE(await([&] { return look.seen >= 0; }));
        most = std::max(most, look.seen.load());
        one.goes_on = false;
        ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    }

    EXPECT_GT(most, 1);
    EXPECT_LT(most, share);
}

/* Each argument is recycled once, whether its task ran, waited behind a run that had given way, or
 * was refused while one did. */
TEST(FairnessAtQuit, EveryTaskIsRunOrDiscardedOnce)
{
    Output out;
    static std::atomic<long> accepted, recycled, runs;
    static std::atomic<bool> closing;
    struct Again {
        static void *run(void *arg)
        {
            runs++;
            if (!closing) {
                post(*static_cast<Module *>(arg));
            }
            return nullptr;
        }
        static void post(Module &module)
        {
            qor_context_task_t task = {};
            qor_context_task_init(&task, nullptr, "again", 1, run, &module);
            task.recycle = [](void *) { recycled++; };
            accepted++;
            if (qor_context_handler_post(module.context(), &task) < 0) {
                accepted--;
            }
        }
    };
    for (int cycle = 0; cycle < 60; cycle++) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        accepted = recycled = runs = 0;
        closing = false;
        Module one("one"), two("two");
        {
            RunningBus bus({&one, &two}, 1, 1 + static_cast<uint32_t>(cycle) % 2);
            ASSERT_TRUE(bus.up());
            for (int i = 0; i < 3; i++) {
                Again::post(one);
                Again::post(two);
            }
            ASSERT_TRUE(await([&] { return runs > 50 * (cycle % 10); }));
        }
        closing = true;
        EXPECT_EQ(recycled, accepted);
    }
}
