/* SPDX-License-Identifier: Apache-2.0 */
/* What programs of stress share: numbers by a seed, complaints, and an end when nothing moves. */
#ifndef QOR_TESTS_RACES_STRESS_HPP
#define QOR_TESTS_RACES_STRESS_HPP

#include <atomic>
#include <chrono>
#include <cstdint>

/* How a program is called: --seed N --workers N --percent N --seconds N --cycle N. */
struct Options {
    uint64_t seed = 1;
    uint32_t workers = 2;
    int percent = 0; /* of the library's calls that are delayed */
    int seconds = 10;
    int cycle = 60; /* of the soak: seconds from one start of a bus to the next */
};

/* Ends the program with status 2 when it is called otherwise. */
Options options_of(int argc, char **argv);

/* Numbers by the seed; each thread has its own. */
void dice_seed(uint64_t seed);
uint32_t dice(uint32_t below);

/* Counts, and never an order between threads: what the library fails to order stays a race. */
using Count = std::atomic<int64_t>;
inline int64_t value(const Count &count)
{
    return count.load(std::memory_order_relaxed);
}
/* Gives what it was. */
inline int64_t add(Count &count, int64_t more = 1)
{
    return count.fetch_add(more, std::memory_order_relaxed);
}

/* Ends the process with status 1 and a line "not so: ..." unless it holds. */
[[gnu::format(printf, 2, 3)]] void must(bool holds, const char *format, ...);

/* The library's lines go nowhere from now on. */
void be_quiet();

/* Is told what the program is at. When it stays at one thing for too long, must() ends it. */
class Watchdog {
public:
    static constexpr std::chrono::seconds patience{20};
    static void at(const char *what);
    static void watch();
};

using Clock = std::chrono::steady_clock;
inline double seconds_since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

#endif /* QOR_TESTS_RACES_STRESS_HPP */
