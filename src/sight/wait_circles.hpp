/* SPDX-License-Identifier: Apache-2.0 */
/* Who waits for whose start, as the lanes of the recording show it. A thread that waits for a start
 * waits for one other thread at most, so each wait has one way on. */
#ifndef WAIT_CIRCLES_HPP
#define WAIT_CIRCLES_HPP

#include "qor_types.h"

/* A thread that waits for the start of a module. */
struct wait_link {
    uint32_t tid;
    char module[20];   /* "" where the recorder has no name for it */
    uint32_t next;     /* the lane of the thread that has to go on first; 0: that is none's */
    uint32_t next_tid; /* that thread */
    uint32_t circle;   /* so many threads are in a circle, and this has its first lane; or 0 */
};

/* Whether what the threads of a bus are inside is recorded, and how many of them have no lane. */
bool wait_is_recorded(const qor_bus_t *bus, uint32_t &lacking);

/* Reads the wait of the first thread behind a lane that waits for a start: its lane, or 0. */
uint32_t wait_read(const qor_bus_t *bus, uint32_t lane, wait_link &link);

#endif /* WAIT_CIRCLES_HPP */
