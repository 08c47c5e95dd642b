/* SPDX-License-Identifier: Apache-2.0 */
/* What the modules of the service share. */
#ifndef DAEMON_H
#define DAEMON_H

#include "qor.h"

enum {
    TOPIC_STATUS,  /* no request part; a struct status comes back */
    TOPIC_MEASURE, /* no request part; a double comes back, degrees */
    TOPIC_COUNT
};

struct status {
    uint32_t samples;
    uint32_t missed; /* points of time without a sample */
    double load;     /* of the last sample */
};

extern qor_bus_t *bus;
extern qor_context_module_t sampler_module, meter_module, console_module;

/* Lets what has been begun finish and ends the service. Not for tasks and handlers of the bus: they
 * would wait for themselves. */
void service_stop(void);

/* For what a module has nothing to do in: no callback may be missing. */
void service_nothing(qor_context_t *self);

#endif /* DAEMON_H */
