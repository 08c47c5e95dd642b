/* SPDX-License-Identifier: Apache-2.0 */
/* The bound on a module's own requests whose response has not begun. */
#include "contract_fixture.hpp"

namespace {

class ContractReplies : public Contract {
protected:
    /* The client has the bound. */
    void running_with_replies(uint32_t replies, const std::vector<Module *> &others = {})
    {
        bus_with(terms(), 3, others);
        const qor_contract_t contract = terms([=](qor_contract_t &c) { c.replies = replies; });
        ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
        output.clear();
    }
};

} // namespace

TEST_F(ContractReplies, TheRequestPastTheBoundIsRefusedBeforeAnyPoint)
{
    Module watcher("watcher");
    std::atomic<int> saw{0};
    watcher.reg = [](qor_context_t *c) { qor_context_filter(c, TOPIC, nullptr); };
    watcher.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        saw += msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE;
        return 0;
    };
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with_replies(2, {&watcher});
    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask(), 0);

    EXPECT_EQ(qor_context_req_s(client.context(), 77, TOPIC, nullptr, 0), -1);

    EXPECT_EQ(saw, 2);
    EXPECT_EQ(output.printed(),
              err_line("qor_sched_delegate", "qor_sched_delegate_publish",
                       "replies: all places are taken, source:client, topic:0, session=77"));
    door.open();
    ASSERT_TRUE(await([&] { return answers.text() == "aa"; }));
    EXPECT_GE(ask(), 0);
    end();
}

TEST_F(ContractReplies, AFailedPublishGivesThePlaceBack)
{
    running_with_replies(1);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(qor_context_req(client.context(), /* nobody subscribes it */ 3, nullptr, 0), -1);
    }

    EXPECT_GE(ask(), 0);
    end();
}

TEST_F(ContractReplies, ARefusedRequestGivesThePlaceBack)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    bus_with(strict_terms(1), 3);
    const qor_contract_t contract = terms([](qor_contract_t &c) { c.replies = 3; });
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(), 0);

    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(ask(), -1);
    }

    EXPECT_EQ(output.count("queue full"), 5);
    EXPECT_EQ(output.count("all places are taken"), 0);
    end();
}

TEST_F(ContractReplies, ACancelledRequestGivesThePlaceBack)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with_replies(2);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    const int32_t session = ask();
    ASSERT_GE(session, 0);
    ASSERT_EQ(ask(), -1);

    ASSERT_EQ(qor_context_handler_cancel(server.context(), session), 0);

    EXPECT_GE(ask(), 0);
    EXPECT_EQ(ledger().cancelled, 1U);
    end();
}

TEST_F(ContractReplies, ACancelledResponseGivesThePlaceBack)
{
    running_with_replies(1);
    ASSERT_GE(qor_context_run(
                  client.context(),
                  [](void *where) -> void * {
                      static_cast<Door *>(where)->pass();
                      return nullptr;
                  },
                  &door),
              0);
    ASSERT_TRUE(door.await(1));
    const int32_t session = ask();
    ASSERT_GE(session, 0);
    ASSERT_TRUE(await([&] { return ledger_of(bus->get(), "client").waiting == 1; }));
    ASSERT_EQ(ask(), -1);

    ASSERT_EQ(qor_context_handler_cancel(client.context(), session), 0);

    EXPECT_GE(ask(), 0);
    door.open();
    EXPECT_TRUE(await([&] { return answers.text() == "a"; }));
    end();
}

TEST_F(ContractReplies, TheResponseThatHasBegunFreesThePlace)
{
    client.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with_replies(1);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_GE(ask(), 0);

    end();
}

TEST_F(ContractReplies, ADroppedRequestHoldsItsPlaceUntilItsResponse)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    bus_with(strict_terms(1, QOR_OVERFLOW_DROP_NEWEST), 3);
    const qor_contract_t contract = terms([](qor_contract_t &c) { c.replies = 3; });
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(), 0);

    for (size_t i = 1; i < 6; i++) {
        ASSERT_GE(ask(), 0);
        ASSERT_TRUE(await([&] { return answers.text().size() == i; }));
    }

    EXPECT_EQ(answers.text(), "ddddd");
    end();
}
