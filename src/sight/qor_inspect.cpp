/* SPDX-License-Identifier: Apache-2.0 */
/* Inspection: reads one record after the other, each under the locks that guard its fields, and
 * shows it without them. What it counts on to stay meanwhile, delegates and user contexts, is freed
 * by close alone, which waits. */
#include "qor_inspect.h"

#include "contract.hpp"
#include "deferral_table.hpp"
#include "hal_sync.hpp"
#include "info.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_core_context_priv.hpp"
#include "qor_deferred_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_topic_core.h"
#include "qor_topic_epoch.hpp"
#include "qor_util.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_inspect";

/* What is inspected, for whom. */
struct inspection {
    qor_bus_t *bus;
    qor_see_t see;
    void *arg;
};

template <typename R> int32_t record_show(const inspection &to, int32_t kind, R &record)
{
    record.size = sizeof(record);
    return to.see(to.arg, kind, &record);
}

int32_t ms_between(int64_t from, int64_t to)
{
    const int64_t ms = to - from;
    return static_cast<int32_t>(ms < -INT32_MAX ? -INT32_MAX : ms > INT32_MAX ? INT32_MAX : ms);
}

const qor_time_que_node_t *timed_node(const list_head *link)
{
    return reinterpret_cast<const qor_time_que_node_t *>(link); /* first field */
}

void tasks_read(const qor_bus_t *bus, qor_info_bus_t &info)
{
    hal_scoped_lock lock(bus->que->mutex);
    const que_lengths lengths = que_lengths_locked(bus->que);
    info.queued = lengths.now;
    info.queued_max = lengths.highest;
    info.idle = info.workers ? lengths.takers : 0;
}

void timers_read_locked(const qor_time_que_t *timers, qor_info_bus_t &info)
{
    if (!list_empty(&timers->head)) { /* else count may be that of what is being discarded */
        info.timers = static_cast<uint32_t>(timers->count);
        info.next_timer_ms = ms_between(util_timestamp(), timed_node(timers->head.next)->when);
    }
}

int32_t bus_show(const inspection &to)
{
    qor_info_bus_t info = {};
    info_bus_read(to.bus, info);
    return record_show(to, QOR_INFO_BUS, info);
}

/* How many tasks are due. Looked for from both ends at once, so that neither many that are due nor
 * many that are not hold the queue up. */
uint32_t due_count_locked(const qor_time_que_t *que, int64_t now)
{
    const list_head *front = que->head.next;
    const list_head *back = que->head.prev;
    const uint32_t count = static_cast<uint32_t>(que->count);
    for (uint32_t passed = 0; passed < count; passed++) {
        if (timed_node(front)->when > now) {
            return passed;
        }
        if (timed_node(back)->when <= now) {
            return count - passed;
        }
        front = front->next;
        back = back->prev;
    }
    return count;
}

void queue_read_locked(const qor_time_que_t *que, qor_info_context_t &info)
{
    const int64_t now = util_timestamp();
    info.queued = static_cast<uint32_t>(que->count);
    info.delayed = info.queued - due_count_locked(que, now);
    if (info.delayed < info.queued) {
        info.waiting_ms = ms_between(timed_node(que->head.next)->when, now);
    }
}

/* The part of a contract that its queue's lock guards. */
void ledger_read_locked(contract &promise, qor_info_context_t &info)
{
    info.ledger = contract_ledger_locked(promise);
    info.bypassed = static_cast<uint32_t>(info.ledger.bypassed);
    info.refused = static_cast<uint32_t>(info.ledger.refused);
    info.replies = hal_load(promise.replies);
    util_list_each(promise.blocked, [&info](list_head *) { info.blocked++; });
    if (promise.terms.strict) {
        info.runs = promise.runs;
        info.runs_max = promise.slots;
    }
}

