/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context: the loop runs on the bus's workers that drain it, cancel,
 * and its end. */
#include "contract.hpp"
#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_que_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"
#include "user_run.hpp"

namespace {

/* Keeps the node of a loop run that ends for the next one. The caller holds the queue's lock. */
void user_loop_keep_locked(qor_core_context_t *core, thread_record *record)
{
    if (!core->priv->loop) {
        core->priv->loop = user_loop_take(record);
    }
}

/* How long a loop run has had its worker. */
struct loop_turn {
    uint32_t tasks;
    int64_t since; /* ms, from the second task on; 0: not yet */
};

constexpr uint32_t turn_tasks = 64; /* more than a full queue holds */
constexpr int64_t turn_time = 5;    /* ms */

/* Whether others are to go first now, before one more task. */
bool loop_turn_is_over(loop_turn &turn, const qor_bus_t *bus)
{
    if (!bus || turn.tasks == 0) {
        return false;
    }
    const int64_t now = util_timestamp();
    turn.since = turn.since ? turn.since : now;
    if (turn.tasks < turn_tasks && now - turn.since < turn_time) {
        return false;
    }
    turn = {}; /* if nobody waits, it begins anew */
    return hal_load(bus->que->count) > 0;
}

/* Puts the run at the end of the bus's queue, with its slot: true when it is there, and the worker
 * leaves it. */
bool user_loop_gives_way(qor_bus_t *bus, thread_record *record)
{
    qor_que_node_t *run = user_loop_take(record);
    if (!run) {
        return false;
    }
    if (bus_node_post(bus, run) == 0) {
        return true;
    }
    qor_que_node_destroy(run, nullptr); /* the bus quits, and the run ends here */
    return false;
}

/* An asynchronous task gets its run. The caller holds the queue's lock, so that the context is not
 * closed in between; what cannot be queued is discarded without it. */
void user_task_spread_locked(qor_core_context_t *core, qor_time_que_node_t *node)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    qor_que_node_t *run = que_spare_take(node);
    if (run) {
        user_run_fill(core, run, node, qor_bus_session(bus), que_own);
        if (bus_node_post(bus, run) == 0) {
            return;
        }
    }
    qor_time_que_unlock(core->que);
    if (run) { /* the bus quits */
        que_node_discard(run, nullptr);
    } else if (qor_context_runx(&core->base, qor_core_context_task_node_deal, node) < 0) {
        qor_time_que_node_destroy(node, user_task_discard);
        user_task_over(core);
    }
    qor_time_que_lock(core->que);
}

bool user_any(const qor_time_que_node_t *, const void *)
{
    return true;
}

/* Takes what the test finds out of the task queue and frees it; what it carries is refused. */
void user_runs_refuse(qor_bus_t *bus, const user_number *wanted)
{
    while (qor_que_node_t *run = que_take_if(bus->que, user_number_is<qor_que_node_t>, wanted)) {
        if (que_front_of(run)->flags & que_message) {
            message_run_end(run);
        } else {
            qor_que_node_destroy(run, que_front_of(run)->discard ? user_run_refuse : nullptr);
        }
    }
}

void user_timers_refuse(qor_bus_t *bus, const user_number *wanted)
{
    while (qor_time_que_node_t *timer =
               time_que_take_if(bus->time_que, user_number_is<qor_time_que_node_t>, wanted)) {
        qor_time_que_node_destroy(timer, que_front_of(timer)->discard ? user_run_refuse : nullptr);
    }
}

/* A loop run ends, still under the lock that the queue was found empty under: a poster either
 * enqueued before and was served, or finds the slot free. */
void user_loop_end_locked(qor_core_context_t *core, contract *promise, thread_record *record)
{
    if (promise && promise->terms.strict) {
        promise->calls->run_leave_locked(*promise, user_loop_take(record));
        return;
    }
    /* Deliberate: a run that a timer started took no slot, but gives one back as well.
     * Test: CoreContext.ARunStartedByATimerGivesASlotBack. */
    slot_give_back_locked(core);
    user_loop_keep_locked(core, record);
    /* Deliberate: nobody looks here when the next node will be due: each delayed task has a timer.
     * Test: CoreContext.ADelayedTaskIsReachedByItsOwnTimer. */
}

/* A contract's queue also has runs of periodic timers, which no number means. */
bool user_task_is(const qor_time_que_node_t *node, const void *id)
{
    return node->id == *static_cast<const size_t *>(id) &&
           !(que_front_of(node)->flags & que_periodic);
}

/* Takes the task with that session out, or NULL. */
qor_time_que_node_t *user_task_find_locked(qor_core_context_t *core, size_t id)
{
    return core->priv->promise ? time_que_take_if_locked(core->que, user_task_is, &id)
                               : qor_time_que_remove_locked(core->que, id);
}

/* Takes any task out that is not run, or NULL. */
qor_time_que_node_t *user_task_take_back(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    qor_time_que_node_t *node = time_que_take_if_locked(core->que, user_any, nullptr);
    if (node && core->priv->promise) {
        core->priv->promise->calls->task_leaves_locked(*core->priv->promise, node,
                                                       &qor_ledger_t::discarded);
    }
    return node;
}

/* Counts the tasks on the calling thread's own stack out of what is under way, or in again; runs of
 * periodic timers too. */
