/* SPDX-License-Identifier: Apache-2.0 */
/* Deferred requests. What ends one decides under the table's lock, and whoever is the last to let
 * go of it, that or the handler, hands it on. */
#include "qor_deferred.h"

#include <string.h>

#include "contract.hpp"
#include "deferral_table.hpp"
#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_deferred_priv.hpp"
#include "qor_diag.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_front.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_deferred";

/* For a bus that is there; bus_stopping() stays small enough to be inlined where it counts. */
bool bus_quits(const qor_bus_t *bus)
{
    return hal_load(bus->priv->stopping);
}

/* An open one, or NULL. One of a bus that quits is as good as discarded. */
deferral *open_locked(uint64_t token)
{
    deferral *entry = deferral_find_locked(token);
    return entry && entry->state == deferral_open && !bus_quits(entry->bus) ? entry : nullptr;
}

/* Drops one hold. The last one hands the request on, or frees it. */
void deferral_drop_locked(deferral *entry)
{
    if (--entry->holds > 0) {
        return;
    }
    if (entry->state == deferral_ended) {
        /* Refused when the bus has quit in the meantime: then that has freed it. */
        sched_delegate_finish_post(entry->node, entry->publisher, entry->msg, entry->ret);
        bus_busy_end(entry->bus); /* from here on drain waits for the task */
    } else {
        qor_que_node_destroy(entry->node, nullptr);
        qor_context_msg_destroy(entry->msg);
    }
    deferral_give_back_locked(entry);
}

void *qor_deferred_expire(qor_context_t *publisher, int32_t serial, void *index);

bool timer_is_mine(const qor_time_que_node_t *node, const void *index)
{
    const qor_context_task_t *task = bus_task_of(const_cast<qor_time_que_node_t *>(node));
    return task->fun_type != QOR_CONTEXT_FUN_RUN && task->fun.runx == qor_deferred_expire &&
           task->arg == index;
}

void *timer_arg(const deferral *entry)
{
    return reinterpret_cast<void *>(
        static_cast<uintptr_t>(static_cast<uint32_t>(deferral_token_locked(entry))));
}

/* Takes the timer back. One that has fallen due in the meantime finds nothing of its number. */
void timer_drop_locked(deferral *entry)
{
    qor_time_que_node_t *timer =
        entry->timed ? time_que_take_id_if(entry->bus->time_que, static_cast<size_t>(entry->serial),
                                           timer_is_mine, timer_arg(entry))
                     : nullptr;
    if (timer) {
        qor_time_que_node_destroy(timer, nullptr);
    }
}

/* Where every deferral begins: 0, or -1 when its timer is refused. */
int32_t deferral_begin_locked(deferral *entry, qor_time_que_node_t *timer)
{
    if (timer) {
        qor_context_task_t *task = bus_task_of(timer);
        const int32_t delay = task->delay;
        qor_context_taskx_init(task, entry->publisher, nullptr, entry->serial, qor_deferred_expire,
                               timer_arg(entry));
        task->delay = delay;
        que_front_of(timer)->flags = que_own;
        if (bus_timer_node_post(entry->bus, timer) < 0) {
            return -1;
        }
    }
    bus_busy_begin(entry->bus);
    entry->since = util_timestamp();
    entry->state = deferral_open;
    entry->holds = 2; /* for being open, for its handler */
    return 0;
}

/* Who has ended it; a handler's result is never the reserved one. */
trace_completion completion_of(deferral_state state, int32_t ret)
{
    if (state == deferral_discarded) {
        return trace_by_discard;
    }
    return ret == QOR_RET_EXPIRED ? trace_by_time : trace_by_handler;
}

/* Where every deferral ends. The hold for being open passes to the caller. */
void deferral_end_locked(deferral *entry, deferral_state state, int32_t ret)
{
    trace_tell(QOR_TRACE_REQUESTS, entry->subscriber,
               trace_what(trace_completed, completion_of(state, ret)), entry->msg->session, ret);
    timer_drop_locked(entry);
    entry->state = state;
    entry->ret = ret;
    if (contract *promise = sched_delegate_contract(entry->subscriber)) {
        contract_deferred_over(*promise);
    }
    if (state == deferral_discarded) {
        bus_busy_end(entry->bus);
    }
}

/* The body of the limit's timer. */
void *qor_deferred_expire(qor_context_t *, int32_t serial, void *index)
{
    hal_scoped_lock lock(deferrals_mutex);
    const uint64_t token = static_cast<uint64_t>(serial) << 32 |
                           static_cast<uint32_t>(reinterpret_cast<uintptr_t>(index));
    deferral *entry = open_locked(token);
    if (entry) {
        deferral_end_locked(entry, deferral_ended, QOR_RET_EXPIRED);
        deferral_drop_locked(entry);
    }
    return nullptr;
}

