/* SPDX-License-Identifier: Apache-2.0 */
/* Modules with contracts on a bus that the test drives: its tasks run on a thread that is none of
 * the library's, and queues quit when the test says so. */
#include <memory>

#include "contract_fixture.hpp"
#include "falling_due.hpp"
#include "leak.hpp"
#include "qor_periodic.h"
#include "still_bus.hpp"
#include "taking_tasks.hpp"
#include "time_que_length.hpp"

namespace {

class ContractStill : public testing::Test {
protected:
    ContractStill()
    {
        server.descriptor.refcount = newer.descriptor.refcount = 8;
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        server.handle = [this](qor_context_t *, qor_context_msg_t *) {
            seen.add("s");
            return 0;
        };
    }

    /* Brings the modules up; the named one has the contract. */
    void up(const qor_contract_t &contract, const char *name = "server")
    {
        ASSERT_EQ(qor_bus_contract_set(bus.get(), name, &contract), 0);
        bus.run_all();
        ASSERT_TRUE(server.started());
    }

    /* A task of the server's that writes X; its recycle writes R. */
    int32_t post(int32_t delay = 0, int32_t async = 0)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, server.context(), "task", 9,
            [](void *letters) -> void * {
                static_cast<Letters *>(letters)->add("X");
                return nullptr;
            },
            &seen);
        task.delay = delay;
        task.async = async;
        task.recycle = [](void *letters) { static_cast<Letters *>(letters)->add("R"); };
        return qor_context_handler_post(server.context(), &task);
    }

    qor_ledger_t ledger() { return ledger_of(bus.get(), "server"); }

    Output output;
    Letters seen;
    Module server{"server"}, newer{"newer"}, client{"client"};
    StillBus bus{{&server, &newer, &client}};
};

} // namespace

TEST_F(ContractStill, WhatRunsOnAThreadOfTheApplicationsHasRunWhenItBegins)
{
    up(terms());
    ASSERT_EQ(post(), 0);
    EXPECT_EQ(ledger().waiting, 1U);

    bus.run_all();

    EXPECT_EQ(seen.text(), "XR");
    EXPECT_EQ(ledger().run, 1U);
    EXPECT_EQ(ledger().running, 0U);
    EXPECT_EQ(accounted(ledger()), ledger().accepted);
}

TEST_F(ContractStill, ALoopThatIsCalledByHandRunsNothingBeforeTheStartNorBesideEnoughRuns)
{
    server.descriptor.refcount = 1;
    const auto loop = [this] { EXPECT_EQ(qor_core_context_class.loop(&server.core()->base), 0); };
    server.init = [&](qor_context_t *) {
        EXPECT_EQ(post(), 0);
        loop();
        EXPECT_EQ(seen.text(), "");
        return 0;
    };
    up(strict_terms()); /* its run is the first thing that it has queued then */
    EXPECT_EQ(post(), 0);

    loop();

    EXPECT_EQ(seen.text(), "");
    EXPECT_EQ(ledger().waiting, 2U);
}

TEST_F(ContractStill, WhatIsNotDueAtTheStartStaysWaiting)
{
    server.init = [this](qor_context_t *) { return post(0) + post(60000); };

    up(strict_terms());
    bus.run_all();

    EXPECT_EQ(seen.text(), "XR");
    EXPECT_EQ(ledger().run, 1U);
    EXPECT_EQ(ledger().delayed, 1U);
}

TEST_F(ContractStill, AByPassThatTheTaskQueueDoesNotTakeIsRefused)
{
    up(terms([](qor_contract_t &contract) {
        contract.depth = 1;
        contract.overflow = QOR_OVERFLOW_BYPASS;
    }));
    ASSERT_EQ(post(), 0);
    qor_que_quit(bus.get()->que);

    EXPECT_EQ(post(), -1);

    EXPECT_EQ(ledger().bypassed, 0U);
    EXPECT_EQ(ledger().refused, 1U);
    EXPECT_EQ(ledger().accepted, 1U);
    EXPECT_EQ(seen.text(), "");
}

TEST_F(ContractStill, ATaskWhoseRunTheTaskQueueDoesNotTakeWaitsForTheEnd)
{
    up(terms());
    qor_que_quit(bus.get()->que);

    EXPECT_EQ(post(), 0);

    EXPECT_EQ(ledger().waiting, 1U);
    EXPECT_EQ(server.core()->refcount, 0);
    bus.close();
    EXPECT_EQ(seen.text(), "R");
}

TEST_F(ContractStill, APostThatThePrivateQueueDoesNotTakeIsRefused)
{
    up(terms());
    qor_time_que_quit(server.core()->que);

    EXPECT_EQ(post(), -1);

    EXPECT_EQ(ledger().refused, 1U);
    EXPECT_EQ(ledger().accepted, 0U);
    EXPECT_EQ(seen.text(), "");
}

TEST_F(ContractStill, ADelayedTaskThatTheTimerQueueDoesNotTakeIsRefused)
{
    up(terms());
    qor_time_que_quit(bus.get()->time_que);

    EXPECT_EQ(post(60000), -1);

    EXPECT_EQ(ledger().refused, 1U);
    EXPECT_EQ(ledger().delayed, 0U);
    EXPECT_EQ(length_of(server.core()->que), 0);
    EXPECT_EQ(seen.text(), "");
}

