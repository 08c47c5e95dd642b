/* SPDX-License-Identifier: Apache-2.0 */
/* A deferral without memory is refused; one that was made needs none to be completed. */
#include <string>

#include "contract_fixture.hpp"
#include "deferring.hpp"
#include "fault.h"
#include "time_que_length.hpp"

namespace {

class DeferredFaults : public Deferring {
protected:
    ~DeferredFaults() override { fault_arm(FAULT_ALLOC, -1); }

    /* Fails each allocation of a deferral in turn, then every one that comes after it. Gives the
     * token, which the caller lets out when memory is as the test wants it. */
    int32_t try_all(qor_context_t *c, qor_context_msg_t *msg, int32_t wait_time, uint64_t *made)
    {
        for (int nth = 0;; nth++) {
            fault_arm(FAULT_ALLOC, nth);
            const int32_t result = qor_context_defer(c, msg, wait_time, made);
            if (fault_fired(FAULT_ALLOC) == 0) {
                failed = nth;
                fault_arm_from(FAULT_ALLOC, 0);
                return result;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(fault_live(), 0);
            EXPECT_EQ(length_of(bus->get()->time_que), 0);
        }
    }

    /* The bus is up, and the server has a contract. */
    void be_made(const qor_contract_t &contract)
    {
        bus.emplace(RunningBus::by_start, 2, std::vector<Module *>{&server, &client, &observer}, 8);
        ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", &contract), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
    }

    std::atomic<int> failed{0};
};

} // namespace

TEST_F(DeferredFaults, OfADeferral)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 0;
        const int32_t result = try_all(c, msg, -1, &made);
        token = made;
        return result;
    };
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(await([this] { return token != 0; }));

    EXPECT_EQ(complete(token, 1, "pong"), 0);

    EXPECT_EQ(response(), "1 pong");
    EXPECT_EQ(failed, 2); /* node, table */
    EXPECT_EQ(out.count(line("context_defer", "no memory to defer a request.")), failed);
}

TEST_F(DeferredFaults, OfADeferralWithALimit)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 0;
        return try_all(c, msg, 20, &made);
    };
    be_up();
    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_EQ(response(), std::to_string(QOR_RET_EXPIRED));
    EXPECT_EQ(failed, 4); /* node, timer and its task, table */
}

TEST_F(DeferredFaults, OfALargerTableLeaveTheOpenOnes)
{
    constexpr int number = 8; /* as many as the first table holds */
    std::vector<uint64_t> tokens;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 0;
        const int32_t result = tokens.size() == number ? try_all(c, msg, -1, &made)
                                                       : qor_context_defer(c, msg, -1, &made);
        fault_arm(FAULT_ALLOC, -1);
        tokens.push_back(made);
        token = made;
        return result;
    };
    be_up();
    for (int i = 0; i <= number; i++) {
        deferred();
    }
    EXPECT_EQ(failed, 2);

    for (uint64_t open : tokens) {
        EXPECT_EQ(complete(open, 1, ""), 0);
    }

    EXPECT_TRUE(responses.await(number + 1));
}

TEST_F(DeferredFaults, GiveTheTableBackWithTheLastOne)
{
    be_up();
    EXPECT_EQ(complete(deferred(), 1, ""), 0);
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    fault_arm(FAULT_ALLOC, -1);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(complete(deferred(), 1, ""), 0);
        EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    }

    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(responses.text(), "1 1 1 1");
}

TEST_F(DeferredFaults, GiveTheMessagesBackWhenTheLoopHasEnded)
{
    constexpr int number = 40;
    be_up();
    for (int i = 0; i < number; i++) {
        deferred();
    }
    fault_arm(FAULT_ALLOC, -1);

    bus->quit();

    EXPECT_LE(fault_live(), -2 * number); /* a message and a node each */
}

/* A deferral of a module with a contract, which has taken a place among the open ones by then. */
TEST_F(DeferredFaults, LeaveNoPlaceTaken)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.open_max = 1;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        uint64_t made = 0;
        const int32_t result = try_all(c, msg, -1, &made);
        token = made;
        return result;
    };
    be_made(contract);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(await([this] { return token != 0; }));

    EXPECT_EQ(ledger_of(bus->get(), "server").open, 1U);
    EXPECT_EQ(complete(token, 1, "pong"), 0);
    EXPECT_EQ(response(), "1 pong");
    EXPECT_EQ(ledger_of(bus->get(), "server").open, 0U);
}

TEST_F(DeferredFaults, ATimerQueueThatQuitsMeanwhileRefusesTheDeferral)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        const auto quit = [](void *timers) {
            qor_time_que_quit(static_cast<qor_time_que_t *>(timers));
            return 0;
        };
        uint64_t made = 0;
        fault_arm_run(FAULT_ALLOC, 3, quit, bus->get()->time_que); /* of the table */
        EXPECT_EQ(qor_context_defer(c, msg, 60000, &made), -1);
        failed = fault_fired(FAULT_ALLOC);
        fault_arm(FAULT_ALLOC, -1);
        return -7;
    };
    be_made(contract);

    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(await([this] { return failed != 0; }));

    EXPECT_EQ(failed, 1);
    EXPECT_EQ(ledger_of(bus->get(), "server").open, 0U);
    EXPECT_EQ(out.count(line("context_defer", "the bus or the module ends.")), 1);
    bus->end();
}
