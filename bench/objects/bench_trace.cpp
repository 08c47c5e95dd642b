/* SPDX-License-Identifier: Apache-2.0 */
/* What an event of the recorder costs, and a mark that is not recorded. */
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>

#include "qor.h"

namespace {

constexpr uint32_t lanes = 8, names = 4, events = 4096;

uint64_t clock_monotonic()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t clock_that_stands()
{
    return 1;
}

/* A bus that never loops, recorded. */
class Recorded {
public:
    Recorded(uint32_t mask, uint64_t (*clock)())
        : size_(qor_trace_size(lanes, names, events)), memory_(std::aligned_alloc(64, size_)),
          bus_(qor_bus_create(none_, 1))
    {
        qor_trace_config_t config = {};
        config.size = sizeof(config);
        config.mask = mask;
        config.memory = memory_;
        config.memory_size = size_;
        config.lanes = lanes;
        config.names = names;
        config.clock = clock;
        qor_trace_start(bus_, &config);
    }
    ~Recorded()
    {
        qor_bus_close(bus_);
        std::free(memory_);
    }
    Recorded(const Recorded &) = delete;
    Recorded &operator=(const Recorded &) = delete;

private:
    qor_context_module_t *none_[1] = {nullptr};
    size_t size_;
    void *memory_;
    qor_bus_t *bus_;
};

Recorded *recorded;

void mark(benchmark::State &state)
{
    uint32_t number = 0;
    for (auto _ : state) {
        qor_trace_mark(number++, 0);
    }
}

template <uint32_t mask, uint64_t (*clock)()> void begin(const benchmark::State &)
{
    recorded = new Recorded(mask, clock);
}

void end(const benchmark::State &)
{
    delete recorded;
}

void clock_alone(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(clock_monotonic());
    }
}

BENCHMARK(mark)->Name("mark/off")->Setup(begin<QOR_TRACE_TASKS, clock_that_stands>)->Teardown(end);
BENCHMARK(mark)
    ->Name("mark/on, a clock that costs nothing")
    ->Setup(begin<QOR_TRACE_MARKS, clock_that_stands>)
    ->Teardown(end)
    ->ThreadRange(1, 2);
BENCHMARK(mark)
    ->Name("mark/on, CLOCK_MONOTONIC")
    ->Setup(begin<QOR_TRACE_MARKS, clock_monotonic>)
    ->Teardown(end)
    ->ThreadRange(1, 2);
BENCHMARK(clock_alone);

} // namespace
