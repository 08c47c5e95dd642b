/* SPDX-License-Identifier: Apache-2.0 */
/* How far the start of a bus's modules has come: told by start-up and the manager, asked by
 * qor_bus_wait_up(). The bus's mutex guards everything. */
#ifndef QOR_BUS_UP_PRIV_HPP
#define QOR_BUS_UP_PRIV_HPP

#include "qor_start.h"

/* Of one module. */
struct module_start {
    int64_t begun; /* ms, when its init began; 0: it has not */
    int32_t state; /* QOR_START_*, without those of a phase that never begins */
};

/* Of all; part of the bus's private block. */
struct bus_start {
    module_start *modules;               /* the manager's, one for each; NULL: it has not come up */
    size_t wanted;                       /* how many of the phases so far are pending */
    int32_t ended;                       /* 1 once nothing can come up any more */
    int32_t late;                        /* 1 when it ended after quit */
    int32_t broken;                      /* 1: start-up has failed */
    const qor_context_module_t *because; /* of the first phase, the one that failed last */
};

/* In what follows a NULL bus, or a NULL module, is one that nobody asks about. */

/* The manager has come up, and begins with the first phase. */
void bus_start_modules(qor_bus_t *bus, module_start *modules);

/* An init begins. */
void bus_start_init(qor_bus_t *bus, module_start *module);

/* The start of a module is over; next: and the next phase begins. */
void bus_start_over(qor_bus_t *bus, module_start *module, int32_t state, bool next = false);

/* No module is begun any more that has not been. */
void bus_start_break(qor_bus_t *bus);

/* The start-up task is over: if the manager has not come up by now, it never will. */
void bus_start_up_over(qor_bus_t *bus);

#endif /* QOR_BUS_UP_PRIV_HPP */
