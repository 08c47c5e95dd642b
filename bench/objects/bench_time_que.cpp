/* SPDX-License-Identifier: Apache-2.0 */
/* Arming a timer and taking it out again while others are pending. */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "qor.h"

namespace {

constexpr int32_t far_off = 1000000; /* ms: nothing falls due during a run */

/* A timed queue with so many timers pending, in the order of their due times. */
qor_time_que_t *queue_with(int64_t pending)
{
    qor_time_que_t *que = qor_time_que_create(UINT32_MAX, nullptr);
    for (int64_t i = 0; i < pending; i++) {
        const int32_t delay = far_off + static_cast<int32_t>(i);
        qor_time_que_enque(que, qor_time_que_node_create(0, delay, 64));
    }
    return que;
}

/* Later than all that is pending, as a repeated timer or one fixed delay arms them. */
void arm_in_due_order(benchmark::State &state)
{
    qor_time_que_t *que = queue_with(state.range(0));
    int32_t delay = far_off + static_cast<int32_t>(state.range(0));
    for (auto _ : state) {
        qor_time_que_enque(que, qor_time_que_node_create(1, ++delay, 64));
    }
    qor_time_que_destroy(que);
}

/* Sooner than all that is pending. */
void arm_and_cancel_first(benchmark::State &state)
{
    qor_time_que_t *que = queue_with(state.range(0));
    for (auto _ : state) {
        qor_time_que_enque(que, qor_time_que_node_create(1, far_off / 2, 64));
        qor_time_que_node_destroy(qor_time_que_remove(que, 1), nullptr);
    }
    qor_time_que_destroy(que);
}

/* Timers due at random moments of an hour, each with an id of its own. Which is due after which has
 * nothing to do with where they lie in memory. */
struct random_timers {
    static constexpr int32_t hour = 3600 * 1000;

    explicit random_timers(int64_t pending) : ids(static_cast<size_t>(pending))
    {
        std::vector<qor_time_que_node_t *> nodes;
        std::vector<int64_t> times;
        for (size_t id = 0; id < ids.size(); id++) {
            ids[id] = id;
            nodes.push_back(qor_time_que_node_create(id, far_off, 64));
            times.push_back(some_time());
        }
        std::shuffle(nodes.begin(), nodes.end(), random);
        std::sort(times.begin(), times.end()); /* any other order takes for ever without an index */
        for (size_t i = 0; i < nodes.size(); i++) {
            nodes[i]->when = times[i];
            qor_time_que_enque(que, nodes[i]);
        }
    }
    ~random_timers() { qor_time_que_destroy(que); }

    int64_t some_time() { return base + static_cast<int64_t>(random() % hour); }
    size_t &some_id() { return ids[random() % ids.size()]; }

    std::mt19937 random{4711};
    const int64_t base = util_timestamp() + far_off;
    qor_time_que_t *que = qor_time_que_create(UINT32_MAX, nullptr);
    std::vector<size_t> ids; /* of what is queued */
};

double seconds_of(std::chrono::steady_clock::duration span)
{
    return std::chrono::duration<double>(span).count();
}

/* Cancels a batch of any, then arms as many anew, with new ids and for any moment. */
void cancel_any_and_arm(benchmark::State &state)
{
    constexpr size_t batch = 16;
    random_timers timers(state.range(0));
    size_t next_id = timers.ids.size();
    std::vector<size_t> wanted(batch);
    std::vector<qor_time_que_node_t *> nodes(batch);
    double cancelling = 0, arming = 0;
    for (auto _ : state) {
        for (size_t &id : wanted) {
            std::swap(timers.some_id(), timers.ids.back());
            id = timers.ids.back();
            timers.ids.pop_back();
        }
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < batch; i++) {
            nodes[i] = qor_time_que_remove(timers.que, wanted[i]);
        }
        const auto cancelled = std::chrono::steady_clock::now();
        for (qor_time_que_node_t *node : nodes) {
            timers.ids.push_back(node->id = next_id++);
            node->when = timers.some_time();
        }
        const auto prepared = std::chrono::steady_clock::now();
        for (qor_time_que_node_t *node : nodes) {
            qor_time_que_enque(timers.que, node);
        }
        const auto armed = std::chrono::steady_clock::now();
        cancelling += seconds_of(cancelled - start);
        arming += seconds_of(armed - prepared);
        state.SetIterationTime(seconds_of(cancelled - start) + seconds_of(armed - prepared));
    }
    const double each = static_cast<double>(state.iterations()) * batch;
    state.counters["cancel"] = cancelling / each;
    state.counters["arm"] = arming / each;
}

} // namespace

BENCHMARK(arm_in_due_order)->Arg(0)->Arg(100)->Arg(10000)->Iterations(200000);
BENCHMARK(arm_and_cancel_first)->Arg(0)->Arg(100)->Arg(10000);
BENCHMARK(cancel_any_and_arm)->Arg(40)->Arg(10000)->Arg(100000)->Arg(1000000)->UseManualTime();
