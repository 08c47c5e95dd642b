/* SPDX-License-Identifier: Apache-2.0 */
/* What a run does with a task of a user context: tells the monitor, names the thread, calls, and
 * gives back what the task has, also when it ends its thread or is not run. */
#include "user_run.hpp"

#include <string.h>

#include "contract.hpp"
#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_context_task.h"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "task_watch.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

/* What an ended task carried, when it has not run to its end: a request is answered for it. */
void user_task_refuse(void *task)
{
    if (sched_delegate_is_relay(static_cast<qor_context_task_t *>(task))) {
        sched_delegate_relay_refuse(task);
    } else {
        qor_context_task_uninit(static_cast<qor_context_task_t *>(task));
    }
}

/* The end of a task that a run has begun. */
void user_task_ended(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    if (core->priv->promise) {
        contract_task_over_locked(*core->priv->promise, thread_record_get());
    }
    user_task_over_locked(core);
}

/* The same where the response has taken the node along. */
void user_task_left_without(void *core)
{
    user_task_ended(static_cast<qor_core_context_t *>(core));
}

/* A task whose run ends unrun is no longer its module's. */
void user_run_leaves(qor_core_context_t *core, qor_time_que_node_t *node)
{
    if (core->priv->promise) {
        hal_scoped_lock lock(core->que->mutex);
        core->priv->promise->calls->task_leaves_locked(*core->priv->promise, node,
                                                       &qor_ledger_t::discarded);
    }
}

/* A response past the queue begins or is lost: its place is free again. */
void response_off(const qor_core_context_t *core, const message_run *run)
{
    if (run->recycle) { /* which a request has not */
        contract_reply_back(core->priv->promise);
    }
}

/* Begins a task that has a run of its own, with its node, or NULL past the queue; false when the
 * context is closed. */
bool user_run_begin(qor_core_context_t *core, qor_time_que_node_t *node)
{
    hal_scoped_lock lock(core->que->mutex);
    if (core->priv->promise && !core->priv->closed) {
        core->priv->promise->calls->task_run_locked(core, node, thread_record_get());
    }
    return !core->priv->closed;
}

message_run *message_run_of(qor_que_node_t *node)
{
    return static_cast<message_run *>(qor_que_node_body(node));
}

/* The task of a request or response that has gone past the queue, as it was. */
qor_context_task_t message_task(const message_run &run)
{
    qor_context_task_t task = {};
    sched_delegate_message_task(&task, run.publisher, static_cast<qor_context_msg_t *>(run.msg),
                                run.recycle);
    return task;
}

/* Releases what such a run carries when it is not handled, or not to its end. The node stays,
 * unless the response to its request takes it along: then true. */
bool message_run_refuse(qor_que_node_t *node)
{
    qor_context_task_t task = message_task(*message_run_of(node));
    message_offer offer(sched_delegate_is_relay(&task) ? node : nullptr);
    user_task_refuse(&task);
    return offer.taken();
}

void message_run_left(void *arg)
{
    qor_que_node_t *node = static_cast<qor_que_node_t *>(arg);
    qor_core_context_t *core = qor_core_context_type(bus_task_of(node)->context);
    const qor_context_task_t task = message_task(*message_run_of(node));
    qor_sys_monitor_task_t report = monitor_report(&task);
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_OVER);
    message_run_refuse(node);
    user_task_ended(core);
}

/* The run of a request or response that has gone past the queue. Its node is the worker's. */
void *user_message_run(qor_context_t *context, int32_t, void *arg)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_que_node_t *node = static_cast<qor_que_node_t *>(arg);
    void *result = nullptr;
    response_off(core, message_run_of(node));
    if (!user_run_begin(core, nullptr)) {
        message_run_refuse(node);
    } else {
        thread_scope inside(message_run_left, node);
        qor_context_task_t task = message_task(*message_run_of(node));
        message_offer offer(sched_delegate_is_relay(&task) ? node : nullptr);
        qor_sys_monitor_task_t report = monitor_report(&task);
        monitor_tell(context, report, QOR_SYS_MONITOR_TASK_START);
        bus_thread_name_set(sched_delegate_bus(context), task.name); /* as with any task */
        result = qor_context_task_excute(&task);
        inside.becomes(user_task_left_without, core);
        monitor_tell(context, report, QOR_SYS_MONITOR_TASK_OVER);
        qor_context_task_uninit(&task);
    }
    user_task_ended(core);
    return result;
}

/* Such a run is discarded. Takes its body as void *, so that it can stand in for a recycle. */
void message_run_discard(void *body)
{
    const message_run *run = static_cast<const message_run *>(body);
    qor_core_context_t *core = qor_core_context_type(run->task.context);
    qor_context_task_t task = message_task(*run);
    response_off(core, run);
    user_task_discard(&task);
    user_task_over(core);
}

