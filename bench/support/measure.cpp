/* SPDX-License-Identifier: Apache-2.0 */
#include "measure.hpp"

#include <cstdio>
#include <ctime>

#include <sys/resource.h>

namespace bench {

int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void compute_for(int64_t ns)
{
    const int64_t until = now_ns() + ns;
    while (now_ns() < until) {
    }
}

/* Below 2^fine_bits each value has a bucket of its own, and each power of two above as many. Those
 * of values below 0, -1 first, go down from the middle of the array. */
size_t Histogram::bucket(int64_t ns)
{
    const int64_t size = ns < 0 ? -1 - ns : ns;
    int64_t place = size;
    if (size >= fine) {
        const int shift = 63 - __builtin_clzll(static_cast<uint64_t>(size)) - fine_bits;
        place = (shift + 1) * fine + (size >> shift) - fine;
    }
    return static_cast<size_t>(ns < 0 ? half - 1 - place : half + place);
}

double Histogram::middle(size_t bucket)
{
    const int64_t side = static_cast<int64_t>(bucket) - half;
    const int64_t place = side < 0 ? -1 - side : side;
    double size = static_cast<double>(place);
    if (place >= fine) {
        const double width = static_cast<double>(int64_t(1) << (place / fine - 1));
        size = (static_cast<double>(place % fine + fine) + 0.5) * width;
    }
    return side < 0 ? -1 - size : size;
}

void Histogram::add(int64_t ns)
{
    counts_[bucket(ns)].fetch_add(1, std::memory_order_relaxed);
}

int64_t Histogram::count() const
{
    int64_t sum = 0;
    for (const auto &one : counts_) {
        sum += one.load(std::memory_order_relaxed);
    }
    return sum;
}

double Histogram::percentile(double share) const
{
    const double wanted = share * static_cast<double>(count());
    int64_t below = 0;
    for (size_t i = 0; i < counts_.size(); i++) {
        below += counts_[i].load(std::memory_order_relaxed);
        if (below > 0 && static_cast<double>(below) >= wanted) {
            return middle(i);
        }
    }
    return 0;
}

Measurement::Usage Measurement::usage()
{
    rusage used;
    getrusage(RUSAGE_SELF, &used);
    const auto ns = [](const timeval &time) {
        return int64_t(time.tv_sec) * 1000000000 + time.tv_usec * int64_t(1000);
    };
    return {now_ns(), ns(used.ru_utime) + ns(used.ru_stime), used.ru_nvcsw};
}

void Measurement::begin()
{
    first_ = usage();
    until_ = first_.wall_ns + static_cast<int64_t>(seconds * 1e9);
}

void Measurement::end(int64_t operations)
{
    last_ = usage();
    operations_ = operations;
}

bool Measurement::print(const char *library, const char *scenario) const
{
    if (!begun() || operations_ <= 0) {
        std::fprintf(stderr, "%s: %s: nothing was measured\n", library, scenario);
        return false;
    }
    const double wall = static_cast<double>(last_.wall_ns - first_.wall_ns) / 1e9;
    const double cpu = static_cast<double>(last_.cpu_ns - first_.cpu_ns) / 1e9;
    const double operations = static_cast<double>(operations_);
    std::printf(
        "{\"library\": \"%s\", \"scenario\": \"%s\", \"workers\": %d, \"operations\": %lld, "
        "\"wall_s\": %.6f, \"cpu_s\": %.6f, \"rate\": %.1f, \"cpu_ns_per_op\": %.1f",
        library, scenario, workers, static_cast<long long>(operations_), wall, cpu,
        operations / wall, cpu * 1e9 / operations);
    if (latency.count() > 0) {
        std::printf(", \"p50_us\": %.3f, \"p99_us\": %.3f", latency.percentile(0.5) / 1000,
                    latency.percentile(0.99) / 1000);
    }
    std::printf(", \"switches\": %lld}\n",
                static_cast<long long>(last_.switches - first_.switches));
    std::fflush(stdout);
    return true;
}

} // namespace bench
