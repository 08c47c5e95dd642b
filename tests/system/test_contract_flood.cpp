/* SPDX-License-Identifier: Apache-2.0 */
/* The ledger of a module that is flooded, against what posters, handlers, recycles and responses
 * have counted themselves. */
#include "contract_fixture.hpp"

namespace {

constexpr int posters = 3;
constexpr int rounds = 1500;

class ContractFlood : public Contract, public ::testing::WithParamInterface<int> {
protected:
    struct Counted {
        std::atomic<uint64_t> requests{0}, tasks{0}, refused{0};
        std::atomic<uint64_t> begun{0}, ended{0}, recycled{0};
        std::atomic<uint64_t> answered{0}, dropped{0};
    };

    static void *work(void *self)
    {
        Counted &c = static_cast<ContractFlood *>(self)->counted;
        c.begun++;
        c.ended++;
        return nullptr;
    }

    static void recycle(void *self) { static_cast<ContractFlood *>(self)->counted.recycled++; }

    void post(int round)
    {
        switch (round % 3) {
        case 0:
            (ask(round) >= 0 ? counted.requests : counted.refused)++;
            return;
        default: {
            qor_context_task_t task = {};
            qor_context_task_init(&task, server.context(), "flood", 5, work, this);
            task.recycle = recycle;
            task.delay = round % 3 == 1 ? 0 : 1 + round % 2;
            (qor_context_handler_post(server.context(), &task) >= 0 ? counted.tasks
                                                                    : counted.refused)++;
        }
        }
    }

    /* Whatever the moment: the sum holds, and nothing is ahead of what has been counted here. */
    void look()
    {
        const uint64_t ended = counted.ended;
        const qor_ledger_t l = ledger();
        ASSERT_EQ(l.accepted, accounted(l));
        ASSERT_GE(l.run + l.running, ended);
        ASSERT_LE(l.run, counted.ended);
        ASSERT_LE(l.running, limit);
        ASSERT_LE(l.highest, depth);
    }

    void flood(int32_t policy, uint32_t workers)
    {
        qor_contract_t contract = strict_terms(depth, policy, policy == QOR_OVERFLOW_BLOCK ? 5 : 0);
        contract.replies = 1000000;
        server.descriptor.refcount = static_cast<int32_t>(limit);
        server.handle = [this](qor_context_t *, qor_context_msg_t *) {
            counted.begun++;
            counted.ended++;
            return 0;
        };
        client.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            (msg->ret == QOR_RET_DROPPED ? counted.dropped : counted.answered)++;
            return 0;
        };
        running_with(contract, workers);
        std::atomic<int> posting{posters};
        std::vector<Thread> threads;
        for (int i = 0; i < posters; i++) {
            threads.emplace_back([&] {
                for (int round = 0; round < rounds; round++) {
                    post(round);
                }
                posting--;
            });
        }
        while (posting > 0) {
            look();
        }
        for (Thread &thread : threads) {
            thread.join();
        }
        ASSERT_TRUE(
            await([&] { return ledger().delayed == 0 && ledger().waiting == 0 && settles(); }));
        end_of_flood();
        end();
    }

    void end_of_flood()
    {
        const qor_ledger_t l = ledger();
        EXPECT_EQ(l.accepted, accounted(l));
        EXPECT_EQ(l.accepted, counted.requests + counted.tasks);
        EXPECT_EQ(l.refused, counted.refused);
        EXPECT_EQ(l.run, counted.ended);
        EXPECT_EQ(l.running + l.waiting + l.delayed + l.discarded + l.cancelled, 0U);
        EXPECT_EQ(counted.answered + counted.dropped, counted.requests);
        EXPECT_EQ(counted.recycled, counted.tasks);
        EXPECT_EQ(l.dropped_oldest + l.dropped_newest,
                  counted.dropped + (counted.tasks - (counted.ended - counted.answered)));
    }

    const uint32_t depth = 8;
    const uint32_t limit = 2;
    Counted counted;
};

} // namespace

TEST_P(ContractFlood, RefuseIsAccountedFor)
{
    flood(QOR_OVERFLOW_REFUSE, static_cast<uint32_t>(GetParam()));
}

TEST_P(ContractFlood, DropOldestIsAccountedFor)
{
    flood(QOR_OVERFLOW_DROP_OLDEST, static_cast<uint32_t>(GetParam()));
}

TEST_P(ContractFlood, DropNewestIsAccountedFor)
{
    flood(QOR_OVERFLOW_DROP_NEWEST, static_cast<uint32_t>(GetParam()));
}

TEST_P(ContractFlood, BlockIsAccountedFor)
{
    flood(QOR_OVERFLOW_BLOCK, static_cast<uint32_t>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Workers, ContractFlood, ::testing::Values(1, 2, 8),
                         [](const ::testing::TestParamInfo<int> &workers) {
                             return std::to_string(workers.param);
                         });
