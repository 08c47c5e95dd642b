/* SPDX-License-Identifier: Apache-2.0 */
/* The workers: threads that take tasks from the task queue and run them. One that a task ends with
 * pthread_exit() is replaced. */
#include "hal_sync.hpp"
#include "hal_thread.hpp"
#include "message_node.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

/* Destroys the node whose task the thread has run, unless the task has taken it over. */
void bus_node_over(thread_record &record, qor_que_node_t *node, qor_que_node_recycle_t recycle)
{
    if (record.running == node) {
        record.running = nullptr;
        qor_que_node_destroy(node, recycle);
    }
}

/* A task that has ended its thread is over all the same; a request that it was handling is answered
 * for it. A run of several tasks goes on with the next one, on another worker. */
void bus_task_left(void *arg)
{
    qor_que_node_t *left = static_cast<qor_que_node_t *>(arg);
    thread_record &record = *thread_record_get();
    if (record.running != left) {
        return;
    }
    if ((que_front_of(left)->flags & que_again) && bus_node_post(record.bus, left) == 0) {
        return;
    }
    if (!que_front_of(left)->discard) {
        bus_node_over(record, left, recycle_of(qor_context_task_uninit));
        return;
    }
    if (sched_delegate_is_relay(bus_task_of(left))) {
        message_offer offer(sched_delegate_request(left, bus_task_of(left)));
        qor_context_task_t relay = *bus_task_of(left);
        sched_delegate_relay_refuse(&relay);
    }
    bus_node_over(record, left, nullptr); /* what it carried has been left with the task in it */
}

/* Executes a task while it is recorded what threads are inside. What the library has made shows
 * that by itself; an application's task does not. Out of line: else every task pays for it. */
[[gnu::noinline]] void bus_task_show(const qor_que_node_t *node, qor_context_task_t *task)
{
    constexpr uint32_t made = que_own | que_quiet | que_message;
    if ((que_front_of(node)->flags & made) || sched_delegate_carries(task)) {
        qor_context_task_excute(task);
        return;
    }
    trace_span inside(0, task->context, trace_what(trace_start, trace_runs), task->session, -1);
    qor_context_task_excute(task);
}

void bus_task_run(thread_record &record, qor_que_node_t *node)
{
    thread_scope inside(bus_task_left, node, &record);
    record.running = node;
    qor_context_task_t *task = bus_task_of(node);
    if (!(que_front_of(node)->flags & que_quiet)) {
        bus_thread_name_set(record.bus, task->name);
    }
    {
        message_offer offer(sched_delegate_request(node, task), &record);
        if (trace_on(QOR_TRACE_STACKS)) {
            bus_task_show(node, task);
        } else {
            qor_context_task_excute(task);
        }
    }
    bus_node_over(record, node, recycle_of(qor_context_task_uninit));
}

void bus_worker_run(thread_record &record)
{
    const qor_bus_t *bus = record.bus;
    bus_thread_setpriority(bus);
    for (;;) {
        qor_que_node_t *node = que_take(bus->que);
        if (!node) {
            /* Only before it waits: between two tasks the name changes at once to the next one. */
            bus_thread_name_set(bus, "context");
            node = qor_que_deque_block(bus->que, -1);
        }
        if (!node) {
            return;
        }
        bus_task_run(record, node);
    }
}

void *qor_bus_task_loop(void *arg);

/* The bus has one worker less than it counts. */
void bus_worker_lost(qor_bus_t *bus, const char *why)
{
    {
        hal_scoped_lock lock(bus->priv->mutex);
        hal_store(bus->priv->workers, bus->priv->workers - 1);
    }
    qor_que_lock(bus->que);
    qor_que_wakeup_locked(bus->que); /* a drain that waits for one worker fewer now */
    qor_que_unlock(bus->que);
    QOR_LINE("err", "qor_bus_task_loop", "%s", why);
}

/* A new worker says whether it can work. */
void bus_worker_started(qor_bus_private &priv, bool able)
{
    hal_scoped_lock lock(priv.mutex);
    priv.crew->able += able;
    if (--priv.crew->starting == 0) {
        pthread_cond_broadcast(&priv.rested);
    }
}

