/* SPDX-License-Identifier: Apache-2.0 */
/* Modules with contracts, where memory is missing. */
#include "contract_fixture.hpp"
#include "fault.h"
#include "still_bus.hpp"

namespace {

std::string count_text(const qor_ledger_t &l)
{
    return std::to_string(l.accepted) + " accepted " + std::to_string(l.waiting) + " waiting " +
           std::to_string(l.delayed) + " delayed";
}

class ContractFaults : public Contract {
protected:
    ContractFaults()
    {
        server.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            (number_of(msg) < 7 ? door : gate).pass();
            seen.add(std::string(1, static_cast<char>('a' + number_of(msg))));
            return 0;
        };
    }

    void TearDown() override
    {
        fault_arm(FAULT_ALLOC, -1);
        fault_arm(FAULT_COND, -1);
        gate.open();
        end();
    }

    /* The first request is in the handler, which waits at the door. */
    void held_with(const qor_contract_t &contract, uint32_t workers = 3,
                   const std::vector<Module *> &others = {})
    {
        running_with(contract, workers, others);
        ASSERT_GE(ask(0), 0);
        ASSERT_TRUE(door.await(1));
        ASSERT_TRUE(await([this] { return qor_que_count(bus->get()->que) == 0; }));
    }

    /* The worker, if it is the only one, is held until the gate opens. */
    void hold_worker()
    {
        ASSERT_EQ(qor_bus_run(
                      bus->get(),
                      [](void *where) -> void * {
                          static_cast<Door *>(where)->pass();
                          return nullptr;
                      },
                      &gate, nullptr),
                  0);
        ASSERT_TRUE(gate.await(1));
    }

    int32_t post(int32_t delay)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, server.context(), "task", 9,
            [](void *letters) -> void * {
                static_cast<Letters *>(letters)->add("T");
                return nullptr;
            },
            &seen);
        task.delay = delay;
        task.recycle = [](void *letters) { static_cast<Letters *>(letters)->add("R"); };
        return qor_context_handler_post(server.context(), &task);
    }

    /* Fails each allocation of a post in turn: nothing is taken, and nothing kept. Gives how many
     * there were. */
    int try_all(const std::function<int32_t()> &accept)
    {
        const std::string before = count_text(ledger());
        for (int nth = 0;; nth++) {
            SCOPED_TRACE("allocation " + std::to_string(nth));
            fault_arm(FAULT_ALLOC, nth);
            const int32_t result = accept();
            if (fault_fired(FAULT_ALLOC) == 0) {
                EXPECT_GE(result, 0);
                return nth;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(fault_live(), 0);
            EXPECT_EQ(count_text(ledger()), before);
            EXPECT_EQ(seen.text(), "");
        }
    }

    Letters seen;
    Door gate; /* for requests from 7 on, and for a worker */
};

} // namespace

TEST_F(ContractFaults, SettingOneWithoutMemoryChangesNothing)
{
    StillBus still({&server});
    const qor_contract_t contract = strict_terms();
    qor_ledger_t counts = {};
    counts.size = sizeof(counts);
    int nth = 0;
    for (;; nth++) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        output.clear();
        fault_arm(FAULT_ALLOC, nth);
        const int32_t result = qor_bus_contract_set(still.get(), "server", &contract);
        if (fault_fired(FAULT_ALLOC) == 0) {
            EXPECT_EQ(result, 0);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(fault_live(), 0);
        EXPECT_EQ(output.count(err_line("qor_contract", "qor_bus_contract_set",
                                        "malloc \"contract\" failed.")),
                  1);
        EXPECT_EQ(qor_bus_ledger(still.get(), "server", &counts), -1);
    }
    EXPECT_EQ(nth, 2); /* the contract, and a node for its runs */
    EXPECT_EQ(qor_bus_ledger(still.get(), "server", &counts), 0);
}

TEST_F(ContractFaults, ReplacingOneNeedsNoMemory)
{
    StillBus still({&server});
    const qor_contract_t contract = strict_terms();
    ASSERT_EQ(qor_bus_contract_set(still.get(), "server", &contract), 0);
    fault_arm_from(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_bus_contract_set(still.get(), "server", &contract), 0);
}

TEST_F(ContractFaults, ATaskThatIsRefusedStaysTheCallers)
{
    held_with(strict_terms());

    EXPECT_EQ(try_all([this] { return post(0); }), 1);

    EXPECT_EQ(seen.text(), "");
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "aTR");
}

TEST_F(ContractFaults, ADelayedTaskThatIsRefusedStaysTheCallers)
{
    held_with(strict_terms());

    EXPECT_EQ(try_all([this] { return post(600000); }), 3); /* its timer, and the timer's run */

    EXPECT_EQ(ledger().delayed, 1U);
    EXPECT_EQ(seen.text(), "");
}

TEST_F(ContractFaults, ARequestThatIsRefusedHasNoResponse)
{
    held_with(strict_terms());

    EXPECT_EQ(try_all([this] { return ask(1); }), 2); /* its copy, and the node */

    fault_arm_from(FAULT_ALLOC, 0); /* what was accepted needs no more */
    door.open();
    EXPECT_TRUE(await([this] { return answers.text() == "aa"; }));
    EXPECT_EQ(seen.text(), "ab");
}

TEST_F(ContractFaults, WhatIsRefusedForWantOfMemoryIsCounted)
{
    held_with(strict_terms());
    for (int nth = 0; nth < 3; nth++) {
        fault_arm(FAULT_ALLOC, nth);
        EXPECT_EQ(post(600000), -1);
        EXPECT_EQ(ledger().refused, static_cast<uint64_t>(nth) + 1) << "allocation " << nth;
    }
}

