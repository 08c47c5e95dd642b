/* SPDX-License-Identifier: Apache-2.0 */
/* Signals, taken by a thread of their own: in a signal handler the bus must not be called. */
#ifndef SIGNALS_H
#define SIGNALS_H

#include <signal.h>

#include "command.h"
#include "telemetry.h"

struct signals {
    struct telemetry *t;
    struct command *command;
    sigset_t taken;
    sigset_t before; /* the mask that the program was started with */
    pthread_t thread;
    atomic_int over;
};

/* Blocks the signals, so that every later thread has them blocked and only ours takes them. */
void signals_block(struct signals *signals);

/* Starts the thread. The first SIGINT or SIGTERM ends the watch in good order, a second one stops
 * the bus at once; the end of the command ends the watch. Returns -1 when there is no thread. */
int signals_start(struct signals *signals, struct telemetry *t, struct command *command);

/* Ends the thread; after the loop has returned, before the bus is closed. */
void signals_end(struct signals *signals);

#endif /* SIGNALS_H */
