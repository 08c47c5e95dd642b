/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a module with a contract. A strict queue bounds its loop runs: each runs one
 * task after the other, so there are never more tasks than runs, and one that looks for more work
 * ends only under the lock under which it has found none. */
#include "contract.hpp"

#include "bus_periodic.hpp"
#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_context_msg.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_waits.hpp"
#include "thread_record.hpp"
#include "trace.hpp"
#include "user_admission.hpp"
#include "user_run.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context"; /* whose function a full queue refuses from */

/* What becomes of an arrival. */
enum class verdict {
    accept,
    refuse,
    drop,
    bypass,
    wait,
};

/* A poster that waits for a place; lives in its frame. */
struct blocked_poster {
    list_head link; /* in the contract's list */
    hal_thread_cond_t cond;
};

/* Whether depth bounds what is posted while it waits. */
bool takes_place(const admission &post)
{
    return post.delay <= 0 && !post.response;
}

/* The counter of a task that has not begun. */
uint64_t &task_awaited(contract &promise, const qor_context_task_t *task)
{
    return task->delay > 0 ? promise.ledger.delayed : promise.ledger.waiting;
}

/* Wakes the poster that has waited longest, if there is a place for it. */
void place_offer_locked(contract &promise)
{
    if (promise.counted < promise.terms.depth && !list_empty(&promise.blocked)) {
        pthread_cond_signal(&reinterpret_cast<blocked_poster *>(promise.blocked.next)->cond);
    }
}

void place_free_locked(contract &promise, qor_time_que_node_t *node)
{
    que_front *front = que_front_of(node);
    if (front->flags & que_placed) {
        front->flags &= ~uint32_t{que_placed};
        promise.counted--;
        place_offer_locked(promise);
    }
}

void task_run_locked(qor_core_context_t *core, qor_time_que_node_t *node, thread_record *record)
{
    contract &promise = *core->priv->promise;
    if (!node || !(que_front_of(node)->flags & que_counted)) {
        contract_task_inside(promise, record);
        return;
    }
    const qor_context_task_t *task = bus_task_of(node);
    task_awaited(promise, task)--;
    if (que_front_of(node)->flags & que_reply) {
        contract_reply_back(&promise);
    }
    contract_task_begun_locked(promise, record);
}

void task_leaves_locked(contract &promise, qor_time_que_node_t *node, contract_counter as)
{
    const qor_context_task_t *task = bus_task_of(node);
    if (!(que_front_of(node)->flags & que_counted)) {
        return;
    }
    place_free_locked(promise, node);
    task_awaited(promise, task)--;
    promise.ledger.*as += 1;
    if (que_front_of(node)->flags & que_reply) {
        contract_reply_back(&promise);
    }
}

/* A node that is kept for a run, or NULL. */
qor_que_node_t *idle_take_locked(contract &promise)
{
    if (list_empty(&promise.idle)) {
        return nullptr;
    }
    qor_que_node_t *run = reinterpret_cast<qor_que_node_t *>(promise.idle.next); /* first field */
    list_del(&run->node);
    promise.idle_count--;
    return run;
}

/* What a strict queue's runs are started with: a node for one more, which counts from now on. NULL:
 * there are enough, or there is no memory and others serve. */
qor_que_node_t *run_wanted_locked(contract &promise)
{
    if (!promise.started || promise.runs >= promise.slots) {
        return nullptr;
    }
    qor_que_node_t *run = idle_take_locked(promise);
    run = run ? run : bus_node();
    promise.runs += run != nullptr;
    return run;
}

/* Keeps the node of a run for the next one; there are never more than can be used, which is one for
 * a module that is not strict. */
void run_keep_locked(contract &promise, qor_que_node_t *run)
{
    if (promise.idle_count < (promise.terms.strict ? promise.slots : 1)) {
        list_add(&run->node, &promise.idle);
        promise.idle_count++;
    } else {
        qor_que_node_destroy(run, nullptr);
    }
}

/* A run of a strict queue ends. */
void run_leave_locked(contract &promise, qor_que_node_t *node)
{
    promise.runs--;
    if (node) {
        run_keep_locked(promise, node);
    }
}

