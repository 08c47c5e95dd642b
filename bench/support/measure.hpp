/* SPDX-License-Identifier: Apache-2.0 */
/* What one run of a scenario measures: a window of time with its operations, the processor time and
 * the context switches of the process within it, and latencies. */
#ifndef BENCH_MEASURE_HPP
#define BENCH_MEASURE_HPP

#include <array>
#include <atomic>
#include <cstdint>
#include <random>

namespace bench {

/** Nanoseconds of the monotonic clock. */
int64_t now_ns();

/** Computes, without giving the processor up, for so long. */
void compute_for(int64_t ns);

/** Counts latencies in buckets of less than 1 %; what comes early is below 0. Any thread may add.
 */
class Histogram {
public:
    void add(int64_t ns);

    int64_t count() const;

    /** The value below which that share (0 to 1) of the latencies lies, in nanoseconds. */
    double percentile(double share) const;

private:
    static constexpr int fine_bits = 7;
    static constexpr int64_t fine = int64_t(1) << fine_bits;
    static constexpr int64_t half = (64 - fine_bits) * fine;

    static size_t bucket(int64_t ns);
    static double middle(size_t bucket);

    std::array<std::atomic<int64_t>, 2 * half> counts_{};
};

/** One run. begin() happens before whatever asks over(); end() after all of it. */
class Measurement {
public:
    Measurement(int with_workers, int of_size, double for_seconds, int64_t up_to)
        : workers(with_workers), size(of_size), seconds(for_seconds), count(up_to)
    {
    }

    const int workers;
    const int size;       /**< what the scenario's name counts: listeners, timers, filters */
    const double seconds; /**< how long the window is, where time ends it */
    const int64_t count;  /**< how many operations it has, where they end it */
    Histogram latency;

    void begin();
    bool begun() const { return until_ != 0; }
    /** Whether time has ended the window; a caller that has just read the clock passes that. */
    bool over(int64_t now = now_ns()) const { return now >= until_; }
    void end(int64_t operations);

    /** One line of JSON. False, with a word on standard error, when nothing was measured. */
    bool print(const char *library, const char *scenario) const;

private:
    struct Usage {
        int64_t wall_ns, cpu_ns, switches;
    };

    static Usage usage();

    int64_t until_ = 0;
    int64_t operations_ = -1;
    Usage first_{}, last_{};
};

/** Numbers that are the same in every run. */
class Random {
public:
    /** One of 0 to below - 1. */
    int64_t below(int64_t limit)
    {
        return static_cast<int64_t>(engine_() % static_cast<uint64_t>(limit));
    }

private:
    std::mt19937_64 engine_{1};
};

} // namespace bench

#endif /* BENCH_MEASURE_HPP */