void user_tasks_below_count(const periodic_calls *periodic, bool in)
{
    const auto count = [in](qor_core_context_t *below) {
        hal_scoped_lock lock(below->que->mutex);
        if (in) {
            below->priv->under_way++;
        } else {
            user_task_over_locked(below);
        }
    };
    thread_scopes_each(user_task_left, [count](void *node) {
        count(user_core_of(static_cast<qor_time_que_node_t *>(node)));
    });
    if (!periodic) {
        return;
    }
    thread_scopes_each(periodic->left, [count, periodic](void *timer) {
        if (qor_core_context_t *below = periodic->core(timer)) {
            count(below);
        }
    });
}

} // namespace

int32_t qor_core_context_loop(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_bus_t *bus = sched_delegate_bus(context);
    contract *promise = core->priv->promise;
    thread_record *record = thread_record_get();
    loop_turn turn = {};
    qor_time_que_lock(core->que);
    if (promise && !promise->calls->run_enter_locked(core, record)) {
        qor_time_que_unlock(core->que);
        return 0;
    }
    while (!bus_stopping(bus) && !core->priv->closed) {
        if (!list_empty(&core->que->head) && loop_turn_is_over(turn, bus)) {
            qor_time_que_unlock(core->que);
            if (user_loop_gives_way(bus, record)) {
                return 0;
            }
            qor_time_que_lock(core->que);
            continue;
        }
        qor_time_que_node_t *node = promise ? promise->calls->take_locked(core, record)
                                            : qor_time_que_deque_locked(core->que);
        if (!node) {
            break;
        }
        core->priv->under_way++;
        const bool periodic = promise && (que_front_of(node)->flags & que_periodic);
        if (!periodic && bus_task_of(node)->async) {
            user_task_spread_locked(core, node);
            continue;
        }
        qor_time_que_unlock(core->que);
        if (periodic) {
            hal_load(bus->priv->periodics.calls)->run(core, node);
        } else {
            user_task_run(core, node, record);
        }
        turn.tasks++;
        qor_time_que_lock(core->que);
        if (promise) {
            contract_task_over_locked(*promise, record);
        }
        user_task_over_locked(core);
    }
    user_loop_end_locked(core, promise, record);
    qor_time_que_unlock(core->que);
    return 0;
}

int32_t user_task_cancel(qor_core_context_t *core, int32_t session)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    if (bus && bus_periodic_is_cancelled(bus, session)) {
        return 0;
    }
    qor_time_que_lock(core->que);
    qor_time_que_node_t *node = user_task_find_locked(core, static_cast<size_t>(session));
    const bool timed = node && bus && bus->time_que && bus_task_of(node)->delay > 0;
    const user_number wanted = {core, node ? que_front_of(node)->number : 0};
    qor_time_que_node_t *timer =
        timed ? time_que_take_id_if(bus->time_que, wanted.number & ~number_timed,
                                    user_number_is<qor_time_que_node_t>, &wanted)
              : nullptr;
    if (node && core->priv->promise) {
        core->priv->promise->calls->task_leaves_locked(*core->priv->promise, node,
                                                       &qor_ledger_t::cancelled);
    }
    qor_time_que_unlock(core->que);
    if (!node) {
        return -1;
    }
    if (timer) {
        qor_time_que_node_destroy(timer, nullptr);
    } else if (timed) { /* it has just fallen due, and its run may be queued */
        qor_que_node_t *run = que_take_if(bus->que, user_number_is<qor_que_node_t>, &wanted);
        if (run) {
            qor_que_node_destroy(run, nullptr);
        }
    }
    qor_time_que_node_destroy(node, user_task_discard);
    return 0;
}

void user_task_discard(void *task)
{
    if (sched_delegate_is_relay(static_cast<qor_context_task_t *>(task))) {
        sched_delegate_relay_discard(task);
    } else {
        qor_context_task_uninit(static_cast<qor_context_task_t *>(task));
    }
}

void user_tasks_close(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    core->priv->closed = 1;
    if (core->priv->promise) {
        core->priv->promise->calls->closed_locked(*core->priv->promise);
    }
}

void user_tasks_discard(qor_core_context_t *core)
{
    time_que_quit_begin(core->que);
    while (qor_time_que_node_t *node = user_task_take_back(core)) {
        time_que_node_discard(node, user_task_discard);
    }
}

void user_tasks_refuse(qor_core_context_t *core)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    while (qor_time_que_node_t *node = user_task_take_back(core)) {
        if (que_front_of(node)->flags & que_periodic) {
            time_que_node_discard(node, nullptr);
        } else {
            user_node_refuse(node);
        }
    }
    if (!bus) {
        return;
    }
    const user_number any = {core, 0};
    user_runs_refuse(bus, &any);
    if (bus->time_que) {
        user_timers_refuse(bus, &any);
        user_runs_refuse(bus, &any); /* timers that fell due meanwhile */
    }
    const periodic_calls *periodic = hal_load(bus->priv->periodics.calls);
    if (periodic) {
        periodic->end(bus, &core->base);
    }
}

void user_tasks_await(qor_core_context_t *core)
{
    const qor_bus_t *bus = sched_delegate_bus(&core->base);
    const periodic_calls *periodic = bus ? hal_load(bus->priv->periodics.calls) : nullptr;
    user_tasks_below_count(periodic, false);
    {
        hal_scoped_lock lock(core->que->mutex);
        while (core->priv->under_way > 0) {
            qor_time_que_wait_locked(core->que);
        }
    }
    user_tasks_below_count(periodic, true);
}