/* The module's contract, or NULL; it is the queue's own once that is known to the bus. */
void user_read(qor_core_context_t &core, contract *promise, qor_info_context_t &info)
{
    const qor_core_context_private &priv = *core.priv;
    hal_scoped_lock lock(core.que->mutex);
    queue_read_locked(core.que, info);
    info.lifecycle = hal_load(core.lifecycle);
    info.runs = static_cast<uint32_t>(core.refcount);
    info.runs_max = core.refcount_max;
    info.queued_max = priv.highest;
    info.requests = priv.accepted[user_request];
    info.responses = priv.accepted[user_response];
    info.tasks = priv.accepted[user_plain];
    info.bypassed = priv.bypassed;
    info.refused = hal_load(priv.refused);
    if (promise && promise->mutex) {
        ledger_read_locked(*promise, info);
    }
}

void terms_read(const contract &promise, qor_info_context_t &info)
{
    info.contract = 1;
    info.strict = promise.terms.strict;
    info.depth = promise.terms.depth;
    info.replies_max = promise.terms.replies;
    info.open_max = promise.terms.open_max;
    info.overflow = promise.terms.overflow;
    info.limit = promise.terms.strict ? promise.slots : 0;
}

/* Of a context that is not a user context nothing is read: whoever has attached it may have freed
 * it since. */
void context_read_locked(const qor_sched_delegate_t *delegate, qor_info_context_t &info)
{
    const qor_sched_delegate_private &priv = *delegate->priv;
    util_name_copy(info.name, priv.module->name);
    info.role = delegate->role;
    info.lifecycle = -1;
    info.failed = hal_load(priv.failed);
    if (priv.promise) {
        terms_read(*priv.promise, info);
    }
    if (priv.cls == &qor_core_context_class) {
        user_read(*qor_core_context_type(delegate->context), priv.promise, info);
    }
    info.ledger.size = priv.promise ? sizeof(info.ledger) : 0;
}

/* Whether the delegate is none of a context's, or its context has got a newer one. Those are in
 * front. */
bool delegate_is_passed_over_locked(const list_head &delegates,
                                    const qor_sched_delegate_t *delegate)
{
    bool over = !delegate->priv->module;
    for (list_head *link = delegate->priv->link.prev; link != &delegates && !over;
         link = link->prev) {
        over = delegate_at(link)->context == delegate->context;
    }
    return over;
}

/* Reads the next context behind a link of the list, or behind its head: the link of that, or NULL.
 */
list_head *context_next(qor_bus_private &priv, list_head *link, qor_info_context_t &info)
{
    hal_scoped_lock lock(priv.mutex);
    for (link = link->prev; link != &priv.delegates; link = link->prev) {
        const qor_sched_delegate_t *delegate = delegate_at(link);
        if (!delegate_is_passed_over_locked(priv.delegates, delegate)) {
            context_read_locked(delegate, info);
            return link;
        }
    }
    return nullptr;
}

int32_t contexts_show(const inspection &to)
{
    qor_bus_private &priv = *to.bus->priv;
    list_head *link = &priv.delegates;
    for (;;) {
        qor_info_context_t info = {};
        link = context_next(priv, link, info);
        if (!link) {
            return 0;
        }
        const int32_t ret = record_show(to, QOR_INFO_CONTEXT, info);
        if (ret != 0) {
            return ret;
        }
    }
}

uint32_t list_length_locked(list_head &head)
{
    uint32_t length = 0;
    util_list_each(head, [&length](list_head *) { length++; });
    return length;
}

void subscriber_name_locked(const qor_topic_t &topic, char (&name)[20])
{
    if (!list_empty(&topic.subscriber_head)) {
        const qor_topic_node_t *newest =
            util_container<qor_topic_node_t, offsetof(qor_topic_node_t, topic_node)>(
                topic.subscriber_head.next);
        util_name_copy(name, newest->context->module->name);
    }
}

/* Whether there is anything to show of the topic. A registration that is in a list under the list's
 * mutex can be read, and its context with it. */
