/* SPDX-License-Identifier: Apache-2.0 */
/* Strict listeners: each has a copy and a task of its own. */
#include "contract_fixture.hpp"

namespace {

class ContractListeners : public Contract {
protected:
    ContractListeners()
    {
        watcher.reg = [](qor_context_t *c) { qor_context_listen(c, TOPIC, nullptr); };
        watcher.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            door.pass();
            saw.add((msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE ? "b" : "a") +
                    std::to_string(number_of(msg)) + " ");
            return 0;
        };
    }

    /* The watcher has the contract. */
    void running_with_watcher(qor_contract_t contract)
    {
        contract.lost = [](void *self, const qor_loss_t *loss) {
            static_cast<ContractListeners *>(self)->losses.add(std::to_string(loss->kind) +
                                                               std::to_string(loss->reason) + " ");
        };
        contract.arg = this;
        bus_with(terms(), 3, {&watcher});
        ASSERT_EQ(qor_bus_contract_set(bus->get(), "watcher", &contract), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
    }

    Module watcher{"watcher"};
    Letters saw;
    Letters losses;
};

} // namespace

TEST_F(ContractListeners, SeeEverythingWithoutHoldingOthersUp)
{
    running_with_watcher(strict_terms());

    ASSERT_GE(ask(1), 0);
    ASSERT_TRUE(await([&] { return answers.text() == "a"; }));
    ASSERT_GE(ask(2), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; })); /* though the listener waits */
    door.open();
    ASSERT_TRUE(settles());
    for (const char *sight : {"b1 ", "a1 ", "b2 ", "a2 "}) { /* two workers dispatch them */
        EXPECT_NE(saw.text().find(sight), std::string::npos) << sight;
    }
    EXPECT_EQ(ledger_of(bus->get(), "watcher").run, 4U);
    end();
}

TEST_F(ContractListeners, OthersAreCalledAsWithoutOne)
{
    Module plain("plain");
    std::atomic<int> calls{0};
    plain.reg = watcher.reg;
    plain.handle = [&](qor_context_t *, qor_context_msg_t *) { return calls++; };
    bus_with(terms(), 3, {&plain, &watcher});
    const qor_contract_t contract = strict_terms();
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "watcher", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());

    ASSERT_GE(ask(1), 0);

    EXPECT_TRUE(await([&] { return calls == 2; }));
    end();
    EXPECT_EQ(saw.text().substr(0, 3), "b1 ");
}

TEST_F(ContractListeners, WithoutRoomTheCallIsLostForThatListenerAlone)
{
    running_with_watcher(strict_terms(1));
    ASSERT_GE(ask(1), 0);
    ASSERT_TRUE(door.await(1));
    output.clear();

    ASSERT_GE(ask(2), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_TRUE(await([&] { return losses.text() == "13 13 "; }));
    EXPECT_EQ(output.printed(), "");
    EXPECT_EQ(ledger_of(bus->get(), "watcher").refused, 2U);
    end();
}

TEST_F(ContractListeners, BlockDropsTheNewest)
{
    running_with_watcher(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));
    ASSERT_GE(ask(1), 0);
    ASSERT_TRUE(door.await(1));

    ASSERT_GE(ask(2), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_TRUE(await([&] { return losses.text() == "11 11 "; }));
    EXPECT_EQ(ledger_of(bus->get(), "watcher").dropped_newest, 2U);
    end();
}

TEST_F(ContractListeners, APublisherThatExceptsItselfIsPassedOver)
{
    watcher.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t attr = {};
        attr.point = QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF;
        qor_context_listen(c, TOPIC, &attr);
    };
    door.open();
    running_with_watcher(strict_terms());

    int32_t number = 1;
    ASSERT_GE(qor_context_req(watcher.context(), TOPIC, &number, sizeof(number)), 0);
    ASSERT_TRUE(settles());
    ASSERT_GE(ask(2), 0);

    ASSERT_TRUE(settles());
    EXPECT_EQ(saw.text().find("b1"), std::string::npos);
    EXPECT_NE(saw.text().find("b2"), std::string::npos);
    end();
}