/* Queues a run: false when the bus quits, and what waits is discarded at its end. */
bool run_post(qor_core_context_t *core, qor_que_node_t *run)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    user_loop_fill(core, run, qor_bus_session(bus));
    if (bus_node_post(bus, run) == 0) {
        return true;
    }
    contract &promise = *core->priv->promise;
    hal_scoped_lock lock(core->que->mutex);
    if (promise.terms.strict) {
        run_leave_locked(promise, run);
    } else {
        slot_give_back_locked(core);
        run_keep_locked(promise, run);
    }
    return false;
}

/* The node of a run that is to serve what has waited for a deferred request to end. Where a module
 * that is not strict has none to spare, a run has it that will look for more itself. */
qor_que_node_t *serve_wanted_locked(qor_core_context_t *core)
{
    contract &promise = *core->priv->promise;
    if (promise.terms.strict) {
        return run_wanted_locked(promise);
    }
    qor_que_node_t *run = core->priv->loop ? core->priv->loop : idle_take_locked(promise);
    core->priv->loop = nullptr;
    core->refcount += run != nullptr;
    return run;
}

void queue_serve(contract &promise)
{
    qor_core_context_t *core = promise.core;
    qor_que_node_t *run;
    {
        hal_scoped_lock lock(core->que->mutex);
        run = list_empty(&core->que->head) ? nullptr : serve_wanted_locked(core);
    }
    if (run) {
        run_post(core, run);
    }
}

/* How many tasks are due, up to a limit. */
uint32_t due_count_locked(const qor_time_que_t *que, uint32_t limit)
{
    const int64_t now = util_timestamp();
    uint32_t due = 0;
    for (list_head *link = que->head.next; link != &que->head && due < limit; link = link->next) {
        if (reinterpret_cast<const qor_time_que_node_t *>(link)->when > now) { /* first field */
            break;
        }
        due++;
    }
    return due;
}

bool is_placed(const qor_time_que_node_t *node, const void *)
{
    return (que_front_of(node)->flags & que_placed) != 0;
}

/* Due at the given moment, and no request. */
bool is_due_beside_requests(const qor_time_que_node_t *node, const void *now)
{
    return node->when <= *static_cast<const int64_t *>(now) &&
           ((que_front_of(node)->flags & que_periodic) ||
            !sched_delegate_is_relay(bus_task_of(const_cast<qor_time_que_node_t *>(node))));
}

qor_time_que_node_t *next_locked(qor_time_que_t *que, const contract &promise)
{
    if (promise.terms.open_max == 0 || promise.ledger.open < promise.terms.open_max ||
        que->quitting) {
        return qor_time_que_deque_locked(que);
    }
    const int64_t now = util_timestamp();
    return time_que_take_if_locked(que, is_due_beside_requests, &now);
}

/* A post, and what stands in its way. */
struct arrival {
    admission &post;
    qor_core_context_t *core;
    contract &promise;
    qor_context_task_t *task; /* in the post's node */
    bool evicts;              /* the task that has a place for longest makes room for it */
};

bool arrival_is_listener(const arrival &in)
{
    return sched_delegate_is_listener(in.task);
}

/* Whether the queue takes nothing any more. */
bool is_closed_locked(const arrival &in)
{
    return in.core->priv->closed || bus_stopping(in.post.bus);
}

/* What the overflow policy says; only a poster may be made to wait. */
int32_t policy_of(const arrival &in)
{
    const int32_t policy = in.promise.terms.overflow;
    if (policy != QOR_OVERFLOW_BLOCK) {
        return policy;
    }
    const thread_record *record = thread_record_get();
    if (record && record->moving && record->moving == in.task->arg) {
        return QOR_OVERFLOW_REFUSE;
    }
    return arrival_is_listener(in) ? QOR_OVERFLOW_DROP_NEWEST : policy;
}

