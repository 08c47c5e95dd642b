/* SPDX-License-Identifier: Apache-2.0 */
/* What must stay in memory because somebody can still reach it, on buses that run. What goes wrong
 * here is reported by the sanitizers, or hangs. */
#include <atomic>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_topic_core.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

constexpr int32_t topic = 2;
constexpr int32_t other_topic = 3;

/* The wrapper's own handler removes listeners; the module's shortcut does not. */
int32_t unlisten(qor_context_t *context)
{
    return qor_context_handler_unlisten(
        static_cast<qor_context_t *>(qor_context_pub_data_get(context)), topic);
}

int32_t request(const Module &module)
{
    int32_t payload = 5;
    return qor_context_req_ret(module.context(), topic, &payload, sizeof(payload), sizeof(payload));
}

int32_t request_inline(const Module &module)
{
    int32_t payload = 5;
    return qor_context_x_req(module.context(), topic, &payload, sizeof(payload));
}

class Lifetimes : public testing::Test {
protected:
    Output out;
    Ledger ledger; /* outlives the bus */
};

} // namespace

/* ---- registrations ---- */

TEST_F(Lifetimes, AFilterMayRemoveItselfAndThoseBehindIt)
{
    Module server("server"), first("first"), second("second");
    std::atomic<int> called{0};
    server.handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
    first.handle = [&](qor_context_t *, qor_context_msg_t *) {
        called++;
        return 0;
    };
    second.handle = [&](qor_context_t *context, qor_context_msg_t *) {
        called++;
        qor_context_unfilter(context, topic);
        qor_context_unfilter(first.context(), topic);
        return qor_context_filter(first.context(), topic, nullptr);
    };
    RunningBus bus({&server, &first, &second});
    ASSERT_TRUE(bus.up());
    qor_context_subscribe(server.context(), topic, nullptr);

    for (int i = 0; i < 200; i++) {
        qor_context_filter(second.context(), topic, nullptr); /* in front of the first */
        EXPECT_GE(request_inline(server), 0);
    }

    EXPECT_GE(called, 200);
}

TEST_F(Lifetimes, AListenerMayBeRemovedByAnotherThreadWhileItRuns)
{
    Module server("server"), listener("listener"), behind("behind");
    std::atomic<int> heard{0};
    server.handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
    behind.handle = [&](qor_context_t *, qor_context_msg_t *) {
        heard++;
        return 0;
    };
    listener.handle = [&](qor_context_t *context, qor_context_msg_t *) {
        std::thread([&] { unlisten(context); }).join();
        return 0;
    };
    RunningBus bus({&server, &listener, &behind});
    ASSERT_TRUE(bus.up());
    qor_context_subscribe(server.context(), topic, nullptr);
    qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    qor_context_listen(behind.context(), topic, &before);

    for (int i = 1; i <= 50; i++) {
        qor_context_listen(listener.context(), topic, &before);
        EXPECT_GE(request(server), 0);
        ASSERT_TRUE(await([&] { return heard >= i; })); /* the walk goes on behind it */
    }
}

TEST_F(Lifetimes, RegistrationsMeetTheirRemovalUnderRequests)
{
    constexpr int times = 60000; /* of each thread, and however often it takes them all */
    Module server("server"), other("other");
    for (Module *module : {&server, &other}) {
        module->handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
    }
    RunningBus bus({&server, &other});
    ASSERT_TRUE(bus.up());
    qor_context_subscribe(server.context(), topic, nullptr);
    std::atomic<bool> over{false};
    std::atomic<int> removals[2] = {};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!over) {
            request_inline(server);
        }
    });
    for (std::atomic<int> &count : removals) { /* between the two steps of a registration, too */
        threads.emplace_back([&] {
            for (; !over; count++) {
                EXPECT_EQ(qor_context_unsubscribe(other.context(), topic), 0);
                EXPECT_EQ(qor_context_unfilter(other.context(), topic), 0);
            }
        });
    }
    int registrations = 0;
    while (registrations < times || removals[0] < times || removals[1] < times) {
        EXPECT_EQ(qor_context_subscribe(other.context(), topic, nullptr), 0);
        EXPECT_EQ(qor_context_filter(other.context(), topic, nullptr), 0);
        registrations++;
    }
    over = true;
    for (std::thread &thread : threads) {
        thread.join();
    }

    while (registrations-- > 0) {
        qor_context_unsubscribe(other.context(), topic);
        qor_context_unfilter(other.context(), topic);
    }

    qor_topic_core_t *table = bus.get()->user_topic_core;
    EXPECT_EQ(qor_topic_core_someone_filtered(table, topic), 0);
    EXPECT_EQ(qor_topic_core_someone_subscribed(table, topic), 1); /* the server's */
}

/* ---- contexts ---- */

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
        std::vector<std::thread> deliveries;
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

        for (std::thread &delivery : deliveries) {
            delivery.join();
        }
        qor_bus_drain(bus.get(), 50); /* its due timers fall on nothing */
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
    std::thread delivery([&] { /* waits in front of the server's filter */
                               sleeper.here();
                               EXPECT_GE(request(client), 0);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));
    std::thread another([&] {
        registered += qor_context_filter(third.context(), topic, nullptr) == 0;
        registered += qor_context_unfilter(third.context(), topic) == 0;
    });

    EXPECT_TRUE(await([&] { return registered == 2; }));
    door.open();

    EXPECT_TRUE(await([&] { return registered == 4; }));
    delivery.join();
    another.join();
}

/* ---- what is queued ---- */

TEST_F(Lifetimes, AQueueMayQuitWithGiversTakersAndCancelsInside)
{
    for (int round = 0; round < 20; round++) {
        Module module("module");
        RunningBus bus({&module}, 3, 1);
        ASSERT_TRUE(bus.up());
        qor_bus_t *const raw = bus.get();
        std::vector<std::thread> threads;
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

        for (std::thread &thread : threads) {
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

/* ---- counters ---- */

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
    pthread_mutex_lock(&server.core()->mutex);
    server.core()->active_refcount = INT32_MAX - 5; /* one more with each request */
    pthread_mutex_unlock(&server.core()->mutex);
    pthread_mutex_lock(&bus.get()->session_mutex);
    bus.get()->session = INT32_MAX - 10;
    pthread_mutex_unlock(&bus.get()->session_mutex);

    for (int i = 0; i < 20; i++) {
        EXPECT_GE(request(client), 0); /* a session, which is never negative */
    }

    EXPECT_TRUE(await([&] { return handled == 20; }));
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_LT(server.core()->active_refcount, 0);
    EXPECT_LT(bus.get()->session, 1000);
}
