/* SPDX-License-Identifier: Apache-2.0 */
/* Quitting a bus while somebody waits for a start. */
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

const char *const resume_failed = "lifecycle already STOP or DESTROY. RESUME failed.";

} // namespace

TEST(StartsAndQuit, QueuedInitsAreNotBegun)
{
    Output out;
    Door door;
    std::atomic<int> inits{0};
    Module first("first"), second("second"), blocker("blocker");
    for (Module *module : {&first, &second}) {
        module->init = [&](qor_context_t *) {
            inits++;
            return 0;
        };
    }
    blocker.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    RunningBus bus({&first, &second, &blocker}, 1, 1);
    ASSERT_TRUE(door.await(1));

    qor_bus_quit(bus.get());
    door.open();

    EXPECT_EQ(bus.quit(), 0);
    EXPECT_EQ(inits, 0);
    EXPECT_TRUE(blocker.started());
}

/* Each waits for the other, or for itself. */
class StartsInACircle : public testing::TestWithParam<int> {};

TEST_P(StartsInACircle, WaitUntilTheBusQuits)
{
    const int length = GetParam();
    Output out;
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<Module *> all;
    std::vector<std::unique_ptr<Sleeper>> sleepers;
    std::atomic<int> refused{0};
    for (int i = 0; i < length; i++) {
        modules.push_back(std::make_unique<Module>("part" + std::to_string(i)));
        sleepers.push_back(std::make_unique<Sleeper>());
        all.push_back(modules.back().get());
        modules.back()->reg = [i](qor_context_t *c) { qor_context_subscribe(c, i, nullptr); };
        modules.back()->init = [&refused, i, length,
                                self = sleepers.back().get()](qor_context_t *c) {
            self->here();
            refused += qor_context_x_req(c, (i + 1) % length, nullptr, 0) == -1;
            return -1;
        };
    }
    RunningBus bus(all, length, 1);

    for (const auto &sleeper : sleepers) {
        EXPECT_TRUE(await([&] { return sleeper->sleeps(); }));
    }
    EXPECT_EQ(qor_bus_drain(bus.get(), 20), -1);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(bus.quit(), 0);
    EXPECT_EQ(refused, length);
    EXPECT_EQ(out.count(resume_failed), length);
}

INSTANTIATE_TEST_SUITE_P(Length, StartsInACircle, testing::Values(1, 2, 7),
                         testing::PrintToStringParamName());

TEST(StartsAndQuit, ARegThatAsksItsOwnPhaseWaitsUntilTheBusQuits)
{
    Output out;
    Sleeper sleeper;
    Module asked("asked"), asker("asker"), last("last");
    std::atomic<int32_t> answer{1};
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asker.reg = [&](qor_context_t *c) {
        sleeper.here();
        answer = qor_context_x_req(c, 0, nullptr, 0);
    };
    RunningBus bus({&asked, &asker, &last}, 1, 2);
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));
    EXPECT_EQ(answer, 1);

    EXPECT_EQ(bus.quit(), 0);

    EXPECT_EQ(answer, -1);
    EXPECT_FALSE(asked.started());
    EXPECT_NE(last.context(), nullptr); /* the phase goes on as far as it can */
    EXPECT_EQ(out.count(resume_failed), 1);
}

TEST(StartsAndQuit, AWaitingTaskIsLetGo)
{
    Output out;
    Door door;
    Module asked("asked"), asker("asker");
    std::atomic<int32_t> answer{1};
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asked.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    asker.init = [&](qor_context_t *c) {
        answer = qor_context_x_req(c, 0, nullptr, 0);
        return 0;
    };
    RunningBus bus({&asked, &asker}, 1, 2);
    ASSERT_TRUE(door.await(1));

    qor_bus_quit(bus.get());

    EXPECT_TRUE(await([&] { return answer == -1; }));
    door.open();
    EXPECT_EQ(bus.quit(), 0);
    EXPECT_TRUE(asked.started());
    EXPECT_EQ(out.count(resume_failed), 1);
}
