/* SPDX-License-Identifier: Apache-2.0 */
/* A module's tasks when the bus ends. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "tasks_fixture.hpp"

TEST_F(Tasks, WhatIsStillQueuedAtTheEndIsReleasedOnce)
{
    recycled = 0;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    for (int32_t i = 0; i < 45; i++) {
        ASSERT_EQ(post("t", 5000 + i, i % 2 ? 60000 : 0, nothing, count_recycle), 0);
    }
    qor_bus_quit(bus->get());
    crowd.door.open();

    bus->end();

    EXPECT_EQ(recycled, 45);
}

TEST_F(Tasks, AModuleThatKeepsPostingToItselfDoesNotHoldTheEndUp)
{
    static std::atomic<int> rounds;
    rounds = 0;
    struct Again {
        static void *run(qor_context_t *context, int32_t, void *arg)
        {
            rounds++;
            qor_context_x_runx(context, run, arg);
            return nullptr;
        }
    };
    ASSERT_GT(qor_context_x_runx(module.context(), Again::run, nullptr), 0);
    ASSERT_TRUE(await([] { return rounds > 100; }));

    EXPECT_EQ(bus->quit(), 0);
}
