/* SPDX-License-Identifier: Apache-2.0 */
/* Contracts: their terms, and what is refused. */
#include "contract_fixture.hpp"

namespace {

/* A bus that does not loop. */
class ContractTerms : public ::testing::Test {
protected:
    ContractTerms() { other.descriptor.refcount = -1; }
    ~ContractTerms() override { qor_bus_close(bus()); }

    qor_bus_t *bus()
    {
        if (!bus_) {
            bus_ = qor_bus_create(table.data(), 1);
        }
        return bus_;
    }

    std::string refusal(const qor_contract_t &contract, const char *name = "module")
    {
        output.clear();
        EXPECT_EQ(qor_bus_contract_set(bus(), name, &contract), -1);
        return output.printed();
    }

    static std::string line(const std::string &text)
    {
        return err_line("qor_contract", "qor_bus_contract_set", text);
    }

    Output output;
    Module module{"module"};
    Module other{"other"};
    std::vector<qor_context_module_t *> table = table_of({&module, &other});

private:
    qor_bus_t *bus_ = nullptr;
};

} // namespace

TEST_F(ContractTerms, InitFillsSizeAndNothingElse)
{
    qor_contract_t contract;
    memset(&contract, 0xff, sizeof(contract));

    qor_contract_init(&contract);

    const qor_contract_t expected = {sizeof(contract), 0, 0, 0, 0, 0, 0, 0, nullptr, nullptr, {}};
    EXPECT_EQ(memcmp(&contract, &expected, sizeof(contract)), 0);
    qor_contract_init(nullptr);
    EXPECT_EQ(output.printed(),
              err_line("qor_contract", "qor_contract_init", "!(contract) == true."));
}

