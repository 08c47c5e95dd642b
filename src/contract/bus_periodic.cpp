/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers on the bus: one node that goes from the timer queue to the task queue, to a
 * worker and back. So a run is never beside itself, and needs no memory. */
#include "bus_periodic.hpp"

#include "qor_bus_priv.hpp"
#include "qor_que_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"

namespace {

static_assert(offsetof(qor_time_que_node_t, body) % alignof(bus_periodic) == 0,
              "a node's body is aligned for a timer");

uint32_t slot_of(int32_t session)
{
    return static_cast<uint32_t>(session) % 32;
}

constexpr auto node_of = bus_periodic_node;

bus_periodic *periodic_of(list_head *link)
{
    return reinterpret_cast<bus_periodic *>(link); /* first member */
}

bus_periodics &table_of(bus_periodic *timer)
{
    return timer->priv->periodics;
}

/* Whether there may be a timer with that session; without the mutex. */
bool slot_is_used(const bus_periodics &table, int32_t session)
{
    return hal_load(table.mask) >> slot_of(session) & 1;
}

/* What ends in _locked is called with the table's mutex held. */

bool periodic_armed_locked(const bus_periodic *timer)
{
    return timer->link.prev != nullptr;
}

void periodic_enter_locked(bus_periodic *timer)
{
    bus_periodics &table = table_of(timer);
    const uint32_t slot = slot_of(timer->session);
    list_add(&timer->link, &table.armed[slot]);
    hal_store(table.mask, table.mask | 1u << slot);
}

void periodic_leave_locked(bus_periodic *timer)
{
    if (!periodic_armed_locked(timer)) {
        return;
    }
    bus_periodics &table = table_of(timer);
    const uint32_t slot = slot_of(timer->session);
    list_del(&timer->link);
    if (list_empty(&table.armed[slot])) {
        hal_store(table.mask, table.mask & ~(1u << slot));
    }
}

/* The first that passes the test of a list; NULL when there is none. */
template <typename T> bus_periodic *periodic_find_locked(list_head &armed, T test)
{
    for (list_head *link = armed.next; link != &armed; link = link->next) {
        if (test(periodic_of(link))) {
            return periodic_of(link);
        }
    }
    return nullptr;
}

bus_periodic *periodic_numbered_locked(bus_periodics &table, int32_t session)
{
    return periodic_find_locked(
        table.armed[slot_of(session)],
        [session](const bus_periodic *timer) { return timer->session == session; });
}

bus_periodic *periodic_owned_locked(bus_periodics &table, const qor_context_t *context)
{
    for (list_head &armed : table.armed) {
        bus_periodic *timer = periodic_find_locked(
            armed, [context](const bus_periodic *each) { return each->context == context; });
        if (timer) {
            return timer;
        }
    }
    return nullptr;
}

/* The discard of the timer's node. */
void periodic_end(void *body)
{
    bus_periodic *timer = static_cast<bus_periodic *>(body);
    {
        hal_scoped_lock lock(table_of(timer).mutex);
        periodic_leave_locked(timer);
    }
    if (timer->recycle) {
        timer->recycle(timer->arg);
    }
    if (timer->over) {
        timer->over(timer);
    }
}

void periodic_release(bus_periodic *timer)
{
    qor_time_que_node_destroy(node_of(timer), periodic_end);
}

/* The discard of the node of its run, which who discards it frees. */
void periodic_run_discard(void *task)
{
    periodic_release(static_cast<bus_periodic *>(static_cast<qor_context_task_t *>(task)->arg));
}

/* Time since the point of the grid that the node has. One that is later than 49 days takes several
 * runs to catch up. */
uint32_t periodic_late(bus_periodic *timer)
{
    const int64_t late = util_timestamp() - node_of(timer)->when;
    return late < UINT32_MAX ? static_cast<uint32_t>(late) : UINT32_MAX;
}

/* Moves it on by the periods that are over after such a time, and gives their number. It is in no
 * queue. Without a division, which takes a function of 600 bytes where the processor has none. */
uint32_t periodic_move(bus_periodic *timer, uint32_t late)
{
    const uint32_t period = static_cast<uint32_t>(timer->period);
    uint32_t points = 0;
    for (int bit = 31; bit >= 0; bit--) {
        if (late >> bit >= period) {
            late -= period << bit;
            points |= 1u << bit;
        }
    }
    node_of(timer)->when += static_cast<int64_t>(points) * timer->period;
    return points;
}

/* Queues it for the first point after this one that has not passed: false when the bus quits. */
bool periodic_wait_locked(bus_periodic *timer)
{
    const uint32_t late = periodic_late(timer);
    timer->passed = late > 0 ? periodic_move(timer, late - 1) : 0;
    node_of(timer)->id = static_cast<size_t>(timer->session);
    node_of(timer)->when += timer->period;
    return qor_time_que_enque(timer->timers, node_of(timer)) == 0;
}

bool node_is(const qor_time_que_node_t *node, const void *wanted)
{
    return node == wanted;
}

bool run_is_of(const qor_que_node_t *node, const void *timer)
{
    return que_front_of(node)->owner == timer;
}

/* Takes it out of the table, and out of the queue that it waits in: true, and it is the caller's.
 * Else the loop or a worker has it, and will find that it is to end. */
bool periodic_take_locked(bus_periodic *timer)
{
    periodic_leave_locked(timer);
    qor_time_que_node_t *node = node_of(timer);
    if (time_que_take_id_if(timer->timers, static_cast<size_t>(timer->session), node_is, node)) {
        return true;
    }
    qor_que_node_t *run = que_take_if(timer->bus->que, run_is_of, timer);
    if (!run) {
        return false;
    }
    que_front_of(node)->spare = run;
    return true;
}

/* Ends the timer that is found under the lock; false when there is none. */
template <typename F> bool periodic_stop(bus_periodics &table, F find_locked)
{
    bus_periodic *timer;
    {
        hal_scoped_lock lock(table.mutex);
        timer = find_locked();
        if (!timer) {
            return false;
        }
        if (!periodic_take_locked(timer)) {
            return true;
        }
    }
    periodic_release(timer);
    return true;
}

/* Takes the node of the run over from the calling worker; NULL when others have taken the task out
 * of the queue, and will free it. */
qor_que_node_t *run_take_over(const bus_periodic *timer)
{
    thread_record *record = thread_record_get();
    qor_que_node_t *run = record ? static_cast<qor_que_node_t *>(record->running) : nullptr;
    if (!run || !run_is_of(run, timer)) {
        return nullptr;
    }
    record->running = nullptr;
    return run;
}

/* Queues the run of a timer that is due: false when it is to end. */
bool periodic_post(bus_periodic *timer)
{
    hal_scoped_lock lock(table_of(timer).mutex);
    if (!periodic_armed_locked(timer)) {
        return false;
    }
    /* As for other timers: of a bus that is gone only the private block may be looked at. */
    hal_scoped_lock timers(timer->timers->mutex);
    que_front *front = que_front_of(node_of(timer));
    qor_que_node_t *run = que_spare_take(node_of(timer)); /* before a worker may have the timer */
    if (!timer->priv->gone && bus_node_post(timer->bus, run) == 0) {
        return true;
    }
    front->spare = run;
    return false;
}

} // namespace

