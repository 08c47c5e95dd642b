/* SPDX-License-Identifier: Apache-2.0 */
/* Thread pool. Everything shared is guarded by the queue's mutex; a thread's last act on the pool
 * is to unlock it, so that whoever waited for the thread may release the pool at once. */
#include "qor_thread_pool.h"

#include <stdlib.h>

#include "hal_sync.hpp"
#include "hal_thread.hpp"
#include "qor_context_task.h"
#include "qor_diag.hpp"
#include "qor_que_priv.hpp"
#include "qor_recycle.hpp"
#include "qor_util.hpp"
#include "thread_record.hpp"

/* All fields are guarded by the queue's mutex. */
struct qor_thread_pool_private {
    list_head running; /* pool_worker::node */
    int32_t started;   /* threads that exist or are being created: thread_num without the failed */
    int32_t quitters;  /* threads inside qor_thread_pool_quit() */
};

namespace {

constexpr char file_tag[] = "qor_thread_pool";
constexpr int32_t priority_end = 100;
constexpr int32_t stack_unit = 1024;

/* One of the pool's threads at work. Lives at the bottom of that thread's stack, where it outlasts
 * a task that ends the thread. */
struct pool_worker {
    list_head node; /* in the pool's list of those that run */
    hal_thread_t self;
    qor_thread_pool_thread_t *thread;
    qor_que_node_t *task; /* the one that is being run or released, or NULL */
    char name[32];        /* of the thread between tasks */
    thread_record record;
};

/* Whether the calling thread is one of the pool's own, which would wait for itself. */
bool pool_runs_caller_locked(qor_thread_pool_t *pool)
{
    bool own = false;
    util_list_each(pool->priv->running, [&own](list_head *link) {
        const pool_worker *worker = reinterpret_cast<pool_worker *>(link); /* first field */
        own = own || pthread_equal(worker->self, pthread_self());
    });
    return own;
}

bool pool_runs_caller(qor_thread_pool_t *pool)
{
    hal_scoped_lock lock(pool->que->mutex);
    return pool_runs_caller_locked(pool);
}

/* Gives back what pool_allocate() and the queue's creation made. */
void pool_free(qor_thread_pool_t *pool)
{
    free(pool->threads);
    free(pool->priv);
    qor_que_destroy(pool->que);
    pool->threads = nullptr;
    pool->priv = nullptr;
    pool->que = nullptr;
}

void pool_count_locked(qor_thread_pool_t *pool)
{
    pool->thread_num++;
    pool->priv->started++;
}

/* A thread has ended or was never created; the pool may be gone once the lock is given up. Whether
 * the thread stays counted in thread_num is the caller's business. */
void pool_uncount_locked(qor_thread_pool_t *pool)
{
    pool->priv->started--;
    if (pool->priv->started == 0) {
        qor_que_wakeup_locked(pool->que); /* for quit */
    }
}

/* Resident records belong to the pool, which the analyzer cannot see from the flag. */
void pool_free_record(qor_thread_pool_thread_t *thread)
{
    if (!thread->resident) {
        free(thread); /* NOLINT(clang-analyzer-unix.Malloc) */
    }
}

/* A thread that was counted has ended or was never there: it and its record are taken back. */
void pool_take_back_locked(qor_thread_pool_t *pool, qor_thread_pool_thread_t *thread)
{
    pool->thread_num--;
    pool_free_record(thread);
    pool_uncount_locked(pool);
}

/* Releases the task that was run. Its recycle is called once, even if that ends the thread, which
 * has its own name back by then. */
void pool_task_release(pool_worker &worker)
{
    qor_context_task_t *task = static_cast<qor_context_task_t *>(qor_que_node_body(worker.task));
    const qor_context_recycle_t recycle = task->recycle;
    task->recycle = nullptr;
    if (recycle) {
        hal_thread_name_set(worker.name);
        recycle(task->arg);
    }
    qor_que_node_destroy(worker.task, nullptr);
    worker.task = nullptr;
}

/* Takes a task, under the thread's own name where it has to wait. The caller holds the lock. */
qor_que_node_t *pool_take_locked(const pool_worker &worker)
{
    qor_que_t *que = worker.thread->pool->que;
    if (list_empty(&que->head)) {
        qor_que_unlock(que);
        hal_thread_name_set(worker.name);
        qor_que_lock(que);
    }
    return qor_que_deque_block_locked(que, worker.thread->wait_time);
}

/* Takes tasks, runs each under its own name, and releases it, until there is none in time. */
void pool_work(pool_worker &worker)
{
    qor_thread_pool_thread_t *thread = worker.thread;
    qor_thread_pool_t *pool = thread->pool;
    qor_que_t *que = pool->que;
    hal_snprintf(worker.name, sizeof(worker.name), "qor_thread:%d", thread->identity);
    hal_thread_name_set(worker.name);

    qor_que_lock(que);
    while ((worker.task = pool_take_locked(worker))) {
        qor_que_unlock(que);
        qor_context_task_t *task =
            static_cast<qor_context_task_t *>(qor_que_node_body(worker.task));
        hal_thread_name_set(task->name);
        qor_context_task_excute(task);
        pool_task_release(worker);
        qor_que_lock(que);
    }
    list_del(&worker.node);
    pool_take_back_locked(pool, thread);
    qor_que_unlock(que);
}

int32_t qor_thread_pool_create_thread(qor_thread_pool_t *pool, qor_thread_pool_thread_t *thread);

/* Runs on a thread that its task, or the task's recycle, has ended with pthread_exit(). Releases
 * the task and, unless the pool quits, starts another thread with the same record. */
void qor_thread_pool_replace_thread(void *arg)
{
    pool_worker &worker = *static_cast<pool_worker *>(arg);
    qor_thread_pool_thread_t *thread = worker.thread;
    qor_thread_pool_t *pool = thread->pool;
    thread_record_leave(worker.record);
    pool_task_release(worker);
    thread_record_set(nullptr); /* the record ends with this stack */
    {
        hal_scoped_lock lock(pool->que->mutex);
        list_del(&worker.node);
        if (pool->quitting) {
            pool_take_back_locked(pool, thread);
            return;
        }
    }
    if (qor_thread_pool_create_thread(pool, thread) != 0) {
        /* Deliberate: unlike one that could not be started from the first, it does not stay
         * counted: tasks may wait, and a later post can add a thread for them. Test:
         * ThreadPoolFaults.AThreadThatCannotBeReplacedIsTakenBack. */
        QOR_WRN("create new thread failed.");
        hal_scoped_lock lock(pool->que->mutex);
        pool_take_back_locked(pool, thread);
    }
}

/* Works so that a task may end the thread. The C library then comes back to here without running
 * any destructor of this library's, which has no tables to unwind by. */
void pool_work_guarded(pool_worker *worker)
{
    pthread_cleanup_push(qor_thread_pool_replace_thread, worker);
    pool_work(*worker);
    pthread_cleanup_pop(0);
}

void *qor_thread_pool_loop(void *arg)
{
    /* Deliberate: as in consoles, cancellation has no effect: a thread that ended inside the queue
     * would take its lock along. Test: ThreadPoolThreads.ACancelledThreadGoesOnWaiting. */
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    qor_thread_pool_thread_t *thread = static_cast<qor_thread_pool_thread_t *>(arg);
    qor_thread_pool_t *pool = thread->pool;
    pool_worker worker = {};
    worker.self = pthread_self();
    worker.thread = thread;
    thread_record_set(&worker.record);
    {
        hal_scoped_lock lock(pool->que->mutex);
        thread->tid = worker.self;
        list_add(&worker.node, &pool->priv->running);
    }
    pool_work_guarded(&worker);
    thread_record_set(nullptr);
    return nullptr;
}

/* Starts a thread that is counted already. Returns 0; or -1 when its attribute cannot be had, 1
 * when the system does not create it, and then the caller takes back count and record. */
int32_t qor_thread_pool_create_thread(qor_thread_pool_t *pool, qor_thread_pool_thread_t *thread)
{
    hal_thread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return -1;
    }
    /* Detached from the start: nobody has to read a handle that is still being written. */
    (void)pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (hal_thread_attr_setstacksize(&attr, static_cast<size_t>(pool->thread_stack_size)) != 0) {
        QOR_ERR("set thread stack size failed.");
        (void)pthread_attr_destroy(&attr);
        return -1;
    }
    if (pool->priority >= 0 && hal_thread_attr_setpriority(&attr, pool->priority) != 0) {
        QOR_ERR("set thread priority failed.");
        (void)pthread_attr_destroy(&attr);
        return -1;
    }
    thread->pool = pool;
    hal_thread_t tid; /* not the record's: a temporary one may be gone before this is written */
    const bool created = pthread_create(&tid, &attr, qor_thread_pool_loop, thread) == 0;
    (void)pthread_attr_destroy(&attr);
    return created ? 0 : 1;
}

