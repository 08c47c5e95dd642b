/* SPDX-License-Identifier: Apache-2.0 */
/* The bus: session numbers, task and timer queues, the workers and the loop that serves the timers.
 */
#include "qor_bus.h"

#include <string.h>

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_task.h"
#include "qor_diag.hpp"
#include "qor_main.h" /* upward: creating a bus queues the start-up routine as its first task */
#include "qor_main_priv.hpp" /* upward: closing a bus takes down what start-up brought up */
#include "qor_own_task.hpp"  /* upward: which tasks are the library's own */
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_topic_core.h"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";
constexpr size_t module_limit = 1024;
constexpr uint32_t page_size = 4096;

/* The bus that the calling thread works for; a worker's drain would wait for itself, and so would
 * one by a recycle that the loop calls. */
__attribute__((tls_model("initial-exec"))) thread_local const qor_bus_t *worked_for;

/* The private block lives behind the reserved list head: like that, it outlives qor_bus_uninit(),
 * after which the loop thread may still be about to return. */
struct bus_head {
    list_head head;
    qor_bus_private priv;
};

size_t bus_module_count(qor_context_module_t **modules)
{
    size_t count = 0;
    while (count < module_limit && modules[count]) {
        count++;
    }
    return count;
}

int32_t bus_head_init(qor_bus_t *bus)
{
    bus_head *block = util_zalloc<bus_head>();
    if (!block) {
        return -1;
    }
    INIT_LIST_HEAD(&block->head);
    pthread_mutex_init(&block->priv.mutex, nullptr);
    pthread_cond_init(&block->priv.drained, nullptr);
    INIT_LIST_HEAD(&block->priv.waiters);
    INIT_LIST_HEAD(&block->priv.delegates);
    INIT_LIST_HEAD(&block->priv.failed);
    bus->head = &block->head;
    bus->priv = &block->priv;
    return 0;
}

void bus_head_uninit(qor_bus_t *bus)
{
    pthread_cond_destroy(&bus->priv->drained);
    pthread_mutex_destroy(&bus->priv->mutex);
    free(bus->head); /* first field of the block */
}

/* Each line carries the name of qor_bus_init(), whose step this is. */
int32_t bus_tables_init(qor_bus_t *bus, int32_t id_max, const char *func)
{
    bus->user_topic_core = qor_topic_core_create(id_max);
    if (!bus->user_topic_core) {
        QOR_LINE("err", func, "user_topic_core create failed.");
        return -1;
    }
    bus->sys_topic_core = qor_topic_core_create(QOR_SYS_NUM);
    if (!bus->sys_topic_core) {
        QOR_LINE("err", func, "sys_topic_core create failed.");
        qor_topic_core_destroy(bus->user_topic_core);
        return -1;
    }
    return 0;
}

void bus_tables_uninit(qor_bus_t *bus)
{
    qor_topic_core_destroy(bus->sys_topic_core);
    qor_topic_core_destroy(bus->user_topic_core);
}

int32_t bus_queues_init(qor_bus_t *bus, const char *func)
{
    bus->que = qor_que_create(UINT32_MAX, recycle_of(qor_context_task_uninit));
    if (!bus->que) {
        QOR_LINE("err", func, "create \"qor_que_t\" failed.");
        return -1;
    }
    bus->time_que = qor_time_que_create(UINT32_MAX, recycle_of(qor_context_task_uninit));
    /* Deliberate: this tests the task queue once more. A timer queue that could not be made is not
     * noticed here but by the first timer and by the loop, which report a NULL queue.
     * Test: BusFaults.AMissingTimerQueueIsNotNoticedAtCreation. */
    if (!bus->que) {
        QOR_LINE("err", func, "create \"qor_que_t\" failed.");
        return -1;
    }
    return 0;
}

/* A node of the task queue that carries a copy of the task, or NULL without memory. */
qor_que_node_t *bus_task_node(qor_context_task_t *task)
{
    qor_que_node_t *node =
        qor_que_node_create(static_cast<size_t>(task->session), sizeof(qor_context_task_t));
    if (node) {
        qor_context_task_copy(static_cast<qor_context_task_t *>(qor_que_node_body(node)), task);
    }
    return node;
}

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
    /* Deliberate: the copy that was posted keeps its recycle, so a timer's recycle runs here,
     * before the task, and again after the task. Test: BusLoop.ATimerIsRecycledTwice. */
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

/* Whether the loop and every worker wait and nothing is due. The only place that holds both queues'
 * locks, the timer queue's first. Nothing can come in between then but from other threads. */
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