bus_periodic *bus_periodic_of(qor_time_que_node_t *node)
{
    return static_cast<bus_periodic *>(qor_time_que_node_body(node));
}

qor_time_que_node_t *bus_periodic_node(bus_periodic *timer)
{
    return qor_time_que_node_type(timer);
}

int32_t bus_periodics_open(bus_periodics &table)
{
    for (list_head &armed : table.armed) {
        INIT_LIST_HEAD(&armed);
    }
    return pthread_mutex_init(&table.mutex, nullptr) == 0 ? 0 : -1;
}

void bus_periodics_close(bus_periodics &table)
{
    pthread_mutex_destroy(&table.mutex);
}

bus_periodic *bus_periodic_create(qor_bus_t *bus, size_t size, const periodic_calls *calls)
{
    hal_store(bus->priv->periodics.calls, calls);
    qor_time_que_node_t *node = qor_time_que_node_create(0, 0, static_cast<int32_t>(size));
    qor_que_node_t *run = node ? bus_node() : nullptr;
    if (!run) {
        if (node) {
            qor_time_que_node_destroy(node, nullptr);
        }
        return nullptr;
    }
    bus_periodic *timer = static_cast<bus_periodic *>(qor_time_que_node_body(node));
    timer->bus = bus;
    timer->priv = bus->priv;
    timer->timers = bus->time_que;
    timer->session = qor_bus_session(bus);
    que_front_of(node)->flags = que_periodic;
    que_front_of(node)->discard = periodic_end;
    que_front_of(node)->spare = run;
    que_front_of(run)->flags = que_own;
    que_front_of(run)->owner = timer;
    que_front_of(run)->discard = periodic_run_discard;
    return timer;
}

void bus_periodic_destroy(bus_periodic *timer)
{
    qor_time_que_node_destroy(node_of(timer), nullptr);
}

qor_context_task_t *bus_periodic_task(bus_periodic *timer)
{
    return bus_task_of(que_front_of(node_of(timer))->spare);
}

bool bus_periodic_start(bus_periodic *timer)
{
    hal_scoped_lock lock(table_of(timer).mutex);
    node_of(timer)->when = util_timestamp();
    periodic_enter_locked(timer);
    if (periodic_wait_locked(timer)) {
        return true;
    }
    periodic_leave_locked(timer);
    return false;
}

void bus_periodic_due(qor_time_que_node_t *node)
{
    bus_periodic *timer = bus_periodic_of(node);
    if (!(timer->turn ? timer->turn : periodic_post)(timer)) {
        periodic_release(timer);
    }
}

bool bus_periodic_begin(bus_periodic *timer, uint32_t *missed)
{
    qor_que_node_t *run = timer->turn ? que_front_of(node_of(timer))->spare : run_take_over(timer);
    hal_scoped_lock lock(table_of(timer).mutex);
    que_front_of(node_of(timer))->spare = run;
    if (!run) {
        periodic_leave_locked(timer); /* it cannot be queued again */
    }
    if (!periodic_armed_locked(timer)) {
        return false;
    }
    *missed = timer->passed + periodic_move(timer, periodic_late(timer));
    return true;
}

void bus_periodic_over(bus_periodic *timer)
{
    {
        hal_scoped_lock lock(table_of(timer).mutex);
        if (periodic_armed_locked(timer) && periodic_wait_locked(timer)) {
            return;
        }
    }
    periodic_release(timer);
}

int32_t bus_periodic_cancel(qor_bus_t *bus, int32_t session)
{
    bus_periodics &table = bus->priv->periodics;
    return slot_is_used(table, session) &&
                   periodic_stop(table, [&] { return periodic_numbered_locked(table, session); })
               ? 0
               : -1;
}

void bus_periodics_end(qor_bus_t *bus, const qor_context_t *context)
{
    bus_periodics &table = bus->priv->periodics;
    while (periodic_stop(table, [&] { return periodic_owned_locked(table, context); })) {
    }
}

bool bus_periodic_has(bus_periodics &table, int32_t session)
{
    if (!slot_is_used(table, session)) {
        return false;
    }
    hal_scoped_lock lock(table.mutex);
    return periodic_numbered_locked(table, session) != nullptr;
}
