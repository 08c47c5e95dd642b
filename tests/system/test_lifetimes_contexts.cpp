/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts that fail or end while others still name them. What goes wrong here is reported by the
 * sanitizers, or hangs. */
#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "journal.hpp"
#include "lifetimes_fixture.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "thread.hpp"

TEST_F(Lifetimes, AFailedModuleMayStillBeNamedByAllThatItLeft)
{
    for (int round = 0; round < 20; round++) {
        Module client("client"), failing("failing");
        Door door;
        Journal journal;
        const auto enter = [&](qor_context_t *context) {
            qor_context_subscribe(context, topic, nullptr);
            qor_context_listen(context, topic, nullptr);
            int32_t session = -1;
            for (int i = 0; i < 60; i++) { /* more than its queue takes */
                qor_context_session(context, &session);
                ledger.post(context, session, i % 3 ? i % 5 : 3600000, i % 2, nullptr);
            }
            int32_t payload = 5; /* it becomes a publisher too: responses are on their way */
            for (int i = 0; i < 5; i++) {
                qor_context_req_ret(context, other_topic, &payload, sizeof(payload),
                                    sizeof(payload));
            }
        };
        failing.init = [&](qor_context_t *context) {
            enter(context);
            journal.add("entered");
            door.pass();
            return -1;
        };
        client.reg = [](qor_context_t *c) { qor_context_subscribe(c, other_topic, nullptr); };
        client.handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
        RunningBus bus({&client, &failing}, 8, 6);
        ASSERT_TRUE(await([&] { return client.started(); }));
        ASSERT_TRUE(journal.await(1));
        Sleeper sleepers[3];
        std::vector<Thread> deliveries;
        for (Sleeper &sleeper : sleepers) {
            deliveries.emplace_back([&] {
                sleeper.here();
                EXPECT_EQ(request(client), -1);
            });
        }
        for (Sleeper &sleeper : sleepers) {
            ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));
        }

        door.open();

        for (Thread &delivery : deliveries) {
            delivery.join();
        }
        qor_bus_drain(bus.get(), 50); /* its timers that fall due find nothing */
        bus.end();
        EXPECT_EQ(ledger.errors(), "");
    }
    EXPECT_GT(out.count("RESUME failed."), 0);
}

TEST_F(Lifetimes, AWaitingDeliveryDoesNotKeepTheModuleItWaitsForFromRegistering)
{
    Module client("client"), server("server"), third("third");
    Door door;
    std::atomic<int> registered{0};
    const auto handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
    server.handle = handle;
    third.handle = handle;
    server.reg = [](qor_context_t *context) {
        qor_context_subscribe(context, topic, nullptr);
        qor_context_filter(context, topic, nullptr);
    };
    server.init = [&](qor_context_t *context) {
        door.pass();
        registered += qor_context_filter(context, topic, nullptr) == 0;
        registered += qor_context_subscribe(context, topic, nullptr) == 0;
        return 0;
    };
    RunningBus bus({&client, &server, &third}, 8, 6);
    ASSERT_TRUE(await([&] { return client.started() && third.started(); }));
    ASSERT_TRUE(door.await(1));
    Sleeper sleeper;
    Thread delivery([&] { /* waits in front of the server's filter */
                          sleeper.here();
                          EXPECT_GE(request(client), 0);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));
    Thread another([&] {
        registered += qor_context_filter(third.context(), topic, nullptr) == 0;
        registered += qor_context_unfilter(third.context(), topic) == 0;
    });

    EXPECT_TRUE(await([&] { return registered == 2; }));
    door.open();

    EXPECT_TRUE(await([&] { return registered == 4; }));
    delivery.join();
    another.join();
}
