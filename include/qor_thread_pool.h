/* SPDX-License-Identifier: Apache-2.0 */
/* Thread pool: runs tasks on resident threads, and on temporary ones while many tasks wait. */
#ifndef QOR_THREAD_POOL_H
#define QOR_THREAD_POOL_H

#include "qor_hal.h"
#include "qor_que.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** A thread of a pool. Records of temporary threads are freed by the thread when it ends. */
struct qor_thread_pool_thread {
    qor_thread_pool_t *pool; /**< the pool it works for; NULL if its attribute was refused */
    int32_t wait_time;       /**< milliseconds without a task after which it ends; -1 is never */
    int32_t identity;        /**< its number; the idle thread is named "qor_thread:<number>" */
    int32_t resident;        /**< 1: lives until quit; 0: temporary */
    hal_thread_t tid;        /**< set by the thread itself, under the queue's mutex */
};

/** A pool. Change its fields only through the functions. */
struct qor_thread_pool {
    qor_que_t *que;                       /**< waiting tasks; its mutex also guards thread_num */
    int32_t quitting;                     /**< 0 while running, then 1 for good */
    int32_t keep_alive_time;              /**< milliseconds that an idle temporary thread stays */
    int32_t thread_count_min;             /**< number of resident threads */
    int32_t thread_count_max;             /**< no temporary thread is added from here on */
    int32_t thread_num;                   /**< threads counted as alive */
    int32_t priority;                     /**< 0 to 99, or negative for none */
    int32_t thread_stack_size;            /**< bytes, a multiple of 1024 */
    qor_thread_pool_thread_t *threads;    /**< thread_count_min records: the resident threads */
    struct qor_thread_pool_private *priv; /**< the pool's own */
};

/**
 * Allocates a pool and initialises it; the arguments are those of qor_thread_pool_init().
 *
 * @return  the pool, released with qor_thread_pool_destroy(), or NULL
 *
 * Prints "malloc \"_this\" failed." without memory, else what qor_thread_pool_init() prints.
 */
QOR_API qor_thread_pool_t *qor_thread_pool_create(int32_t thread_count_min,
                                                  int32_t thread_count_max, int32_t task_count_max,
                                                  int32_t thread_stack_size, int32_t priority,
                                                  int32_t keep_alive_time);

/**
 * Initialises a pool, whatever the record held before, and starts its resident threads.
 *
 * @param thread_count_min   number of resident threads, 0 or more
 * @param thread_count_max   number of threads up to which temporary ones are added
 * @param task_count_max     most tasks that may wait; -1 for any number
 * @param thread_stack_size  bytes, a positive multiple of 1024. A size that the system finds too
 *                           small gives the smallest that it takes. With glibc the thread-local
 *                           data of program and libraries lies in there too: where that needs more,
 *                           the system does not create the threads
 * @param priority           0 to 99, or negative for none. It is noted in the attribute of each
 *                           thread, which goes on to inherit the scheduling of the thread that adds
 *                           it; so the one effect is that a value that the system refuses keeps
 *                           every thread from starting. Such a value is 0, with glibc: for none
 *                           pass -1
 * @param keep_alive_time    milliseconds without a task after which a temporary thread ends;
 *                           negative for never
 * @return                   0 or -1
 *
 * Checks in this order and prints: "!(_this) == true."; "priority range is [0-100), if set valie
 * \"<0\" mean not work, if \">=100\" is invalid. your set: <priority>"; "thread_stack_size must be
 * integer multiple of 1024. your set: <size>"; "thread_count_max must be bigger than
 * thread_count_min. your set: <min>, <max>" (equal ones are accepted); "create que failed.";
 * "malloc threads failed.".
 *
 * A resident thread that could not be started because its stack size or its priority was refused
 * prints "set thread stack size failed." or "set thread priority failed.", and "create thread
 * failed. index = <number>". One that the system did not create prints nothing. Neither makes this
 * function fail, and both stay counted in thread_num.
 */
QOR_API int32_t qor_thread_pool_init(qor_thread_pool_t *_this, int32_t thread_count_min,
                                     int32_t thread_count_max, int32_t task_count_max,
                                     int32_t thread_stack_size, int32_t priority,
                                     int32_t keep_alive_time);

/**
 * Hands a task to the pool, which copies it and calls its recycle once it has run or was discarded.
 * Both happen with no lock held; a thread bears the task's name while it runs. Cancellation is
 * disabled in a pool's threads, so pthread_cancel() of one has no effect; a task that enables it
 * disables it again before it returns.
 *
 * A task, or its recycle, may end its thread with pthread_exit(): the recycle is called as after a
 * return, on the same thread, and must not call pthread_exit() itself then. Then another thread
 * takes the place of the one that has ended. When it cannot be started, "create new thread failed."
 * is printed, if need be after one of the lines about its attribute, and thread_num is lowered: the
 * place is free. With glibc pthread_exit() needs libgcc_s.so.1, as in any thread.
 *
 * @param task  the caller's; may be forgotten after the call
 * @return      0, or -1: the task's arg stays the caller's then, recycle is not called
 *
 * Prints "!(_this) == true.", "!(task) == true.", "!(!_this->quitting) == true.", "create
 * qor_que_node_t failed." or "reject task. because task que is full.".
 *
 * Adds one temporary thread when more than two tasks wait for each counted thread and thread_num is
 * below thread_count_max. When that fails, the result is 0 all the same, for the task is queued; it
 * prints "malloc qor_thread_pool_thread_t failed.", or "create new thread failed." after "set
 * thread stack size failed." or "set thread priority failed.". Any thread may post, tasks of the
 * pool included.
 */
QOR_API int32_t qor_thread_pool_post(qor_thread_pool_t *_this, qor_context_task_t *task);

/**
 * Stops the pool: refuses further tasks, discards those that wait through their recycle, on the
 * calling thread, and waits until every thread has finished its task and ended.
 *
 * @param _this  the pool; not checked
 *
 * Any thread may call it. A second call returns at once, even while the first still waits. A task
 * of the pool would wait for itself: called from there, it stops the pool but does not wait.
 */
QOR_API void qor_thread_pool_quit(qor_thread_pool_t *_this);

/**
 * Stops the pool as qor_thread_pool_quit(), waits in any case until its threads have ended and no
 * other thread is inside that function, and releases what qor_thread_pool_init() made.
 *
 * Prints "!(_this) == true.". From a task of the pool it prints "a task of the pool cannot release
 * it." and does nothing.
 */
QOR_API void qor_thread_pool_uninit(qor_thread_pool_t *_this);

/** Releases a pool as qor_thread_pool_uninit(), with the same lines, and frees it. */
QOR_API void qor_thread_pool_destroy(qor_thread_pool_t *_this);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_THREAD_POOL_H */
