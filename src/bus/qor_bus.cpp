/* SPDX-License-Identifier: Apache-2.0 */
/* The bus: what it is made of, its sessions, tasks and timers, and its end. */
#include "qor_bus.h"

#include <string.h>

#include "contract.hpp"
#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_task.h"
#include "qor_deferred_priv.hpp"
#include "qor_diag.hpp"
#include "qor_main.h" /* upward: creating a bus queues the start-up routine as its first task */
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_topic_core.h"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "que_waits.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";
constexpr uint32_t page_size = 4096;
constexpr uint32_t stack_size_max = UINT32_MAX / page_size * page_size;

/* The private block lives behind the reserved list head: like that, it outlives qor_bus_uninit(),
 * after which the loop thread may still be about to return. */
struct bus_head {
    list_head head;
    qor_bus_private priv;
};

int32_t bus_locks_init(qor_bus_t *bus, qor_bus_private &priv)
{
    if (hal_mutex_cond_init(priv.mutex, priv.visited) < 0) {
        return -1;
    }
    if (que_cond_init(&priv.rested, CLOCK_MONOTONIC) == 0) {
        if (pthread_mutex_init(&bus->session_mutex, nullptr) == 0) {
            if (bus_periodics_open(priv.periodics) == 0) {
                return 0;
            }
            pthread_mutex_destroy(&bus->session_mutex);
        }
        pthread_cond_destroy(&priv.rested);
    }
    hal_mutex_cond_destroy(priv.mutex, priv.visited);
    return -1;
}

/* The head, and all locks of the bus; the session mutex is destroyed by qor_bus_uninit(). */
int32_t bus_head_init(qor_bus_t *bus)
{
    bus_head *block = thread_records_open() == 0 ? util_zalloc<bus_head>() : nullptr;
    if (!block || bus_locks_init(bus, block->priv) < 0) {
        free(block);
        return -1;
    }
    INIT_LIST_HEAD(&block->head);
    INIT_LIST_HEAD(&block->priv.helpers);
    INIT_LIST_HEAD(&block->priv.waiters);
    INIT_LIST_HEAD(&block->priv.delegates);
    INIT_LIST_HEAD(&block->priv.failed);
    INIT_LIST_HEAD(&block->priv.contracts);
    bus->head = &block->head;
    bus->priv = &block->priv;
    return 0;
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
    /* Deliberate: a timer queue that could not be made is not noticed here but by the first timer
     * and by the loop, which report a NULL queue.
     * Test: BusFaults.AMissingTimerQueueIsNotNoticedAtCreation. */
    return 0;
}

void bus_queues_uninit(qor_bus_t *bus)
{
    qor_que_destroy(bus->que);
    if (bus->time_que) {
        qor_time_que_destroy(bus->time_que);
    }
}

/* Copies a task into a node of either queue. */
template <typename N> void bus_task_put(N *node, const qor_context_task_t *task)
{
    qor_context_task_copy(bus_task_of(node), task);
    if (sched_delegate_is_relay(task)) {
        que_front_of(node)->discard = sched_delegate_relay_discard;
    }
}

/* What filling a task leaves alone. */
template <typename N> N *bus_task_blank(N *node)
{
    if (node) {
        bus_task_of(node)->name[sizeof(qor_context_task_t::name) - 1] = '\0';
    }
    return node;
}

/* A node for a task, or NULL without memory. */
qor_que_node_t *bus_node_for(const qor_context_task_t *task)
{
    if (sched_delegate_is_relay(task)) {
        return message_node_create_for_bus();
    }
    if (!sched_delegate_is_response(task)) {
        return bus_node();
    }
    qor_time_que_node_t *node = message_node_for_response();
    return node ? message_node_for_bus(node) : nullptr;
}

/* A node of the task queue that carries a copy of the task, or NULL without memory. */
qor_que_node_t *bus_task_node(qor_context_task_t *task)
{
    qor_que_node_t *node = bus_node_for(task);
    if (node) {
        bus_task_put(node, task);
    }
    return node;
}

/* The first task of a bus brings everything up. It takes session 0. */
int32_t bus_start_up_post(qor_bus_t *bus)
{
    qor_que_node_t *node = bus_node();
    if (!node) {
        return -1;
    }
    que_front_of(node)->flags = que_own;
    qor_context_task_init(bus_task_of(node), nullptr, nullptr, qor_bus_session(bus),
                          run_of(qor_main), bus);
    return bus_node_post(bus, node);
}

/* Tables, queues and the first task: 0, or -1 and nothing is left of them. The lines carry the name
 * of qor_bus_init(). */