/* Quit has sent them away, but they may still be about to look at the bus. */
void bus_drains_await(qor_bus_private &priv)
{
    hal_scoped_lock lock(priv.mutex);
    while (priv.drains > 0) {
        pthread_cond_wait(&priv.drained, &priv.mutex);
    }
}

/* Recycles what is still queued once the queues have quit. */
void bus_tasks_discard(qor_bus_t *bus)
{
    que_discard_all(bus->que, own_task_discard);
    if (bus->time_que) {
        time_que_discard_all(bus->time_que, own_task_discard);
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

} // namespace

bool bus_stopping(const qor_bus_t *bus)
{
    return bus && hal_load(bus->priv->stopping);
}

bus_waiter::bus_waiter(qor_bus_t *bus, hal_thread_mutex_t &mutex, hal_thread_cond_t &cond)
    : bus_(bus), mutex_(mutex), cond_(cond)
{
    if (bus_) {
        hal_scoped_lock lock(bus_->priv->mutex);
        list_add(&link_, &bus_->priv->waiters);
    }
}

bus_waiter::~bus_waiter()
{
    if (bus_) {
        hal_scoped_lock lock(bus_->priv->mutex);
        list_del(&link_);
    }
}

void bus_waiter::wake(list_head *link)
{
    bus_waiter *waiter = reinterpret_cast<bus_waiter *>(link); /* first member */
    hal_scoped_lock lock(waiter->mutex_);
    pthread_cond_broadcast(&waiter->cond_);
}

qor_bus_t *qor_bus_create(qor_context_module_t **modules, int32_t id_max)
{
    qor_bus_t *bus = util_zalloc<qor_bus_t>();
    QOR_CHECK(bus, nullptr);
    if (qor_bus_init(bus, modules, id_max) < 0) {
        free(bus);
        return nullptr;
    }
    return bus;
}

int32_t qor_bus_init(qor_bus_t *_this, qor_context_module_t **modules, int32_t id_max)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(modules, -1);
    QOR_CHECK(id_max > 0, -1);
    const size_t count = bus_module_count(modules);
    if (count == module_limit) {
        return -1;
    }
    memset(_this, 0, sizeof(*_this));
    if (bus_head_init(_this) < 0) {
        QOR_ERR("head create failed.");
        return -1;
    }
    if (bus_tables_init(_this, id_max, __func__) < 0) {
        bus_head_uninit(_this);
        return -1;
    }
    if (bus_queues_init(_this, __func__) < 0) {
        bus_tables_uninit(_this);
        bus_head_uninit(_this);
        return -1;
    }
    pthread_mutex_init(&_this->session_mutex, nullptr);
    _this->modules = modules;
    _this->thread_priority = -1;
    _this->thread_stack_size = 0x10000;
    _this->thread_num = static_cast<uint32_t>(count) + 1;
    /* Takes session 0. A post that fails leaves a bus that brings nothing up. */
    (void)qor_bus_run(_this, run_of(qor_main), _this, nullptr);
    return 0;
}

void qor_bus_destroy(qor_bus_t *bus)
{
    qor_bus_uninit(bus);
    free(bus);
}

void qor_bus_uninit(qor_bus_t *_this)
{
    {
        hal_scoped_lock lock(_this->priv->mutex);
        _this->priv->gone = 1;
    }
    que_quit_begin(_this->que);
    que_discard_all(_this->que, own_task_discard);
    qor_que_destroy(_this->que);
    bus_tables_uninit(_this);
    pthread_mutex_destroy(&_this->session_mutex);
    /* Deliberate: the timer queue and head stay, a loop that waits there goes on waiting. The
     * orderly end is qor_bus_quit() and qor_bus_close(). Test: Bus.DestroyLeavesTheTimerQueue. */
}

int32_t qor_bus_quit(qor_bus_t *_this)
{
    QOR_CHECK(_this, -1);
    hal_scoped_lock lock(_this->priv->mutex);
    if (_this->priv->stopping) {
        return 0;
    }
    que_quit_begin(_this->que);
    hal_store(_this->priv->stopping, 1);
    util_list_each(_this->priv->waiters, bus_waiter::wake);
    if (_this->time_que) {
        time_que_quit_begin(_this->time_que); /* last: this ends the loop */
    }
    return 0;
}

