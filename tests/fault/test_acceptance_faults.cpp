/* SPDX-License-Identifier: Apache-2.0 */
/* Work is refused without memory, or it needs none later: each way to hand work over is tried with
 * every allocation failing in turn, and once it is accepted, with every later one failing. */
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "door.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_impl_context.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "thread.hpp"
#include "time_que_length.hpp"

namespace {

constexpr int32_t far = 600000; /* ms */

/* Two modules on a bus whose one worker is held while work is handed over, and then runs it. */
class AcceptanceFaults : public testing::Test {
protected:
    AcceptanceFaults()
    {
        ran = 0;
        recycled = 0;
        served.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        served.handle = [](qor_context_t *, qor_context_msg_t *) {
            ran++;
            return 0;
        };
        asker.handle = [](qor_context_t *, qor_context_msg_t *msg) {
            recycled += msg->type == QOR_CONTEXT_MSG_RESPONSE && msg->ret == 0;
            return 0;
        };
        bus.run_all();
        EXPECT_TRUE(served.started() && asker.started());
        qor_bus_thread_num_set(bus.get(), 1);
        loop = Thread([this] { qor_bus_loop(bus.get()); });
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0); /* it waits */
        hold();
    }

    ~AcceptanceFaults() override { end(); }

    /* From here until let_go() the worker runs nothing. */
    void hold()
    {
        fault_arm(FAULT_ALLOC, -1);
        gate = std::make_unique<Door>();
        ASSERT_EQ(qor_bus_run(
                      bus.get(),
                      [](void *door) -> void * {
                          static_cast<Door *>(door)->pass();
                          return nullptr;
                      },
                      gate.get(), nullptr),
                  0);
        ASSERT_TRUE(gate->await(1));
    }

    void let_go() { gate.reset(); }

    /* All of the bus but its memory. */
    void end()
    {
        let_go();
        fault_arm(FAULT_ALLOC, -1);
        if (loop.joinable()) {
            qor_bus_quit(bus.get());
            loop.join();
        }
    }

    static qor_context_task_t task(int32_t session, int32_t delay, int32_t async)
    {
        qor_context_task_t made = {};
        qor_context_task_init(
            &made, nullptr, "task", session,
            [](void *) -> void * {
                ran++;
                return nullptr;
            },
            nullptr);
        made.delay = delay;
        made.async = async;
        made.recycle = [](void *) { recycled++; };
        return made;
    }

    static int32_t post(const Module &module, int32_t delay, int32_t async, int32_t session = 70000)
    {
        qor_context_task_t made = task(session, delay, async);
        return qor_context_handler_post(module.context(), &made);
    }

    /* Fills a private queue with tasks that are never due. */
    static void fill(const Module &module)
    {
        for (int32_t i = 0; i < 50; i++) {
            ASSERT_EQ(post(module, far, 0, 80000 + i), 0);
        }
    }

    static int32_t ask(const Module &module)
    {
        return qor_context_req(module.context(), 0, nullptr, 0);
    }

    /* Everything that a refused post must leave alone. */
    std::string state()
    {
        std::string all;
        for (const Module *module : {&served, &asker}) {
            all += std::to_string(length_of(module->core()->que)) + " tasks, " +
                   std::to_string(module->core()->refcount) + " slots; ";
        }
        all += std::to_string(length_of(bus.get()->time_que)) + " timers; ";
        return all + std::to_string(qor_que_count(bus.get()->que)) + " runs; " +
               std::to_string(ran) + " " + std::to_string(recycled);
    }

    /* Fails each allocation of an acceptance in turn, and all that come after it. */
    void try_all(const std::function<int32_t()> &accept)
    {
        const std::string before = state();
        int nth = 0;
        for (;; nth++) {
            SCOPED_TRACE("allocation " + std::to_string(nth));
            fault_arm(FAULT_ALLOC, nth);
            const int32_t result = accept();
            if (fault_fired(FAULT_ALLOC) == 0) {
                EXPECT_GE(result, 0);
                break;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(fault_live(), 0);
            EXPECT_EQ(state(), before);
        }
        EXPECT_GT(nth, 0);
        fault_arm_from(FAULT_ALLOC, 0);
    }

    /* Lets the worker run what was accepted, until it has run and been released so often. */
    bool happens(int releases) { return happens(1, releases); }

    bool happens(int runs, int releases)
    {
        let_go();
        return await([&] { return ran == runs && recycled == releases; });
    }

    static std::atomic<int> ran, recycled;
    Output out;
    Module served{"served"}, asker{"asker"};
    StillBus bus{{&served, &asker}, 1};
    std::unique_ptr<Door> gate;
    Thread loop;
};

std::atomic<int> AcceptanceFaults::ran, AcceptanceFaults::recycled;

} // namespace

TEST_F(AcceptanceFaults, OfAnImmediateTask)
{
    try_all([&] { return post(served, 0, 0); });

    EXPECT_TRUE(happens(1));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0); /* then the run has ended */
    EXPECT_EQ(served.core()->refcount, 0);
}