verdict full_verdict_locked(arrival &in)
{
    if (in.promise.terms.strict && !in.promise.started) {
        return verdict::refuse;
    }
    switch (policy_of(in)) {
    case QOR_OVERFLOW_BYPASS:
        return verdict::bypass;
    case QOR_OVERFLOW_DROP_OLDEST:
        in.evicts = true; /* whoever has a place may be dropped */
        return verdict::accept;
    case QOR_OVERFLOW_DROP_NEWEST:
        return verdict::drop;
    case QOR_OVERFLOW_BLOCK:
        return verdict::wait;
    default:
        return verdict::refuse;
    }
}

verdict verdict_locked(arrival &in)
{
    if (is_closed_locked(in)) {
        return verdict::refuse;
    }
    const bool fits =
        in.promise.counted < in.promise.terms.depth && list_empty(&in.promise.blocked);
    return fits || !takes_place(in.post) ? verdict::accept : full_verdict_locked(in);
}

/* What was lost of a task: its topic, and what it was. */
void task_lost(const contract &promise, const qor_context_task_t *task, int32_t reason)
{
    int32_t kind = QOR_LOSS_TASK;
    qor_context_topic_t topic = -1;
    if (sched_delegate_is_relay(task) || sched_delegate_is_listener(task)) {
        kind = sched_delegate_is_relay(task) ? QOR_LOSS_REQUEST : QOR_LOSS_LISTENER;
        topic = static_cast<const qor_context_msg_t *>(task->arg)->topic;
    }
    contract_lost(promise, {nullptr, topic, task->session, kind, reason});
}

/* Ends a task that the queue has dropped: a request is answered, anything else recycled. */
void task_drop(const contract &promise, qor_time_que_node_t *node, int32_t reason)
{
    const qor_context_task_t task = *bus_task_of(node);
    task_lost(promise, &task, reason);
    if (sched_delegate_is_relay(&task)) {
        sched_delegate_finish_post(message_node_for_bus(node), task.context,
                                   static_cast<qor_context_msg_t *>(task.arg), QOR_RET_DROPPED);
    } else {
        qor_time_que_node_destroy(node, recycle_of(qor_context_task_uninit));
    }
}

/* The ends of a post; each gives the lock up. */

/* Without a line, which for want of memory has been printed. */
int32_t arrival_fail(arrival &in)
{
    in.promise.ledger.refused++;
    qor_time_que_unlock(in.core->que);
    return admission_drop(in.post);
}

int32_t arrival_refuse(arrival &in)
{
    const bool closed = is_closed_locked(in);
    if (closed && in.post.response) {
        in.promise.ledger.accepted++;
        in.promise.ledger.discarded++;
    } else {
        in.promise.ledger.refused++;
    }
    qor_time_que_unlock(in.core->que);
    if (closed) {
        return admission_refuse(in.post, in.task);
    }
    if (!arrival_is_listener(in)) {
        QOR_LINE("err", "qor_core_context_handle_task",
                 "queue full, module:%s, task:%s, session=%d", contract_name(in.promise),
                 in.task->name, in.task->session);
    }
    return admission_drop(in.post);
}

int32_t arrival_drop(arrival &in)
{
    in.promise.ledger.accepted++;
    in.promise.ledger.dropped_newest++;
    qor_time_que_unlock(in.core->que);
    task_drop(in.promise, in.post.node, QOR_LOSS_NEWEST);
    in.post.node = nullptr;
    admission_drop(in.post);
    return 0;
}

int32_t arrival_bypass(arrival &in)
{
    contract &promise = in.promise;
    promise.ledger.bypassed++; /* now: it may have run before the post returns */
    const int32_t posted = admission_bypass(in.post);
    if (posted < 0) {
        hal_scoped_lock lock(*promise.mutex);
        promise.ledger.bypassed--;
        promise.ledger.refused++;
    }
    return posted;
}

/* The task is in the queue, with the timer that it needs: 0, or -1 when the bus quits. */
int32_t arrival_enque_locked(arrival &in)
{
    admission &post = in.post;
    /* Both halves of the order, the millisecond and the number, are those of this moment. */
    qor_time_que_node_update(post.node, static_cast<size_t>(post.session), post.delay);
    if (admission_enque_locked(post) < 0 || (post.timer && admission_timer_locked(post) < 0)) {
        return -1;
    }
    contract &promise = in.promise;
    que_front *front = que_front_of(post.node);
    front->flags |= que_counted | (post.response ? uint32_t{que_reply} : 0);
    promise.ledger.accepted++;
    task_awaited(promise, in.task)++;
    if (takes_place(post)) {
        front->flags |= que_placed;
        promise.counted++;
        if (promise.ledger.highest < promise.counted) {
            promise.ledger.highest = promise.counted;
        }
    }
    return 0;
}

