/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers of modules with a contract. */
#include "contract_fixture.hpp"
#include "falling_due.hpp"
#include "qor_periodic.h"
#include "time_que_length.hpp"

namespace {

class ContractPeriodic : public Contract {
protected:
    struct Beat {
        std::function<void(int32_t session, uint32_t missed)> run;
        std::atomic<int> runs{0};
        std::atomic<int> recycled{0};
    };

    /* Arms the beat in the server. */
    int32_t every(Beat &which, int32_t period, qor_context_t *self = nullptr)
    {
        return qor_context_every(
            self ? self : server.context(),
            [](qor_context_t *, int32_t session, void *arg, uint32_t missed) {
                Beat &own = *static_cast<Beat *>(arg);
                if (own.run) {
                    own.run(session, missed);
                }
                own.runs++;
            },
            &which, [](void *arg) { static_cast<Beat *>(arg)->recycled++; }, period);
    }

    bool passes(int64_t ms)
    {
        const int64_t since = util_timestamp();
        return await([&] { return util_timestamp() > since + ms; });
    }

    Beat beat;
};

} // namespace

TEST_F(ContractPeriodic, ARunTakesASlot)
{
    std::atomic<int> inside{0};
    std::atomic<bool> beside{false};
    const auto visit = [&] {
        beside = beside || inside++ > 0;
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        inside--;
    };
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return visit(), 0; };
    beat.run = [&](int32_t, uint32_t) { visit(); };
    running_with(strict_terms(1000), 4);
    Beat other;
    other.run = beat.run;
    int asked = 0;

    ASSERT_GE(every(beat, 1), 0);
    ASSERT_GE(every(other, 2), 0);
    while (beat.runs < 50 || other.runs < 25) {
        if (answers.text().size() == static_cast<size_t>(asked)) { /* one request at a time */
            asked += ask() >= 0;
        }
        std::this_thread::yield();
    }

    EXPECT_FALSE(beside);
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, ALateRunGoesBeforeWhatCameAfterItWasDue)
{
    Letters order;
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        door.pass();
        order.add(std::string(1, static_cast<char>('a' + number_of(msg))));
        return 0;
    };
    beat.run = [&](int32_t, uint32_t missed) { order.add(missed > 0 ? "P" : "p"); };
    running_with(strict_terms());
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(1), 0);
    const int32_t session = every(beat, 20);
    ASSERT_GE(session, 0);
    ASSERT_TRUE(passes(60));
    ASSERT_GE(ask(2), 0);

    door.open();

    ASSERT_TRUE(await([&] { return order.text().find('c') != std::string::npos; }));
    EXPECT_EQ(order.text().substr(0, 4), "abPc");
    end();
}

TEST_F(ContractPeriodic, TheLedgerCountsARunWhenItBegins)
{
    beat.run = [&](int32_t, uint32_t) { door.pass(); };
    running_with(strict_terms());

    ASSERT_GE(every(beat, 1), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(ledger().accepted, 1U);
    EXPECT_EQ(ledger().running, 1U);
    EXPECT_EQ(ledger().waiting + ledger().delayed, 0U);
    end();
}

TEST_F(ContractPeriodic, SoDoesThatOfAModuleThatIsNotStrict)
{
    running_with(terms());
    const int32_t session = every(beat, 1);

    ASSERT_TRUE(await([&] { return beat.runs >= 3; }));
    ASSERT_EQ(qor_context_handler_cancel(server.context(), session), 0);

    ASSERT_TRUE(settles());
    EXPECT_EQ(ledger().run, static_cast<uint64_t>(beat.runs));
    EXPECT_EQ(ledger().accepted, ledger().run);
    end();
}

TEST_F(ContractPeriodic, CancelledWhileItWaitsItDoesNotRun)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    const int32_t session = every(beat, 5);
    ASSERT_TRUE(passes(20));

    EXPECT_EQ(qor_context_handler_cancel(server.context(), session), 0);
    EXPECT_EQ(qor_context_handler_cancel(server.context(), session), -1);

    door.open();
    EXPECT_TRUE(await([&] { return beat.recycled == 1; }));
    EXPECT_TRUE(settles());
    EXPECT_EQ(beat.runs, 0);
    EXPECT_EQ(ledger().accepted, 1U);
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, NoNumberOfATaskCancelsItWhileItWaits)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(every(beat, 1), 0);
    ASSERT_TRUE(passes(20)); /* it is due, and waits for the slot */

    for (const int32_t session : {-1, INT32_MIN, INT32_MAX}) { /* -1: what a refused post gave */
        EXPECT_EQ(qor_context_handler_cancel(server.context(), session), -1) << session;
    }

    EXPECT_EQ(beat.recycled, 0);
    door.open();
    EXPECT_TRUE(await([&] { return beat.runs > 1; }));
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, CancelledInsideItsRunItEnds)
{
    beat.run = [&](int32_t session, uint32_t) {
        EXPECT_EQ(qor_context_handler_cancel(server.context(), session), 0);
        EXPECT_EQ(beat.recycled, 0);
    };
    running_with(strict_terms());

    ASSERT_GE(every(beat, 1), 0);

    EXPECT_TRUE(await([&] { return beat.recycled == 1; }));
    EXPECT_TRUE(passes(10));
    EXPECT_EQ(beat.runs, 1);
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, ARunThatEndsItsThreadGivesItsSlotBack)
{
    beat.run = [&](int32_t, uint32_t) {
        beat.runs++;
        pthread_exit(nullptr);
    };
    running_with(strict_terms());
    ASSERT_GE(every(beat, 2), 0);

    EXPECT_TRUE(await([&] { return beat.runs >= 3; }));
    ASSERT_GE(ask(), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "a"; }));
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, WhatStillWaitsAtTheEndIsRecycledOnce)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(every(beat, 1), 0);
    ASSERT_TRUE(passes(10));

    qor_bus_quit(bus->get());

    end();
    EXPECT_EQ(beat.recycled, 1);
    EXPECT_EQ(beat.runs, 0);
}

