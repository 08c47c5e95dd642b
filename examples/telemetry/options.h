/* SPDX-License-Identifier: Apache-2.0 */
/* The command line. */
#ifndef OPTIONS_H
#define OPTIONS_H

#include <stdint.h>

struct options {
    const char *svg;
    const char *record;
    const char *input;
    int32_t samples; /* 0: no limit */
    int32_t hog;
    int32_t help;
    char **command; /* NULL when there is none */
};

/* Reads the command line. Returns -1 after a line on standard error. */
int options_read(struct options *options, int argc, char **argv);

void options_help(void);

#endif /* OPTIONS_H */
