/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context: takes tasks, and the runs on the bus's workers drain it. */
#include <stdlib.h>
#include <string.h>

#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_own_task.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context";

/* The body of a node of the private queue. */
struct task_body {
    qor_context_task_t task; /* first: it is what the queue's recycle releases */
    uint32_t number;         /* counts the nodes of a queue: no two that are there share it */
};

task_body *body_of(qor_time_que_node_t *node)
{
    return static_cast<task_body *>(qor_time_que_node_body(node));
}

qor_context_task_t *task_of(qor_time_que_node_t *node)
{
    return &body_of(node)->task;
}

/* Tells the monitor that a task starts or is over. */
void monitor_report(qor_context_t *context, qor_sys_monitor_task_t *report, int32_t state)
{
    report->state = state;
    qor_context_sysx_req(context, QOR_SYS_MONITOR_TASK, report, sizeof(*report));
}

void *qor_core_context_task_node_deal(qor_context_t *context, int32_t, void *arg)
{
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(arg);
    qor_context_task_t *task = task_of(node);
    qor_sys_monitor_task_t report = {};
    report.session = task->session;
    memcpy(report.name, task->name, strnlen(task->name, sizeof(report.name) - 1));
    monitor_report(context, &report, QOR_SYS_MONITOR_TASK_START);
    /* Deliberate: the name stays afterwards; the worker sets its own before it runs or waits again.
     * Test: CoreContext.ATasksNameStaysOnTheThread. */
    hal_thread_name_set(task->name);
    void *result = qor_context_task_excute(task);
    monitor_report(context, &report, QOR_SYS_MONITOR_TASK_OVER);
    qor_time_que_node_destroy(node, recycle_of(qor_context_task_uninit));
    return result;
}

void core_task_run(qor_core_context_t *core, qor_time_que_node_t *node)
{
    const qor_context_task_t *task = task_of(node);
    if (!task->async) {
        qor_core_context_task_node_deal(&core->base, task->session, node);
    } else if (qor_context_runx(&core->base, qor_core_context_task_node_deal, node) < 0) {
        qor_time_que_node_destroy(node, own_task_discard); /* the bus quits */
    }
}

/* Never below 0: runs that timers start give back slots that they have not taken. The caller holds
 * the queue's lock. */
void slot_give_back_locked(qor_core_context_t *core)
{
    if (core->refcount > 0) {
        core->refcount--;
    }
}

/* The queue is full or quits: the task goes to the bus under its own session.
 *
 * Deliberate: past 50 nodes a task is neither refused nor delayed, it overtakes the queue.
 * Test: CoreContext.TheFiftyFirstTaskGoesStraightToTheBus. */
int32_t core_task_bypass(qor_core_context_t *core, qor_time_que_node_t *node, int32_t session,
                         int32_t delay)
{
    qor_context_t *wrapper = &core->base;
    const int32_t posted =
        delay > 0
            ? qor_context_timerx_s(wrapper, session, qor_core_context_task_node_deal, node, delay)
            : qor_context_runx_s(wrapper, session, qor_core_context_task_node_deal, node);
    if (posted < 0) {
        qor_time_que_node_destroy(node, nullptr);
    }
    return posted;
}

/* Gives a node its number and enqueues it. -1 when the queue does not take it. The caller holds the
 * queue's lock. */
int32_t core_task_enque_locked(qor_core_context_t *core, qor_time_que_node_t *node,
                               uint32_t *number)
{
    *number = body_of(node)->number = core->priv->enqueued++;
    return qor_time_que_enque_locked(core->que, node);
}

bool body_has_number(const void *body, uint32_t number)
{
    return static_cast<const task_body *>(body)->number == number;
}

/* No run could be scheduled for a node that has just been enqueued: the task is refused, unless a
 * run that was under way has taken it in the meantime. */
int32_t core_task_take_back(qor_core_context_t *core, qor_time_que_node_t *node, uint32_t number)
{
    if (!time_que_take_back(core->que, node, body_has_number, number)) {
        return 0;
    }
    qor_time_que_node_destroy(node, nullptr);
    return -1;
}

/* A task that is due needs a loop run when a slot is free. Its memory is had before the task is
 * enqueued: once it is, others rely on that run. A context that is not attached to a bus has its
 * run posted by whatever handler table it has. */
struct loop_run {
    bool needed;
    qor_que_node_t *node; /* NULL when not needed, or not attached */
};

/* The caller holds the queue's lock. -1 without memory. */
int32_t loop_run_reserve_locked(qor_core_context_t *core, loop_run *run)
{
    run->needed = static_cast<uint32_t>(core->refcount) < core->refcount_max;
    if (run->needed && sched_delegate_bus(&core->base)) {
        run->node = sched_delegate_run_node();
        return run->node ? 0 : -1;
    }
    return 0;
}