int32_t bus_parts_init(qor_bus_t *bus, int32_t id_max, const char *func)
{
    if (bus_tables_init(bus, id_max, func) < 0) {
        return -1;
    }
    if (bus_queues_init(bus, func) == 0) {
        if (bus_start_up_post(bus) == 0) {
            return 0;
        }
        QOR_LINE("err", func, "start-up task not queued.");
        bus_queues_uninit(bus);
    }
    bus_tables_uninit(bus);
    return -1;
}

/* The bus quits: gives the result of the post. */
int32_t bus_post_refused(qor_bus_t *bus)
{
    __atomic_fetch_add(&bus->priv->refused, 1, __ATOMIC_RELAXED);
    return -1;
}

/* Whether the calling thread is one of the bus's workers. */
bool bus_thread_works(const qor_bus_t *bus)
{
    const thread_record *record = thread_record_get();
    return bus && record && record->bus == bus && record->role == thread_works;
}

/* A session for a bus with periodic timers: one of them may have it since before the numbers began
 * anew. Out of line, so that where there are none a draw needs no frame. */
[[gnu::noinline]] int32_t bus_session_beside(qor_bus_t *bus, int32_t session)
{
    bus_periodics &timers = bus->priv->periodics;
    return hal_load(timers.calls)->has(timers, session) ? qor_bus_session(bus) : session;
}

/* While somebody may ask how long it has waited. Out of line, so that the others need no frame. */
[[gnu::noinline]] int32_t bus_node_post_seen(qor_bus_t *bus, qor_que_node_t *node)
{
    que_since_set(node, bus_since());
    return qor_que_enque(bus->que, node);
}

bool bus_is_cancelled(const qor_que_node_t *node, const void *session)
{
    return !(que_front_of(node)->flags & que_own) &&
           node->id == static_cast<size_t>(*static_cast<const int32_t *>(session));
}

} // namespace

bool bus_stopping(const qor_bus_t *bus)
{
    return bus && hal_load(bus->priv->stopping);
}

bool bus_watched(const qor_bus_t *bus)
{
    return !hal_load(bus->priv->watch.off);
}

void bus_deferred_over(const qor_bus_t *bus)
{
    const deferred_calls *deferred = hal_load(deferred_made);
    if (deferred) {
        deferred->bus_over(bus);
    }
}

void bus_head_uninit(qor_bus_t *bus)
{
    free(bus->priv->sight);
    contracts_free(bus);
    bus_periodics_close(bus->priv->periodics);
    pthread_cond_destroy(&bus->priv->rested);
    hal_mutex_cond_destroy(bus->priv->mutex, bus->priv->visited);
    free(bus->head); /* first field of the block */
}

size_t bus_module_count(qor_context_module_t **modules)
{
    size_t count = 0;
    while (count < bus_module_limit && modules[count]) {
        count++;
    }
    return count;
}

bool bus_periodic_is_cancelled(qor_bus_t *bus, int32_t session)
{
    const periodic_calls *calls = hal_load(bus->priv->periodics.calls);
    return calls && calls->cancel(bus, session) == 0;
}

int32_t bus_session_next(qor_bus_t *bus)
{
    int32_t session = __atomic_load_n(&bus->session, __ATOMIC_RELAXED);
    int32_t next;
    do { /* not by adding alone: two threads at the wrap would draw a negative number */
        next = session == INT32_MAX ? 0 : session + 1;
    } while (!__atomic_compare_exchange_n(&bus->session, &session, next, true, __ATOMIC_RELAXED,
                                          __ATOMIC_RELAXED));
    return session;
}

qor_que_node_t *bus_node()
{
    return bus_task_blank(que_node_unfilled(sizeof(qor_context_task_t)));
}

qor_context_task_t *bus_task_of(qor_que_node_t *node)
{
    return static_cast<qor_context_task_t *>(qor_que_node_body(node));
}

qor_context_task_t *bus_task_of(qor_time_que_node_t *node)
{
    return static_cast<qor_context_task_t *>(qor_time_que_node_body(node));
}

uint32_t bus_since()
{
    return static_cast<uint32_t>(util_timestamp()) | 1;
}

int32_t bus_node_post(qor_bus_t *bus, qor_que_node_t *node)
{
    node->id = static_cast<size_t>(bus_task_of(node)->session);
    return trace_on(QOR_TRACE_STACKS) ? bus_node_post_seen(bus, node)
                                      : qor_que_enque(bus->que, node);
}

qor_time_que_node_t *bus_timer_node()
{
    qor_time_que_node_t *node = bus_task_blank(time_que_node_unfilled(sizeof(qor_context_task_t)));
    if (!node) {
        return nullptr;
    }
    que_front_of(node)->spare = bus_node();
    if (!que_front_of(node)->spare) {
        qor_time_que_node_destroy(node, nullptr);
        return nullptr;
    }
    return node;
}

