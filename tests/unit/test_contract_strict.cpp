/* SPDX-License-Identifier: Apache-2.0 */
/* Strict modules: how many tasks at a time, and in which order. */
#include "contract_fixture.hpp"
#include "inspection.hpp"

namespace {

/* Counts how many are inside at once. */
class Gauge {
public:
    void enter()
    {
        const int now = ++inside_;
        for (int most = most_; most < now && !most_.compare_exchange_weak(most, now);) {
        }
    }
    void leave() { inside_--; }
    int most() const { return most_; }

private:
    std::atomic<int> inside_{0};
    std::atomic<int> most_{0};
};

class ContractStrict : public Contract {
protected:
    /* Each call stays inside long enough for another to come beside it. */
    void visit()
    {
        gauge.enter();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        gauge.leave();
        visits++;
    }

    static void *visit_task(void *arg)
    {
        static_cast<ContractStrict *>(arg)->visit();
        return nullptr;
    }

    /* Everything that can be put into the server's queue, many times. */
    void flood(int rounds)
    {
        for (int i = 0; i < rounds; i++) {
            expected += ask() >= 0;
            expected += qor_context_run(server.context(), visit_task, this) >= 0;
            expected += qor_context_timer(server.context(), visit_task, this, 1 + i % 3) >= 0;
            qor_context_task_t task = {};
            qor_context_task_init(&task, server.context(), nullptr, 7, visit_task, this);
            task.async = 1;
            expected += qor_context_handler_post(server.context(), &task) >= 0;
        }
    }

    void floods(int32_t refcount, int most)
    {
        server.descriptor.refcount = refcount;
        server.handle = [this](qor_context_t *, qor_context_msg_t *) {
            visit();
            return 0;
        };
        running_with(strict_terms(100000), 4);
        flood(100);
        ASSERT_TRUE(await([&] { return visits == expected; }));
        EXPECT_EQ(expected, 400);
        EXPECT_EQ(gauge.most(), most);
    }

    Gauge gauge;
    std::atomic<int> visits{0};
    int expected = 0;
};

} // namespace

TEST_F(ContractStrict, OneTaskAtATime)
{
    floods(0, 1);
    end();
}

TEST_F(ContractStrict, AsManyAsRefcountSays)
{
    floods(2, 2);
    end();
}

TEST_F(ContractStrict, RequestsComeInTheOrderOfTheirAcceptance)
{
    Letters seen;
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        door.pass();
        seen.add(std::string(1, static_cast<char>('a' + number_of(msg))));
        return 0;
    };
    running_with(strict_terms());
    for (int i = 0; i < 26; i++) {
        ASSERT_GE(ask(i), 0);
    }
    ASSERT_TRUE(door.await(1));

    door.open();

    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "abcdefghijklmnopqrstuvwxyz");
    end();
}

TEST_F(ContractStrict, ALateTimerGoesBeforeWhatCameAfterItWasDue)
{
    Letters seen;
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        door.pass();
        seen.add(std::string(1, static_cast<char>('a' + number_of(msg))));
        return 0;
    };
    running_with(strict_terms());
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(1), 0);
    ASSERT_GE(qor_context_timer(
                  server.context(),
                  [](void *letters) -> void * {
                      static_cast<Letters *>(letters)->add("T");
                      return nullptr;
                  },
                  &seen, 20),
              0);
    const int64_t due = util_timestamp() + 20;
    ASSERT_TRUE(await([&] { return util_timestamp() > due; }));
    ASSERT_GE(ask(2), 0);

    door.open();

    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "abTc");
    end();
}

TEST_F(ContractStrict, ATimerFindsNoSlotFree)
{
    const auto note = [](void *letters) -> void * {
        static_cast<Letters *>(letters)->add("T");
        return nullptr;
    };
    Letters ours;
    Letters later;
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms(), 2);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));

    ASSERT_GE(qor_context_timer(server.context(), note, &ours, 5), 0);
    ASSERT_GE(qor_context_timer(client.context(), note, &later, 10), 0);

    ASSERT_TRUE(await([&] { return later.text() == "T"; })); /* on the worker that is free */
    EXPECT_EQ(ours.text(), "");
    EXPECT_EQ(ledger().delayed, 1U);
    door.open();
    EXPECT_TRUE(await([&] { return ours.text() == "T"; }));
    end();
}

