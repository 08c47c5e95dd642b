/* SPDX-License-Identifier: Apache-2.0 */
/* An init that two threads are about to begin. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "hal_sync.hpp"
#include "output.hpp"
#include "qor_bus_priv.hpp"
#include "qor_core_context_priv.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

TEST(UserInit, IsBegunByTheFirstThatClaimsIt)
{
    Output out;
    Module module("module");
    int inits = 0;
    module.init = [&inits](qor_context_t *) { return inits++; };
    StillBus bus({&module});
    bus.run_next(); /* the start-up: the init is on offer then */
    qor_core_context_t *core = module.core();
    const qor_bus_private &priv = *bus.get()->priv;
    std::atomic<bool> helped{true};
    Thread second;
    {
        hal_scoped_lock lock(core->mutex);
        second = Thread([&] { helped = user_init_help(core, bus.get()); });
        EXPECT_TRUE(await([&] { return hal_load(priv.busy) == 1; })); /* it has seen the offer */
        hal_store(core->priv->init, user_init_begun);
    }

    second.join();

    EXPECT_FALSE(helped);
    EXPECT_EQ(hal_load(priv.busy), 0);
    EXPECT_EQ(inits, 0);
    {
        hal_scoped_lock lock(core->mutex);
        hal_store(core->priv->init, user_init_offered);
    }
    bus.run_all();
    EXPECT_EQ(inits, 1);
}
