/* SPDX-License-Identifier: Apache-2.0 */
/* A program that feeds a watchdog as long as its bus is well. */
#ifndef WATCHDOG_H
#define WATCHDOG_H

#include <stdatomic.h>

#include "qor.h"

enum { TOPIC_WORK, TOPIC_REPORT, TOPIC_COUNT };

extern qor_bus_t *bus;

/* Nothing more is asked: what comes after the end of the bus would be refused. */
extern atomic_int ending;

/* What goes wrong on purpose. */
extern int hangs;   /* a handler does not return */
extern int circles; /* two inits call each other */

extern qor_context_module_t server_module, client_module;

/* Finds out who is to be fed: a device, if one is named; else who NOTIFY_SOCKET names; else whoever
 * reads standard output. 0, or -1 with errno. */
int feed_open(const char *device);
int feed(void);

/* The program ends on purpose. */
void feed_close(void);

#endif /* WATCHDOG_H */
