/* SPDX-License-Identifier: Apache-2.0 */
/* Keeps for each station when it was there and when it was away, and what it has told. */
#ifndef BOOK_H
#define BOOK_H

#include "fleet.h"

/* On the centre's bus, served by the book. */
enum { TOPIC_STATUS, TOPIC_REPORT, TOPICS };

enum { NAME_SIZE = 20, STRETCHES = 256 };

/* Request of TOPIC_STATUS. */
struct status {
    char station[NAME_SIZE];
    int32_t there;
};

/* Request of TOPIC_REPORT. */
struct report {
    char station[NAME_SIZE];
    int32_t number; /* of the sample, since the station's start */
    int64_t at_ms;  /* since then, too */
    int32_t kind;   /* as the judge has it; above 1 an alarm */
    int32_t load;   /* tenths of a percent */
    int32_t headroom;
};

/* Answers both. Strict, so that one request is handled at a time. */
extern qor_context_module_t book_module;

/* The table, when the bus is closed. */
void book_print(void);

#endif /* BOOK_H */
