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

/* A list that grows. */
struct list {
    void *items;
    size_t count;
    size_t room;
};

struct recording {
    struct list samples; /* struct sample, by number */
    struct list alarms;  /* struct alarm, oldest first */
    int32_t requests;
    int32_t raised; /* alarms; not all of them need be listed */
    int64_t trip_least_us;
    int64_t trip_mean_us;
    int64_t trip_most_us;
};

const struct sample *recording_sample(const struct recording *r, size_t i);
const struct alarm *recording_alarm(const struct recording *r, size_t i);

/* Reads a file. Returns -1 after a line on standard error. */
int recording_read(struct recording *r, FILE *file, const char *path);

void recording_free(struct recording *r);

#endif /* RECORDING_H */