int32_t arrival_accept(arrival &in)
{
    qor_core_context_t *core = in.core;
    contract &promise = in.promise;
    const bool due = in.post.delay <= 0;
    const bool takes_slot =
        due && !promise.terms.strict && static_cast<uint32_t>(core->refcount) < core->refcount_max;
    if (takes_slot && admission_run_make(in.post) < 0) {
        return in.post.response ? arrival_bypass(in) : arrival_fail(in);
    }
    qor_time_que_node_t *victim =
        in.evicts ? time_que_take_if_locked(core->que, is_placed, nullptr) : nullptr;
    if (victim) {
        task_leaves_locked(promise, victim, &qor_ledger_t::dropped_oldest);
    }
    if (arrival_enque_locked(in) < 0) {
        return arrival_refuse(in);
    }
    core->refcount += takes_slot;
    qor_que_node_t *run = due && promise.terms.strict ? run_wanted_locked(promise) : in.post.run;
    qor_time_que_unlock(core->que);
    if (run) {
        run_post(core, run);
    }
    if (victim) {
        task_drop(promise, victim, QOR_LOSS_OLDEST);
    }
    return 0;
}

int32_t arrival_end(arrival &in, verdict what)
{
    switch (what) {
    case verdict::accept:
        return arrival_accept(in);
    case verdict::drop:
        return arrival_drop(in);
    case verdict::bypass:
        return arrival_bypass(in);
    default:
        return arrival_refuse(in);
    }
}

/* Whether this poster may go on: it is the first, and there is a place. */
bool is_served_locked(const contract &promise, const blocked_poster &me)
{
    return promise.blocked.next == &me.link && promise.counted < promise.terms.depth;
}

/* Waits in order of arrival. The poster stands in the list already; the lock is not held. */
int32_t arrival_wait(arrival &in, blocked_poster &me)
{
    qor_core_context_t *core = in.core;
    const bool stays = bus_stuck_try(in.post.bus);
    int32_t posted;
    {
        trace_span waits(QOR_TRACE_CHANGES, &core->base, trace_what(trace_wait, trace_waits_room),
                         in.post.session, in.promise.terms.wait_time);
        bus_waiter waiter(in.post.bus, core->que->mutex, me.cond);
        const int64_t deadline = que_deadline(stays ? in.promise.terms.wait_time : 0);
        qor_time_que_lock(core->que);
        while (!is_closed_locked(in) && !is_served_locked(in.promise, me) &&
               !que_time_is_over(deadline)) {
            que_sleep_until(me.cond, core->que->mutex, deadline);
        }
        const bool served = !is_closed_locked(in) && is_served_locked(in.promise, me);
        list_del(&me.link);
        place_offer_locked(in.promise); /* several may be free, or this one gives up */
        posted = arrival_end(in, served ? verdict::accept : verdict::refuse);
    }
    if (stays) {
        bus_stuck_end(in.post.bus);
    }
    return posted;
}

/* Begins to wait; the lock is held and given up. */
int32_t arrival_block(arrival &in)
{
    const thread_record *record = thread_record_get();
    const bool inside = record && record->task_of == &in.promise;
    const bool loops = record && record->role == thread_loops;
    blocked_poster me;
    if (inside || loops || que_cond_init(&me.cond, CLOCK_MONOTONIC) != 0) {
        return arrival_refuse(in);
    }
    list_add_tail(&me.link, &in.promise.blocked);
    qor_time_que_unlock(in.core->que);
    const int32_t posted = arrival_wait(in, me);
    pthread_cond_destroy(&me.cond);
    return posted;
}

void queue_bind(qor_core_context_t *core, contract &promise)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    core->priv->promise = &promise;
    core->que->max_count = UINT32_MAX; /* the contract has bounds of its own */
    time_que_in_order(core->que);
    hal_scoped_lock lock(bus->priv->mutex);
    promise.core = core;
    promise.mutex = &core->que->mutex;
}

