/* SPDX-License-Identifier: Apache-2.0 */
/* Arming a timer and taking it out again while others are pending. */
#include <benchmark/benchmark.h>

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

} // namespace

BENCHMARK(arm_in_due_order)->Arg(0)->Arg(100)->Arg(10000)->Iterations(200000);
BENCHMARK(arm_and_cancel_first)->Arg(0)->Arg(100)->Arg(10000);
