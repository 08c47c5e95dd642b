/* SPDX-License-Identifier: Apache-2.0 */
/* Modules with contracts that load themselves and each other come to an end, whatever becomes of
 * what finds no place, and with the fewest workers. */
#include "case_name.hpp"
#include "contract_fixture.hpp"
#include "qor_deferred.h"

namespace {

constexpr int32_t limit = 10000; /* ms, for each test from its first request on */
constexpr uint32_t places = 2;
constexpr int requests = 200;

/* What becomes of an overflow, and how many workers there are to wait for each other. */
struct Load {
    const char *name;
    int32_t policy;
    uint32_t workers;
    int32_t refcount;
};

class ContractLiveness : public Contract, public ::testing::WithParamInterface<Load> {
protected:
    enum { AT_SERVER = TOPIC, AT_OTHER = 1, AT_PLAIN = 2 };

    ContractLiveness()
    {
        other.reg = [](qor_context_t *c) { qor_context_subscribe(c, AT_OTHER, nullptr); };
        plain.reg = [](qor_context_t *c) { qor_context_subscribe(c, AT_PLAIN, nullptr); };
        for (Module *module : {&server, &client, &other, &plain, &late}) {
            module->handle = [this](qor_context_t *self, qor_context_msg_t *msg) {
                return handle(self, msg);
            };
        }
    }

    /* Both have the same contract. One that waits may do so longer than the test may take. */
    void load() { load(GetParam().workers, 60000); }

    void load(uint32_t workers, int32_t wait_time)
    {
        const Load &how = GetParam();
        qor_contract_t contract =
            strict_terms(places, how.policy, how.policy == QOR_OVERFLOW_BLOCK ? wait_time : 0);
        contract.strict = how.policy != QOR_OVERFLOW_BYPASS;
        contract.open_max = open_max;
        server.descriptor.refcount = other.descriptor.refcount = how.refcount;
        bus_with(contract, workers, {&other, &plain, &late});
        ASSERT_EQ(qor_bus_contract_set(bus->get(), "other", &contract), 0);
        since = util_timestamp();
        bus->start();
        ASSERT_TRUE(bus->up());
    }

    /* A request that its handler may follow up so many times. */
    bool ask_from(qor_context_t *publisher, qor_context_topic_t topic, int32_t follow_ups)
    {
        asked++;
        const bool taken = qor_context_req(publisher, topic, &follow_ups, sizeof(follow_ups)) >= 0;
        asked -= !taken;
        return taken;
    }

    int32_t handle(qor_context_t *self, qor_context_msg_t *msg)
    {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            answered++;
        } else if (defer) {
            return defer(self, msg);
        } else if (number_of(msg) > 0 && follow_up) {
            follow_up(self, number_of(msg) - 1);
        }
        return 0;
    }

