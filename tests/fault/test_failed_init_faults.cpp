/* SPDX-License-Identifier: Apache-2.0 */
/* Inits that fail on the very threads that wait for them, because no others can be had. */
#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"

namespace {

thread_local bool asking; /* this thread runs a task that asks */

/* Modules whose init fails once all have begun, each below a task that asks for it and is refused:
 * no helper can be had any more when the tasks are posted. */
class FailedInitFaults : public testing::Test {
protected:
    ~FailedInitFaults() override { fault_arm(FAULT_THREAD, -1); }

    int32_t fail()
    {
        EXPECT_TRUE(asking);
        begun++;
        EXPECT_TRUE(await([this] { return begun == modules; }));
        return -1;
    }

    /* Posts a task to a module that asks for a topic. */
    static void post(const Module &module, int32_t &topic)
    {
        qor_context_x_runx(
            module.context(),
            [](qor_context_t *context, int32_t, void *number) -> void * {
                asking = true;
                EXPECT_EQ(qor_context_x_req(context, *static_cast<int32_t *>(number), nullptr, 0),
                          -1);
                asking = false;
                return nullptr;
            },
            &topic);
    }

    static bool gone(const Module &module)
    {
        return await([&] { return module.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; });
    }

    Output out;
    int32_t topics[2] = {0, 1};
    int modules = 1;
    std::atomic<int> begun{0};
    Module first{"first"}, second{"second"};
};

} // namespace

TEST_F(FailedInitFaults, ATaskBelowTheInitOfItsOwnModuleIsNotWaitedFor)
{
    first.reg = [&](qor_context_t *c) {
        qor_context_subscribe(c, 0, nullptr);
        fault_arm_from(FAULT_THREAD, 0);
        post(first, topics[0]);
    };
    first.init = [&](qor_context_t *) { return fail(); };
    RunningBus bus({&first}, 1, 1);

    EXPECT_TRUE(gone(first));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(out.count("handle message failed, ret = -1 source = first, topic = 0"), 1);
}

TEST_F(FailedInitFaults, TasksBelowTheInitsOfEachOthersModulesAreNotWaitedFor)
{
    Door door;
    modules = 2;
    first.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    second.reg = [&](qor_context_t *c) {
        qor_context_subscribe(c, 1, nullptr);
        qor_context_x_runx(
            c,
            [](qor_context_t *, int32_t, void *at) -> void * {
                static_cast<Door *>(at)->pass();
                return nullptr;
            },
            &door);
        EXPECT_TRUE(door.await(1)); /* there is a second worker */
        fault_arm_from(FAULT_THREAD, 0);
        post(first, topics[1]);
        post(second, topics[0]);
        door.open();
    };
    first.init = [&](qor_context_t *) { return fail(); };
    second.init = [&](qor_context_t *) { return fail(); };
    RunningBus bus({&first, &second}, 2, 2);

    EXPECT_TRUE(gone(first));
    EXPECT_TRUE(gone(second));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 2);
}

/* The task waits for the init, which runs on its stack: the uninit comes before the task ends. */
TEST_F(FailedInitFaults, TheTaskBelowEndsAfterItsModule)
{
    std::string order;
    first.init = [](qor_context_t *) { return -1; };
    first.uninit = [&](qor_context_t *) { order += "uninit "; };
    first.reg = [&](qor_context_t *c) {
        qor_context_subscribe(c, 0, nullptr);
        fault_arm_from(FAULT_THREAD, 0);
        qor_context_x_runx(
            c,
            [](qor_context_t *self, int32_t, void *to) -> void * {
                EXPECT_EQ(qor_context_x_req(self, 0, nullptr, 0), -1);
                *static_cast<std::string *>(to) += "task";
                return nullptr;
            },
            &order);
    };
    RunningBus bus({&first}, 1, 1);

    EXPECT_TRUE(gone(first));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(order, "uninit task");
}
