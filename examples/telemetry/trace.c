/* SPDX-License-Identifier: Apache-2.0 */
#include "trace.h"

#include <time.h>

void trace_init(struct trace *trace)
{
    pthread_mutex_init(&trace->mutex, NULL);
    trace->count = 0;
}

int64_t trace_now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

void trace_add(struct trace *trace, enum lane lane, enum run_kind kind, int32_t sample,
               int64_t began_us)
{
    const struct run run = {.lane = (int32_t)lane,
                            .kind = (int32_t)kind,
                            .sample = sample,
                            .began_us = began_us,
                            .ended_us = trace_now()};
    pthread_mutex_lock(&trace->mutex);
    trace->runs[trace->count++ % TRACE_MAX] = run;
    pthread_mutex_unlock(&trace->mutex);
}

uint32_t trace_kept(const struct trace *trace)
{
    return trace->count < TRACE_MAX ? trace->count : TRACE_MAX;
}

const struct run *trace_run(const struct trace *trace, uint32_t i)
{
    return &trace->runs[(trace->count - trace_kept(trace) + i) % TRACE_MAX];
}
