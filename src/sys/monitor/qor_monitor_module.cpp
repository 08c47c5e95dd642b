/* SPDX-License-Identifier: Apache-2.0 */
/* Monitor module: its private data is a timed queue with one node for each running task. */
#include "qor_monitor_module.h"

#include <string.h>

#include "bus_sight.hpp"
#include "hal_sync.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_diag.hpp"
#include "qor_impl_context.h"
#include "qor_inspect.h"
#include "qor_monitor_module_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "task_watch.hpp"
#include "trace.hpp"

namespace {

int32_t qor_monitor_module_handle_message(qor_context_t *context, qor_context_msg_t *msg);

constexpr char file_tag[] = "qor_monitor_module";
constexpr int32_t first_warning = 5000; /* ms after the start */
constexpr int32_t next_warning = 1000;  /* ms after the last */

qor_time_que_t *queue_of(qor_context_t *context)
{
    return static_cast<qor_time_que_t *>(qor_context_priv_data_get(context));
}

/* A node of the queue's for a report, or NULL without memory. The caller holds the lock. */
qor_time_que_node_t *watch_node_locked(qor_time_que_t *que)
{
    qor_time_que_node_t *kept = que ? time_que_kept_locked(que) : nullptr;
    return kept ? kept : qor_time_que_node_create(0, 0, sizeof(qor_sys_monitor_task_t));
}

void watch_start(qor_time_que_t *que, const qor_sys_monitor_task_t *task)
{
    qor_time_que_lock(que);
    qor_time_que_node_t *node = watch_node_locked(que);
    if (node) {
        qor_time_que_node_update(node, static_cast<size_t>(task->session), first_warning);
        memcpy(qor_time_que_node_body(node), task, sizeof(*task));
        if (qor_time_que_enque_locked(que, node) < 0) {
            qor_time_que_node_destroy(node, nullptr);
        }
    }
    qor_time_que_unlock(que);
}

/* The nodes are kept for the next reports.
 *
 * Deliberate: a second task of the same session loses its watch as well, for two removes belong to
 * each report. Test: MonitorModule.OneOverReportEndsTwoWatchesOfASession. */
void watch_end(qor_time_que_t *que, int32_t session)
{
    const size_t id = static_cast<size_t>(session);
    if (!que) { /* each remove reports it */
        qor_time_que_remove(que, id);
        qor_time_que_remove(que, id);
        return;
    }
    qor_time_que_lock(que);
    for (int remove = 0; remove < 2; remove++) {
        qor_time_que_node_t *node = qor_time_que_remove_locked(que, id);
        if (node) {
            time_que_keep_locked(que, node);
        }
    }
    qor_time_que_unlock(que);
}

void watch_serve(qor_time_que_t *que, const qor_sys_monitor_task_t *task)
{
    if (task->state == QOR_SYS_MONITOR_TASK_START) {
        watch_start(que, task);
    } else {
        watch_end(que, task->session);
    }
}

/* A report that comes straight from the bus. Only what a message would have done may be done here:
 * the context must be one of this module's as it was built, and its queue at work. */
bool watch_serve_directly(qor_context_t *context, const qor_sys_monitor_task_t *task)
{
    qor_time_que_t *que = queue_of(context);
    if (context->cls != &qor_impl_context_class || context->module != &qor_monitor_module ||
        context->module->handle_message != qor_monitor_module_handle_message || !que ||
        hal_load(que->quitting)) {
        return false;
    }
    watch_serve(que, task);
    return true;
}

void qor_monitor_module_subscribe(qor_context_t *context)
{
    qor_context_subscribe(context, QOR_SYS_MONITOR_TASK, nullptr);
}

void qor_monitor_module_unsubscribe(qor_context_t *context)
{
    qor_context_unsubscribe(context, QOR_SYS_MONITOR_TASK);
}

int32_t qor_monitor_module_init(qor_context_t *context, void *)
{
    qor_context_priv_data_set(context, qor_time_que_create(UINT32_MAX, nullptr));
    qor_bus_t *bus = sched_delegate_bus(context);
    if (bus) {
        task_watch_open(bus, watch_serve_directly);
    }
    return 0; /* without a queue nothing is watched; the queue's own checks say so */
}

/* Formats the warning for a task that is due and arms the next one. The caller holds the lock under
 * which the node was taken, so that an OVER report cannot miss it. */
void watch_warn_locked(qor_time_que_t *que, qor_time_que_node_t *node, char *text, int size,
                       qor_sys_monitor_task_t &task)
{
    memcpy(&task, qor_time_que_node_body(node), sizeof(task));
    hal_snprintf(text, size, "MONITOR: %s, session = %d, timestamp = %lld", task.name, task.session,
                 static_cast<long long>(util_timestamp()));
    qor_time_que_node_update(node, qor_time_que_node_id(node), next_warning);
    qor_time_que_enque_locked(que, node); /* which cannot have quit since, under the lock */
}

/* Tells the recorder and the application of a task that was named on a line. */
void watch_tell(const qor_bus_t *bus, const qor_sys_monitor_task_t &task)
{
    const bus_sight *sight = sight_of(bus);
    const bool told = sight && sight->stalled;
    if (!told && !trace_on(QOR_TRACE_CHANGES)) {
        return;
    }
    qor_info_inside_t found = {};
    found.topic = found.age_ms = -1;
    if (const trace_functions *recorder = trace_recorder_made()) {
        recorder->stalled(bus, task.session, found);
    }
    if (told) {
        sight->stalled(sight->arg, task.name, found.name, found.topic, task.session, found.age_ms);
    }
}

int32_t qor_monitor_module_console(qor_context_t *context)
{
    qor_time_que_t *que = queue_of(context);
    for (;;) {
        char text[128];
        qor_sys_monitor_task_t task;
        qor_time_que_lock(que);
        qor_time_que_node_t *node = qor_time_que_deque_block_locked(que, -1);
        if (node) {
            watch_warn_locked(que, node, text, sizeof(text), task);
        }
        qor_time_que_unlock(que);
        if (!node) {
            return 0;
        }
        QOR_WRN("%s", text);
        watch_tell(sched_delegate_bus(context), task);
    }
}

int32_t qor_monitor_module_handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        QOR_WRN("not support type.");
        return -1;
    }
    return qor_monitor_module_handle_request_message(context, msg);
}

} // namespace