/* A run that is refused gives its slot back. */
int32_t loop_run_post(qor_core_context_t *core, const loop_run *run)
{
    qor_context_t *wrapper = &core->base;
    const qor_context_run_t loop = run_of(qor_core_context_loop);
    const int32_t posted = run->node ? sched_delegate_run_post(wrapper, run->node, loop)
                                     : qor_context_run(wrapper, loop, wrapper);
    if (posted < 0) {
        qor_time_que_lock(core->que);
        slot_give_back_locked(core);
        qor_time_que_unlock(core->que);
    }
    return posted;
}

/* Ends a post whose run was refused. It says so only if the task is refused as well: one that
 * another run has taken went well. */
int32_t core_task_refused(qor_core_context_t *core, qor_time_que_node_t *node, uint32_t number,
                          const loop_run *run)
{
    const int32_t ret = core_task_take_back(core, node, number);
    if (ret < 0 && run->node) {
        sched_delegate_run_refused(&core->base, run->node);
    }
    free(run->node);
    return ret;
}

/* Queues a task that is due, and a run for it unless one that has a slot will take it. */
int32_t core_task_now(qor_core_context_t *core, qor_time_que_node_t *node, int32_t session)
{
    loop_run run = {};
    qor_time_que_lock(core->que);
    if (loop_run_reserve_locked(core, &run) < 0) {
        qor_time_que_unlock(core->que);
        qor_time_que_node_destroy(node, nullptr);
        return -1;
    }
    uint32_t number = 0;
    if (core_task_enque_locked(core, node, &number) < 0) {
        qor_time_que_unlock(core->que);
        free(run.node);
        return core_task_bypass(core, node, session, 0);
    }
    core->refcount += run.needed;
    qor_time_que_unlock(core->que);
    /* A run that has a slot takes the task, unless the bus quits: then it ends first. */
    const bool refused =
        run.needed ? loop_run_post(core, &run) < 0 : bus_stopping(sched_delegate_bus(&core->base));
    return refused ? core_task_refused(core, node, number, &run) : 0;
}

/* Queues a task that is due later, and a timer that starts a run then, slot or no slot. */
int32_t core_task_later(qor_core_context_t *core, qor_time_que_node_t *node, int32_t session,
                        int32_t delay)
{
    qor_time_que_lock(core->que);
    uint32_t number = 0;
    const int32_t queued = core_task_enque_locked(core, node, &number);
    qor_time_que_unlock(core->que);
    if (queued < 0) {
        return core_task_bypass(core, node, session, delay);
    }
    qor_context_t *wrapper = &core->base;
    const int32_t timer = qor_context_timer(wrapper, run_of(qor_core_context_loop), wrapper, delay);
    return timer < 0 ? core_task_take_back(core, node, number) : 0;
}

} // namespace

int32_t qor_core_context_handle_task(qor_context_t *context, qor_context_task_t *task)
{
    qor_core_context_t *core = qor_core_context_type(context);
    QOR_CHECK(task, -1);
    const int32_t session = task->session;
    const int32_t delay = task->delay;
    qor_time_que_node_t *node =
        qor_time_que_node_create(static_cast<size_t>(session), delay, sizeof(task_body));
    if (!node) {
        QOR_ERR("malloc \"que_node\" failed.");
        return -1;
    }
    qor_context_task_copy(task_of(node), task);
    return delay > 0 ? core_task_later(core, node, session, delay)
                     : core_task_now(core, node, session);
}

int32_t qor_core_context_loop(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_time_que_lock(core->que);
    while (!bus_stopping(sched_delegate_bus(context))) {
        qor_time_que_node_t *node = qor_time_que_deque_locked(core->que);
        if (!node) {
            break;
        }
        qor_time_que_unlock(core->que);
        core_task_run(core, node);
        qor_time_que_lock(core->que);
    }
    /* Still under the lock that the queue was found empty under: a poster either enqueued before
     * and was served, or finds the slot free. */
    /* Deliberate: a run that a timer started took no slot, but gives one back as well.
     * Test: CoreContext.ARunStartedByATimerGivesASlotBack. */
    slot_give_back_locked(core);
    /* Deliberate: nobody looks here when the next node will be due: each delayed task has a timer.
     * Test: CoreContext.ADelayedTaskIsReachedByItsOwnTimer. */
    qor_time_que_unlock(core->que);
    return 0;
}

int32_t core_task_cancel(qor_core_context_t *core, int32_t session)
{
    qor_time_que_node_t *node = qor_time_que_remove(core->que, static_cast<size_t>(session));
    if (!node) {
        return -1;
    }
    qor_time_que_node_destroy(node, own_task_discard);
    return 0;
}

qor_context_runx_t core_context_node_run()
{
    return qor_core_context_task_node_deal;
}

qor_context_run_t core_context_loop_run()
{
    return run_of(qor_core_context_loop);
}