TEST_F(ContractStrict, ARunThatEndsGivesItsSlotBack)
{
    running_with(strict_terms());
    for (size_t i = 1; i <= 3; i++) {
        ASSERT_GE(ask(), 0);

        EXPECT_TRUE(await([&] { return answers.text().size() == i; }));
        ASSERT_TRUE(settles()); /* no run is left */
    }
    end();
}

TEST_F(ContractStrict, NothingOfTheQueueRunsBeforeTheStartHasReturned)
{
    std::atomic<int> handled{0};
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return handled++; };
    server.init = [&](qor_context_t *self) {
        qor_context_run(
            self,
            [](void *count) -> void * { return ++*static_cast<std::atomic<int> *>(count), count; },
            &handled);
        door.pass();
        return 0;
    };
    bus_with(strict_terms(), 4);
    bus->start();
    ASSERT_TRUE(door.await(1));
    const int64_t since = util_timestamp();
    EXPECT_TRUE(await([&] { return util_timestamp() > since + 50; }));
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(ledger().waiting, 1U);

    door.open();

    EXPECT_TRUE(await([&] { return handled == 1; }));
    end();
}

TEST_F(ContractStrict, ARequestCountsAsRunWhenItsHandlerHasReturned)
{
    Module filter("filter");
    filter.reg = [](qor_context_t *c) {
        qor_context_topic_attr_t attr = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                         QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, 0};
        qor_context_filter(c, TOPIC, &attr);
    };
    filter.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms(), 2, {&filter});

    ASSERT_GE(ask(), 0);

    ASSERT_TRUE(door.await(1)); /* on the way to its response */
    EXPECT_EQ(ledger().run, 1U);
    EXPECT_EQ(ledger().running, 0U);
    end();
}

TEST_F(ContractStrict, ATaskThatEndsItsThreadGivesItsSlotBack)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        if (number_of(msg) == 0) {
            pthread_exit(nullptr);
        }
        return 0;
    };
    running_with(strict_terms());

    for (int i = 0; i < 6; i++) {
        ASSERT_GE(ask(i % 2), 0);
    }

    EXPECT_TRUE(await([&] { return answers.text().size() == 6; }));
    EXPECT_EQ(answers.text(), "-a-a-a");
    EXPECT_TRUE(await([&] { return ledger().run == 6; }));
    EXPECT_EQ(ledger().running, 0U);
    end();
}

TEST_F(ContractStrict, ARunGivesWayToOthersAndGoesOn)
{
    std::atomic<int> handled{0};
    std::atomic<bool> other{false};
    server.handle = [&](qor_context_t *self, qor_context_msg_t *) {
        const int32_t none = 0;
        if (!other && handled < 1000000) {
            qor_context_req(self, TOPIC, const_cast<int32_t *>(&none), sizeof(none));
        }
        handled++;
        return 0;
    };
    running_with(strict_terms(), 1);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(await([&] { return handled > 10; }));

    qor_bus_run(
        bus->get(),
        [](void *flag) -> void * { return *static_cast<std::atomic<bool> *>(flag) = true, flag; },
        &other, nullptr);

    EXPECT_TRUE(settles());
    EXPECT_TRUE(other);
    EXPECT_LT(handled, 1000000);
    end();
}

/* Such a run is one more of the queue's as long as it lasts. */
TEST_F(ContractStrict, ATaskOfTheBusMayCallTheLoop)
{
    running_with(strict_terms());
    const auto loop = [](void *context) -> void * {
        EXPECT_EQ(qor_core_context_class.loop(static_cast<qor_context_t *>(context)), 0);
        return nullptr;
    };
    ASSERT_TRUE(settles());

    ASSERT_EQ(qor_bus_run(bus->get(), loop, &server.core()->base, nullptr), 0);

    EXPECT_TRUE(settles());
    EXPECT_EQ(Inspection(bus->get()).context("server").runs, 0U);
    EXPECT_GE(ask(), 0);
    EXPECT_TRUE(await([this] { return answers.text() == "a"; }));
}

TEST_F(ContractStrict, AQuitBeforeTheStartLeavesTheWorkersFree)
{
    server.init = [&](qor_context_t *self) {
        qor_context_run(
            self, [](void *arg) -> void * { return arg; }, nullptr);
        return qor_bus_quit(bus->get());
    };
    bus_with(strict_terms());

    bus->start();

    EXPECT_EQ(bus->returned(), 0);
    EXPECT_EQ(ledger().waiting, 1U);
    end();
}