/* The last act of a worker that a task has ended: its place goes to a new one, unless the bus ends.
 */
void bus_worker_replace(bus_worker *worker)
{
    qor_bus_private &priv = *worker->bus->priv;
    {
        hal_scoped_lock lock(priv.mutex);
        if (!priv.crew) {
            return;
        }
        worker->before = pthread_self();
        worker->replaces = 1;
        hal_thread_t thread;
        if (pthread_create(&thread, priv.crew->attr, qor_bus_task_loop, worker) == 0) {
            worker->thread = thread;
            return;
        }
    }
    bus_worker_lost(worker->bus, "a task has ended a worker, and no other could be made.");
}

void bus_worker_left(void *arg)
{
    bus_worker *worker = static_cast<bus_worker *>(arg);
    thread_record_leave(worker->record);
    bus_worker_replace(worker);
}

void *qor_bus_task_loop(void *arg)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); /* it would end with locks held */
    bus_worker *worker = static_cast<bus_worker *>(arg);
    if (worker->replaces) {
        pthread_join(worker->before, nullptr); /* the record is that thread's until it has ended */
    }
    worker->record = {};
    worker->record.bus = worker->bus;
    worker->record.role = thread_works;
    /* Without its record it could not tell which runs are its own. */
    const bool able = thread_record_set(&worker->record) == 0;
    if (!able) {
        bus_worker_lost(worker->bus, "no memory for a worker.");
    }
    if (!worker->replaces) {
        bus_worker_started(*worker->bus->priv, able);
    }
    if (!able) {
        return nullptr;
    }
    pthread_cleanup_push(bus_worker_left, worker);
    bus_worker_run(worker->record);
    pthread_cleanup_pop(0);
    return nullptr;
}

} // namespace

int32_t bus_thread_attr_init(const qor_bus_t *bus, hal_thread_attr_t *attr, const char *func)
{
    if (pthread_attr_init(attr) != 0) {
        QOR_LINE("err", func, "thread attribute failed.");
        return -1;
    }
    const char *problem = nullptr;
    if (hal_thread_attr_setstacksize(attr, hal_load(bus->thread_stack_size)) != 0) {
        problem = "set thread stack size failed.";
    } else if (hal_load(bus->thread_priority) >= 0 &&
               hal_thread_attr_setpriority(attr, hal_load(bus->thread_priority)) != 0) {
        problem = "set thread priority failed.";
    }
    if (problem) {
        QOR_LINE("err", func, "%s", problem);
        pthread_attr_destroy(attr);
        return -1;
    }
    return 0;
}

void bus_thread_name_set(const qor_bus_t *bus, const char *name)
{
    if (!bus || bus_watched(bus)) {
        hal_thread_name_set(name);
    }
}

void bus_thread_setpriority(const qor_bus_t *bus)
{
    const int32_t priority = hal_load(bus->thread_priority);
    if (priority >= 0) {
        hal_thread_setpriority(priority);
    }
}

void bus_crew_start(qor_bus_t *bus, bus_crew *crew, uint32_t wanted)
{
    qor_bus_private &priv = *bus->priv;
    for (uint32_t i = 0; i < wanted; i++) {
        hal_scoped_lock lock(priv.mutex); /* the worker may have to be replaced at once */
        priv.crew = crew;
        bus_worker *worker = &crew->workers[crew->count];
        worker->bus = bus;
        /* A thread that cannot be made is not reported; the bus runs with those it has. */
        if (pthread_create(&worker->thread, crew->attr, qor_bus_task_loop, worker) == 0) {
            crew->count++;
            crew->starting++;
            hal_store(priv.workers, priv.workers + 1);
        }
    }
    hal_scoped_lock lock(priv.mutex);
    while (crew->starting > 0) {
        pthread_cond_wait(&priv.rested, &priv.mutex);
    }
}

void bus_crew_join(qor_bus_private &priv, bus_crew *crew)
{
    {
        hal_scoped_lock lock(priv.mutex);
        priv.crew = nullptr; /* nobody is replaced any more */
    }
    for (uint32_t i = 0; i < crew->count; i++) {
        pthread_join(crew->workers[i].thread, nullptr);
    }
}
