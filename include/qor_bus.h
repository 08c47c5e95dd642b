/* SPDX-License-Identifier: Apache-2.0 */
/* The bus: topic tables, worker threads, timers and session numbers of one application. */
#ifndef QOR_BUS_H
#define QOR_BUS_H

#include "qor_hal.h"
#include "qor_que.h"
#include "qor_sys.h"
#include "qor_time_que.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** Roles of a context on the bus: which topic table its registrations and requests go to. */
enum {
    QOR_BUS_ROLE_USER = 0, /**< the application's topics */
    QOR_BUS_ROLE_SYS = 1   /**< the system modules' topics */
};

/** A bus. Change its fields only through the functions. */
struct qor_bus {
    qor_context_module_t **modules;    /**< the application's array, NULL-terminated; borrowed */
    qor_topic_core_t *user_topic_core; /**< the application's topics */
    qor_topic_core_t *sys_topic_core;  /**< QOR_SYS_NUM topics */
    int32_t session;                   /**< the next session number; changed atomically */
    hal_thread_mutex_t session_mutex;  /**< reserved: numbers are drawn without it */
    uint32_t thread_num;               /**< number of workers */
    uint32_t thread_stack_size;        /**< of each worker, in bytes */
    int32_t thread_priority;           /**< of each worker; negative leaves scheduling alone */
    qor_que_t *que;                    /**< tasks to run now; id is the session number */
    qor_time_que_t *time_que;          /**< timers; id is the session number */
    list_head *head;                   /**< reserved: an empty list */
    struct qor_bus_private *priv;      /**< the library's own */
};

/**
 * Creates a bus for an application.
 *
 * @param modules  the module descriptors, NULL-terminated, at most 1023; borrowed for the bus's
 *                 life
 * @param id_max   number of topics of the application, at least 1
 * @return         the bus, released with qor_bus_close() (or qor_bus_destroy()), or NULL
 *
 * The first task is already queued: it brings up the system modules, and they the application's, as
 * soon as qor_bus_loop() runs. Defaults: one worker more than there are modules, stacks of 64 KiB,
 * no priority. Prints what qor_bus_init() prints, or "!(bus) == true." without memory. One bus at a
 * time: two system module descriptors, which are global, refer to it.
 */
QOR_API qor_bus_t *qor_bus_create(qor_context_module_t **modules, int32_t id_max);

/**
 * Initialises a bus record of the caller's; otherwise as qor_bus_create().
 *
 * @return  0, or -1 with nothing left allocated
 *
 * Prints "!(_this) == true.", "!(modules) == true.", "!(id_max > 0) == true.", "head create
 * failed." (memory or a lock), "user_topic_core create failed.", "sys_topic_core create failed.",
 * "create "qor_que_t" failed." or "start-up task not queued." (without memory). 1024 modules or
 * more fail without a line. A timer queue that could not be made is not noticed here.
 */
QOR_API int32_t qor_bus_init(qor_bus_t *_this, qor_context_module_t **modules, int32_t id_max);

/**
 * Destroys a bus and frees its record. The argument is not checked.
 *
 * Not an orderly end, see qor_bus_uninit(): use qor_bus_quit() and qor_bus_close().
 */
QOR_API void qor_bus_destroy(qor_bus_t *bus);

/**
 * Destroys the task queue, the topic tables and the session lock of a bus. Not checked for NULL.
 *
 * Queued tasks are recycled and waiting workers end, but none is joined; no task may be running
 * then, because its worker goes on to use what has been destroyed. The timer queue and head stay,
 * so a running qor_bus_loop() goes on waiting until somebody quits the timer queue, and recycles
 * the timers that fall due without running them. Contexts and delegates stay as well.
 */
QOR_API void qor_bus_uninit(qor_bus_t *_this);

/**
 * Asks the loop to end. Any thread, any time, any number of times; neither waits nor joins.
 *
 * @return  0, or -1 for a NULL bus ("!(_this) == true.")
 *
 * From now on no task or timer is accepted or started. Deliveries that wait for a context's start,
 * and stops that wait for its pause, fail with their usual lines. qor_bus_loop() lets running tasks
 * finish, recycles what is still queued, and returns. Not to be called from a signal handler; a
 * thread in sigwait() may call it.
 */