/* What the publisher gets of a result. */
int32_t result_of(int32_t ret)
{
    return ret > QOR_RET_GONE ? ret : -1;
}

/* The printed name is the caller's. */
void result_complain(int32_t ret, const char *func)
{
    if (ret <= QOR_RET_GONE) {
        QOR_LINE("err", func, "the result %d is reserved.", ret);
    }
}

/* The handler is over; with a negative result that ends the request. */
void deferral_return_locked(deferral *entry, int32_t ret)
{
    if (ret < 0 && entry->state == deferral_open) {
        deferral_end_locked(entry, deferral_ended, result_of(ret));
        entry->holds--; /* the handler's is left */
    }
    deferral_drop_locked(entry);
}

/* A module's handler is called with its own context, which leads to the one on the bus. */
bool request_is(const thread_request *handled, const qor_context_t *self,
                const qor_context_msg_t *msg)
{
    return handled && handled->msg == msg &&
           (handled->aim == self || handled->aim == self->pub_data);
}

bool is_going_down(const qor_bus_t *bus, const qor_context_t *context)
{
    return bus_quits(bus) ||
           (sched_delegate_bus(context) && hal_load(delegate_of(context)->priv->closed));
}

/* What a deferral takes along from the start. */
struct deferral_parts {
    qor_que_node_t *node;
    qor_time_que_node_t *timer; /* NULL without a limit */
};

int32_t parts_make(deferral_parts &parts, int32_t wait_time)
{
    parts.node = message_node_create_for_bus();
    parts.timer = parts.node && wait_time > 0 ? bus_timer_node() : nullptr;
    if (parts.timer) {
        bus_task_of(parts.timer)->delay = wait_time;
    }
    return parts.node && (parts.timer || wait_time < 0) ? 0 : -1;
}

void parts_drop(deferral_parts &parts)
{
    if (parts.node) {
        qor_que_node_destroy(parts.node, nullptr);
    }
    if (parts.timer) {
        qor_time_que_node_destroy(parts.timer, nullptr);
    }
}

constexpr char no_memory[] = "no memory to defer a request.";

/* Enters a request into the table: NULL, or what is wrong, and the parts stay the caller's. */
const char *deferral_add(thread_request &handled, deferral_parts &parts)
{
    qor_bus_t *bus = delegate_of(handled.publisher)->bus;
    hal_scoped_lock lock(deferrals_mutex);
    /* Under the lock: what discards all of a bus or module comes after it knows of its end. */
    if (is_going_down(bus, handled.aim)) {
        return "the bus or the module ends.";
    }
    contract *promise = sched_delegate_contract(handled.aim);
    if (promise && contract_defer(*promise) < 0) {
        return "open_max: as many requests are open as may be.";
    }
    deferral *entry = deferral_take_locked();
    if (!entry) {
        contract_defer_undo(promise);
        return no_memory;
    }
    entry->bus = bus;
    entry->publisher = handled.publisher;
    entry->subscriber = handled.aim;
    entry->msg = const_cast<qor_context_msg_t *>(handled.msg);
    entry->topic = handled.msg->topic;
    entry->session = handled.msg->session;
    entry->node = parts.node;
    entry->timed = parts.timer != nullptr;
    if (deferral_begin_locked(entry, parts.timer) < 0) {
        deferral_give_back_locked(entry);
        contract_defer_undo(promise);
        return "the bus or the module ends.";
    }
    handled.deferral = deferral_token_locked(entry);
    trace_tell(QOR_TRACE_REQUESTS, handled.aim, trace_what(trace_deferred), handled.msg->session,
               handled.msg->topic);
    return nullptr;
}

/* An open one. Its publisher, and what it has, is still there now, but perhaps not when the handler
 * returns. */
void deferral_discard_locked(deferral *entry)
{
    contract_reply_back(sched_delegate_contract(entry->publisher));
    deferral_end_locked(entry, deferral_discarded, 0);
    deferral_drop_locked(entry);
}

int32_t response_room(const qor_context_msg_t *msg)
{
    return msg->response.buf && msg->response.size > 0 ? msg->response.size : 0;
}

int32_t request_size(const qor_context_msg_t *msg)
{
    return msg->request.buf && msg->request.size > 0 ? msg->request.size : 0;
}

void deferral_drop(uint64_t token)
{
    hal_scoped_lock lock(deferrals_mutex);
    deferral_drop_locked(deferral_find_locked(token));
}

