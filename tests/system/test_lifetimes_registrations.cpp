/* SPDX-License-Identifier: Apache-2.0 */
/* Registrations that end while requests are under way. What goes wrong here is reported by the
 * sanitizers, or hangs. */
#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "lifetimes_fixture.hpp"
#include "module.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_topic_core.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

/* The wrapper's own handler removes listeners; the module's shortcut does not. */
int32_t unlisten(qor_context_t *context)
{
    return qor_context_handler_unlisten(
        static_cast<qor_context_t *>(qor_context_pub_data_get(context)), topic);
}

int32_t request_inline(const Module &module)
{
    int32_t payload = 5;
    return qor_context_x_req(module.context(), topic, &payload, sizeof(payload));
}

} // namespace

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
        Thread([&] { unlisten(context); }).join();
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
    std::vector<Thread> threads;
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
    for (Thread &thread : threads) {
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