int32_t pool_allocate(qor_thread_pool_t *pool, int32_t thread_count)
{
    if (thread_count < 0) {
        return -1;
    }
    pool->priv = util_zalloc<qor_thread_pool_private>();
    pool->threads = static_cast<qor_thread_pool_thread_t *>(
        calloc(static_cast<size_t>(thread_count), sizeof(qor_thread_pool_thread_t)));
    if (!pool->priv || (!pool->threads && thread_count != 0)) {
        return -1;
    }
    INIT_LIST_HEAD(&pool->priv->running);
    return 0;
}

/* Starts the resident threads, on behalf of qor_thread_pool_init(). */
void pool_start_residents(qor_thread_pool_t *pool)
{
    for (int32_t i = 0; i < pool->thread_count_min; i++) {
        qor_thread_pool_thread_t *thread = &pool->threads[i];
        thread->identity = i;
        thread->wait_time = -1;
        thread->resident = 1;
        {
            hal_scoped_lock lock(pool->que->mutex);
            pool_count_locked(pool);
        }
        const int32_t ret = qor_thread_pool_create_thread(pool, thread);
        if (ret < 0) {
            QOR_LINE("err", "qor_thread_pool_init", "create thread failed. index = %d", i);
        }
        if (ret != 0) {
            /* Deliberate: the thread stays counted in thread_num, so that no other takes its place;
             * only quit must not wait for it. One that the system does not create is not even
             * reported. Test: ThreadPool.ThreadsThatCannotStartAreReportedAndStayCounted,
             * ThreadPoolFaults.AResidentThreadThatIsNotCreatedStaysCounted. */
            hal_scoped_lock lock(pool->que->mutex);
            pool_uncount_locked(pool);
        }
    }
}