TEST_F(ContractFaults, ATaskWithoutMemoryForAnotherRunIsRunByThoseThereAre)
{
    server.descriptor.refcount = 2;
    held_with(strict_terms());
    fault_arm(FAULT_ALLOC, 1); /* the task's own node is there */

    EXPECT_EQ(post(0), 0);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(ledger().waiting, 1U);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "aTR");
    EXPECT_EQ(ledger().run, 2U);
}

TEST_F(ContractFaults, ARunThatFindsNoMemoryTakesNoSlot)
{
    server.descriptor.refcount = 2;
    held_with(strict_terms());
    fault_arm(FAULT_ALLOC, 1);
    ASSERT_EQ(post(0), 0);
    ASSERT_EQ(fault_fired(FAULT_ALLOC), 1);

    ASSERT_GE(ask(7), 0); /* has a run again, beside the first request */
    ASSERT_GE(ask(8), 0);

    EXPECT_TRUE(gate.await(1));
    door.open();
    EXPECT_TRUE(gate.await(2));
}

TEST_F(ContractFaults, AModuleThatIsNotStrictRefusesATaskWithoutARun)
{
    server.descriptor.refcount = 2;
    held_with(terms());
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(post(0), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(ledger().refused, 1U);
    EXPECT_EQ(ledger().accepted, 1U);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "a");
}

TEST_F(ContractFaults, APosterThatCannotWaitIsRefused)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));
    ASSERT_GE(ask(1), 0);
    for (const fault_kind kind : {FAULT_COND, FAULT_ATTR}) {
        fault_arm(kind, 0);

        EXPECT_EQ(ask(2), -1);

        EXPECT_EQ(fault_fired(kind), 1);
        fault_arm(kind, -1);
    }
    EXPECT_EQ(ledger().refused, 2U);
    EXPECT_EQ(output.count("queue full"), 2);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "ab");
}

TEST_F(ContractFaults, ARequestThatCannotBeHandedOnIsDroppedWithAResponse)
{
    Module newer("newer");
    held_with(strict_terms(), 3, {&newer});
    ASSERT_GE(ask(1), 0);
    qor_context_subscribe(newer.context(), TOPIC, nullptr);
    fault_arm_from(FAULT_ALLOC, 0);

    door.open();

    EXPECT_TRUE(await([this] { return answers.text().size() == 2; }));
    EXPECT_NE(answers.text().find('d'), std::string::npos);
    EXPECT_EQ(seen.text(), "a");
    EXPECT_EQ(ledger().dropped_transfer, 1U);
    EXPECT_EQ(ledger().transferred, 0U);
    end();
}

/* The response goes past its publisher's queue then, and counts against the bound no longer. */
TEST_F(ContractFaults, AResponseWithoutMemoryForItsRunGivesItsPlaceBack)
{
    bus_with(terms());
    const qor_contract_t contract = terms([](qor_contract_t &c) { c.replies = 1; });
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_EQ(ask(1), -1);
    fault_arm_from(FAULT_ALLOC, 0);

    door.open();

    ASSERT_TRUE(await([this] { return answers.text() == "a"; }));
    fault_arm(FAULT_ALLOC, -1);
    EXPECT_TRUE(await([this] { return ledger_of(bus->get(), "client").bypassed == 1; }));
    EXPECT_GE(ask(1), 0);
    EXPECT_TRUE(await([this] { return answers.text() == "aa"; }));
}

namespace {

class ContractFaultsListener : public ContractFaults {
protected:
    ContractFaultsListener()
    {
        door.open();
        watcher.reg = [](qor_context_t *c) {
            qor_context_topic_attr_t attr = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                             QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
            qor_context_listen(c, TOPIC, &attr);
        };
        watcher.handle = [this](qor_context_t *, qor_context_msg_t *) {
            saw.add("s");
            return 0;
        };
    }

    /* A request, and the allocation with that number fails of those behind its acceptance. */
    void asks_without(int nth)
    {
        qor_contract_t contract = strict_terms();
        contract.lost = [](void *self, const qor_loss_t *loss) {
            static_cast<ContractFaultsListener *>(self)->losses.add(
                std::string(loss->module) + " " + std::to_string(loss->kind) +
                std::to_string(loss->reason) + "\n");
        };
        contract.arg = this;
        bus_with(terms(), 1, {&watcher});
        ASSERT_EQ(qor_bus_contract_set(bus->get(), "watcher", &contract), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
        ASSERT_TRUE(settles());
        hold_worker();
        ASSERT_GE(ask(1), 0);
        fault_arm(FAULT_ALLOC, nth);
        gate.open();
        ASSERT_TRUE(settles());
        ASSERT_EQ(fault_fired(FAULT_ALLOC), 1);
    }

    Module watcher{"watcher"};
    Letters saw;
    Letters losses;
};

} // namespace

TEST_F(ContractFaultsListener, WithoutACopyTheCallIsItsLossAlone)
{
    asks_without(0);

    EXPECT_EQ(saw.text(), "");
    EXPECT_EQ(losses.text(), "watcher 13\n");
    EXPECT_EQ(answers.text(), "a");
    EXPECT_EQ(seen.text(), "b");
    EXPECT_EQ(ledger_of(bus->get(), "watcher").refused, 1U);
    end();
}

TEST_F(ContractFaultsListener, WithoutANodeTheCallIsItsLossAlone)
{
    asks_without(1);

    EXPECT_EQ(saw.text(), "");
    EXPECT_EQ(losses.text(), "watcher 13\n");
    EXPECT_EQ(answers.text(), "a");
    EXPECT_EQ(seen.text(), "b");
    EXPECT_EQ(ledger_of(bus->get(), "watcher").refused, 1U);
    end();
}
