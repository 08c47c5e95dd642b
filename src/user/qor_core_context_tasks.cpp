/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context: takes tasks, and the runs on the bus's workers drain it.
 * Whatever a task needs later, its timer, the run that the timer starts, a run of its own, is made
 * before the task is accepted. */
#include <string.h>

#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context";

/* What the monitor is told of a task; a copy, for the task may be gone when it is over. */
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

/* A task that was under way is over. The caller holds the queue's lock. */
void user_task_over_locked(qor_core_context_t *core)
{
    if (--core->priv->under_way == 0 && core->priv->closed) {
        qor_time_que_wakeup_locked(core->que); /* for user_tasks_await() */
    }
}

void user_task_over(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    user_task_over_locked(core);
}

qor_core_context_t *core_of(const qor_time_que_node_t *node)
{
    return static_cast<qor_core_context_t *>(const_cast<void *>(que_front_of(node)->owner));
}

/* What an ended task carried, when it has not run to its end: a request is answered for it. */
void user_task_refuse(void *task)
{
    if (sched_delegate_is_relay(static_cast<qor_context_task_t *>(task))) {
        sched_delegate_relay_refuse(task);
    } else {
        qor_context_task_uninit(static_cast<qor_context_task_t *>(task));
    }
}

/* Destroys a node whose task is not run, or not to its end. */
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
    qor_core_context_t *core = core_of(node);
    qor_sys_monitor_task_t report = monitor_report(bus_task_of(node));
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_OVER);
    user_node_refuse(node);
    user_task_over(core);
}

/* The same where the response has taken the node along. */
void user_task_left_without(void *core)
{
    user_task_over(static_cast<qor_core_context_t *>(core));
}

/* Runs a task that is under way, and destroys its node. */
void *user_task_run(qor_core_context_t *core, qor_time_que_node_t *node)
{
    thread_record *record = thread_record_get();
    thread_scope inside(user_task_left, node, record);
    qor_context_task_t *task = bus_task_of(node);
    message_offer offer(sched_delegate_request(node, task), record);
    qor_sys_monitor_task_t report = monitor_report(task);
    monitor_tell(&core->base, report, QOR_SYS_MONITOR_TASK_START);
    /* Deliberate: the name stays afterwards; the worker sets its own before it runs or waits again.
     * Test: CoreContext.ATasksNameStaysOnTheThread. */
    bus_thread_name_set(sched_delegate_bus(&core->base), task->name);
    void *result = qor_context_task_excute(task);
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

bool user_is_closed(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->que->mutex);
    return core->priv->closed;
}

/* The run of a single node on the bus, which destroys the node. */
void *qor_core_context_task_node_deal(qor_context_t *context, int32_t, void *arg)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_time_que_node_t *node = static_cast<qor_time_que_node_t *>(arg);
    void *result = nullptr;
    if (user_is_closed(core)) {
        user_node_refuse(node);
    } else {
        result = user_task_run(core, node);
    }
    user_task_over(core);
    return result;
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
    user_task_over(core);
}

/* The run of a request or response that has gone past the queue. Its node is the worker's. */
void *user_message_run(qor_context_t *context, int32_t, void *arg)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_que_node_t *node = static_cast<qor_que_node_t *>(arg);
    void *result = nullptr;
    if (user_is_closed(core)) {
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
    user_task_over(core);
    return result;
}

/* Such a run is discarded. Takes its body as void *, so that it can stand in for a recycle. */
void message_run_discard(void *body)
{
    const message_run *run = static_cast<const message_run *>(body);
    qor_context_task_t task = message_task(*run);
    user_task_discard(&task);
    user_task_over(qor_core_context_type(run->task.context));
}

/* Such a run is not run: its node, and with it the task, is released. */
void user_run_discard(void *run)
{
    const qor_context_task_t *task = static_cast<const qor_context_task_t *>(run);
    qor_time_que_node_destroy(static_cast<qor_time_que_node_t *>(task->arg), user_task_discard);
    user_task_over(qor_core_context_type(task->context));
}

