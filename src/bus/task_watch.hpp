/* SPDX-License-Identifier: Apache-2.0 */
/* The short way of a report that a task starts or is over: past message, copy and topic walk,
 * straight to the monitor's own state, as long as it is the monitor that the report would reach. */
#ifndef TASK_WATCH_HPP
#define TASK_WATCH_HPP

#include "qor_sys.h"
#include "qor_types.h"

/* Serves a report for a monitor's context: false when that is none of its kind, or must be told the
 * ordinary way. */
using task_watch_serve = bool (*)(qor_context_t *monitor, const qor_sys_monitor_task_t *report);

/* A bus's. */
struct task_watch {
    task_watch_serve serve; /* NULL before the monitor is up; read without a lock */
    qor_context_t *monitor; /* the newest subscriber of the reports, if it is one of that kind; read
                               without a lock, written under the bus's mutex */
    uint32_t changes;       /* of the topic's registrations when that was looked up; likewise */
    int32_t off;            /* 1: nobody is told of any task; written before the loop runs */
};

/* Says how the monitor's contexts are served. */
void task_watch_open(qor_bus_t *bus, task_watch_serve serve);

/* Tells the monitor, with a session drawn as for any request: true when it is done. */
bool task_watch_tell(qor_bus_t *bus, const qor_sys_monitor_task_t *report);

#endif /* TASK_WATCH_HPP */
