/* SPDX-License-Identifier: Apache-2.0 */
/* For whom an init that has failed waits, and for whom it does not. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"

namespace {

/* Two modules whose init fails once both have begun. Each has a task that asks whom the test says,
 * and is refused. */
class FailedInits : public testing::Test {
protected:
    /* Each asks the topic that is given for it. */
    void set_up(int32_t &first_asks, int32_t &second_asks)
    {
        first.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        second.reg = [&](qor_context_t *c) {
            qor_context_subscribe(c, 1, nullptr);
            qor_context_x_runx(first.context(), ask, &first_asks);
            qor_context_x_runx(c, ask, &second_asks);
        };
        for (Module *module : {&first, &second}) {
            module->init = [this](qor_context_t *) {
                begun++;
                EXPECT_TRUE(await([this] { return begun == 2; }));
                return -1;
            };
        }
    }

    bool both_gone() const
    {
        return await([this] {
            return first.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY &&
                   second.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY;
        });
    }

    Output out;
    int32_t topics[2] = {0, 1};
    std::atomic<int> begun{0};
    Module first{"first"}, second{"second"};

private:
    static void *ask(qor_context_t *context, int32_t, void *topic)
    {
        EXPECT_EQ(qor_context_x_req(context, *static_cast<int32_t *>(topic), nullptr, 0), -1);
        return nullptr;
    }
};

} // namespace

TEST_F(FailedInits, DoNotWaitForEachOthersTasks)
{
    set_up(topics[1], topics[0]);
    RunningBus bus({&first, &second}, 2, 2);

    EXPECT_TRUE(both_gone());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(out.count("handle message failed, ret = -1"), 2);
}

TEST_F(FailedInits, DoNotWaitForTasksThatWaitForThem)
{
    set_up(topics[0], topics[1]);
    RunningBus bus({&first, &second}, 2, 2);

    EXPECT_TRUE(both_gone());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(out.count("handle message failed, ret = -1"), 2);
}
