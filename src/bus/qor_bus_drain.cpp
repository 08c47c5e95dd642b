/* SPDX-License-Identifier: Apache-2.0 */
/* Drain: waiting until the threads of a bus have nothing to do. It costs them nothing while nobody
 * drains. */
#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_waits.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

/* Whether the loop and every worker wait, nothing is due, no helper runs an init, no request is
 * deferred, and no quit has begun: what one throws away would look like done. The only place but
 * the expiry of a timer that holds both queues' locks, the timer queue's first. */
bool bus_is_settled(qor_bus_t *bus)
{
    hal_scoped_lock timers(bus->time_que->mutex);
    if (!time_que_is_settled_locked(bus->time_que)) {
        return false;
    }
    hal_scoped_lock tasks(bus->que->mutex);
    /* Last: an init is counted before its task can be found begun by a worker. */
    return !bus->que->quitting && que_is_settled_locked(bus->que, hal_load(bus->priv->workers)) &&
           hal_load(bus->priv->busy) == 0;
}

void bus_rest_await(qor_bus_private &priv, int64_t deadline)
{
    hal_scoped_lock lock(priv.mutex);
    while (hal_load(priv.busy) > 0 && !priv.stopping && !que_time_is_over(deadline)) {
        que_sleep_until(priv.rested, priv.mutex, deadline);
    }
}

} // namespace

void bus_visitor_enter(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    priv.visitors++;
}

void bus_visitor_leave(void *priv)
{
    qor_bus_private &left = *static_cast<qor_bus_private *>(priv);
    hal_scoped_lock lock(left.mutex);
    if (--left.visitors == 0) {
        pthread_cond_broadcast(&left.visited);
    }
}

bool bus_visitor_refused(const qor_bus_t *bus, const char *func)
{
    const thread_record *record = thread_record_get();
    if (!record || record->bus != bus) {
        return false;
    }
    QOR_LINE("err", func, "a task of the bus would wait for itself.");
    return true;
}

void bus_visitors_await(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    while (priv.visitors > 0) {
        pthread_cond_wait(&priv.visited, &priv.mutex);
    }
}

int32_t qor_bus_drain(qor_bus_t *_this, int32_t wait_time)
{
    QOR_CHECK(_this, -1);
    if (bus_visitor_refused(_this, __func__)) {
        return -1;
    }
    QOR_CHECK(_this->time_que, -1);
    bus_visitor inside(*_this->priv);
    trace_span waits(QOR_TRACE_CHANGES, nullptr, trace_what(trace_wait, trace_waits_drain), 0,
                     wait_time);
    const int64_t deadline = que_deadline(wait_time);
    while (!hal_load(_this->que->quitting)) { /* the first thing that a quit does */
        if (bus_is_settled(_this)) {
            return 0;
        }
        if (que_time_is_over(deadline)) {
            return -1;
        }
        /* The loop first: only while it waits is the number of workers known. */
        time_que_settle_until(_this->time_que, deadline);
        que_settle_until(_this->que, _this->priv->workers, deadline);
        bus_rest_await(*_this->priv, deadline);
    }
    return -1;
}