int32_t qor_bus_quitting(qor_bus_t *_this)
{
    QOR_CHECK(_this, -1);
    return bus_stopping(_this) ? 1 : 0;
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

void qor_bus_close(qor_bus_t *_this)
{
    QOR_CHECK_VOID(_this);
    {
        hal_scoped_lock lock(_this->priv->mutex);
        if (_this->priv->looping) {
            QOR_ERR("the loop is running.");
            return;
        }
    }
    qor_bus_quit(_this); /* what modules post while they go down is refused */
    bus_drains_await(*_this->priv);
    bus_tasks_discard(_this);
    main_contexts_close(_this);
    if (_this->time_que) {
        qor_time_que_destroy(_this->time_que);
    }
    qor_bus_uninit(_this);
    bus_head_uninit(_this);
    free(_this);
}

int32_t qor_bus_session(qor_bus_t *_this)
{
    hal_scoped_lock lock(_this->session_mutex);
    const int32_t session = _this->session;
    _this->session = session == INT32_MAX ? 0 : session + 1;
    return session;
}

qor_topic_core_t *qor_bus_topic_core_get(qor_bus_t *bus, int32_t role)
{
    return role == QOR_BUS_ROLE_SYS ? bus->sys_topic_core : bus->user_topic_core;
}

int32_t qor_bus_post(qor_bus_t *_this, qor_context_task_t *task)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(task, -1);
    qor_que_node_t *node = bus_task_node(task);
    if (!node) {
        return -1;
    }
    if (qor_que_enque(_this->que, node) < 0) {
        /* Deliberate: without recycle, arg stays the caller's.
         * Test: Bus.ARefusedPostLeavesTheArgumentAlone. */
        qor_que_node_destroy(node, nullptr);
        return -1;
    }
    return 0;
}

int32_t qor_bus_run(qor_bus_t *_this, qor_context_run_t run, void *arg,
                    qor_context_recycle_t recycle)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(run, -1);
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, qor_bus_session(_this), run, arg);
    task.recycle = recycle;
    return qor_bus_post(_this, &task);
}

int32_t qor_bus_runx(qor_bus_t *_this, qor_context_t *context, qor_context_runx_t runx, void *arg,
                     qor_context_recycle_t recycle)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(runx, -1);
    qor_context_task_t task = {};
    /* Deliberate: a NULL context is reported by the task record, and the task, which then has no
     * function, is posted all the same. Test: Bus.RunxWithoutContextPostsAnEmptyTask. */
    qor_context_taskx_init(&task, context, nullptr, qor_bus_session(_this), runx, arg);
    task.recycle = recycle;
    return qor_bus_post(_this, &task);
}

int32_t qor_bus_timer_post(qor_bus_t *_this, qor_context_task_t *task)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(task, -1);
    qor_time_que_node_t *node = qor_time_que_node_create(static_cast<size_t>(task->session),
                                                         task->delay, sizeof(qor_context_task_t));
    if (!node) {
        return -1;
    }
    qor_context_task_copy(static_cast<qor_context_task_t *>(qor_time_que_node_body(node)), task);
    if (qor_time_que_enque_block(_this->time_que, node, -1) < 0) {
        qor_time_que_node_destroy(node, nullptr); /* as in qor_bus_post() */
        return -1;
    }
    return 0;
}

int32_t qor_bus_cancel(qor_bus_t *_this, int32_t session)
{
    QOR_CHECK(_this, -1);
    qor_que_node_t *node = qor_que_remove(_this->que, static_cast<size_t>(session));
    /* The queue's own address: no task of that session is queued any more. */
    if (!node || static_cast<void *>(node) == static_cast<void *>(_this->que)) {
        return -1;
    }
    qor_que_node_destroy(node, own_task_discard);
    return 0;
}

void qor_bus_priority_set(qor_bus_t *_this, int32_t priority)
{
    QOR_CHECK_VOID(_this);
    hal_store(_this->thread_priority, priority);
}

void qor_bus_thread_num_set(qor_bus_t *_this, uint32_t thread_num)
{
    QOR_CHECK_VOID(_this);
    hal_store(_this->thread_num, thread_num);
}

void qor_bus_thread_stack_size_set(qor_bus_t *_this, uint32_t thread_stack_size)
{
    QOR_CHECK_VOID(_this);
    _this->thread_stack_size = (thread_stack_size + page_size - 1) / page_size * page_size;
}

int32_t qor_bus_loop(qor_bus_t *_this)
{
    QOR_CHECK(_this, -1);
    /* Read once: a task may set it while the workers are being started. */
    const uint32_t thread_num = hal_load(_this->thread_num);
    hal_thread_t *tid = static_cast<hal_thread_t *>(calloc(thread_num, sizeof(*tid)));
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