int32_t bus_timer_node_post(qor_bus_t *bus, qor_time_que_node_t *node)
{
    const qor_context_task_t *task = bus_task_of(node);
    qor_time_que_node_update(node, static_cast<size_t>(task->session), task->delay);
    return qor_time_que_enque_block(bus->time_que, node, -1);
}

void bus_stuck_begin(qor_bus_t *bus)
{
    if (bus_thread_works(bus)) {
        hal_scoped_lock lock(bus->priv->mutex);
        bus->priv->stuck++;
    }
}

bool bus_stuck_try(qor_bus_t *bus)
{
    if (!bus_thread_works(bus)) {
        return true;
    }
    hal_scoped_lock lock(bus->priv->mutex);
    const bool others = bus->priv->stuck + 1 < bus->priv->workers;
    bus->priv->stuck += others;
    return others;
}

void bus_stuck_end(qor_bus_t *bus)
{
    if (bus_thread_works(bus)) {
        hal_scoped_lock lock(bus->priv->mutex);
        bus->priv->stuck--;
    }
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
    if (count == bus_module_limit) {
        /* Deliberate: no line, the caller sees the result only.
         * Test: BusCreate.Refuses1024ModulesWithoutALine. */
        return -1;
    }
    memset(_this, 0, sizeof(*_this));
    if (bus_head_init(_this) < 0) {
        QOR_ERR("head create failed.");
        return -1;
    }
    _this->modules = modules;
    _this->thread_priority = -1;
    _this->thread_stack_size = 0x10000;
    _this->thread_num = static_cast<uint32_t>(count) + 1;
    if (bus_parts_init(_this, id_max, __func__) < 0) {
        pthread_mutex_destroy(&_this->session_mutex);
        bus_head_uninit(_this);
        return -1;
    }
    return 0;
}

void qor_bus_destroy(qor_bus_t *bus)
{
    qor_bus_uninit(bus);
    free(bus);
}

void qor_bus_uninit(qor_bus_t *_this)
{
    const trace_functions *recorder = trace_recorder_made();
    if (recorder) {
        recorder->closed(_this);
    }
    bus_deferred_over(_this);
    if (_this->time_que) {
        hal_scoped_lock lock(_this->time_que->mutex);
        _this->priv->gone = 1;
    }
    que_quit_begin(_this->que);
    que_discard_all(_this->que, recycle_of(qor_context_task_uninit));
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
    trace_tell(QOR_TRACE_CHANGES, nullptr, trace_what(trace_quit), 0, 0);
    que_quit_begin(_this->que);
    hal_store(_this->priv->stopping, 1);
    util_list_each(_this->priv->waiters, bus_waiter::wake);
    pthread_cond_broadcast(&_this->priv->rested);
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

int32_t qor_bus_session(qor_bus_t *_this)
{
    const int32_t session = bus_session_next(_this);
    return hal_load(_this->priv->periodics.mask) ? bus_session_beside(_this, session) : session;
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
    if (bus_node_post(_this, node) < 0) {
        /* Deliberate: without recycle, arg stays the caller's.
         * Test: Bus.ARefusedPostLeavesTheArgumentAlone. */
        qor_que_node_destroy(node, nullptr);
        return bus_post_refused(_this);
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
    qor_time_que_node_t *node = bus_timer_node();
    if (!node) {
        return -1;
    }
    bus_task_put(node, task);
    if (bus_timer_node_post(_this, node) < 0) {
        qor_time_que_node_destroy(node, nullptr); /* as in qor_bus_post() */
        return bus_post_refused(_this);
    }
    return 0;
}

int32_t qor_bus_cancel(qor_bus_t *_this, int32_t session)
{
    QOR_CHECK(_this, -1);
    if (bus_periodic_is_cancelled(_this, session)) {
        return 0;
    }
    /* What the library made for itself is passed over: a module that cancels a number of its own
     * choice, or an old one, must not stop others. */
    qor_que_node_t *node = que_take_if(_this->que, bus_is_cancelled, &session);
    if (!node) {
        return -1;
    }
    que_node_discard(node, recycle_of(qor_context_task_uninit));
    return 0;
}

void qor_bus_watch_set(qor_bus_t *_this, int32_t on)
{
    QOR_CHECK_VOID(_this);
    hal_scoped_lock lock(_this->priv->mutex);
    if (_this->priv->looping) {
        QOR_ERR("the loop runs already.");
        return;
    }
    hal_store(_this->priv->watch.off, on ? 0 : 1);
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
    const uint32_t size = thread_stack_size < stack_size_max ? thread_stack_size : stack_size_max;
    hal_store(_this->thread_stack_size, (size + page_size - 1) / page_size * page_size);
}
