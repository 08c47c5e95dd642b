/* SPDX-License-Identifier: Apache-2.0 */
/* Many periodic timers that many threads arm and cancel while their runs begin, and while the bus
 * quits. Above all for the sanitizers. */
#include <array>
#include <atomic>
#include <deque>
#include <vector>

#include <gtest/gtest.h>

#include "beat.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_module.h"
#include "qor_periodic.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

constexpr int cancellers = 4;
constexpr int rounds = 60;
constexpr int at_once = 8; /* timers that a thread has */

class ManyBeats : public testing::Test {
protected:
    ManyBeats() { EXPECT_TRUE(bus.up()); }

    /* Arms timers, and cancels each when it has run some times, at times inside its own run. */
    void turn(std::deque<Beat> &own, int number)
    {
        qor_context_t *context = (number % 2 ? first : second).context();
        std::vector<Beat *> armed;
        for (int i = 0; i < at_once; i++) {
            own.emplace_back();
            Beat &beat = own.back();
            if ((number + i) % 3 == 0) {
                beat.body = [&beat] { qor_context_timer_cancel(beat.self, beat.given); };
            }
            if (beat.arm(context, 1 + i % 3) >= 0) {
                armed.push_back(&beat);
            }
        }
        for (size_t i = 0; i < armed.size(); i++) {
            while (i % 2 && armed[i]->begun == 0 && !qor_bus_quitting(bus.get())) {
                std::this_thread::yield();
            }
            qor_bus_cancel(bus.get(), armed[i]->session); /* it may have done so itself */
        }
        turns++;
    }

    /* Each thread has so many turns; below 0, as many as it gets before the bus has quit. */
    void run_threads(int wanted)
    {
        std::vector<Thread> threads;
        for (int i = 0; i < cancellers; i++) {
            threads.emplace_back([this, i, wanted] {
                for (int number = 0; number < wanted || (wanted < 0 && !stop); number++) {
                    turn(beats[i], number);
                }
            });
        }
        if (wanted < 0) {
            EXPECT_TRUE(await([this] { return turns >= 20; }));
            qor_bus_quit(bus.get());
            stop = true;
        }
        for (Thread &thread : threads) {
            thread.join();
        }
    }

    /* Each was recycled once if it was armed, and never ran beside itself. */
    void expect_balance()
    {
        long runs = 0;
        for (const std::deque<Beat> &each : beats) {
            for (const Beat &beat : each) {
                EXPECT_EQ(beat.recycles, beat.session >= 0 ? 1 : 0);
                EXPECT_LE(beat.most_inside, 1);
                EXPECT_EQ(beat.begun, beat.over);
                runs += beat.begun;
            }
        }
        EXPECT_GT(runs, 0);
    }

    Output out;
    Module first{"first"}, second{"second"};
    std::array<std::deque<Beat>, cancellers> beats; /* a thread's own */
    Beat kept[3];
    std::atomic<int> turns{0}; /* that are over */
    std::atomic<bool> stop{false};
    RunningBus bus{{&first, &second}, 8, 4};
};

} // namespace

TEST_F(ManyBeats, EachIsRecycledOnceWhoeverCancelsIt)
{
    run_threads(rounds);

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(bus.get()->time_que->count, 0);
    expect_balance();
}

TEST_F(ManyBeats, EachIsRecycledOnceWhenTheBusQuitsMeanwhile)
{
    run_threads(-1);
    bus.end();

    expect_balance();
}

/* Numbers are drawn across those of the timers all the time. */
TEST_F(ManyBeats, NoNumberOfATimerIsDrawnBesideIt)
{
    for (Beat &beat : kept) {
        ASSERT_GE(beat.arm(first.context(), 1), 0);
    }
    std::vector<Thread> threads;
    std::atomic<int> taken{0};
    for (int i = 0; i < cancellers; i++) {
        threads.emplace_back([&] {
            for (int draw = 0; draw < 2000; draw++) {
                if (draw % 100 == 0) {
                    __atomic_store_n(&bus.get()->session, 0, __ATOMIC_RELAXED);
                }
                const int32_t drawn = qor_bus_session(bus.get());
                for (const Beat &beat : kept) {
                    taken += drawn == beat.session;
                }
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(taken, 0);
}