/* Deliveries are told where they reach a handler. */
bool task_is_traced(const qor_context_task_t *task)
{
    return trace_on(QOR_TRACE_TASKS | QOR_TRACE_STACKS) && !sched_delegate_carries(task);
}

} // namespace

void user_task_over(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    user_task_over_locked(core);
}

qor_core_context_t *user_core_of(const qor_time_que_node_t *node)
{
    return static_cast<qor_core_context_t *>(const_cast<void *>(que_front_of(node)->owner));
}

void user_node_refuse(qor_time_que_node_t *node)
{
    qor_context_task_t task = *bus_task_of(node);
    message_offer offer(sched_delegate_request(node, &task));
    user_task_refuse(&task);
    if (!offer.taken()) {
        qor_time_que_node_destroy(node, nullptr);
    }
}

/* A task has ended its thread, and so itself. */
void user_task_left(void *arg)
{
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(arg);
    qor_core_context_t *core = user_core_of(node);
    qor_sys_monitor_task_t report = monitor_report(bus_task_of(node));
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_OVER);
    user_node_refuse(node);
    user_task_ended(core);
}

qor_sys_monitor_task_t monitor_report(const qor_context_task_t *task)
{
    qor_sys_monitor_task_t report = {};
    report.session = task->session;
    memcpy(report.name, task->name, strnlen(task->name, sizeof(report.name) - 1));
    return report;
}

void monitor_tell(qor_context_t *context, qor_sys_monitor_task_t &report, int32_t state)
{
    report.state = state;
    qor_bus_t *bus = sched_delegate_bus(context);
    if (bus && !bus_watched(bus)) {
        return;
    }
    if (!bus || !task_watch_tell(bus, &report)) {
        qor_context_sysx_req(context, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    }
}

void *user_task_run(qor_core_context_t *core, qor_time_que_node_t *node, thread_record *record)
{
    thread_scope inside(user_task_left, node, record);
    qor_context_task_t *task = bus_task_of(node);
    message_offer offer(sched_delegate_request(node, task), record);
    qor_sys_monitor_task_t report = monitor_report(task);
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_START);
    /* Deliberate: the name stays afterwards; the worker sets its own before it runs or waits again.
     * Test: CoreContext.ATasksNameStaysOnTheThread. */
    bus_thread_name_set(sched_delegate_bus(&core->base), task->name);
    void *result = task_is_traced(task) ? trace_recorder().execute(&core->base, task)
                                        : qor_context_task_excute(task);
    if (offer.taken()) {
        inside.becomes(user_task_left_without, core);
        node = nullptr;
    }
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_OVER);
    if (node) {
        qor_time_que_node_destroy(node, recycle_of(qor_context_task_uninit));
    }
    return result;
}

void *qor_core_context_task_node_deal(qor_context_t *context, int32_t, void *arg)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(arg);
    void *result = nullptr;
    if (!user_run_begin(core, node)) {
        user_run_leaves(core, node);
        user_node_refuse(node);
    } else {
        result = user_task_run(core, node, thread_record_get());
    }
    user_task_ended(core);
    return result;
}

void user_run_discard(void *run)
{
    const qor_context_task_t *task = static_cast<const qor_context_task_t *>(run);
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(task->arg);
    qor_core_context_t *core = qor_core_context_type(task->context);
    user_run_leaves(core, node);
    qor_time_que_node_destroy(node, user_task_discard);
    user_task_over(core);
}

void user_run_refuse(void *run)
{
    const qor_context_task_t *task = static_cast<const qor_context_task_t *>(run);
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(task->arg);
    qor_core_context_t *core = qor_core_context_type(task->context);
    user_run_leaves(core, node);
    user_node_refuse(node);
    user_task_over(core);
}

qor_que_node_t *user_message_fill(qor_core_context_t *core, qor_time_que_node_t *node)
{
    const qor_context_task_t task = *bus_task_of(node);
    qor_que_node_t *past = message_node_for_bus(node);
    message_run *run = message_run_of(past);
    qor_context_taskx_init(&run->task, &core->base, nullptr, task.session, user_message_run, past);
    run->publisher = task.context;
    run->msg = task.arg;
    run->recycle = task.recycle;
    que_front *front = que_front_of(past);
    front->flags |= que_quiet;
    front->discard = message_run_discard;
    return past;
}

void message_run_end(qor_que_node_t *node)
{
    qor_core_context_t *core = qor_core_context_type(bus_task_of(node)->context);
    response_off(core, message_run_of(node));
    if (!message_run_refuse(node)) {
        qor_que_node_destroy(node, nullptr);
    }
    user_task_over(core);
}
