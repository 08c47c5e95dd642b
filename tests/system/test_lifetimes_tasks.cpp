/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks that are queued when their bus ends. What goes wrong here is reported by the sanitizers. */
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "lifetimes_fixture.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "thread.hpp"

TEST_F(Lifetimes, AQueueMayQuitWithGiversTakersAndCancelsInside)
{
    for (int round = 0; round < 20; round++) {
        Module module("module");
        RunningBus bus({&module}, 3, 1);
        ASSERT_TRUE(bus.up());
        qor_bus_t *const raw = bus.get();
        std::vector<Thread> threads;
        std::atomic<int> posted{0};
        std::atomic<bool> discarded{false};
        for (int kind = 0; kind < 3; kind++) { /* faster than the worker */
            threads.emplace_back([&, kind] {
                while (!qor_bus_quitting(raw)) {
                    int32_t session = -1;
                    qor_context_session(module.context(), &session);
                    if (kind == 0) {
                        ledger.run(raw, [] { std::this_thread::yield(); });
                    } else {
                        ledger.post(module.context(), session, kind == 1 ? 0 : 1, 1, nullptr);
                    }
                    posted++;
                }
            });
        }
        threads.emplace_back([&] { /* while the loop thread discards, too */
                                   for (int32_t session = 0; !discarded;
                                        session = (session + 1) % 2000) {
                                       qor_bus_cancel(raw, session);
                                       qor_context_timer_cancel(module.context(), session);
                                   }
        });
        ASSERT_TRUE(await([&] { return posted > 1000; }));

        bus.quit();
        discarded = true;

        for (Thread &thread : threads) {
            thread.join();
        }
        bus.end();
        EXPECT_EQ(ledger.errors(), "");
    }
}

TEST_F(Lifetimes, RequestsOnTheirWayAreFreedWhereverTheQuitMeetsThem)
{
    Module client("client"), server("server");
    server.reg = [](qor_context_t *context) {
        qor_context_subscribe(context, topic, nullptr);
        qor_context_listen(context, topic, nullptr);
    };
    Door door;
    std::atomic<int> handled{0};
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_REQUEST && handled++ == 0) {
            door.pass();
        }
        return 0;
    };
    RunningBus bus({&client, &server}, 8, 1); /* one worker: all the rest stays queued */
    ASSERT_TRUE(bus.up());
    EXPECT_GE(request(client), 0);
    ASSERT_TRUE(door.await(1));
    for (int i = 0; i < 60; i++) { /* relays in the private queue, and past it as runs of nodes */
        EXPECT_GE(request(client), 0);
    }
    qor_bus_quit(bus.get());
    door.open(); /* its response is refused, and so are its listeners */

    bus.end(); /* the leak checker sees a clone that stays */

    EXPECT_EQ(handled, 1);
}