void deferred_returned(uint64_t token, int32_t ret)
{
    result_complain(ret, "qor_context_defer");
    hal_scoped_lock lock(deferrals_mutex);
    deferral_return_locked(deferral_find_locked(token), ret);
}

bool deferred_left(const qor_context_msg_t *msg)
{
    hal_scoped_lock lock(deferrals_mutex);
    for (uint32_t i = 0; deferral *entry = deferral_at_locked(i); i++) {
        if (entry->state != deferral_free && entry->msg == msg) {
            deferral_return_locked(entry, -1);
            return true;
        }
    }
    return false;
}

void deferred_subscriber_over(const qor_context_t *context)
{
    hal_scoped_lock lock(deferrals_mutex);
    for (uint32_t i = 0; deferral *entry = deferral_at_locked(i); i++) {
        if (entry->state == deferral_open && entry->subscriber == context) {
            deferral_discard_locked(entry);
        }
    }
}

void deferred_bus_over(const qor_bus_t *bus)
{
    hal_scoped_lock lock(deferrals_mutex);
    for (uint32_t i = 0; deferral *entry = deferral_at_locked(i); i++) {
        if (entry->state == deferral_open && entry->bus == bus) {
            deferral_discard_locked(entry);
        } else if (entry->state == deferral_ended && entry->bus == bus) {
            contract_reply_back(sched_delegate_contract(entry->publisher));
            entry->state = deferral_discarded;
        }
    }
}

constexpr deferred_calls calls = {
    /* returned */ deferred_returned,
    /* left */ deferred_left,
    /* subscriber_over */ deferred_subscriber_over,
    /* bus_over */ deferred_bus_over,
};

} // namespace

int32_t qor_context_defer(qor_context_t *self, qor_context_msg_t *msg, int32_t wait_time,
                          uint64_t *token)
{
    QOR_CHECK(self, -1);
    QOR_CHECK(msg, -1);
    QOR_CHECK(wait_time != 0, -1);
    QOR_CHECK(token, -1);
    const thread_record *record = thread_record_get();
    thread_request *handled = record ? record->handled : nullptr;
    if (!request_is(handled, self, msg)) {
        QOR_ERR("only the handler of an asynchronous request can defer it.");
        return -1;
    }
    if (handled->deferral) {
        QOR_ERR("the request is deferred already.");
        return -1;
    }
    hal_store(deferred_made, &calls);
    deferral_parts parts = {};
    const char *problem =
        parts_make(parts, wait_time) < 0 ? no_memory : deferral_add(*handled, parts);
    if (problem) {
        parts_drop(parts);
        QOR_ERR("%s", problem);
        return -1;
    }
    *token = handled->deferral;
    return 0;
}

int32_t qor_deferred_request(uint64_t token, void *dst, int32_t size)
{
    QOR_CHECK(size >= 0, -1);
    QOR_CHECK(dst || size == 0, -1);
    const qor_context_msg_t *msg = nullptr;
    {
        hal_scoped_lock lock(deferrals_mutex);
        deferral *entry = open_locked(token);
        if (entry) {
            entry->holds++;
            msg = entry->msg;
        }
    }
    if (!msg) {
        QOR_ERR("the token is not open.");
        return -1;
    }
    const int32_t whole = request_size(msg);
    if (size > 0 && whole > 0) {
        memcpy(dst, msg->request.buf, static_cast<size_t>(size < whole ? size : whole));
    }
    deferral_drop(token);
    return whole;
}

int32_t qor_deferred_complete(uint64_t token, int32_t ret, const void *data, int32_t size)
{
    QOR_CHECK(size >= 0, -1);
    QOR_CHECK(data || size == 0, -1);
    qor_context_msg_t *msg = nullptr;
    int32_t room = 0;
    {
        hal_scoped_lock lock(deferrals_mutex);
        deferral *entry = open_locked(token);
        if (entry) {
            msg = entry->msg;
            room = response_room(msg);
            if (size <= room) {
                deferral_end_locked(entry, deferral_ended, result_of(ret));
            }
        }
    }
    if (!msg) {
        QOR_ERR("the token is not open.");
        return -1;
    }
    if (size > room) {
        QOR_ERR("the response has room for %d bytes, not for %d.", room, size);
        return -1;
    }
    if (data) {
        msg->response.size = size;
    }
    if (size > 0) {
        memcpy(msg->response.buf, data, static_cast<size_t>(size));
    }
    deferral_drop(token);
    result_complain(ret, __func__);
    return 0;
}
