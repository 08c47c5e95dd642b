/* SPDX-License-Identifier: Apache-2.0 */
/* Readings of the machine, and the text file that keeps them. */
#ifndef RECORDING_H
#define RECORDING_H

#include <stdint.h>
#include <stdio.h>

/* What the sampler reads each time. Signed, so that an impossible value can be seen. */
struct reading {
    int64_t at_ms;        /* since the watch began */
    int64_t cpu_busy;     /* ticks of all processors since boot, idle and waiting not counted */
    int64_t cpu_total;    /* the same with idle and waiting */
    int64_t mem_total_kb; /* memory of the machine */
    int64_t mem_free_kb;  /* what programs could still have */
    int64_t own_kb;       /* resident memory of this program */
};

/* A recording that is being replayed. */
struct recording {
    FILE *file; /* NULL when there is none */
    const char *path;
    int32_t line;    /* the last one read */
    int32_t skipped; /* malformed ones */
    int64_t last_ms; /* of the last good one: time must not run backwards */
};

/* The format, as --help prints it. */
extern const char recording_format[];

/* Opens a recording. Returns -1 after a line on standard error. */
int recording_open(struct recording *recording, const char *path);

/* Reads the next well-formed line. Returns 1, or 0 at the end. Each line that is skipped is counted
 * and reported on standard error. */
int recording_next(struct recording *recording, struct reading *reading);

void recording_close(struct recording *recording);

/* Begins a recording, and adds to it. The caller looks at ferror() in the end. */
void recording_write_head(FILE *file);
void recording_write(FILE *file, const struct reading *reading);

#endif /* RECORDING_H */
