/* SPDX-License-Identifier: Apache-2.0 */
/* One bus after the other for as long as it is told. Each is kept busy, is short of memory for a
 * while, rests, is measured, and quits under load. What it finds out it prints: a line "second" for
 * each of them, a line "cycle" for each bus. */
#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include <unistd.h>

#include "meddle.h"
#include "traffic.hpp"

namespace {

constexpr double aim = 0.7; /* of their time that workers are inside handlers and tasks */
constexpr int outsiders = 2;
constexpr int starvation = 20000; /* of a million allocations */
constexpr int64_t work_ns = 1000000;
constexpr int64_t requests_per_second = 4000; /* at most, and no more tasks */

double seconds_now()
{
    static const Clock::time_point begin = Clock::now();
    return seconds_since(begin);
}

long resident_kib()
{
    long pages = 0, resident = 0;
    FILE *file = std::fopen("/proc/self/statm", "r");
    must(file && std::fscanf(file, "%ld %ld", &pages, &resident) == 2, "memory is known");
    std::fclose(file);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/* Keeps its thread busy for between a fifth of the usual and nearly twice of it. */
void work()
{
    const auto time = std::chrono::nanoseconds(work_ns / 5 + dice(16) * work_ns / 10);
    const Clock::time_point begin = Clock::now();
    while (Clock::now() - begin < time) {
    }
}

/* Which part of their time workers are busy. */
class Share {
public:
    Share(const Traffic &traffic, uint32_t workers) : traffic_(traffic), workers_(workers)
    {
        begin();
    }

    void begin()
    {
        busy_.store(value(traffic_.busy), std::memory_order_relaxed);
        begin_.store(seconds_now(), std::memory_order_relaxed);
    }

    double since() const { return seconds_now() - begin_.load(std::memory_order_relaxed); }
    double get() const
    {
        const int64_t busy = value(traffic_.busy) - busy_.load(std::memory_order_relaxed);
        return static_cast<double>(busy) / 1e9 / (since() * workers_);
    }

private:
    const Traffic &traffic_;
    const uint32_t workers_;
    std::atomic<double> begin_{0};
    std::atomic<int64_t> busy_{0};
};

/* Threads that act on a bus whenever its workers have been less busy so far than they are to be. */
class Load {
public:
    Load(Traffic &traffic, uint32_t workers)
        : traffic_(traffic), workers_(workers), share_(traffic, workers)
    {
        for (int i = 0; i < outsiders; i++) {
            all_.emplace_back([this] { act(); });
        }
    }

    ~Load() { end(); }
    Load(const Load &) = delete;
    Load &operator=(const Load &) = delete;

    /* Holds it for so long, and prints each second. */
    void hold(double seconds, const char *as)
    {
        const double end = seconds_now() + seconds;
        Share second(traffic_, workers_);
        share_.begin();
        while (seconds_now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            Watchdog::at("a bus under load");
            if (second.since() >= 1) {
                std::printf("second %.1f %s %.4f %ld\n", seconds_now(), as, second.get(),
                            resident_kib());
                second.begin();
            }
        }
    }

    void end()
    {
        over_ = true;
        for (std::thread &one : all_) {
            one.join();
        }
        all_.clear();
    }

private:
    void act()
    {
        while (!over_) {
            if (share_.get() < aim) {
                traffic_.act();
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100 + dice(200)));
        }
    }

    Traffic &traffic_;
    const uint32_t workers_;
    Share share_;
    std::atomic<bool> over_{false};
    std::vector<std::thread> all_;
};

class Median {
public:
    void add(Clock::time_point begin) { values_.push_back(seconds_since(begin) * 1e9); }
    double get()
    {
        const auto middle = values_.begin() + static_cast<std::ptrdiff_t>(values_.size() / 2);
        std::nth_element(values_.begin(), middle, values_.end());
        return *middle;
    }

private:
    std::vector<double> values_;
};

/* Round trips on a resting bus, and beside them a loop that takes the machine always the same. In
 * ns, over a whole cycle. */
class Speed {
public:
    Median trips, calibration;

    void measure(Traffic &traffic)
    {
        Watchdog::at("the measurement of a bus");
        for (int i = 0; i < 500; i++) {
            std::this_thread::sleep_for(std::chrono::microseconds(200)); /* threads go to sleep */
            Clock::time_point begin = Clock::now();
            traffic.round_trip();
            trips.add(begin);
            begin = Clock::now();
            calculate();
            calibration.add(begin);
        }
    }

private:
    static void calculate()
    {
        volatile uint32_t number = 1;
        for (int i = 0; i < 10000; i++) {
            number = number * 1664525u + 1013904223u;
        }
    }
};

void run_a_bus(Book &book, const Options &options, int number)
{
    book.clear();
    Speed speed;
    const Sums *all = &sums;
    const int64_t starved = fault_starved(), requests = value(all->requests), ran = value(all->ran);
    int64_t blocks_up, blocks_resting;
    {
        Traffic traffic(book, options.workers);
        traffic.work = work;
        traffic.beat_unit = 25;
        traffic.open_max = 2 * options.workers; /* what waits is work that cannot be taken back */
        traffic.begin();
        traffic.settle();
        blocks_up = fault_blocks();
        for (const char *as : {"busy", "busy", "starved", "busy", "busy"}) {
            speed.measure(traffic);
            Load load(traffic, options.workers);
            fault_starve(as[0] == 's' ? starvation : 0);
            load.hold((options.cycle - 2) / 5.0, as);
            fault_starve(0);
            load.end();
            traffic.settle();
        }
        blocks_resting = fault_blocks();
        Load load(traffic, options.workers);
        load.hold(0.5, "quitting");
        qor_bus_quit(traffic.bus());
        load.end();
        traffic.end();
    }
    must(!book.full(), "there is room in the book for a cycle");
    std::printf("cycle %d %.1f %lld %lld %lld %ld %.0f %.0f %lld %lld %lld\n", number,
                seconds_now(), static_cast<long long>(blocks_up),
                static_cast<long long>(blocks_resting), static_cast<long long>(fault_blocks()),
                resident_kib(), speed.trips.get(), speed.calibration.get(),
                static_cast<long long>(value(all->requests) - requests),
                static_cast<long long>(value(all->ran) - ran),
                static_cast<long long>(fault_starved() - starved));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = options_of(argc, argv);
    be_quiet();
    dice_seed(options.seed);
    fault_delay(options.seed, options.percent);
    Watchdog::watch();
    Book book(options.cycle * requests_per_second);
    const Clock::time_point begin = Clock::now();
    for (int number = 0; seconds_since(begin) < options.seconds; number++) {
        run_a_bus(book, options, number);
    }
    return 0;
}
