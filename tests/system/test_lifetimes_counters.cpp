/* SPDX-License-Identifier: Apache-2.0 */
/* Counters that pass their largest value. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "lifetimes_fixture.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "running_bus.hpp"

TEST_F(Lifetimes, CountersThatRiseForEverWrap)
{
    Module client("client"), server("server");
    std::atomic<int> handled{0};
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        handled++;
        return 0;
    };
    RunningBus bus({&client, &server});
    ASSERT_TRUE(bus.up());
    qor_context_subscribe(server.context(), topic, nullptr);
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    /* One more with each request. */
    __atomic_store_n(&server.core()->active_refcount, INT32_MAX - 5, __ATOMIC_RELAXED);
    __atomic_store_n(&bus.get()->session, INT32_MAX - 10, __ATOMIC_RELAXED);

    for (int i = 0; i < 20; i++) {
        EXPECT_GE(request(client), 0); /* a session, which is never negative */
    }

    EXPECT_TRUE(await([&] { return handled == 20; }));
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_LT(server.core()->active_refcount, 0);
    EXPECT_LT(bus.get()->session, 1000);
}