/* The run has been taken from the bus, and comes to it while what else there is is recycled. */
TEST_F(ContractStill, ATaskWithARunOfItsOwnIsNotBegunOnceTheInitHasFailed)
{
    struct Recycled {
        Letters &seen;
        qor_context_task_t *run;
    } other = {seen, nullptr};
    server.init = [&](qor_context_t *self) {
        EXPECT_EQ(post(0, /* async */ 1), 0);
        bus.run_next(); /* the queue's run gives it one */
        other.run = bus.take();
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, self, "other", 9, [](void *arg) { return arg; }, &other);
        task.delay = 3600000;
        task.recycle = [](void *arg) {
            const Recycled &own = *static_cast<Recycled *>(arg);
            own.seen.add("[");
            qor_context_task_excute(own.run);
            own.seen.add("]");
        };
        EXPECT_EQ(qor_context_handler_post(self, &task), 0);
        return -1;
    };
    const qor_contract_t contract = terms();
    ASSERT_EQ(qor_bus_contract_set(bus.get(), "server", &contract), 0);

    bus.run_all();

    EXPECT_EQ(seen.text(), "[R]");
    EXPECT_EQ(ledger().discarded, 2U);
    EXPECT_EQ(ledger().run, 0U);
    EXPECT_EQ(accounted(ledger()), ledger().accepted);
    StillBus::finish(other.run);
}

TEST_F(ContractStill, ATaskWithARunOfItsOwnIsRecycledWithTheBus)
{
    up(terms());
    ASSERT_EQ(post(0, /* async */ 1), 0);
    bus.run_next(); /* the queue's run gives it one */
    EXPECT_EQ(ledger().waiting, 1U);

    bus.close();

    EXPECT_EQ(seen.text(), "R");
}

TEST_F(ContractStill, ARequestWhoseSubscriberHasGoneIsAnsweredAllTheSame)
{
    client.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
        seen.add(std::to_string(msg->ret));
        return 0;
    };
    up(terms());
    ASSERT_GE(qor_context_req(client.context(), 0, nullptr, 0), 0);
    qor_context_unsubscribe(server.context(), 0);

    bus.run_all();

    EXPECT_EQ(seen.text(), "-1");
}

TEST_F(ContractStill, ARequestGoesFromAModuleWithoutOneToTheNewersQueue)
{
    up(strict_terms(), "newer");
    ASSERT_GE(qor_context_req(client.context(), 0, nullptr, 0), 0);
    qor_context_subscribe(newer.context(), 0, nullptr);

    bus.run_next(); /* the server's run */

    EXPECT_EQ(seen.text(), "");
    EXPECT_EQ(length_of(server.core()->que), 0);
    EXPECT_EQ(length_of(newer.core()->que), 1);
    EXPECT_EQ(ledger_of(bus.get(), "newer").accepted, 1U);
}

TEST_F(ContractStill, WhatGoesPastTheQueueIsInNoOtherCount)
{
    up(terms([](qor_contract_t &contract) { contract.depth = 1; }));
    ASSERT_EQ(post(), 0);

    ASSERT_EQ(post(), 0);
    bus.run_all();

    EXPECT_EQ(seen.text(), "XRXR");
    EXPECT_EQ(ledger().bypassed, 1U);
    EXPECT_EQ(ledger().accepted, 1U);
    EXPECT_EQ(ledger().run, 1U);
    EXPECT_EQ(ledger().waiting, 0U);
    EXPECT_EQ(ledger().running, 0U);
}

/* What belongs to the contexts is never freed then. */
TEST(ContractGone, APeriodicTimerThatFallsDueAfterwardsEnds)
{
    Module server("server");
    std::vector<qor_context_module_t *> modules = table_of({&server});
    qor_bus_t *bus = qor_bus_create(modules.data(), 1);
    const qor_contract_t contract = strict_terms();
    ASSERT_EQ(qor_bus_contract_set(bus, "server", &contract), 0);
    {
        const PrescribedLeak contexts;
        while (qor_context_task_t *task = take_task(bus)) {
            qor_context_task_excute(task);
            release_task(task);
        }
    }
    std::atomic<int> recycled{0};
    const int32_t session = qor_context_every(
        server.context(), [](qor_context_t *, int32_t, void *, uint32_t) { ADD_FAILURE(); },
        &recycled, [](void *arg) { ++*static_cast<std::atomic<int> *>(arg); }, 3600000);
    qor_bus_thread_num_set(bus, 1);
    Thread loop([bus] { qor_bus_loop(bus); });
    ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    qor_time_que_t *timers = bus->time_que;
    const std::unique_ptr<void, decltype(&free)> head(bus->head, free); /* which the loop holds */

    qor_bus_destroy(bus);
    fall_due(timers, session);

    EXPECT_TRUE(await([&] { return recycled == 1; }));
    EXPECT_TRUE(list_empty(&server.core()->que->head));
    qor_time_que_quit(timers);
    loop.join();
    qor_time_que_destroy(timers);
}
