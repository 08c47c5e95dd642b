/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks that end their thread, and threads that somebody cancels. */
#include <pthread.h>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_impl_context.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"

namespace {

void *leave(qor_context_t *, int32_t, void *)
{
    pthread_exit(nullptr);
}

/* What a thread has of its own ends after everything that runs on it. */
struct ThreadEnd {
    std::function<void()> act;
    ~ThreadEnd()
    {
        if (act) {
            act();
        }
    }
};

thread_local ThreadEnd thread_end;

/* Overwrites what ended functions have left on the stack. */
[[gnu::noinline]] void sweep_stack()
{
    volatile char swept[8192];
    for (volatile char &byte : swept) {
        byte = 0x5a;
    }
}

} // namespace

TEST(ThreadExit, ATaskThatLeavesIsReplacedAndTheQueueGoesOn)
{
    Module module("leaver");
    RunningBus bus({&module}, 1, 1);
    ASSERT_TRUE(await([&] { return module.started(); }));
    Journal journal;

    for (int i = 0; i < 20; i++) {
        ASSERT_GE(qor_context_x_runx(module.context(), leave, nullptr), 0);
        ASSERT_GE(qor_context_x_runx(
                      module.context(),
                      [](qor_context_t *, int32_t, void *to) -> void * {
                          static_cast<Journal *>(to)->add("run");
                          return nullptr;
                      },
                      &journal),
                  0);
    }

    EXPECT_TRUE(journal.await(20));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(module.core()->refcount, 0);
}

TEST(ThreadExit, ARequestWhoseHandlerLeavesIsAnswered)
{
    Module asker("asker");
    Module leaver("leaver");
    leaver.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    leaver.handle = [](qor_context_t *, qor_context_msg_t *) -> int32_t { pthread_exit(nullptr); };
    Journal journal;
    asker.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::to_string(msg->type == QOR_CONTEXT_MSG_RESPONSE ? msg->ret : 1));
        return 0;
    };
    RunningBus bus({&asker, &leaver}, 1, 1);
    ASSERT_TRUE(await([&] { return asker.started() && leaver.started(); }));

    ASSERT_GE(qor_context_req(asker.context(), 0, nullptr, 0), 0);

    EXPECT_TRUE(journal.await(1));
    EXPECT_EQ(journal.text(), "-1");
}

/* Its queue is the bus's own, and the worker's node the request. */
TEST(ThreadExit, ARequestToASystemContextWhoseHandlerLeavesIsAnswered)
{
    Module asker("asker");
    Module leaver("leaver");
    leaver.descriptor.handle_message = [](qor_context_t *, qor_context_msg_t *) -> int32_t {
        pthread_exit(nullptr);
    };
    Journal journal;
    asker.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        journal.add(std::to_string(msg->type == QOR_CONTEXT_MSG_RESPONSE ? msg->ret : 1));
        return 0;
    };
    RunningBus bus({&asker}, 1, 1);
    ASSERT_TRUE(bus.up());
    qor_context_t *context = qor_impl_context_class.create(&leaver.descriptor);
    qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, context);
    qor_context_subscribe(context, 0, nullptr);

    for (int i = 0; i < 3; i++) {
        ASSERT_GE(qor_context_req(asker.context(), 0, nullptr, 0), 0);
    }

    EXPECT_TRUE(journal.await(3));
    EXPECT_EQ(journal.text(), "-1 -1 -1");
    bus.end();
    qor_context_destroy(context);
}

TEST(ThreadExit, AnInitThatLeavesHasFailed)
{
    Output out;
    Module leaver("leaver");
    leaver.init = [](qor_context_t *) -> int32_t { pthread_exit(nullptr); };
    RunningBus bus({&leaver}, 1, 1);

    EXPECT_TRUE(await([&] { return leaver.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    bus.end();
    EXPECT_EQ(out.count("context init failed."), 1);
}

TEST(ThreadExit, WhatAThreadHasOfItsOwnMayUseTheBusWhileItEnds)
{
    Output out;
    Module module("leaver");
    std::atomic<int> drained{1};
    std::function<void()> use;
    module.handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
    module.reg = [](qor_context_t *c) {
        qor_context_subscribe(c, 0, nullptr);
        qor_context_filter(c, 0, nullptr);
    };
    RunningBus bus({&module}, 1, 1);
    ASSERT_TRUE(bus.up());
    use = [&] {
        sweep_stack();
        EXPECT_EQ(qor_context_x_req(module.context(), 0, nullptr, 0), 0);
        drained = qor_bus_drain(bus.get(), 0);
    };

    qor_context_x_runx(
        module.context(),
        [](qor_context_t *, int32_t, void *arg) -> void * {
            thread_end.act = *static_cast<std::function<void()> *>(arg);
            pthread_exit(nullptr);
        },
        &use);

    EXPECT_TRUE(await([&] { return drained == -1; }));
    EXPECT_EQ(out.count("a task of the bus would wait for itself."), 1);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}
