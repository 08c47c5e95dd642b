/* SPDX-License-Identifier: Apache-2.0 */
/* Cancel on a busy bus: beside the expiry of what it cancels, and with numbers that are not the
 * canceller's. */
#include <atomic>
#include <chrono>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "running_bus.hpp"
#include "thread.hpp"
#include "time_que_length.hpp"

namespace {

/* A delayed task that is cancelled at about the time at which it falls due. */
struct Attempt {
    std::atomic<int> ran{0}, recycled{0};
    int cancelled = 0;
    bool taken = false;
};

int32_t post(qor_context_t *context, Attempt &attempt, int32_t session, int32_t delay,
             int32_t async)
{
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, nullptr, "attempt", session,
        [](void *arg) -> void * {
            static_cast<Attempt *>(arg)->ran++;
            return nullptr;
        },
        &attempt);
    task.delay = delay;
    task.async = async;
    task.recycle = [](void *arg) { static_cast<Attempt *>(arg)->recycled++; };
    return qor_context_handler_post(context, &task);
}

} // namespace

TEST(Cancels, BesideTheExpiryEachTaskEitherRunsOrIsCancelled)
{
    constexpr int threads = 3;
    constexpr int rounds = 150;
    constexpr int batch = 8;
    Output out; /* of cancels that come too late */
    Module module("gauge");
    RunningBus bus({&module}, 1, 3);
    ASSERT_TRUE(bus.up());
    std::vector<std::deque<Attempt>> attempts(threads);
    std::vector<Thread> cancellers;

    for (int thread = 0; thread < threads; thread++) {
        cancellers.emplace_back([&, thread] {
            std::minstd_rand random(static_cast<unsigned>(thread + 1));
            std::deque<Attempt> &mine = attempts[static_cast<size_t>(thread)];
            for (int round = 0; round < rounds; round++) {
                int32_t sessions[batch];
                const size_t first = mine.size();
                for (int32_t &session : sessions) {
                    session = qor_bus_session(bus.get());
                    mine.emplace_back();
                    mine.back().taken = post(module.context(), mine.back(), session,
                                             1 + static_cast<int32_t>(random() % 2),
                                             static_cast<int32_t>(random() % 2)) >= 0;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
                for (size_t i = 0; i < batch; i++) {
                    mine[first + i].cancelled =
                        qor_context_timer_cancel(module.context(), sessions[i]) == 0;
                }
            }
        });
    }
    for (Thread &canceller : cancellers) {
        canceller.join();
    }

    EXPECT_TRUE(await([&] {
        return qor_bus_drain(bus.get(), 60000) == 0 && length_of(bus.get()->time_que) == 0;
    }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(length_of(module.core()->que), 0);
    EXPECT_EQ(module.core()->refcount, 0);
    int ran = 0;
    int cancelled = 0;
    for (const auto &mine : attempts) {
        for (const Attempt &attempt : mine) {
            ran += attempt.ran;
            cancelled += attempt.cancelled;
            EXPECT_TRUE(attempt.taken);
            EXPECT_EQ(attempt.ran + attempt.cancelled, 1);
            EXPECT_EQ(attempt.recycled, 1);
        }
    }
    EXPECT_GT(ran, 0);
    EXPECT_GT(cancelled, 0);
    bus.end();
}

/* Numbers that it made up or has kept for too long: those of others. */
TEST(Cancels, AModuleThatCancelsOldNumbersStopsNobody)
{
    Output out; /* most of them fail with a line */
    Module victim("victim"), other("other"), vandal("vandal");
    RunningBus bus({&victim, &other, &vandal}, 1, 1); /* runs have to wait for their worker */
    ASSERT_TRUE(bus.up());
    std::atomic<bool> over{false};
    std::atomic<int> rounds{0};
    Ledger ledger;
    Thread cancelling([&] {
        for (int32_t number = 0; !over; number++, rounds++) {
            const int32_t latest = qor_bus_session(bus.get());
            for (int32_t back = 0; back < 40; back++) {
                qor_context_timer_cancel(vandal.context(), latest - back);
            }
            qor_context_timer_cancel(vandal.context(), number);
        }
    });

    const auto linger = [] { std::this_thread::sleep_for(std::chrono::microseconds(100)); };
    long posted = 0;
    bool goes_on = true;
    for (int i = 0; goes_on && (i < 500 || rounds < 100); i++) {
        for (const Module *module : {&victim, &other}) {
            int32_t session = -1;
            qor_context_session(module->context(), &session);
            goes_on = goes_on && await([&] { return length_of(module->core()->que) < 40; });
            posted += ledger.post(module->context(), session, 0, 0, linger) >= 0;
        }
    }

    EXPECT_TRUE(goes_on);
    EXPECT_TRUE(await([&] { return ledger.sums().ran == posted; }));
    over = true;
    cancelling.join();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    bus.end();
    EXPECT_EQ(ledger.errors(), "");
}
