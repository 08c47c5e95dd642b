/* SPDX-License-Identifier: Apache-2.0 */
/* Monitor module: names the tasks that run for too long. */
#ifndef QOR_MONITOR_MODULE_H
#define QOR_MONITOR_MODULE_H

#include "qor_context_module.h"
#include "qor_sys.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * The module's descriptor.
 *
 * A task that still runs 5 seconds after its start is named on a line "MONITOR: %s, session = %d,
 * timestamp = %lld" (wrn), and again each second until it is over.
 */
extern QOR_API qor_context_module_t qor_monitor_module;

/**
 * Serves a QOR_SYS_MONITOR_TASK request: starts or ends the watch over a task.
 *
 * @param context  the module's own context
 * @param msg      its request buffer holds a qor_sys_monitor_task_t; the size is not checked
 * @return         0, or -1 for another topic, after "not support type." (wrn)
 *
 * A report that a task is over ends the watch over up to two tasks of its session. Any thread.
 */
QOR_API int32_t qor_monitor_module_handle_request_message(qor_context_t *context,
                                                          qor_context_msg_t *msg);

QOR_END_DECLS

#endif /* QOR_MONITOR_MODULE_H */