TEST_F(ContractTerms, MissingArgumentsAreReportedInOrder)
{
    const qor_contract_t contract = terms();

    EXPECT_EQ(qor_bus_contract_set(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_contract_set(bus(), nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_contract_set(bus(), "module", nullptr), -1);

    EXPECT_EQ(output.printed(),
              line("!(_this) == true.") + line("!(name) == true.") + line("!(contract) == true."));
    EXPECT_EQ(qor_bus_contract_set(bus(), "module", &contract), 0);
}

TEST_F(ContractTerms, ANameMustBeOneModules)
{
    EXPECT_EQ(refusal(terms(), "nobody"), line("name: no module has it."));
    EXPECT_EQ(refusal(terms(), ""), line("name: no module has it."));
    EXPECT_EQ(refusal(terms(), "qor_mng_module"), line("name: a system module's."));
    EXPECT_EQ(refusal(terms(), "qor_bus_module"), line("name: a system module's."));
    EXPECT_EQ(refusal(terms(), "qor_monitor_module"), line("name: a system module's."));
}

TEST_F(ContractTerms, ANameOfTwoModulesIsRefused)
{
    Module twin("module");
    table = table_of({&module, &twin});

    EXPECT_EQ(refusal(terms()), line("name: two modules have it."));
}

TEST_F(ContractTerms, ANameWithoutEndIsRefused)
{
    std::string name(sizeof(qor_context_module_t::name), 'n');
    Module endless("x");
    memcpy(const_cast<char *>(endless.descriptor.name), name.data(), name.size());
    table = table_of({&endless});

    EXPECT_EQ(refusal(terms(), name.c_str()), line("name: not terminated."));
}

TEST_F(ContractTerms, AModuleOfAnotherClassIsRefused)
{
    module.descriptor.id = 3;

    EXPECT_EQ(refusal(terms()), line("name: the module's class is another than 0."));
}

TEST_F(ContractTerms, EachFieldIsNamedThatIsWrong)
{
    const auto wrong = [this](const std::function<void(qor_contract_t &)> &set) {
        return refusal(terms(set));
    };
    EXPECT_EQ(wrong([](auto &c) { c.strict = 2; }), line("strict: neither 0 nor 1."));
    EXPECT_EQ(wrong([](auto &c) { c.overflow = -1; }), line("overflow: not known."));
    EXPECT_EQ(wrong([](auto &c) { c.overflow = 6; }), line("overflow: not known."));
    EXPECT_EQ(wrong([](auto &c) { c.strict = 1, c.overflow = QOR_OVERFLOW_BYPASS; }),
              line("overflow: nothing goes past a strict queue."));
    EXPECT_EQ(wrong([](auto &c) { c.overflow = QOR_OVERFLOW_BLOCK; }),
              line("wait_time: below 1 ms."));
    EXPECT_EQ(wrong([](auto &c) { c.reserved0 = 1; }), line("reserved: not 0."));
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(wrong([i](auto &c) { c.reserved[i] = 1; }), line("reserved: not 0."));
    }
    EXPECT_EQ(refusal(strict_terms(), "other"), line("strict: refcount is negative."));
    EXPECT_EQ(qor_bus_contract_set(bus(), "other", &(const qor_contract_t &)terms()), 0);
}

TEST_F(ContractTerms, ASizeMustBeKnown)
{
    const auto sized = [](uint32_t size) {
        return terms([size](qor_contract_t &c) { c.size = size; });
    };
    for (const uint32_t size : {0U, 4U, 9U, static_cast<uint32_t>(sizeof(qor_contract_t) + 8)}) {
        EXPECT_EQ(refusal(sized(size)), line("size: not known.")) << size;
    }
    const qor_contract_t small = sized(8);
    EXPECT_EQ(qor_bus_contract_set(bus(), "module", &small), 0);
}

TEST_F(ContractTerms, WhatASmallRecordLeavesOutIsZero)
{
    qor_contract_t small = strict_terms();
    small.size = 8;
    small.overflow = 77; /* behind its end */

    EXPECT_EQ(qor_bus_contract_set(bus(), "module", &small), 0);

    EXPECT_EQ(output.printed(), "");
}

TEST_F(ContractTerms, ALedgerNeedsAContractAndASize)
{
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    const auto line_of = [](const std::string &text) {
        return err_line("qor_contract", "qor_bus_ledger", text);
    };

    EXPECT_EQ(qor_bus_ledger(nullptr, "module", &ledger), -1);
    EXPECT_EQ(qor_bus_ledger(bus(), nullptr, &ledger), -1);
    EXPECT_EQ(qor_bus_ledger(bus(), "module", nullptr), -1);
    EXPECT_EQ(qor_bus_ledger(bus(), "module", &ledger), -1);
    ledger.size = 12;
    EXPECT_EQ(qor_bus_ledger(bus(), "module", &ledger), -1);

    EXPECT_EQ(output.printed(), line_of("!(_this) == true.") + line_of("!(name) == true.") +
                                    line_of("!(ledger) == true.") +
                                    line_of("name: no contract for \"module\".") +
                                    line_of("size: not known."));
}

TEST_F(ContractTerms, ASmallLedgerGetsWhatItHasRoomFor)
{
    const qor_contract_t contract = terms();
    ASSERT_EQ(qor_bus_contract_set(bus(), "module", &contract), 0);
    qor_ledger_t ledger;
    memset(&ledger, 0xff, sizeof(ledger));
    ledger.size = 24;

    EXPECT_EQ(qor_bus_ledger(bus(), "module", &ledger), 0);

    EXPECT_EQ(ledger.size, 24U);
    EXPECT_EQ(ledger.accepted, 0U);
    EXPECT_EQ(ledger.run, 0U);
    EXPECT_EQ(ledger.running, UINT64_MAX);
}

TEST_F(Contract, IsRefusedOnceTheBusLoops)
{
    running_with(terms());
    const qor_contract_t contract = terms();
    output.clear();

    EXPECT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), -1);
    bus->quit();
    EXPECT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), -1);

    const std::string line =
        err_line("qor_contract", "qor_bus_contract_set", "loop: the bus loops already.");
    EXPECT_EQ(output.printed(), line + line);
    end();
}

TEST_F(Contract, ASecondOneReplacesTheFirst)
{
    bus_with(strict_terms(1));
    const qor_contract_t later = strict_terms(2);
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", &later), 0);
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_GE(ask(), 0);
    EXPECT_GE(ask(), 0);
    EXPECT_EQ(ask(), -1);
    end();
}

