/* SPDX-License-Identifier: Apache-2.0 */
/* Which module ran when: the last few thousand handler runs, for the picture. */
#ifndef TRACE_H
#define TRACE_H

#include <pthread.h>
#include <stdint.h>

enum lane { LANE_SAMPLER, LANE_GUARD, LANE_JUDGE, LANE_ALARM, LANE_RECORDER, LANE_HOG, LANES };

enum run_kind {
    RUN_PUBLISH,  /* a reading is taken and published */
    RUN_FILTER,   /* a filter sees the request, inside the publishing run */
    RUN_REQUEST,  /* the subscriber handles the request */
    RUN_CALL,     /* a request is handled on the caller's thread, inside the caller's run */
    RUN_LISTEN,   /* a listener sees the answered request */
    RUN_RESPONSE, /* the publisher receives the response */
    RUN_TASK,     /* a task of the module's own */
    RUN_KINDS
};

struct run {
    int32_t lane;
    int32_t kind;
    int32_t sample; /* the number of the sample that it belongs to, or -1 */
    int64_t began_us;
    int64_t ended_us;
};

enum { TRACE_MAX = 4096 };

struct trace {
    pthread_mutex_t mutex; /* guards the rest until the bus is closed */
    uint32_t count;        /* runs ever added; the last TRACE_MAX are kept */
    struct run runs[TRACE_MAX];
};

void trace_init(struct trace *trace);

/* Monotonic microseconds. */
int64_t trace_now(void);

/* Adds a run that ends now. Any thread. */
void trace_add(struct trace *trace, enum lane lane, enum run_kind kind, int32_t sample,
               int64_t began_us);

/* How many runs are kept, and the i-th of them, oldest first. After the bus is closed. */
uint32_t trace_kept(const struct trace *trace);
const struct run *trace_run(const struct trace *trace, uint32_t i);

#endif /* TRACE_H */
