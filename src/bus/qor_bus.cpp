/* SPDX-License-Identifier: Apache-2.0 */
/* The bus: what it is made of, its sessions, tasks and timers, and its end. */
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
        /* Deliberate: no line, the caller sees the result only.
         * Test: BusCreate.Refuses1024ModulesWithoutALine. */
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
