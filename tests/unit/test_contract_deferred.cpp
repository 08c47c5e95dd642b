/* SPDX-License-Identifier: Apache-2.0 */
/* Deferred requests of modules with a contract. */
#include "contract_fixture.hpp"
#include "inspection.hpp"
#include "qor_deferred.h"
#include "qor_periodic.h"

namespace {

class ContractDeferred : public Contract {
protected:
    ContractDeferred()
    {
        server.handle = [this](qor_context_t *self, qor_context_msg_t *msg) {
            uint64_t token = 0;
            order.add(std::to_string(number_of(msg)));
            if (qor_context_defer(self, msg, wait_time, &token) < 0) {
                order.add("!");
                return -1;
            }
            const std::lock_guard<std::mutex> lock(mutex);
            tokens.push_back(token);
            return 0;
        };
    }

    static qor_contract_t open_max(uint32_t number, bool strict)
    {
        return terms([=](qor_contract_t &c) {
            c.open_max = number;
            c.strict = strict;
        });
    }

    size_t deferred()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return tokens.size();
    }

    uint64_t token(size_t number)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return tokens[number];
    }

    int32_t complete(size_t number) { return qor_deferred_complete(token(number), 0, nullptr, 0); }

    /* Three requests where two may be open, completed one after the other. */
    void two_at_most(bool strict)
    {
        running_with(open_max(2, strict));
        for (int i = 0; i < 4; i++) {
            ASSERT_GE(ask(i), 0);
        }
        ASSERT_TRUE(await([&] { return deferred() == 2; }));
        ASSERT_TRUE(await([&] { return ledger().run == 2 && ledger().running == 0; }));
        EXPECT_EQ(ledger().open, 2U);
        EXPECT_EQ(ledger().waiting, 2U);
        EXPECT_EQ(order.text(), "01");

        EXPECT_EQ(complete(1), 0);
        ASSERT_TRUE(await([&] { return deferred() == 3; }));
        EXPECT_EQ(order.text(), "012");
        EXPECT_EQ(ledger().finished, 1U);
        EXPECT_EQ(complete(0), 0);
        ASSERT_TRUE(await([&] { return deferred() == 4; }));
        EXPECT_EQ(complete(2), 0);
        EXPECT_EQ(complete(3), 0);

        EXPECT_TRUE(settles());
        EXPECT_EQ(answers.text(), "aaaa");
        EXPECT_EQ(ledger().open, 0U);
        EXPECT_EQ(ledger().finished, 4U);
        EXPECT_EQ(ledger().run, 4U);
        EXPECT_EQ(ledger().accepted, 4U);
    }

    std::mutex mutex;
    std::vector<uint64_t> tokens;
    Letters order;
    int32_t wait_time = -1;
};

} // namespace

TEST_F(ContractDeferred, AtOpenMaxNoFurtherRequestIsBegun)
{
    two_at_most(true);
    end();
}

TEST_F(ContractDeferred, NorInAModuleThatIsNotStrict)
{
    two_at_most(false);
    end();
}

TEST_F(ContractDeferred, TasksTimersAndResponsesAreBegunAllTheSame)
{
    Module echo("echo");
    echo.reg = [](qor_context_t *c) { qor_context_subscribe(c, 1, nullptr); };
    const auto inner = server.handle;
    server.handle = [&](qor_context_t *self, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            order.add("r");
            return 0;
        }
        return inner(self, msg);
    };
    running_with(open_max(1, true), 2, {&echo});
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(await([&] { return deferred() == 1; }));
    ASSERT_GE(ask(1), 0);
    const auto write = [](void *letters) -> void * {
        static_cast<Letters *>(letters)->add("t");
        return nullptr;
    };
    ASSERT_GE(qor_context_run(server.context(), write, &order), 0);
    ASSERT_TRUE(await([&] { return order.text() == "0t"; }));
    ASSERT_GE(qor_context_timer(server.context(), write, &order, 1), 0);
    ASSERT_TRUE(await([&] { return order.text() == "0tt"; }));
    ASSERT_GE(qor_context_req(server.context(), 1, nullptr, 0), 0);
    ASSERT_TRUE(await([&] { return order.text() == "0ttr"; }));
    const int32_t session = qor_context_every(
        server.context(),
        [](qor_context_t *, int32_t, void *letters, uint32_t) {
            if (static_cast<Letters *>(letters)->text() == "0ttr") {
                static_cast<Letters *>(letters)->add("p");
            }
        },
        &order, nullptr, 1);
    ASSERT_TRUE(await([&] { return order.text() == "0ttrp"; }));
    EXPECT_EQ(qor_context_handler_cancel(server.context(), session), 0);

    EXPECT_EQ(complete(0), 0);

    EXPECT_TRUE(await([&] { return deferred() == 2; }));
    EXPECT_EQ(order.text(), "0ttrp1");
    EXPECT_EQ(complete(1), 0);
    EXPECT_TRUE(settles());
    end();
}