    /* As await(), with the limit. */
    bool soon(const std::function<bool()> &condition) const
    {
        while (!condition()) {
            if (util_timestamp() - since > limit) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    /* Many requests at once; gives how many were taken. */
    int ask_many(qor_context_t *publisher, int number = requests)
    {
        int taken = 0;
        for (int i = 0; i < number; i++) {
            taken += ask_from(publisher, AT_SERVER, 0);
        }
        return taken;
    }

    /* What a handler of either does: it fills the queue of the other. */
    void fill_the_other(qor_context_t *self, int32_t follow_ups)
    {
        for (uint32_t i = 0; i < 2 * places; i++) {
            ask_from(self, self == server.context() ? AT_OTHER : AT_SERVER, follow_ups);
        }
    }

    void fill_each_other(int32_t follow_ups)
    {
        follow_up = [this](qor_context_t *self, int32_t more) { fill_the_other(self, more); };
        for (uint32_t i = 0; i < 2 * places; i++) {
            ask_from(client.context(), i % 2 ? AT_OTHER : AT_SERVER, follow_ups);
        }
        comes_to_an_end();
    }

    /* All that was taken has been answered, and nothing is left to be done. */
    void comes_to_an_end()
    {
        EXPECT_TRUE(soon([this] { return answered == asked; }))
            << answered << " answers to " << asked << " requests";
        EXPECT_EQ(qor_bus_drain(bus->get(), limit), 0);
        for (const char *name : {"server", "other"}) {
            const qor_ledger_t l = ledger_of(bus->get(), name);
            EXPECT_EQ(l.accepted, accounted(l)) << name;
            EXPECT_EQ(l.waiting + l.running + l.delayed, 0U) << name;
        }
        end();
        EXPECT_LE(util_timestamp() - since, limit);
    }

    Module other{"other"};
    Module plain{"plain"};
    Module late{"late"};
    std::function<void(qor_context_t *, int32_t)> follow_up;
    std::function<int32_t(qor_context_t *, qor_context_msg_t *)> defer;
    uint32_t open_max = 0;
    std::atomic<int> asked{0};
    std::atomic<int> answered{0};
    int64_t since = 0;
};

const Load loads[] = {
    {"BypassOneWorker", QOR_OVERFLOW_BYPASS, 1, 0},
    {"RefuseOneWorker", QOR_OVERFLOW_REFUSE, 1, 0},
    {"DropOldestOneWorker", QOR_OVERFLOW_DROP_OLDEST, 1, 0},
    {"DropNewestOneWorker", QOR_OVERFLOW_DROP_NEWEST, 1, 0},
    {"BlockOneWorker", QOR_OVERFLOW_BLOCK, 1, 0},
    {"RefuseTwoAtATime", QOR_OVERFLOW_REFUSE, 1, 2},
    {"DropOldestTwoAtATime", QOR_OVERFLOW_DROP_OLDEST, 1, 2},
    {"DropNewestTwoAtATime", QOR_OVERFLOW_DROP_NEWEST, 1, 2},
    {"BlockTwoAtATime", QOR_OVERFLOW_BLOCK, 1, 2},
    {"BlockTwoWorkers", QOR_OVERFLOW_BLOCK, 2, 0},
};

} // namespace

TEST_P(ContractLiveness, APosterOnAnApplicationsThread)
{
    load();

    const int taken = ask_many(client.context());

    EXPECT_GT(taken, 0);
    if (GetParam().policy == QOR_OVERFLOW_BLOCK) {
        EXPECT_EQ(taken, requests);
    }
    comes_to_an_end();
}

TEST_P(ContractLiveness, APosterOnAWorker)
{
    std::atomic<int> taken{-1};
    const std::function<void()> post = [&] { taken = ask_many(client.context()); };
    load();

    qor_bus_run(
        bus->get(),
        [](void *task) -> void * {
            (*static_cast<const std::function<void()> *>(task))();
            return nullptr;
        },
        const_cast<std::function<void()> *>(&post), nullptr);

    EXPECT_TRUE(soon([&] { return taken > 0; }));
    comes_to_an_end();
}

TEST_P(ContractLiveness, APosterInAnInit)
{
    std::atomic<int> taken{-1};
    late.init = [&](qor_context_t *self) {
        taken = ask_many(self);
        return 0;
    };

    /* The responses wait for the start that the init holds up, and may keep the other worker. */
    load(GetParam().workers, 20);

    EXPECT_GT(taken, 0);
    comes_to_an_end();
}

TEST_P(ContractLiveness, AHandlerThatFillsItsOwnQueue)
{
    follow_up = [this](qor_context_t *self, int32_t follow_ups) {
        for (uint32_t i = 0; i < 2 * places; i++) {
            ask_from(self, AT_SERVER, follow_ups);
        }
    };
    load();

    ASSERT_TRUE(ask_from(client.context(), AT_SERVER, 4));

    comes_to_an_end();
}

/* A synchronous request inside, and asynchronous ones to itself, to the other and back. */
TEST_P(ContractLiveness, NestedRequests)
{
    std::atomic<int> inner{0};
    follow_up = [&](qor_context_t *self, int32_t follow_ups) {
        int32_t none = 0;
        const qor_context_topic_t across = self == server.context() ? AT_OTHER : AT_SERVER;
        inner += qor_context_x_req(self, across, &none, sizeof(none)) == 0;
        ask_from(self, AT_SERVER, follow_ups);
        ask_from(self, AT_OTHER, follow_ups);
    };
    load();

    ASSERT_TRUE(ask_from(client.context(), AT_SERVER, 6));

    comes_to_an_end();
    EXPECT_GT(inner, 0);
}

TEST_P(ContractLiveness, TwoThatFillEachOther)
{
    load();

    fill_each_other(4);
}

/* Idle workers cannot help two that wait for each other: the time to wait ends it. */
TEST_P(ContractLiveness, TwoThatFillEachOtherBesideIdleWorkers)
{
    load(/* workers */ 6, /* wait_time */ 20);

    fill_each_other(2);
}

/* A task of the module's own is to complete each; one that finds no place leaves that to the limit.
 */
TEST_P(ContractLiveness, RequestsAreDeferredOneAtATime)
{
    struct Completion {
        static void *run(void *token)
        {
            qor_deferred_complete(*static_cast<uint64_t *>(token), 0, nullptr, 0);
            return nullptr;
        }
        static void recycle(void *token) { delete static_cast<uint64_t *>(token); }
    };
    open_max = 1;
    defer = [](qor_context_t *self, qor_context_msg_t *msg) {
        auto token = std::make_unique<uint64_t>(0);
        if (qor_context_defer(self, msg, /* wait_time */ 50, token.get()) < 0) {
            return -1;
        }
        qor_context_task_t task = {};
        qor_context_task_init(&task, self, nullptr, 9, Completion::run, token.get());
        task.recycle = Completion::recycle;
        if (qor_context_handler_post(self, &task) == 0) {
            (void)token.release();
        }
        return 0;
    };
    load();

    const int taken = ask_many(client.context(), 20);

    EXPECT_GT(taken, 0);
    comes_to_an_end();
}

/* One that never runs out of work lets another module, and its own timers, have their turns. */
TEST_P(ContractLiveness, AHandlerThatPostsToItselfWithoutEnd)
{
    std::atomic<bool> ends{false};
    std::atomic<int> timers{0};
    std::atomic<int> served{0};
    follow_up = [&](qor_context_t *self, int32_t follow_ups) {
        if (self == plain.context()) {
            served++;
        } else if (!ends) {
            ask_from(self, AT_SERVER, follow_ups + 1);
        }
    };
    load();
    ASSERT_TRUE(ask_from(client.context(), AT_SERVER, 1));

    for (int i = 0; i < 20; i++) {
        ASSERT_TRUE(ask_from(client.context(), AT_PLAIN, 1));
        ASSERT_GE(qor_context_timer(
                      server.context(),
                      [](void *count) -> void * {
                          ++*static_cast<std::atomic<int> *>(count);
                          return nullptr;
                      },
                      &timers, 1 + i),
                  0);
    }

    EXPECT_TRUE(soon([&] { return timers == 20 && served == 20; }));
    ends = true;
    comes_to_an_end();
}

INSTANTIATE_TEST_SUITE_P(Loads, ContractLiveness, ::testing::ValuesIn(loads), case_name<Load>);