bool topic_read(qor_topic_core_t *table, int32_t number, qor_info_topic_t &info)
{
    qor_topic_t &topic = table->ids[number];
    qor_topic_core_private &priv = table->priv[number];
    hal_scoped_lock subscribers(topic.subscriber_mutex);
    hal_scoped_lock listeners(topic.listener_mutex);
    hal_scoped_lock filters(topic.filter_mutex);
    info.topic = number;
    subscriber_name_locked(topic, info.subscriber);
    info.subscribers = list_length_locked(topic.subscriber_head);
    info.listeners = list_length_locked(topic.listener_head);
    info.filters = list_length_locked(topic.filter_head);
    info.unserved = hal_load(priv.unserved); /* first: it is never more than the requests */
    info.requests = topic_epoch_requests(priv);
    return hal_load(priv.changes) || info.requests || info.subscribers || info.listeners ||
           info.filters;
}

int32_t topics_show(const inspection &to, int32_t role)
{
    qor_topic_core_t *table = qor_bus_topic_core_get(to.bus, role);
    int32_t ret = 0;
    for (int32_t number = 0; number < table->id_max && ret == 0; number++) {
        qor_info_topic_t info = {};
        info.role = role;
        if (topic_read(table, number, info)) {
            ret = record_show(to, QOR_INFO_TOPIC, info);
        }
    }
    return ret;
}

int32_t threads_show(const inspection &to)
{
    uint32_t number = 0;
    for (;;) {
        qor_info_thread_t info = {};
        const trace_functions *recorder = trace_recorder_made();
        number = recorder ? recorder->thread(to.bus, number, info) : 0;
        if (number == 0) {
            return 0;
        }
        const int32_t ret = record_show(to, QOR_INFO_THREAD, info);
        if (ret != 0) {
            return ret;
        }
    }
}

/* Reads the next open request of the bus from a place on: the place behind it, or 0. */
uint32_t request_next(const qor_bus_t *bus, uint32_t place, qor_info_request_t &info)
{
    hal_scoped_lock lock(deferrals_mutex);
    while (const deferral *entry = deferral_at_locked(place++)) {
        if (entry->state == deferral_open && entry->bus == bus) {
            util_name_copy(info.name, entry->subscriber->module->name);
            info.topic = entry->topic;
            info.session = entry->session;
            info.age_ms = ms_between(entry->since, util_timestamp());
            return place;
        }
    }
    return 0;
}

int32_t requests_show(const inspection &to)
{
    uint32_t place = 0;
    for (;;) {
        qor_info_request_t info = {};
        place = request_next(to.bus, place, info);
        if (place == 0) {
            return 0;
        }
        const int32_t ret = record_show(to, QOR_INFO_REQUEST, info);
        if (ret != 0) {
            return ret;
        }
    }
}

int32_t everything_show(const inspection &to)
{
    int32_t ret = bus_show(to);
    ret = ret != 0 ? ret : contexts_show(to);
    ret = ret != 0 ? ret : topics_show(to, QOR_BUS_ROLE_USER);
    ret = ret != 0 ? ret : topics_show(to, QOR_BUS_ROLE_SYS);
    ret = ret != 0 ? ret : threads_show(to);
    return ret != 0 ? ret : requests_show(to);
}

} // namespace

/* Takes all three locks, for it is one record. */
void info_bus_read(const qor_bus_t *bus, qor_info_bus_t &info)
{
    qor_bus_private &priv = *bus->priv;
    hal_scoped_lock lock(priv.mutex);
    info.workers = priv.looping ? priv.workers : 0;
    info.quitting = priv.stopping ? 1 : 0;
    info.next_timer_ms = INT32_MAX;
    info.posts_refused = hal_load(priv.refused);
    info.allocations_failed = hal_load(util_memory_missed);
    info.lines = hal_load(diag_lines);
    if (!bus->time_que) {
        tasks_read(bus, info);
        return;
    }
    hal_scoped_lock timers(bus->time_que->mutex);
    timers_read_locked(bus->time_que, info);
    tasks_read(bus, info);
}

int32_t qor_bus_inspect(qor_bus_t *bus, qor_see_t see, void *arg)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(see, -1);
    int32_t ret;
    bus_visitor_enter(*bus->priv);
    pthread_cleanup_push(bus_visitor_leave, bus->priv); /* whatever thread it is, see may end it */
    ret = everything_show({bus, see, arg});
    pthread_cleanup_pop(1);
    return ret;
}
