/* SPDX-License-Identifier: Apache-2.0 */
/* The threads of a bus: workers that run tasks, the loop that turns due timers into tasks, and
 * waiting until they have nothing to do. */
#include <stdlib.h>

#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_context_task.h"
#include "qor_diag.hpp"
#include "qor_own_task.hpp" /* upward: which tasks are the library's own */
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_time_que_priv.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

/* The bus that the calling thread works for; a worker's drain would wait for itself, and so would
 * one by a recycle that the loop calls. */
__attribute__((tls_model("initial-exec"))) thread_local const qor_bus_t *worked_for;

void bus_task_run(qor_que_node_t *node)
{
    qor_context_task_t *task = static_cast<qor_context_task_t *>(qor_que_node_body(node));
    if (!own_task_names_itself(task)) {
        hal_thread_name_set(task->name);
    }
    qor_context_task_excute(task);
    qor_que_node_destroy(node, recycle_of(qor_context_task_uninit));
}

void *qor_bus_task_loop(void *arg)
{
    const qor_bus_t *bus = static_cast<const qor_bus_t *>(arg);
    qor_que_t *que = bus->que;
    worked_for = bus;
    const int32_t priority = hal_load(bus->thread_priority);
    if (priority >= 0) {
        hal_thread_setpriority(priority);
    }
    for (;;) {
        qor_que_node_t *node = que_take(que);
        if (!node) {
            /* Only before it waits: between two tasks the name changes at once to the next one. */
            hal_thread_name_set("context");
            node = qor_que_deque_block(que, -1);
        }
        if (!node) {
            return nullptr;
        }
        bus_task_run(node);
    }
}

/* Starts up to so many workers and returns how many started: those, and no others, are joined. */
uint32_t bus_workers_start(qor_bus_t *bus, uint32_t wanted, hal_thread_t *tid,
                           const hal_thread_attr_t *attr)
{
    uint32_t started = 0;
    for (uint32_t i = 0; i < wanted; i++) {
        /* A thread that cannot be made is not reported; the bus runs with those it has. */
        if (pthread_create(&tid[started], attr, qor_bus_task_loop, bus) == 0) {
            started++;
        }
    }
    return started;
}

/* Posts a timer that has fallen due and frees its node. A bus that has been destroyed meanwhile
 * takes nothing more, and only its private block may be looked at. */
void bus_timer_expire(qor_bus_t *bus, qor_bus_private &priv, qor_time_que_node_t *node)
{
    qor_context_task_t *task = static_cast<qor_context_task_t *>(qor_time_que_node_body(node));
    task->delay = 0;
    bool posted = false;
    {
        hal_scoped_lock lock(priv.mutex);
        posted = !priv.gone && qor_bus_post(bus, task) == 0;
    }
    /* Deliberate: the copy that was posted keeps its recycle, so a timer's recycle runs here, where
     * a worker may have begun the task already, and again after the task.
     * Test: BusLoop.ATimerIsRecycledTwice. */
    qor_time_que_node_destroy(node,
                              posted ? recycle_of(qor_context_task_uninit) : own_task_discard);
}

void bus_timers_serve(qor_bus_t *bus)
{
    qor_time_que_t *time_que = bus->time_que; /* the bus may be destroyed while this waits */
    qor_bus_private &priv = *bus->priv;
    while (qor_time_que_node_t *node = qor_time_que_deque_block(time_que, -1)) {
        bus_timer_expire(bus, priv, node);
    }
}

/* The loop has ended: from here on no quit is inside, and the bus may be closed. */
void bus_loop_leave(qor_bus_t *bus, qor_bus_private &priv)
{
    {
        hal_scoped_lock lock(priv.mutex);
        if (priv.gone) {
            return;
        }
    }
    bus_tasks_discard(bus);
    hal_scoped_lock lock(priv.mutex);
    priv.looping = 0;
}

/* Whether the loop and every worker wait and nothing is due. The only place that holds both queues'
 * locks, the timer queue's first. */
bool bus_is_settled(qor_bus_t *bus)
{
    hal_scoped_lock timers(bus->time_que->mutex);
    if (!time_que_is_settled_locked(bus->time_que)) {
        return false;
    }
    hal_scoped_lock tasks(bus->que->mutex);
    return que_is_settled_locked(bus->que, hal_load(bus->priv->workers));
}

/* A thread inside qor_bus_drain(), from construction to destruction. */
class bus_drain {
public:
    explicit bus_drain(qor_bus_private &priv) : priv_(priv)
    {
        hal_scoped_lock lock(priv_.mutex);
        priv_.drains++;
    }
    ~bus_drain()
    {
        hal_scoped_lock lock(priv_.mutex);
        if (--priv_.drains == 0) {
            pthread_cond_broadcast(&priv_.drained);
        }
    }
    bus_drain(const bus_drain &) = delete;
    bus_drain &operator=(const bus_drain &) = delete;

private:
    qor_bus_private &priv_;
};

} // namespace

void bus_tasks_discard(qor_bus_t *bus)
{
    que_discard_all(bus->que, own_task_discard);
    if (bus->time_que) {
        time_que_discard_all(bus->time_que, own_task_discard);
    }
}

void bus_drains_await(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    while (priv.drains > 0) {
        pthread_cond_wait(&priv.drained, &priv.mutex);
    }
}

int32_t qor_bus_drain(qor_bus_t *_this, int32_t wait_time)
{
    QOR_CHECK(_this, -1);
    if (worked_for == _this) {
        QOR_ERR("a task of the bus would wait for itself.");
        return -1;
    }
    QOR_CHECK(_this->time_que, -1);
    bus_drain under_way(*_this->priv);
    const int64_t deadline = wait_time < 0 ? INT64_MAX : util_timestamp() + wait_time;
    while (!bus_stopping(_this)) {
        if (bus_is_settled(_this)) {
            return 0;
        }
        if (util_timestamp() >= deadline) {
            return -1;
        }
        /* The loop first: only while it waits is the number of workers known. */
        time_que_settle_until(_this->time_que, deadline);
        que_settle_until(_this->que, hal_load(_this->priv->workers), deadline);
    }
    return -1;
}

int32_t qor_bus_loop(qor_bus_t *_this)
{
    QOR_CHECK(_this, -1);
    /* Read once: a task may set it while the workers are being started. */
    const uint32_t thread_num = hal_load(_this->thread_num);
    /* Never no bytes: for those a C library may give NULL. */
    hal_thread_t *tid =
        static_cast<hal_thread_t *>(calloc(thread_num ? thread_num : 1, sizeof(*tid)));
    QOR_CHECK(tid, -1);
    hal_thread_attr_t attr;
    pthread_attr_init(&attr);
    (void)pthread_attr_setstacksize(&attr, _this->thread_stack_size);
    if (_this->thread_priority >= 0 &&
        hal_thread_attr_setpriority(&attr, _this->thread_priority) != 0) {
        QOR_ERR("set thread priority failed.");
        free(tid);
        pthread_attr_destroy(&attr);
        return -1;
    }
    qor_bus_private &priv = *_this->priv;
    {
        hal_scoped_lock lock(priv.mutex);
        priv.looping = 1;
    }
    const uint32_t started = bus_workers_start(_this, thread_num, tid, &attr);
    hal_store(priv.workers, started);
    worked_for = _this;
    bus_timers_serve(_this);
    for (uint32_t i = 0; i < started; i++) {
        pthread_join(tid[i], nullptr);
    }
    bus_loop_leave(_this, priv);
    worked_for = nullptr;
    pthread_attr_destroy(&attr);
    free(tid);
    return 0;
}