/* Decides whether a temporary thread is to be added, and counts it. */
bool pool_grow_locked(qor_thread_pool_t *pool)
{
    const bool grows =
        pool->que->count > 2 * pool->thread_num && pool->thread_num < pool->thread_count_max;
    if (grows) {
        pool_count_locked(pool);
    }
    return grows;
}

/* Quits, and waits for those too for whom quit does not: the threads of a pool that a task has
 * quit, and another thread's quit. */
void pool_release(qor_thread_pool_t *pool)
{
    qor_thread_pool_quit(pool);
    {
        hal_scoped_lock lock(pool->que->mutex);
        while (pool->priv->started > 0 || pool->priv->quitters > 0) {
            qor_que_wait_locked(pool->que);
        }
    }
    pool_free(pool);
}

/* Starts a temporary thread that is counted already. Returns NULL, or what went wrong. */
const char *pool_add_thread(qor_thread_pool_t *pool, int32_t identity)
{
    qor_thread_pool_thread_t *thread = util_zalloc<qor_thread_pool_thread_t>();
    int32_t ret = -1;
    if (thread) {
        thread->identity = identity;
        thread->wait_time = pool->keep_alive_time;
        ret = qor_thread_pool_create_thread(pool, thread);
    }
    if (ret == 0) {
        return nullptr;
    }
    const char *problem =
        thread ? "create new thread failed." : "malloc qor_thread_pool_thread_t failed.";
    free(thread);
    /* Deliberate: one that the system does not create stays counted and is not reported, as with a
     * resident thread. Test: ThreadPoolFaults.ATemporaryThreadThatIsNotCreatedStaysCounted. */
    const bool stays_counted = ret > 0;
    hal_scoped_lock lock(pool->que->mutex);
    pool->thread_num -= stays_counted ? 0 : 1;
    pool_uncount_locked(pool);
    return stays_counted ? nullptr : problem;
}

} // namespace

qor_thread_pool_t *qor_thread_pool_create(int32_t thread_count_min, int32_t thread_count_max,
                                          int32_t task_count_max, int32_t thread_stack_size,
                                          int32_t priority, int32_t keep_alive_time)
{
    qor_thread_pool_t *_this = util_zalloc<qor_thread_pool_t>();
    if (!_this) {
        QOR_ERR("malloc \"_this\" failed.");
        return nullptr;
    }
    if (qor_thread_pool_init(_this, thread_count_min, thread_count_max, task_count_max,
                             thread_stack_size, priority, keep_alive_time) != 0) {
        free(_this);
        return nullptr;
    }
    return _this;
}