qor_context_module_t qor_monitor_module = {
    /* name */ "qor_monitor_module",
    /* id */ 0,
    /* pure */ 0,
    /* refcount */ -1,
    /* priority */ 99,
    /* stack_size */ 4096,
    /* arg */ nullptr,
    /* reg */ qor_monitor_module_subscribe,
    /* unreg */ qor_monitor_module_unsubscribe,
    /* init */ qor_monitor_module_init,
    /* uninit */ nullptr,
    /* console */ qor_monitor_module_console,
    /* handle_message */ qor_monitor_module_handle_message,
};

void monitor_module_quit(qor_context_t *context)
{
    if (queue_of(context)) {
        qor_time_que_quit(queue_of(context));
    }
}

void monitor_module_close(qor_context_t *context)
{
    if (queue_of(context)) {
        qor_time_que_destroy(queue_of(context));
    }
}

int32_t qor_monitor_module_handle_request_message(qor_context_t *context, qor_context_msg_t *msg)
{
    if (msg->topic != QOR_SYS_MONITOR_TASK) {
        QOR_WRN("not support type.");
        return -1;
    }
    /* Deliberate: the report's size is not looked at; only user contexts send any.
     * Test: MonitorModule.TheReportsSizeIsNotChecked. */
    qor_sys_monitor_task_t task;
    memcpy(&task, msg->request.buf, sizeof(task));
    watch_serve(queue_of(context), &task);
    return 0;
}
