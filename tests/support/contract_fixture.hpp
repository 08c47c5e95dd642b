/* SPDX-License-Identifier: Apache-2.0 */
/* Modules with contracts on a running bus. */
#ifndef QOR_TESTS_CONTRACT_FIXTURE_HPP
#define QOR_TESTS_CONTRACT_FIXTURE_HPP

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_contract.h"
#include "running_bus.hpp"
#include "thread.hpp"

/* A contract with the fields that a test sets. */
inline qor_contract_t terms(const std::function<void(qor_contract_t &)> &set = nullptr)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    if (set) {
        set(contract);
    }
    return contract;
}

inline qor_contract_t strict_terms(uint32_t depth = 0, int32_t overflow = QOR_OVERFLOW_DEFAULT,
                                   int32_t wait_time = 0)
{
    return terms([=](qor_contract_t &contract) {
        contract.strict = 1;
        contract.depth = depth;
        contract.overflow = overflow;
        contract.wait_time = wait_time;
    });
}

inline qor_ledger_t ledger_of(qor_bus_t *bus, const char *name)
{
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    EXPECT_EQ(qor_bus_ledger(bus, name, &ledger), 0);
    return ledger;
}

/* What becomes of all that was accepted. */
inline uint64_t accounted(const qor_ledger_t &l)
{
    return l.run + l.running + l.waiting + l.delayed + l.dropped_oldest + l.dropped_newest +
           l.dropped_transfer + l.cancelled + l.discarded + l.transferred;
}

/* Text that several threads write, letter by letter. */
class Letters {
public:
    void add(const std::string &text)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        text_ += text;
    }
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};

/* Two modules: one serves topic 0, the other asks. */
class Contract : public ::testing::Test {
public:
    /* A request of the client's; gives its session. */
    int32_t ask(int32_t number = 0)
    {
        return qor_context_req(client.context(), TOPIC, &number, sizeof(number));
    }

protected:
    enum { TOPIC = 0, TOPICS = 4 };

    Contract()
    {
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, TOPIC, nullptr); };
        client.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
                answers.add(msg->ret == QOR_RET_DROPPED ? "d" : msg->ret < 0 ? "-" : "a");
            }
            return 0;
        };
    }

    /* Makes the bus; the server has the contract. */
    RunningBus &bus_with(const qor_contract_t &contract, uint32_t workers = 2,
                         const std::vector<Module *> &others = {})
    {
        std::vector<Module *> modules = {&server, &client};
        modules.insert(modules.end(), others.begin(), others.end());
        bus.reset(new RunningBus(RunningBus::by_start, workers, modules, TOPICS));
        EXPECT_EQ(qor_bus_contract_set(bus->get(), "server", &contract), 0);
        return *bus;
    }

    /* The same, and starts it. */
    RunningBus &running_with(const qor_contract_t &contract, uint32_t workers = 2,
                             const std::vector<Module *> &others = {})
    {
        bus_with(contract, workers, others);
        bus->start();
        EXPECT_TRUE(bus->up());
        return *bus;
    }

    static int32_t number_of(const qor_context_msg_t *msg)
    {
        int32_t number;
        std::memcpy(&number, msg->request.buf, sizeof(number));
        return number;
    }

    void TearDown() override { end(); }

    /* Lets everybody at the door go on and ends the bus: in a test before its own variables go that
     * modules use. */
    void end()
    {
        door.open();
        bus.reset();
    }

    qor_ledger_t ledger() { return ledger_of(bus->get(), "server"); }
    bool settles() { return qor_bus_drain(bus->get(), 60000) == 0; }

    Output output;
    Module server{"server"};
    Module client{"client"};
    Door door;
    Letters answers; /* of the client: a for a result of 0 or more, d for a dropped request */
    std::unique_ptr<RunningBus> bus;
};

#endif /* QOR_TESTS_CONTRACT_FIXTURE_HPP */