QOR_API int32_t qor_bus_quit(qor_bus_t *_this);

/**
 * Tells whether qor_bus_quit() has been called, for consoles and long tasks that poll. Any thread.
 *
 * @return  1 or 0, or -1 for a NULL bus ("!(_this) == true.")
 */
QOR_API int32_t qor_bus_quitting(qor_bus_t *_this);

/**
 * Waits until nothing is queued or running on the bus: no task, no timer that is due, no request or
 * response on its way, also none that is deferred, no init under way on any thread. Timers that are
 * not due yet do not count.
 *
 * @param wait_time  longest wait in milliseconds; 0 looks once, negative waits without limit
 * @return           0, or -1 when the wait is over or the bus quits. Before qor_bus_loop() runs the
 *                   start-up task is queued, so there is something to wait for.
 *
 * Prints "!(_this) == true.", or "!(_this->time_que) == true." when the bus has no timer queue;
 * called from a task of this bus, from an init, or from a recycle that its loop calls, it prints "a
 * task of the bus would wait for itself." and returns -1. Other threads may go on posting: 0 says
 * what was so at one moment.
 */
QOR_API int32_t qor_bus_drain(qor_bus_t *_this, int32_t wait_time);

/**
 * Ends a bus made by qor_bus_create(): after the loop has returned, or when it never ran.
 *
 * Takes the application's contexts down in the reverse order of their start (each module's unreg,
 * then uninit, is called), then the system modules; frees everything, the record included. Contexts
 * that failed to come up are freed too. The process can create and run another bus afterwards.
 *
 * Prints "!(_this) == true."; called while the loop runs it prints "the loop is running." and
 * changes nothing. A module with a console must let it return when its unreg is called. Waits for
 * threads that are inside qor_bus_drain() or qor_bus_wait_up(), which the quit ends, or inside
 * qor_bus_inspect() or qor_bus_dump(), which end by themselves; no other thread of the
 * application's may use the bus or its contexts any more.
 */
QOR_API void qor_bus_close(qor_bus_t *_this);

/**
 * Draws a session number: 0, 1, 2 ... up to INT32_MAX, then 0 again. Any thread; not checked for
 * NULL.
 *
 * The start-up task has drawn 0.
 */
QOR_API int32_t qor_bus_session(qor_bus_t *_this);

/** Gives the topic table of a role: the system's for QOR_BUS_ROLE_SYS, else the application's. Not
 * checked for NULL. */
QOR_API qor_topic_core_t *qor_bus_topic_core_get(qor_bus_t *bus, int32_t role);

/**
 * Queues a copy of a task for the workers. Any thread; never waits.
 *
 * A task that calls pthread_exit() is over: its recycle is called, a new worker takes the place of
 * the one that it has ended, and what the task itself has taken, such as memory or locks, is not
 * released. When no other worker can be made, qor_bus_task_loop prints "a task has ended a worker,
 * and no other could be made.".
 *
 * @param task  copied; its arg and recycle go with the copy
 * @return      0, or -1 when the bus quits or without memory: the task's arg then stays the
 *              caller's and recycle is not called
 *
 * Prints "!(_this) == true." or "!(task) == true."; without memory "malloc "qor_que_node_t"
 * failed." comes from the queue. A bus that quits refuses without a line.
 */
QOR_API int32_t qor_bus_post(qor_bus_t *_this, qor_context_task_t *task);

/**
 * Queues a function for the workers under a fresh session number.
 *
 * @param recycle  releases arg after the function has run, or when the task is discarded; may be
 *                 NULL
 * @return         0 (not the session number), or -1 as for qor_bus_post()
 *
 * Prints "!(_this) == true." or "!(run) == true.". Any thread.
 */
QOR_API int32_t qor_bus_run(qor_bus_t *_this, qor_context_run_t run, void *arg,
                            qor_context_recycle_t recycle);

/**
 * Queues a function that receives its context and session; otherwise as qor_bus_run().
 *
 * Prints "!(_this) == true." or "!(runx) == true.". The context must not be NULL: the task record
 * refuses it with a line, and an empty task is queued all the same.
 */
