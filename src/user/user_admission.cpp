/* SPDX-License-Identifier: Apache-2.0 */
/* How a task comes into the private queue of a user context, or past it. Whatever it needs later,
 * its timer, the run that the timer starts, a run of its own, is made before it is accepted. */
#include "user_admission.hpp"

#include "contract.hpp"
#include "message_node.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "trace.hpp"
#include "user_run.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context";

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
    if (!post.core->priv->promise) { /* else it is done where the order is decided */
        qor_time_que_node_update(post.node, static_cast<size_t>(post.session), post.delay);
    }
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
    if (post.message) { /* never asynchronous: its own node will do for the run */
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
        user_loop_fill(core, post.run, qor_bus_session(post.bus));
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

} // namespace

int32_t admission_drop(admission &post)
{
    if (trace_on(QOR_TRACE_TASKS) && post.node && !post.message) {
        trace_recorder().note(nullptr, &post.core->base, trace_what(trace_drop, trace_refused),
                              post.session, -1);
    }
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

int32_t admission_refuse(admission &post, const qor_context_task_t *what)
{
    if (!post.response) {
        sched_delegate_post_refused(&post.core->base, what);
    }
    return admission_drop(post);
}

/* Deliberate: past 50 nodes a task is neither refused nor delayed, it overtakes the queue.
 * Test: CoreContext.TheFiftyFirstTaskGoesStraightToTheBus. */
int32_t admission_bypass(admission &post)
{
    trace_tell(QOR_TRACE_TASKS, &post.core->base, trace_what(trace_bypass), post.session,
               post.delay);
    const int32_t posted = post.bus ? admission_bypass_post_locked(post) : 0;
    post.core->priv->under_way += posted == 0;
    post.core->priv->bypassed += posted == 0;
    qor_time_que_unlock(post.core->que);
    if (posted == 0) {
        return post.bus ? 0 : admission_bypass_handler(post);
    }
    if (post.timer) {
        return admission_refuse(post, bus_task_of(post.timer));
    }
    return post.run ? admission_refuse(post, bus_task_of(post.run)) : admission_drop(post);
}

int32_t admission_timer_locked(admission &post)
{
    user_loop_fill(post.core, post.timer, qor_bus_session(post.bus));
    bus_task_of(post.timer)->delay = post.delay;
    post.number = number_timed | static_cast<uint32_t>(bus_task_of(post.timer)->session);
    que_front_of(post.timer)->number = que_front_of(post.node)->number = post.number;
    if (bus_timer_node_post(post.bus, post.timer) == 0) {
        return 0;
    }
    const user_number wanted = {post.core, post.number};
    time_que_take_if_locked(post.core->que, user_number_is<qor_time_que_node_t>, &wanted);
    post.core->priv->accepted[admission_kind(post)]--; /* nobody has seen it there */
    return -1;
}

int32_t admission_enque_locked(admission &post)
{
    qor_core_context_private *priv = post.core->priv;
    priv->numbers = priv->numbers == INT32_MAX ? 1 : priv->numbers + 1;
    post.number = que_front_of(post.node)->number = priv->numbers;
    if (qor_time_que_enque_locked(post.core->que, post.node) < 0) {
        return -1;
    }
    priv->accepted[admission_kind(post)]++;
    const uint32_t length = static_cast<uint32_t>(post.core->que->count);
    if (priv->highest < length) {
        priv->highest = length;
    }
    return 0;
}

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
    if (trace_on(QOR_TRACE_TASKS) && !sched_delegate_carries(task)) {
        trace_recorder().note(nullptr, context, trace_what(trace_post), task->session, task->delay);
    }
    contract *promise = post.core->priv->promise;
    int32_t posted;
    if (admission_make(post, task) < 0) {
        QOR_ERR("malloc \"que_node\" failed.");
        contract_refused(promise);
        posted = admission_drop(post);
    } else {
        posted = promise ? promise->calls->admit(post) : admission_queue(post);
    }
    if (posted < 0) {
        __atomic_fetch_add(&post.core->priv->refused, 1, __ATOMIC_RELAXED);
    }
    return posted;
}
