/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios of timers for libraries with a loop that one thread runs. */
#ifndef BENCH_TIMERS_HPP
#define BENCH_TIMERS_HPP

#include <deque>

#include "measure.hpp"

namespace bench {

/* A Loop has a Timer, made of a Loop, with arm(ms, function, arg), for once, and cancel(); run(),
 * until stop(). */

/** So many timers are armed at any time; one that has fallen due is armed anew. */
template <typename Loop> struct Lateness {
    static constexpr int chains = 100;
    static constexpr int64_t in_all = 1000;

    struct Chain {
        Lateness &all;
        typename Loop::Timer timer;
        int64_t due = 0; /* ns */

        explicit Chain(Lateness &lateness) : all(lateness), timer(lateness.loop) {}

        void arm()
        {
            const int64_t delay = 10 + all.random.below(91);
            due = now_ns() + delay * 1000000;
            timer.arm(delay, fell_due, this);
        }

        static void fell_due(void *arg)
        {
            Chain &self = *static_cast<Chain *>(arg);
            self.all.m.latency.add(now_ns() - self.due);
            self.all.fallen++;
            if (self.all.fallen <= in_all - chains) {
                self.arm();
            } else if (self.all.fallen == in_all) {
                self.all.m.end(in_all);
                self.all.loop.stop();
            }
        }
    };

    Measurement &m;
    Loop loop{};
    Random random{};
    int64_t fallen = 0;
    std::deque<Chain> all_chains{};
};

template <typename Loop> void timer_lateness(Measurement &m)
{
    Lateness<Loop> lateness{m};
    m.begin();
    for (int i = 0; i < Lateness<Loop>::chains; i++) {
        lateness.all_chains.emplace_back(lateness).arm();
    }
    lateness.loop.run();
}

/** Arms and cancels a timer while m.size others are armed. */
template <typename Loop> void timer_churn(Measurement &m)
{
    constexpr int64_t far_off = 100000;   /* ms */
    constexpr int64_t between_looks = 16; /* at the clock */
    const auto nothing = [](void *) {};
    Loop loop;
    Random random;
    std::deque<typename Loop::Timer> armed;
    for (int i = 0; i < m.size; i++) {
        armed.emplace_back(loop).arm(far_off + random.below(far_off), nothing, nullptr);
    }
    typename Loop::Timer timer(loop);
    int64_t count = 0;
    m.begin();
    do {
        for (int64_t i = 0; i < between_looks; i++) {
            timer.arm(far_off + random.below(far_off), nothing, nullptr);
            timer.cancel();
        }
        count += between_looks;
    } while (!m.over());
    m.end(count);
}

} // namespace bench

#endif /* BENCH_TIMERS_HPP */