QOR_API int32_t qor_bus_runx(qor_bus_t *_this, qor_context_t *context, qor_context_runx_t runx,
                             void *arg, qor_context_recycle_t recycle);

/**
 * Queues a copy of a task as a timer, due after task->delay milliseconds. Any thread.
 *
 * @return  0, or -1 as for qor_bus_post(). With 0 all memory is there that the timer needs until
 *          its task has run.
 *
 * The task's recycle runs twice: on the loop's thread when the timer falls due, right after the
 * task was queued, and once more after the task ran. The first does not wait for the task nor the
 * task for it: they may run beside each other. Give a timer no recycle, or one that tolerates it.
 * Prints "!(_this) == true." or "!(task) == true."; without memory "malloc "qor_time_que_node_t"
 * failed." or, for the task that the timer becomes, "malloc "qor_que_node_t" failed." from the
 * queues; on a bus without a timer queue three times "!(_this) == true.".
 */
QOR_API int32_t qor_bus_timer_post(qor_bus_t *_this, qor_context_task_t *task);

/**
 * Takes the first task of a session that has not started out of the task queue and recycles it.
 *
 * @return  0, or -1 when no task of that session is queued. A timer that is not due is not found.
 *
 * Passes over the tasks that the library has made for itself, whatever their numbers: start-up,
 * inits, and the runs that empty a module's queue or that an asynchronous task of it has been
 * given.
 *
 * Prints "!(_this) == true.". Any thread.
 */
QOR_API int32_t qor_bus_cancel(qor_bus_t *_this, int32_t session);

/**
 * Chooses whether the bus's tasks are watched: 1, as from the beginning, or 0, for modules whose
 * tasks are so short that the watch costs a good part of them.
 *
 * Without it no task is reported to QOR_SYS_MONITOR_TASK, so no "MONITOR: ..." line ever names one
 * that hangs; no thread of the bus takes a task's name or "context", so that ps, top and a debugger
 * show the name of the thread that called qor_bus_loop(); and the numbers that reports would have
 * drawn go to other tasks. Everything else stays.
 *
 * Before qor_bus_loop(); while that runs the call changes nothing. Any thread. Prints "!(_this) ==
 * true." or "the loop runs already.".
 */
QOR_API void qor_bus_watch_set(qor_bus_t *_this, int32_t on);

/**
 * Sets the workers' priority, negative for none; takes effect before qor_bus_loop(). Not checked:
 * what the system refuses, with glibc also 0, keeps the loop from starting.
 *
 * Prints "!(_this) == true.".
 */
QOR_API void qor_bus_priority_set(qor_bus_t *_this, int32_t priority);

/** Sets the number of workers; takes effect before qor_bus_loop(). With 0 no task ever runs.
 * Prints "!(_this) == true.". */
QOR_API void qor_bus_thread_num_set(qor_bus_t *_this, uint32_t thread_num);

/**
 * Sets the workers' stack size in bytes, rounded up to a multiple of 4096, of which 0xfffff000 is
 * the largest; takes effect before qor_bus_loop().
 *
 * A size that the system finds too small, such as 0, gives the smallest that it takes. Prints
 * "!(_this) == true.".
 */
QOR_API void qor_bus_thread_stack_size_set(qor_bus_t *_this, uint32_t thread_stack_size);

/**
 * Starts the workers and serves the timers on the calling thread, until qor_bus_quit().
 *
 * @return  0 after the end, with every thread of the bus but consoles joined; -1 when it could not
 *          start
 *
 * Prints "!(_this) == true.", "!(tid) == true." without memory, "thread attribute failed.", "set
 * thread stack size failed.", "set thread priority failed." or, when workers are wanted and none of
 * them can work, "no worker started.". With some of them it runs: one that cannot be made is not
 * reported, of one that finds no memory for what it keeps qor_bus_task_loop prints "no memory for a
 * worker.". Call it once.
 *
 * Neither the workers nor the threads that help with inits take a pthread_cancel(), nor does the
 * calling thread while it is in here; it has its own setting again afterwards.
 */
QOR_API int32_t qor_bus_loop(qor_bus_t *_this);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_BUS_H */
