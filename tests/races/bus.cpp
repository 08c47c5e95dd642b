/* SPDX-License-Identifier: Apache-2.0 */
/* Whole buses, one after the other: threads of the application's act on one while its modules act
 * on each other; it is drained, goes on, and quits in the middle of it all. */
#include <cstdio>
#include <thread>
#include <vector>

#include "meddle.h"
#include "traffic.hpp"

namespace {

constexpr int outsiders = 4;

/* Lets threads act for a while; whoever draws it quits the bus. */
void act_for(Traffic &traffic, Clock::duration time, bool quits)
{
    std::atomic<bool> over{false};
    std::vector<std::thread> all;
    for (int i = 0; i < outsiders; i++) {
        all.emplace_back([&traffic, &over, quits] {
            while (!over.load(std::memory_order_relaxed)) {
                traffic.act();
                if (quits && dice(2000) == 0) {
                    qor_bus_quit(traffic.bus());
                }
            }
        });
    }
    std::this_thread::sleep_for(time);
    if (quits) {
        qor_bus_quit(traffic.bus());
        std::this_thread::sleep_for(std::chrono::milliseconds(dice(3))); /* they find out */
    }
    over.store(true, std::memory_order_relaxed);
    for (std::thread &one : all) {
        one.join();
    }
}

void run_a_bus(Book &book, uint32_t workers)
{
    book.clear();
    Traffic traffic(book, workers);
    traffic.begin();
    if (dice(2)) {
        act_for(traffic, std::chrono::milliseconds(50 + dice(200)), false);
        traffic.settle();
    }
    act_for(traffic, std::chrono::milliseconds(20 + dice(100)), true);
    traffic.end();
}

long long number(const Count &count)
{
    return static_cast<long long>(value(count));
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = options_of(argc, argv);
    be_quiet(); /* refusals are many here, and each is counted */
    dice_seed(options.seed);
    fault_delay(options.seed, options.percent);
    Watchdog::watch();
    Book book(16000);
    const Clock::time_point begin = Clock::now();
    run_a_bus(book, options.workers);
    const int64_t kept = fault_blocks();
    while (seconds_since(begin) < options.seconds) {
        run_a_bus(book, options.workers);
        must(fault_blocks() == kept, "a bus leaves nothing behind: %lld blocks, not %lld",
             static_cast<long long>(fault_blocks()), static_cast<long long>(kept));
    }
    std::printf("%lld buses: %lld requests, %lld refused, %lld responses, of which %lld dropped, "
                "%lld expired and %lld completed later; %lld calls; %lld tasks, %lld ran, %lld "
                "cancelled; %lld runs of "
                "periodic timers; shown %lld; %lld drains; %lld delays, %lld wakes for nothing\n",
                number(sums.buses), number(sums.requests), number(sums.refused),
                number(sums.responses), number(sums.dropped), number(sums.expired),
                number(sums.completed), number(sums.calls), number(sums.tasks), number(sums.ran),
                number(sums.cancelled), number(sums.beats), number(sums.shown), number(sums.drains),
                static_cast<long long>(fault_delays()), static_cast<long long>(fault_spurious()));
    return 0;
}
