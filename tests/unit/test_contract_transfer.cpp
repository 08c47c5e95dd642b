/* SPDX-License-Identifier: Apache-2.0 */
/* Requests whose newest subscriber is another when their turn comes. */
#include "contract_fixture.hpp"
#include "inspection.hpp"

namespace {

class ContractTransfer : public Contract {
protected:
    ContractTransfer()
    {
        server.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            door.pass();
            by_server.add(std::to_string(number_of(msg)));
            return 0;
        };
        newer.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            newer_door.pass();
            by_newer.add(std::to_string(number_of(msg)));
            return 0;
        };
    }

    void TearDown() override
    {
        newer_door.open();
        end();
    }

    /* The server is held in request 0, and request 1 waits in its queue; then the newer one comes.
     */
    void taken_over(const qor_contract_t &contract, const qor_contract_t *of_newer)
    {
        qor_contract_t with_losses = contract;
        with_losses.lost = [](void *self, const qor_loss_t *loss) {
            static_cast<ContractTransfer *>(self)->losses.add(std::to_string(loss->kind) +
                                                              std::to_string(loss->reason));
        };
        with_losses.arg = this;
        bus_with(with_losses, 4, others);
        if (of_newer) {
            ASSERT_EQ(qor_bus_contract_set(bus->get(), "newer", of_newer), 0);
        }
        if (others.size() > 1) {
            ASSERT_EQ(qor_bus_contract_set(bus->get(), "third", &of_third), 0);
        }
        bus->start();
        ASSERT_TRUE(bus->up());
        ASSERT_GE(ask(0), 0);
        ASSERT_TRUE(door.await(1));
        ASSERT_GE(ask(1), 0);
        qor_context_subscribe(newer.context(), TOPIC, nullptr);
    }

    Module newer{"newer"};
    std::vector<Module *> others{&newer};
    qor_contract_t of_third = terms(); /* of the other one of them */
    Door newer_door;
    Letters by_server;
    Letters by_newer;
    Letters losses;
};

} // namespace

TEST_F(ContractTransfer, AStrictModulesRequestGoesToTheNewersQueue)
{
    const qor_contract_t contract = strict_terms();
    taken_over(contract, &contract);
    newer_door.open();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_EQ(by_server.text(), "0");
    EXPECT_EQ(by_newer.text(), "1");
    EXPECT_TRUE(settles());
    EXPECT_EQ(ledger().transferred, 1U);
    EXPECT_EQ(ledger().run, 1U);
    EXPECT_EQ(ledger_of(bus->get(), "newer").run, 1U);
}

TEST_F(ContractTransfer, ToAModuleWithoutContractAsAPlainPost)
{
    taken_over(strict_terms(), nullptr);
    newer_door.open();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_EQ(by_newer.text(), "1");
    EXPECT_TRUE(settles());
    EXPECT_EQ(ledger().transferred, 1U);
}

TEST_F(ContractTransfer, FromAModuleThatIsNotStrictToAStrictOne)
{
    const qor_contract_t contract = strict_terms();
    taken_over(terms(), &contract);
    newer_door.open();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_EQ(by_newer.text(), "1");
    EXPECT_EQ(ledger_of(bus->get(), "newer").run, 1U);
}

TEST_F(ContractTransfer, BetweenTwoThatAreNotStrictNothingMoves)
{
    taken_over(terms(), nullptr);
    newer_door.open();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_EQ(by_newer.text(), "1"); /* handled in the server's task */
    EXPECT_TRUE(settles());
    EXPECT_EQ(ledger().transferred, 0U);
    EXPECT_EQ(ledger().run, 2U);
}

TEST_F(ContractTransfer, WhatIsRefusedThereIsDroppedHereWithAResponse)
{
    const qor_contract_t contract = strict_terms(1, QOR_OVERFLOW_BLOCK, 60000);
    taken_over(strict_terms(), &contract);
    ASSERT_GE(ask(2), 0);
    ASSERT_TRUE(newer_door.await(1));
    ASSERT_GE(ask(3), 0);

    door.open();

    EXPECT_TRUE(await([&] { return answers.text().find('d') != std::string::npos; }));
    EXPECT_EQ(ledger().dropped_transfer, 1U);
    EXPECT_EQ(losses.text(), "02");
    EXPECT_EQ(ledger_of(bus->get(), "newer").refused, 1U);
    newer_door.open();
    EXPECT_TRUE(settles());
    EXPECT_EQ(by_newer.text(), "23");
}

TEST_F(ContractTransfer, WhatHasGonePastTheQueueIsNotCountedAsMoved)
{
    const qor_contract_t contract = strict_terms();
    bus_with(terms([](qor_contract_t &c) { c.depth = 1; }), 1, {&newer});
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "newer", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    const auto stand = [](void *at) -> void * { return static_cast<Door *>(at)->pass(), at; };
    ASSERT_EQ(qor_bus_run(bus->get(), stand, &door, nullptr), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(0), 0);
    ASSERT_GE(ask(1), 0);
    qor_context_subscribe(newer.context(), TOPIC, nullptr);
    newer_door.open();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_TRUE(settles());
    EXPECT_EQ(by_server.text(), "");
    EXPECT_EQ(ledger().bypassed, 1U);
    EXPECT_EQ(ledger().transferred, 1U);
    EXPECT_EQ(ledger().running, 0U);
}

/* The request itself would be refused there: its thread has a place for it in another queue. */
TEST_F(ContractTransfer, WhoIsToldOfALossOnTheWayMayWaitForAPlaceElsewhere)
{
    struct Told {
        Module third{"third"};
        Door at;
        std::atomic<int32_t> posted{-2};

        int32_t post()
        {
            const auto stand = [](void *arg) -> void * {
                return static_cast<Door *>(arg)->pass(), arg;
            };
            return qor_context_run(third.context(), stand, &at);
        }
    } told;
    qor_contract_t of_newer = strict_terms(1, QOR_OVERFLOW_DROP_NEWEST);
    of_newer.lost = [](void *arg, const qor_loss_t *) {
        Told &self = *static_cast<Told *>(arg);
        self.posted = self.post();
    };
    of_newer.arg = &told;
    others.push_back(&told.third);
    of_third = strict_terms(1, QOR_OVERFLOW_BLOCK, 60000);
    taken_over(strict_terms(), &of_newer);
    ASSERT_GE(told.post(), 0);
    ASSERT_TRUE(told.at.await(1));
    ASSERT_GE(told.post(), 0);
    ASSERT_GE(ask(2), 0);
    ASSERT_TRUE(newer_door.await(1));
    ASSERT_GE(ask(3), 0);

    door.open();

    EXPECT_TRUE(await([&] { return Inspection(bus->get()).context("third").blocked == 1; }));
    EXPECT_EQ(told.posted, -2);
    told.at.open();
    EXPECT_TRUE(await([&] { return told.posted >= 0; }));
    newer_door.open();
    EXPECT_TRUE(settles());
    end();
}
