/* SPDX-License-Identifier: Apache-2.0 */
/* The loop of a bus: starts the workers, turns due timers into tasks, and joins the workers. */
#include <stdlib.h>

#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

/* Notes that a timer has fallen due, and how late that is noticed. */
void due_note(const qor_time_que_node_t *timer)
{
    const int64_t late = util_timestamp() - timer->when;
    trace_recorder().note(nullptr, nullptr, trace_what(trace_due), static_cast<int32_t>(timer->id),
                          static_cast<int32_t>(late));
}

/* Queues the task of a timer that has fallen due; its node was made with the timer's. One that
 * somebody else appended to the timer queue has none yet. */
bool bus_timer_task_post(qor_bus_t *bus, qor_time_que_node_t *timer)
{
    const que_front *front = que_front_of(timer);
    qor_que_node_t *node = front->spare ? que_spare_take(timer) : bus_node();
    if (!node) {
        return false;
    }
    if (trace_on(QOR_TRACE_TASKS)) {
        due_note(timer);
    }
    *que_front_of(node) = *front; /* which has no spare any more */
    qor_context_task_copy(bus_task_of(node), bus_task_of(timer));
    bus_task_of(node)->delay = 0;
    if (bus_node_post(bus, node) < 0) {
        qor_que_node_destroy(node, nullptr);
        return false;
    }
    return true;
}

void bus_timers_serve(qor_bus_t *bus)
{
    qor_time_que_t *timers = bus->time_que; /* the bus may be destroyed while this waits */
    const qor_bus_private &priv = *bus->priv;
    qor_time_que_lock(timers);
    while (qor_time_que_node_t *timer = qor_time_que_deque_block_locked(timers, -1)) {
        if (que_front_of(timer)->flags & que_periodic) {
            qor_time_que_unlock(timers);
            hal_load(priv.periodics.calls)->due(timer);
            qor_time_que_lock(timers);
            continue;
        }
        /* Queued under the timer queue's lock: whoever cancels a timer finds it here or there. Of a
         * bus that is gone only the private block may be looked at. */
        const bool posted = !priv.gone && bus_timer_task_post(bus, timer);
        qor_time_que_unlock(timers);
        /* Deliberate: the copy that was posted keeps its recycle, so a timer's recycle runs here,
         * where a worker may have begun the task already, and again after the task.
         * Test: BusLoop.ATimerIsRecycledTwice. */
        if (posted) {
            qor_time_que_node_destroy(timer, recycle_of(qor_context_task_uninit));
        } else {
            time_que_node_discard(timer, recycle_of(qor_context_task_uninit));
        }
        qor_time_que_lock(timers);
    }
    qor_time_que_unlock(timers);
}

void bus_loop_enter(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    hal_store(priv.looping, 1);
}

/* The loop has ended: from here on no quit is inside, and the bus may be closed. */
void bus_loop_leave(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    hal_store(priv.looping, 0);
}

/* Whether qor_bus_uninit() has run while the loop waited. */
bool bus_is_gone(qor_time_que_t *timers, const qor_bus_private &priv)
{
    qor_time_que_lock(timers);
    const bool gone = priv.gone;
    qor_time_que_unlock(timers);
    return gone;
}

/* Runs the bus with its workers until it quits. */
void bus_loop_serve(qor_bus_t *bus, bus_crew *crew)
{
    qor_time_que_t *timers = bus->time_que;
    qor_bus_private &priv = *bus->priv;
    thread_record record = {}; /* a recycle that the loop calls must not drain the bus */
    record.bus = bus;
    record.role = thread_loops;
    thread_record_set(&record);
    bus_timers_serve(bus);
    {
        trace_span waits(0, nullptr, trace_what(trace_wait, trace_waits_workers), 0, -1);
        bus_crew_join(priv, crew);
    }
    if (!timers || !bus_is_gone(timers, priv)) {
        bus_helpers_join(bus);
        bus_tasks_discard(bus);
        bus_loop_leave(priv);
    }
    thread_record_set(nullptr);
}

/* The lines carry the name of qor_bus_loop(), whose body this is. */
int32_t bus_loop_run(qor_bus_t *bus, const char *func)
{
    /* Read once: a task may set it while the workers are being started. */
    const uint32_t thread_num = hal_load(bus->thread_num);
    bus_crew crew = {};
    /* Never no bytes: for those a C library may give NULL. */
    crew.workers = static_cast<bus_worker *>(
        util_memory(calloc(thread_num ? thread_num : 1, sizeof(*crew.workers))));
    if (!crew.workers) {
        qor_check_failed<file_tag>(func, __LINE__, "tid");
        return -1;
    }
    hal_thread_attr_t attr;
    if (bus_thread_attr_init(bus, &attr, func) != 0) {
        free(crew.workers);
        return -1;
    }
    crew.attr = &attr;
    bus_loop_enter(*bus->priv);
    bus_crew_start(bus, &crew, thread_num);
    const bool idle = thread_num > 0 && crew.able == 0;
    if (idle) {
        QOR_LINE("err", func, "no worker started.");
        bus_crew_join(*bus->priv, &crew);
        bus_loop_leave(*bus->priv);
    } else {
        bus_loop_serve(bus, &crew);
    }
    pthread_attr_destroy(&attr);
    free(crew.workers);
    return idle ? -1 : 0;
}

} // namespace

void bus_tasks_discard(qor_bus_t *bus)
{
    bus_deferred_over(bus);
    que_discard_all(bus->que, recycle_of(qor_context_task_uninit));
    if (bus->time_que) {
        time_que_discard_all(bus->time_que, recycle_of(qor_context_task_uninit));
    }
}

int32_t qor_bus_loop(qor_bus_t *_this)
{
    QOR_CHECK(_this, -1);
    int state; /* the thread is the caller's: it gets its state back */
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    const int32_t ret = bus_loop_run(_this, __func__);
    pthread_setcancelstate(state, nullptr);
    return ret;
}