/* The node of one more run for what has waited for the start, or NULL. */
qor_que_node_t *open_wanted(qor_core_context_t *core)
{
    contract &promise = *core->priv->promise;
    hal_scoped_lock lock(core->que->mutex);
    promise.started = 1;
    const uint32_t due = due_count_locked(core->que, promise.slots);
    return promise.runs < due ? run_wanted_locked(promise) : nullptr;
}

void queue_open(qor_core_context_t *core)
{
    if (!core->priv->promise->terms.strict) {
        return;
    }
    for (qor_que_node_t *run = open_wanted(core); run && run_post(core, run);) {
        run = open_wanted(core);
    }
}

void queue_closed_locked(contract &promise)
{
    util_list_each(promise.blocked, [](list_head *link) {
        pthread_cond_signal(&reinterpret_cast<blocked_poster *>(link)->cond);
    });
}

int32_t queue_admit(admission &post)
{
    arrival in = {post, post.core, *post.core->priv->promise, bus_task_of(post.node), false};
    if (in.promise.terms.strict) {
        in.task->async = 0; /* its runs have their turns, too */
    }
    qor_time_que_lock(in.core->que);
    const verdict what = verdict_locked(in);
    return what == verdict::wait ? arrival_block(in) : arrival_end(in, what);
}

bool run_enter_locked(qor_core_context_t *core, thread_record *record)
{
    contract &promise = *core->priv->promise;
    qor_que_node_t *run = record ? static_cast<qor_que_node_t *>(record->running) : nullptr;
    que_front *front = run && (que_front_of(run)->flags & que_again) ? que_front_of(run) : nullptr;
    if (!promise.terms.strict || (front && front->number == 0)) {
        return true; /* it was counted when it was queued */
    }
    if (promise.started && promise.runs < promise.slots) {
        promise.runs++;
        if (front) {
            front->number = 0;
        }
        return true;
    }
    /* A timer's run beside enough others: one of them serves what is due. */
    if (front) {
        run_keep_locked(promise, user_loop_take(record));
    }
    return false;
}

qor_time_que_node_t *queue_take_locked(qor_core_context_t *core, thread_record *record)
{
    contract &promise = *core->priv->promise;
    qor_time_que_node_t *node = next_locked(core->que, promise);
    if (!node) {
        return nullptr;
    }
    if (que_front_of(node)->flags & que_periodic) {
        return node;
    }
    place_free_locked(promise, node);
    if (!bus_task_of(node)->async) {
        task_run_locked(core, node, record);
    }
    return node;
}

bool queue_periodic(qor_core_context_t *core, qor_time_que_node_t *node)
{
    contract &promise = *core->priv->promise;
    const bus_periodic &timer = *bus_periodic_of(node);
    qor_bus_t *bus = timer.bus; /* which may be gone: then nothing of it may be read */
    hal_scoped_lock lock(core->que->mutex);
    hal_scoped_lock timers(timer.timers->mutex);
    if (timer.priv->gone || core->priv->closed || qor_time_que_enque_locked(core->que, node) < 0) {
        return false;
    }
    qor_que_node_t *run = run_wanted_locked(promise);
    if (run) {
        /* Not asked whether a timer has it: that takes a lock which goes before these, and nobody
         * gets to see the number. */
        user_loop_fill(core, run, bus_session_next(bus));
        if (bus_node_post(bus, run) < 0) {
            run_leave_locked(promise, run);
        }
    }
    return true;
}

} // namespace

const contract_calls contract_queue_calls = {
    /* bind */ queue_bind,
    /* open */ queue_open,
    /* closed_locked */ queue_closed_locked,
    /* admit */ queue_admit,
    /* run_enter_locked */ run_enter_locked,
    /* run_leave_locked */ run_leave_locked,
    /* take_locked */ queue_take_locked,
    /* task_run_locked */ task_run_locked,
    /* task_leaves_locked */ task_leaves_locked,
    /* periodic */ queue_periodic,
    /* serve */ queue_serve,
};