TEST_F(AcceptanceFaults, OfAnImmediateTaskWithoutASlot)
{
    ASSERT_EQ(post(served, 0, 0), 0);
    try_all([&] { return post(served, 0, 0); });

    EXPECT_TRUE(happens(2, 2));
}

TEST_F(AcceptanceFaults, OfAnAsynchronousTask)
{
    try_all([&] { return post(served, 0, 1); });

    EXPECT_TRUE(happens(1));
}

TEST_F(AcceptanceFaults, OfADelayedTask)
{
    try_all([&] { return post(served, 5, 0); });

    EXPECT_TRUE(happens(1));
}

TEST_F(AcceptanceFaults, OfADelayedAsynchronousTask)
{
    try_all([&] { return post(served, 5, 1); });

    EXPECT_TRUE(happens(1));
}

TEST_F(AcceptanceFaults, OfATaskThatGoesPastTheQueue)
{
    for (int32_t async : {0, 1}) {
        fault_arm(FAULT_ALLOC, -1);
        if (async == 0) {
            fill(served);
        } else {
            hold();
        }
        ran = recycled = 0;
        try_all([&] { return post(served, 0, async); });

        EXPECT_TRUE(happens(1));
    }
    EXPECT_EQ(length_of(served.core()->que), 50);
}

TEST_F(AcceptanceFaults, OfADelayedTaskThatGoesPastTheQueue)
{
    for (int32_t async : {0, 1}) {
        fault_arm(FAULT_ALLOC, -1);
        if (async == 0) {
            fill(served);
        } else {
            hold();
        }
        ran = recycled = 0;
        try_all([&] { return post(served, 5, async); });

        EXPECT_TRUE(happens(1));
    }
}

TEST_F(AcceptanceFaults, OfATaskOfTheBus)
{
    try_all([&] {
        qor_context_task_t made = task(70000, 0, 0);
        return qor_bus_post(bus.get(), &made);
    });

    EXPECT_TRUE(happens(1));
}

TEST_F(AcceptanceFaults, OfATimerOfTheBus)
{
    try_all([&] {
        qor_context_task_t made = task(70000, 5, 0);
        return qor_bus_timer_post(bus.get(), &made);
    });

    EXPECT_TRUE(happens(2));
}

TEST_F(AcceptanceFaults, OfARequest)
{
    try_all([&] { return ask(asker); });

    EXPECT_TRUE(happens(1)); /* the response */
}

TEST_F(AcceptanceFaults, OfARequestThatGoesPastTheQueue)
{
    fill(served);
    try_all([&] { return ask(asker); });

    EXPECT_TRUE(happens(1));
}

/* The response goes past the publisher's full queue. */
TEST_F(AcceptanceFaults, OfARequestWhoseResponseGoesPastTheQueue)
{
    fill(asker);
    try_all([&] { return ask(asker); });

    EXPECT_TRUE(happens(1));
    EXPECT_EQ(length_of(asker.core()->que), 50);
}

/* The queue fills up after the request has been accepted; and the slot is taken. */
TEST_F(AcceptanceFaults, OfARequestWhoseResponseMeetsABusyPublisher)
{
    ASSERT_GE(ask(asker), 0);
    ASSERT_EQ(post(asker, 0, 0), 0);
    for (int32_t i = 0; i < 49; i++) {
        ASSERT_EQ(post(asker, far, 0, 80000 + i), 0);
    }
    fault_arm_from(FAULT_ALLOC, 0);

    EXPECT_TRUE(happens(2, 2));
}

TEST_F(AcceptanceFaults, OfManyRequestsKeepTheirResponsesWhateverTheirOrder)
{
    constexpr int number = 120; /* past both queues */
    for (int i = 0; i < number; i++) {
        ASSERT_GE(ask(asker), 0);
    }
    fault_arm_from(FAULT_ALLOC, 0);

    EXPECT_TRUE(happens(number, number));
}

namespace {

/* System contexts: one asks, the other is asked. */
class AcceptanceFaultsSystem : public AcceptanceFaults {
protected:
    AcceptanceFaultsSystem()
    {
        for (qor_context_t *context : {publisher, server}) {
            qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_SYS, context);
        }
        qor_context_subscribe(server, QOR_SYS_MNG_MODULE_REGISTER, nullptr);
    }

    ~AcceptanceFaultsSystem() override
    {
        end();
        bus.close();
        qor_context_destroy(publisher);
        qor_context_destroy(server);
    }

    Module publishing{"publishing"}, serving{"serving"};
    qor_context_t *publisher = qor_impl_context_class.create(&publishing.descriptor);
    qor_context_t *server = qor_impl_context_class.create(&serving.descriptor);
};

} // namespace

TEST_F(AcceptanceFaultsSystem, OfARequest)
{
    publishing.handle = asker.handle;
    serving.handle = served.handle;
    try_all([&] { return qor_context_req(publisher, QOR_SYS_MNG_MODULE_REGISTER, nullptr, 0); });

    EXPECT_TRUE(happens(1));
}
