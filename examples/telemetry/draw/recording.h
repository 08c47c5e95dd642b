/* SPDX-License-Identifier: Apache-2.0 */
/* What a recording tells of the modules that watched: `telemetry --help` has its format. */
#ifndef RECORDING_H
#define RECORDING_H

#include <stdint.h>
#include <stdio.h>

/* What the judge said of a sample. Shares are in tenths of a percent. */
struct sample {
    int32_t number;
    int64_t at_ms;
    int32_t load; /* -1 while settling */
    int32_t headroom;
};

struct alarm {
    int64_t from_ms;
    int64_t to_ms;
    int32_t sample; /* that raised it */
};

enum module {
    MODULE_SAMPLER,
    MODULE_GUARD,
    MODULE_JUDGE,
    MODULE_ALARM,
    MODULE_RECORDER,
    MODULE_HOG,
    MODULES
};

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

/* One run of a module's handler. */
struct run {
    int32_t module;
    int32_t kind;
    int32_t sample; /* that it belongs to, or -1 */
    int64_t began_us;
    int64_t ended_us;
};

/* The words that stand for modules and kinds. */
extern const char *const module_names[MODULES];
extern const char *const run_kind_names[RUN_KINDS];

/* A list that grows. */
struct list {
    void *items;
    size_t count;
    size_t room;
};

struct recording {
    struct list samples; /* struct sample, by number */
    struct list alarms;  /* struct alarm, oldest first */
    struct list runs;    /* struct run, in the order in which they ended */
    int32_t requests;
    int32_t raised; /* alarms; not all of them need be listed */
    int64_t trip_least_us;
    int64_t trip_mean_us;
    int64_t trip_most_us;
};

const struct sample *recording_sample(const struct recording *r, size_t i);
const struct alarm *recording_alarm(const struct recording *r, size_t i);
const struct run *recording_run(const struct recording *r, size_t i);

/* Reads a file. Returns -1 after a line on standard error. */
int recording_read(struct recording *r, FILE *file, const char *path);

void recording_free(struct recording *r);

#endif /* RECORDING_H */