TEST_F(ContractDeferred, ADeferralPastOpenMaxIsRefused)
{
    server.descriptor.refcount = 2;
    const auto inner = server.handle;
    server.handle = [&](qor_context_t *self, qor_context_msg_t *msg) {
        door.pass();
        return inner(self, msg);
    };
    running_with(open_max(1, true));
    ASSERT_GE(ask(0), 0);
    ASSERT_GE(ask(1), 0);
    ASSERT_TRUE(door.await(2));
    output.clear();

    door.open();

    EXPECT_TRUE(await([&] { return answers.text() == "-"; }));
    EXPECT_EQ(output.count(err_line("qor_deferred", "qor_context_defer",
                                    "open_max: as many requests are open as may be.")),
              1);
    EXPECT_EQ(ledger().open, 1U);
    EXPECT_EQ(complete(0), 0);
    EXPECT_TRUE(settles());
    EXPECT_EQ(answers.text(), "-a");
    end();
}

TEST_F(ContractDeferred, AnExpiredOneMakesRoom)
{
    wait_time = 5;
    running_with(open_max(1, true));
    for (int i = 0; i < 3; i++) {
        ASSERT_GE(ask(i), 0);
    }

    EXPECT_TRUE(settles());

    EXPECT_EQ(answers.text(), "---");
    EXPECT_EQ(ledger().finished, 3U);
    EXPECT_EQ(ledger().open, 0U);
    end();
}

TEST_F(ContractDeferred, ThePublishersPlaceIsHeldUntilTheResponseBegins)
{
    bus_with(terms(), 2);
    const qor_contract_t contract = terms([](qor_contract_t &c) { c.replies = 1; });
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(await([&] { return deferred() == 1; }));
    EXPECT_EQ(ask(1), -1);

    EXPECT_EQ(complete(0), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "a"; }));
    EXPECT_GE(ask(2), 0);
    ASSERT_TRUE(await([&] { return deferred() == 2; }));
    EXPECT_EQ(complete(1), 0);
    EXPECT_TRUE(settles());
    end();
}

TEST_F(ContractDeferred, WhatIsOpenAtTheEndIsFinished)
{
    running_with(open_max(1, true));
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(await([&] { return deferred() == 1; }));
    ASSERT_GE(ask(1), 0);

    bus->quit();

    EXPECT_EQ(ledger().open, 0U);
    EXPECT_EQ(ledger().finished, 1U);
    EXPECT_EQ(ledger().waiting, 1U);
    EXPECT_EQ(complete(0), -1);
    end();
    EXPECT_EQ(answers.text(), "");
}

TEST_F(ContractDeferred, AtOpenMaxATimerIsNotBegunBeforeItsTime)
{
    running_with(open_max(1, true));
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(await([&] { return deferred() == 1; }));
    const auto write = [](void *letters) -> void * {
        static_cast<Letters *>(letters)->add("t");
        return nullptr;
    };
    ASSERT_GE(qor_context_timer(server.context(), write, &order, 3600000), 0);

    ASSERT_GE(qor_context_run(server.context(), write, &order), 0);

    EXPECT_TRUE(await([&] { return order.text().size() > 1; }));
    EXPECT_TRUE(await([&] { return Inspection(bus->get()).context("server").runs == 0; }));
    EXPECT_EQ(order.text(), "0t");
    EXPECT_EQ(ledger().delayed, 1U);
    EXPECT_EQ(complete(0), 0);
    EXPECT_TRUE(settles());
    end();
}

/* Whoever looks for more while it discards what it has. */
TEST_F(ContractDeferred, AtOpenMaxAQueueThatQuitsGivesNothingAway)
{
    running_with(open_max(1, false), 1);
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(await([&] { return deferred() == 1; }));
    const auto stand = [](void *at) -> void * { return static_cast<Door *>(at)->pass(), at; };
    ASSERT_EQ(qor_bus_run(bus->get(), stand, &door, nullptr), 0);
    ASSERT_TRUE(door.await(1));
    struct Waiting {
        Letters &order;
        qor_context_t *wrapper;
    } waiting = {order, &server.core()->base};
    for (int i = 0; i < 2; i++) {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, server.context(), "task", 9,
            [](void *of) -> void * { return static_cast<Waiting *>(of)->order.add("X"), of; },
            &waiting);
        task.recycle = [](void *of) {
            static_cast<Waiting *>(of)->order.add("R");
            EXPECT_EQ(qor_core_context_class.loop(static_cast<Waiting *>(of)->wrapper), 0);
        };
        ASSERT_EQ(qor_context_handler_post(server.context(), &task), 0);
    }

    qor_time_que_quit(server.core()->que);

    EXPECT_EQ(order.text(), "0RR");
    EXPECT_EQ(complete(0), 0);
    end();
}