TEST_F(Contract, AHandlersReservedResultBecomesAnError)
{
    server.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        return QOR_RET_DROPPED + number_of(msg);
    };
    running_with(terms());
    output.clear();

    for (int i = 0; i < 4; i++) {
        ASSERT_GE(ask(i), 0);
    }

    EXPECT_TRUE(await([&] { return answers.text() == "----"; }));
    EXPECT_EQ(output.count(err_line("qor_sched_delegate", "qor_sched_delegate_handle_message_aim",
                                    "reserved result -2147483648, module = server")),
              1);
    EXPECT_EQ(output.count("reserved result"), 3);
    EXPECT_EQ(output.count("handle message failed, ret = -1 "), 3);
    EXPECT_EQ(output.count("handle message failed, ret = -2147483645 "), 1);
    end();
}

TEST_F(Contract, AReservedResultIsTheModulesOwnWithoutOne)
{
    client.reg = [](qor_context_t *c) { qor_context_subscribe(c, 1, nullptr); };
    std::atomic<int32_t> ret{0};
    client.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            ret = msg->ret;
            return 0;
        }
        return int32_t{QOR_RET_EXPIRED};
    };
    running_with(terms());

    ASSERT_GE(qor_context_req(client.context(), 1, nullptr, 0), 0);

    EXPECT_TRUE(await([&] { return ret == QOR_RET_EXPIRED; }));
    end();
}

TEST_F(ContractTerms, ALedgerHasWholeCountersAndNoUnknownOnes)
{
    const qor_contract_t contract = terms();
    ASSERT_EQ(qor_bus_contract_set(bus(), "module", &contract), 0);
    qor_ledger_t ledger = {};
    for (const size_t size : {sizeof(ledger) + sizeof(ledger.run), sizeof(ledger) - 1}) {
        output.clear();
        ledger.size = static_cast<uint32_t>(size);
        EXPECT_EQ(qor_bus_ledger(bus(), "module", &ledger), -1);
        EXPECT_EQ(output.printed(), err_line("qor_contract", "qor_bus_ledger", "size: not known."));
    }
    output.clear();
    ledger.size = sizeof(ledger);
    EXPECT_EQ(qor_bus_ledger(bus(), "nobody", &ledger), -1);
    EXPECT_EQ(output.printed(),
              err_line("qor_contract", "qor_bus_ledger", "name: no contract for \"nobody\"."));
}

/* Everything that a module's queue takes: tasks, timers, and of each one with a run of its own. */
class ContractLedger : public Contract {
protected:
    void post_each_kind(int32_t delay)
    {
        for (const int32_t async : {1, 0}) {
            qor_context_task_t task = {};
            qor_context_task_init(&task, server.context(), nullptr, 7, pass, this);
            task.async = async;
            task.delay = delay;
            EXPECT_GE(qor_context_handler_post(server.context(), &task), 0);
        }
    }

    static void *pass(void *arg)
    {
        static_cast<ContractLedger *>(arg)->door.pass();
        return nullptr;
    }

    /* Whether nothing that was accepted is on its way any more. */
    bool is_closed()
    {
        const qor_ledger_t now = ledger();
        return now.running + now.waiting + now.delayed == 0 && now.accepted == accounted(now);
    }
};

TEST_F(ContractLedger, WhatAFailedInitLeavesIsDiscarded)
{
    server.init = [this](qor_context_t *) {
        post_each_kind(0);
        post_each_kind(3600 * 1000);
        return -1;
    };
    bus_with(terms());
    door.open();

    bus->start();

    ASSERT_TRUE(await([this] { return ledger().accepted == 4 && is_closed(); }));
    EXPECT_EQ(ledger().run + ledger().discarded, 4u); /* one may have begun before */
}

TEST_F(ContractLedger, ARunOfItsOwnThatNeverComesIsDiscarded)
{
    Door before;
    running_with(terms(), 1);
    ASSERT_GE(qor_context_run(
                  client.context(),
                  [](void *arg) -> void * {
                      static_cast<Door *>(arg)->pass();
                      return nullptr;
                  },
                  &before),
              0);
    ASSERT_TRUE(before.await(1));
    post_each_kind(0);
    before.open();
    ASSERT_TRUE(door.await(1)); /* the task; the run waits behind the only worker */

    qor_bus_quit(bus->get());
    door.open();
    bus->returned();

    EXPECT_EQ(ledger().run, 1u);
    EXPECT_EQ(ledger().discarded, 1u);
    EXPECT_TRUE(is_closed());
}