int32_t qor_thread_pool_init(qor_thread_pool_t *_this, int32_t thread_count_min,
                             int32_t thread_count_max, int32_t task_count_max,
                             int32_t thread_stack_size, int32_t priority, int32_t keep_alive_time)
{
    QOR_CHECK(_this, -1);
    if (priority >= priority_end) {
        /* Deliberate: "valie" is how the line has always read.
         * Test: ThreadPool.InitChecksItsSettingsInOrder. */
        QOR_ERR("priority range is [0-100), if set valie \"<0\" mean not work, if \">=100\" is "
                "invalid. your set: %d",
                priority);
        return -1;
    }
    if (thread_stack_size <= 0 || thread_stack_size % stack_unit != 0) {
        QOR_ERR("thread_stack_size must be integer multiple of 1024. your set: %d",
                thread_stack_size);
        return -1;
    }
    if (thread_count_max < thread_count_min) {
        QOR_ERR("thread_count_max must be bigger than thread_count_min. your set: %d, %d",
                thread_count_min, thread_count_max);
        return -1;
    }
    *_this = {};
    (void)thread_records_open(); /* without records names are set more often */
    _this->que =
        qor_que_create(static_cast<uint32_t>(task_count_max), recycle_of(qor_context_task_uninit));
    if (!_this->que) {
        QOR_ERR("create que failed.");
        return -1;
    }
    if (pool_allocate(_this, thread_count_min) != 0) {
        QOR_ERR("malloc threads failed.");
        pool_free(_this);
        return -1;
    }
    _this->priority = priority;
    _this->thread_stack_size = thread_stack_size;
    _this->thread_count_min = thread_count_min;
    _this->thread_count_max = thread_count_max;
    _this->keep_alive_time = keep_alive_time;
    pool_start_residents(_this);
    return 0;
}

int32_t qor_thread_pool_post(qor_thread_pool_t *_this, qor_context_task_t *task)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(task, -1);
    QOR_CHECK_TEXT(!hal_load(_this->quitting), "!_this->quitting", -1);
    qor_que_node_t *node = que_node_unfilled(sizeof(qor_context_task_t));
    if (!node) {
        QOR_ERR("create qor_que_node_t failed.");
        return -1;
    }
    node->id = static_cast<size_t>(task->session);
    qor_context_task_copy(static_cast<qor_context_task_t *>(qor_que_node_body(node)), task);

    qor_que_lock(_this->que);
    const bool accepted = qor_que_enque_locked(_this->que, node) == 0;
    const int32_t identity = _this->thread_num;
    const bool grows = accepted && pool_grow_locked(_this);
    qor_que_unlock(_this->que);

    if (!accepted) {
        /* Deliberate: recycle is not called; arg is still the caller's, who may post it again.
         * Test: ThreadPool.AFullQueueRejectsTheTaskAndLeavesItsArgument. */
        qor_que_node_destroy(node, nullptr);
        QOR_ERR("reject task. because task que is full.");
        return -1;
    }
    const char *problem = grows ? pool_add_thread(_this, identity) : nullptr;
    if (problem) {
        /* Deliberate: still 0, for the task is queued; where no other thread comes to it, the next
         * post tries again. Test:
         * ThreadPoolFaults.ATemporaryThreadWithoutMemoryIsReportedAndTakenBack. */
        QOR_WRN("%s", problem);
    }
    return 0;
}

void qor_thread_pool_quit(qor_thread_pool_t *_this)
{
    {
        hal_scoped_lock lock(_this->que->mutex);
        if (_this->quitting) {
            return;
        }
        hal_store(_this->quitting, 1);
        _this->priv->quitters++;
    }
    qor_que_quit(_this->que);
    hal_scoped_lock lock(_this->que->mutex);
    if (!pool_runs_caller_locked(_this)) {
        while (_this->priv->started > 0) {
            qor_que_wait_locked(_this->que);
        }
    }
    _this->priv->quitters--;
    qor_que_wakeup_locked(_this->que); /* for uninit */
}

void qor_thread_pool_uninit(qor_thread_pool_t *_this)
{
    QOR_CHECK_VOID(_this);
    if (pool_runs_caller(_this)) {
        QOR_ERR("a task of the pool cannot release it.");
        return;
    }
    pool_release(_this);
}

void qor_thread_pool_destroy(qor_thread_pool_t *_this)
{
    QOR_CHECK_VOID(_this);
    if (pool_runs_caller(_this)) {
        QOR_ERR("a task of the pool cannot release it.");
        return;
    }
    pool_release(_this);
    free(_this);
}