TEST_F(ContractPeriodic, AFailedInitEndsIt)
{
    server.init = [&](qor_context_t *self) {
        EXPECT_GE(every(beat, 1, self), 0);
        EXPECT_TRUE(passes(10));
        return -1;
    };
    bus_with(strict_terms());
    bus->start();

    EXPECT_TRUE(await([&] { return beat.recycled == 1; }));

    end();
    EXPECT_EQ(beat.recycled, 1);
    EXPECT_EQ(beat.runs, 0);
}

/* What else the module has is recycled meanwhile, and waits for that. */
TEST_F(ContractPeriodic, OneThatFallsDueWhileItsModuleIsTakenDownEnds)
{
    struct Recycled {
        std::function<void()> act;
        std::atomic<bool> over{false};
    } recycled;
    server.init = [&](qor_context_t *self) {
        const int32_t session = every(beat, 3600000, self);
        EXPECT_GE(session, 0);
        recycled.act = [this, session] {
            fall_due(bus->get()->time_que, session);
            EXPECT_TRUE(await([this] { return beat.recycled == 1; }));
        };
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, self, "task", 9, [](void *arg) { return arg; }, &recycled);
        task.recycle = [](void *arg) {
            static_cast<Recycled *>(arg)->act();
            static_cast<Recycled *>(arg)->over = true;
        };
        EXPECT_EQ(qor_context_handler_post(self, &task), 0);
        return -1;
    };
    bus_with(strict_terms());
    bus->start();

    EXPECT_TRUE(await([&] { return recycled.over.load(); }));

    end();
    EXPECT_EQ(beat.recycled, 1);
    EXPECT_EQ(beat.runs, 0);
}

TEST_F(ContractPeriodic, ItTakesNoPlaceAndIsNoVictim)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    running_with(strict_terms(1, QOR_OVERFLOW_DROP_OLDEST));
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(every(beat, 1), 0);
    ASSERT_TRUE(passes(10));

    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask(), 0);

    EXPECT_EQ(ledger().dropped_oldest, 1U);
    door.open();
    EXPECT_TRUE(await([&] { return beat.runs >= 1; }));
    end();
}

TEST_F(ContractPeriodic, OneThatTheQueueDoesNotTakeEnds)
{
    running_with(strict_terms());
    qor_time_que_quit(server.core()->que);

    ASSERT_GE(every(beat, 1), 0);

    EXPECT_TRUE(await([this] { return beat.recycled == 1; }));
    EXPECT_EQ(beat.runs, 0);
    end();
    EXPECT_EQ(beat.recycled, 1);
}

TEST_F(ContractPeriodic, WithoutARunToBeHadItWaitsToTheEnd)
{
    running_with(strict_terms());
    qor_que_quit(bus->get()->que);

    ASSERT_GE(every(beat, 1), 0);

    EXPECT_TRUE(await([this] { return length_of(server.core()->que) == 1; }));
    EXPECT_EQ(beat.runs, 0);
    end();
    EXPECT_EQ(beat.recycled, 1);
}