void user_run_refuse(void *run)
{
    const qor_context_task_t *task = static_cast<const qor_context_task_t *>(run);
    user_node_refuse(static_cast<qor_time_que_node_t *>(task->arg));
    user_task_over(qor_core_context_type(task->context));
}

/* Makes the task of a bus node, of the task queue or of the timer queue, a loop run. The session is
 * drawn for it. One that was a loop run before needs no more. */
template <typename N> void user_loop_fill(qor_core_context_t *core, qor_bus_t *bus, N *run)
{
    if (que_front_of(run)->owner == core) {
        bus_task_of(run)->session = qor_bus_session(bus);
        return;
    }
    qor_context_task_init(bus_task_of(run), &core->base, nullptr, qor_bus_session(bus),
                          run_of(qor_core_context_loop), &core->base);
    que_front_of(run)->owner = core;
    que_front_of(run)->flags = que_own | que_quiet | que_again;
}

/* Takes the node of the loop run that the calling worker is in over from it; NULL when a loop is
 * called any other way. */
qor_que_node_t *user_loop_take()
{
    thread_record *record = thread_record_get();
    qor_que_node_t *run = record ? static_cast<qor_que_node_t *>(record->running) : nullptr;
    if (!run || !(que_front_of(run)->flags & que_again)) {
        return nullptr;
    }
    record->running = nullptr;
    que_front_of(run)->number = 0; /* the delayed task that it began with has been served */
    return run;
}

