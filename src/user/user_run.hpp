/* SPDX-License-Identifier: Apache-2.0 */
/* Runs of a user context's tasks on the bus's workers: of the whole queue, or of one task that goes
 * past it. */
#ifndef USER_RUN_HPP
#define USER_RUN_HPP

#include "qor_bus_priv.hpp"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"
#include "qor_que.h"
#include "qor_recycle.hpp"
#include "qor_time_que.h"
#include "que_front.hpp"
#include "thread_record.hpp"

/* Takes the node of the loop run that the worker with that record is in over from it; NULL when a
 * loop is called any other way. */
inline qor_que_node_t *user_loop_take(thread_record *record)
{
    qor_que_node_t *run = record ? static_cast<qor_que_node_t *>(record->running) : nullptr;
    if (!run || !(que_front_of(run)->flags & que_again)) {
        return nullptr;
    }
    record->running = nullptr;
    que_front_of(run)->number = 0; /* the delayed task that it began with has been served */
    return run;
}

/* What the monitor is told of a task; a copy, for the task may be gone when it is over. */
qor_sys_monitor_task_t monitor_report(const qor_context_task_t *task);

/* Tells the monitor, unless nobody watches the bus's tasks. */
void monitor_tell(qor_context_t *context, qor_sys_monitor_task_t &report, int32_t state);

/* Runs a task that is under way on the thread with that record, and destroys its node. */
void *user_task_run(qor_core_context_t *core, qor_time_que_node_t *node, thread_record *record);

/* A task that was under way is over. The caller of the first holds the queue's lock. */
inline void user_task_over_locked(qor_core_context_t *core)
{
    if (--core->priv->under_way == 0 && core->priv->closed) {
        qor_time_que_wakeup_locked(core->que); /* for user_tasks_await() */
    }
}
void user_task_over(qor_core_context_t *core);

/* Never below 0: runs that timers start give back slots that they have not taken. The caller holds
 * the queue's lock. */
inline void slot_give_back_locked(qor_core_context_t *core)
{
    if (core->refcount > 0) {
        core->refcount--;
    }
}

/* Whether a thread scope is that of a task that user_task_run() runs; what it leaves is the node.
 */
void user_task_left(void *node);

/* The context that a node of a private queue belongs to. */
qor_core_context_t *user_core_of(const qor_time_que_node_t *node);

/* Destroys a node whose task is not run, or not to its end. */
void user_node_refuse(qor_time_que_node_t *node);

/* The run of a single node on the bus, which destroys the node. */
void *qor_core_context_task_node_deal(qor_context_t *context, int32_t session, void *node);

/* Makes the node of a request or response its run past the queue. */
qor_que_node_t *user_message_fill(qor_core_context_t *core, qor_time_que_node_t *node);

/* Such a run, or that of a single node, is not run: it and its task are released. The argument is
 * the run's task; they stand in for a recycle. The second answers a request. */
void user_run_discard(void *run);
void user_run_refuse(void *run);

/* A message's run that is not run is refused, and its node destroyed. */
void message_run_end(qor_que_node_t *node);

/* Makes the task of a bus node, of the task queue or of the timer queue, a loop run with that
 * session. One that was a loop run before needs no more. */
template <typename N> void user_loop_fill(qor_core_context_t *core, N *run, int32_t session)
{
    que_front_of(run)->flags = que_own | que_quiet | que_again; /* and not queued yet */
    if (que_front_of(run)->owner == core) {
        bus_task_of(run)->session = session;
        return;
    }
    qor_context_task_init(bus_task_of(run), &core->base, nullptr, session,
                          run_of(qor_core_context_loop), &core->base);
    que_front_of(run)->owner = core;
}

/* Makes a node of the bus the run of a node. Its session is the task's own when it goes straight to
 * the bus. */
template <typename N>
void user_run_fill(qor_core_context_t *core, N *run, qor_time_que_node_t *node, int32_t session,
                   uint32_t flags)
{
    qor_context_taskx_init(bus_task_of(run), &core->base, nullptr, session,
                           qor_core_context_task_node_deal, node);
    que_front *front = que_front_of(run);
    front->owner = core;
    front->flags = que_quiet | flags;
    front->discard = user_run_discard;
}

/* In the number of a task that has a timer, beside the timer's session. */
constexpr uint32_t number_timed = 1u << 31;

/* Which node of a context's is meant. */
struct user_number {
    const void *owner;
    uint32_t number; /* 0: any */
};

template <typename N> bool user_number_is(const N *node, const void *what)
{
    const user_number *wanted = static_cast<const user_number *>(what);
    const que_front *front = que_front_of(node);
    return front->owner == wanted->owner && (!wanted->number || front->number == wanted->number);
}

#endif /* USER_RUN_HPP */