/* Keeps the node of a loop run that ends for the next one. The caller holds the queue's lock. */
void user_loop_keep_locked(qor_core_context_t *core)
{
    if (!core->priv->loop) {
        core->priv->loop = user_loop_take();
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
bool user_loop_gives_way(qor_bus_t *bus)
{
    qor_que_node_t *run = user_loop_take();
    if (!run) {
        return false;
    }
    if (bus_node_post(bus, run) == 0) {
        return true;
    }
    qor_que_node_destroy(run, nullptr); /* the bus quits, and the run ends here */
    return false;
}

/* Makes it the run of a node. Its session is the task's own when it goes straight to the bus. */
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

/* Makes the node of a request or response its run past the queue. */
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

/* Never below 0: runs that timers start give back slots that they have not taken. The caller holds
 * the queue's lock. */
void slot_give_back_locked(qor_core_context_t *core)
{
    if (core->refcount > 0) {
        core->refcount--;
    }
}

/* A post on its way in: all memory is made first, then the task is queued, or the post is refused
 * and drops what it has. */
struct admission {
    qor_core_context_t *core;
    qor_bus_t *bus;             /* NULL: not attached, and the handler table takes the runs */
    qor_time_que_node_t *node;  /* the task; a spare behind it when it is asynchronous */
    qor_time_que_node_t *timer; /* of a delayed task: what starts its run */
    qor_que_node_t *run;        /* of a task that is due: made when it needs one */
    uint32_t number;            /* the node's, once it has been enqueued */
    int32_t session;
    int32_t delay; /* ms */
    bool message;  /* a request or response: its node serves past the queue too */
    bool response; /* its memory was had with the request, and its refusal prints nothing */
};

qor_time_que_node_t *admission_node(const admission &post)
{
    if (post.response) {
        return message_node_for_response();
    }
    return post.message ? message_node_create()
                        : time_que_node_unfilled(sizeof(qor_context_task_t));
}

/* Makes what can be made without the queue's lock: 0, or -1 without memory. */
int32_t admission_make(admission &post, const qor_context_task_t *task)
{
    post.node = admission_node(post);
    if (!post.node) {
        return -1;
    }
    qor_time_que_node_update(post.node, static_cast<size_t>(post.session), post.delay);
    qor_context_task_copy(bus_task_of(post.node), task);
    que_front *front = que_front_of(post.node);
    front->owner = post.core;
    if (!post.bus) {
        return 0;
    }
    if (task->async) {
        front->spare = bus_node();
    }
    post.timer = post.delay > 0 ? bus_timer_node() : nullptr;
    return (task->async && !front->spare) || (post.delay > 0 && !post.timer) ? -1 : 0;
}

/* Ends a post that is refused: the argument stays the caller's. */
int32_t admission_drop(admission &post)
{
    if (post.node) {
        qor_time_que_node_destroy(post.node, nullptr);
    }
    if (post.timer) {
        qor_time_que_node_destroy(post.timer, nullptr);
    }
    if (post.run) {
        qor_que_node_destroy(post.run, nullptr);
    }
    return -1;
}

/* The same with a line that names what was not posted to the bus: the run, or the task itself. */
int32_t admission_refuse(admission &post, const qor_context_task_t *what)
{
    if (!post.response) {
        sched_delegate_post_refused(&post.core->base, what);
    }
    return admission_drop(post);
}

/* Has the run of a task that is due: 0, or -1 without memory. The caller holds the queue's lock. */
int32_t admission_run_make(admission &post)
{
    if (post.bus && !post.run) {
        post.run = post.core->priv->loop ? post.core->priv->loop : bus_node();
        post.core->priv->loop = nullptr;
    }
    return post.bus && !post.run ? -1 : 0;
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

/* A task goes past the queue where there is no bus to know of. */
int32_t admission_bypass_handler(admission &post)
{
    qor_context_t *wrapper = &post.core->base;
    const qor_context_runx_t deal = qor_core_context_task_node_deal;
    const int32_t posted =
        post.delay > 0 ? qor_context_timerx_s(wrapper, post.session, deal, post.node, post.delay)
                       : qor_context_runx_s(wrapper, post.session, deal, post.node);
    if (posted < 0) {
        user_task_over(post.core);
        return admission_drop(post);
    }
    return posted;
}

/* Queues the run of a task that goes past the queue: its run, or the timer that starts it. 0, or
 * -1; what there is of them stays. The caller holds the queue's lock, so that the context is not
 * closed in between. */
int32_t admission_bypass_post_locked(admission &post)
{
    if (post.timer) {
        user_run_fill(post.core, post.timer, post.node, post.session, 0);
        bus_task_of(post.timer)->delay = post.delay;
        return bus_timer_node_post(post.bus, post.timer);
    }
    if (post.message && !que_front_of(post.node)->spare) {
        if (post.run) {
            post.core->priv->loop = post.run; /* made for the queue that is full */
        }
        post.run = user_message_fill(post.core, post.node);
        post.node = nullptr;
        return bus_node_post(post.bus, post.run);
    }
    if (admission_run_make(post) < 0) {
        return -1;
    }
    user_run_fill(post.core, post.run, post.node, post.session, 0);
    return bus_node_post(post.bus, post.run);
}

/* The queue is full or quits, or there is no memory for the run of a response: the task goes to the
 * bus under its own session. Gives the lock up.
 *
 * Deliberate: past 50 nodes a task is neither refused nor delayed, it overtakes the queue.
 * Test: CoreContext.TheFiftyFirstTaskGoesStraightToTheBus. */
int32_t admission_bypass(admission &post)
{
    const int32_t posted = post.bus ? admission_bypass_post_locked(post) : 0;
    post.core->priv->under_way += posted == 0;
    qor_time_que_unlock(post.core->que);
    if (posted == 0) {
        return post.bus ? 0 : admission_bypass_handler(post);
    }
    if (post.timer) {
        return admission_refuse(post, bus_task_of(post.timer));
    }
    return post.run ? admission_refuse(post, bus_task_of(post.run)) : admission_drop(post);
}

/* No run could be had for a node that has been enqueued: the task is refused, unless a run that was
 * under way has taken it in the meantime. Then it went well, and nothing is said of the run. */
int32_t admission_undo(admission &post)
{
    const user_number wanted = {post.core, post.number};
    if (!time_que_take_if(post.core->que, user_number_is<qor_time_que_node_t>, &wanted)) {
        post.node = nullptr;
        admission_drop(post);
        return 0;
    }
    return post.run ? admission_refuse(post, bus_task_of(post.run)) : admission_drop(post);
}

/* Starts the run of a task that has been enqueued; the slot for it is taken. */
int32_t admission_run(admission &post)
{
    qor_core_context_t *core = post.core;
    int32_t posted = 0;
    if (post.bus) {
        user_loop_fill(core, post.bus, post.run);
        posted = bus_node_post(post.bus, post.run);
    } else {
        posted = qor_context_run(&core->base, run_of(qor_core_context_loop), &core->base);
    }
    if (posted >= 0) {
        return 0;
    }
    qor_time_que_lock(core->que);
    slot_give_back_locked(core);
    qor_time_que_unlock(core->que);
    return admission_undo(post);
}

/* Starts the timer of a task that has been enqueued, slot or no slot. The caller holds the queue's
 * lock, so that nobody cancels the task in between. 0, or -1 when the bus quits. */
int32_t admission_timer_locked(admission &post)
{
    user_loop_fill(post.core, post.bus, post.timer);
    bus_task_of(post.timer)->delay = post.delay;
    post.number = number_timed | static_cast<uint32_t>(bus_task_of(post.timer)->session);
    que_front_of(post.timer)->number = que_front_of(post.node)->number = post.number;
    if (bus_timer_node_post(post.bus, post.timer) == 0) {
        return 0;
    }
    const user_number wanted = {post.core, post.number};
    time_que_take_if_locked(post.core->que, user_number_is<qor_time_que_node_t>, &wanted);
    return -1;
}

/* Ends the post of a delayed task that has been enqueued. Gives the lock up. */
int32_t admission_later(admission &post)
{
    qor_context_t *wrapper = &post.core->base;
    const int32_t timed = post.bus ? admission_timer_locked(post) : 0;
    qor_time_que_unlock(post.core->que);
    if (timed < 0) {
        return admission_refuse(post, bus_task_of(post.timer));
    }
    const qor_context_run_t loop = run_of(qor_core_context_loop);
    return !post.bus && qor_context_timer(wrapper, loop, wrapper, post.delay) < 0
               ? admission_undo(post)
               : 0;
}

/* Gives the node its number and enqueues it: 0, or -1 when the queue does not take it. The caller
 * holds the queue's lock. */
int32_t admission_enque_locked(admission &post)
{
    qor_core_context_private *priv = post.core->priv;
    priv->numbers = priv->numbers == INT32_MAX ? 1 : priv->numbers + 1;
    post.number = que_front_of(post.node)->number = priv->numbers;
    return qor_time_que_enque_locked(post.core->que, post.node);
}

int32_t admission_queue(admission &post)
{
    qor_core_context_t *core = post.core;
    qor_time_que_lock(core->que);
    if (core->priv->closed) {
        qor_time_que_unlock(core->que);
        return admission_refuse(post, bus_task_of(post.node));
    }
    const bool due = post.delay <= 0;
    const bool takes_slot = due && static_cast<uint32_t>(core->refcount) < core->refcount_max;
    if (takes_slot && admission_run_make(post) < 0 && !post.response) {
        qor_time_que_unlock(core->que);
        return admission_drop(post);
    }
    if ((takes_slot && !post.run && post.bus) || admission_enque_locked(post) < 0) {
        return admission_bypass(post);
    }
    if (!due) {
        return admission_later(post);
    }
    core->refcount += takes_slot;
    qor_time_que_unlock(core->que);
    if (takes_slot) {
        return admission_run(post);
    }
    /* A run that has a slot takes the task, unless the bus quits: then it ends first. */
    return bus_stopping(post.bus) ? admission_undo(post) : 0;
}

bool user_any(const qor_time_que_node_t *, const void *)
{
    return true;
}

/* A message's run that is not run is refused, and its node destroyed. */
void message_run_end(qor_que_node_t *node)
{
    qor_core_context_t *core = qor_core_context_type(bus_task_of(node)->context);
    if (!message_run_refuse(node)) {
        qor_que_node_destroy(node, nullptr);
    }
    user_task_over(core);
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

} // namespace

int32_t qor_core_context_handle_task(qor_context_t *context, qor_context_task_t *task)
{
    QOR_CHECK(task, -1);
    admission post = {};
    post.core = qor_core_context_type(context);
    post.bus = sched_delegate_bus(context);
    post.session = task->session;
    post.delay = task->delay;
    post.response = sched_delegate_is_response(task);
    post.message = post.response || sched_delegate_is_relay(task);
    if (admission_make(post, task) < 0) {
        QOR_ERR("malloc \"que_node\" failed.");
        return admission_drop(post);
    }
    return admission_queue(post);
}

int32_t qor_core_context_loop(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_bus_t *bus = sched_delegate_bus(context);
    loop_turn turn = {};
    qor_time_que_lock(core->que);
    while (!bus_stopping(bus) && !core->priv->closed) {
        if (!list_empty(&core->que->head) && loop_turn_is_over(turn, bus)) {
            qor_time_que_unlock(core->que);
            if (user_loop_gives_way(bus)) {
                return 0;
            }
            qor_time_que_lock(core->que);
            continue;
        }
        qor_time_que_node_t *node = qor_time_que_deque_locked(core->que);
        if (!node) {
            break;
        }
        core->priv->under_way++;
        if (bus_task_of(node)->async) {
            user_task_spread_locked(core, node);
            continue;
        }
        qor_time_que_unlock(core->que);
        user_task_run(core, node);
        turn.tasks++;
        qor_time_que_lock(core->que);
        user_task_over_locked(core);
    }
    /* Still under the lock that the queue was found empty under: a poster either enqueued before
     * and was served, or finds the slot free. */
    /* Deliberate: a run that a timer started took no slot, but gives one back as well.
     * Test: CoreContext.ARunStartedByATimerGivesASlotBack. */
    slot_give_back_locked(core);
    user_loop_keep_locked(core);
    /* Deliberate: nobody looks here when the next node will be due: each delayed task has a timer.
     * Test: CoreContext.ADelayedTaskIsReachedByItsOwnTimer. */
    qor_time_que_unlock(core->que);
    return 0;
}

int32_t user_task_cancel(qor_core_context_t *core, int32_t session)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    qor_time_que_lock(core->que);
    qor_time_que_node_t *node = qor_time_que_remove_locked(core->que, static_cast<size_t>(session));
    const bool timed = node && bus && bus->time_que && bus_task_of(node)->delay > 0;
    const user_number wanted = {core, node ? que_front_of(node)->number : 0};
    qor_time_que_node_t *timer =
        timed ? time_que_take_id_if(bus->time_que, wanted.number & ~number_timed,
                                    user_number_is<qor_time_que_node_t>, &wanted)
              : nullptr;
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
}

void user_tasks_refuse(qor_core_context_t *core)
{
    qor_bus_t *bus = sched_delegate_bus(&core->base);
    while (qor_time_que_node_t *node = time_que_take_if(core->que, user_any, nullptr)) {
        user_node_refuse(node);
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
}

void user_tasks_await(qor_core_context_t *core)
{
    thread_scopes_each(user_task_left, [](void *node) {
        qor_core_context_t *below = core_of(static_cast<qor_time_que_node_t *>(node));
        hal_scoped_lock lock(below->que->mutex);
        user_task_over_locked(below);
    });
    {
        hal_scoped_lock lock(core->que->mutex);
        while (core->priv->under_way > 0) {
            qor_time_que_wait_locked(core->que);
        }
    }
    thread_scopes_each(user_task_left, [](void *node) {
        qor_core_context_t *below = core_of(static_cast<qor_time_que_node_t *>(node));
        hal_scoped_lock lock(below->que->mutex);
        below->priv->under_way++;
    });
}
