/* SPDX-License-Identifier: Apache-2.0 */
/* User context: runs an application module with a lifecycle and a private queue of tasks. */
#ifndef QOR_CORE_CONTEXT_H
#define QOR_CORE_CONTEXT_H

#include "qor_context.h"
#include "qor_hal.h"
#include "qor_sys.h"
#include "qor_time_que.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** The lifecycle of a user context. The order of the values matters: the rules compare them. */
typedef enum {
    QOR_USER_CONTEXT_LIFECYCLE_INIT = 0,    /**< created */
    QOR_USER_CONTEXT_LIFECYCLE_CREATE = 1,  /**< the module's init has succeeded */
    QOR_USER_CONTEXT_LIFECYCLE_START = 2,   /**< started: deliveries are let in */
    QOR_USER_CONTEXT_LIFECYCLE_RESUME = 3,  /**< has been delivered to */
    QOR_USER_CONTEXT_LIFECYCLE_PAUSE = 4,   /**< set by the application: may be stopped */
    QOR_USER_CONTEXT_LIFECYCLE_STOP = 5,    /**< stopped, or its init failed: refuses deliveries */
    QOR_USER_CONTEXT_LIFECYCLE_DESTROY = 6, /**< cleaned up: may be destroyed */
} E_QOR_USER_CONTEXT_LIFECYCLE_T;

#ifndef QOR_NO_COMMON_NAMES
/** The same by its second name. */
typedef E_QOR_USER_CONTEXT_LIFECYCLE_T qor_user_context_lifecycle_t;
#endif

/**
 * A user context: a wrapper around the context that the module sees.
 *
 * The module's calls go to the wrapper, and from there through its scheduling delegate to the bus.
 * Tasks, requests and responses wait in the private queue; loop runs on the bus's workers empty it.
 * A post starts a loop run while fewer than refcount_max slots are taken. A task with async set is
 * given a run of its own, which cancel does not find. Whatever a task needs until it has run is had
 * when it is accepted. A delayed task has a timer that starts a further loop run when it is due;
 * that run takes no slot but gives one back, so it may run beside the others and makes room for one
 * more. Cancelling the task takes the timer too. When the queue holds 50 nodes, a task goes
 * straight to the bus under its own session, beside all others; a delayed one that went this way is
 * not found by cancel. So refcount_max bounds neither the module's tasks nor its handler:
 * docs/behaviour.md has the table of what may run beside what.
 * A contract (qor_contract.h) changes all of this for its module. The module has no system calls.
 */
struct qor_core_context {
    qor_context_t base;         /**< the wrapper; first, so that it is a context */
    qor_context_t *context;     /**< the module's context; stays when the wrapper is destroyed */
    int32_t active_refcount;    /**< entries less leaves, modulo 2^32; changed atomically */
    volatile int32_t lifecycle; /**< written under mutex, read without */
    hal_thread_cond_t cond;     /**< broadcast on every change of lifecycle but resume's, and on
                                     every pause */
    hal_thread_mutex_t mutex;   /**< a leaf: no other lock is taken under it */
    uint32_t refcount_max;      /**< no post starts a loop run while so many slots are taken */
    int32_t refcount;           /**< slots taken: loop runs that posts have started, less what runs
                                     of timers gave back; guarded by the queue's lock */
    qor_time_que_t *que;        /**< tasks that wait; id is the session number */
    struct qor_core_context_private *priv; /**< the library's own */
};

/**
 * The class of user contexts; in no registry. Its operations are reached through the
 * qor_context_...() functions:
 *
 * - create makes the module's context as well, by the class registry. It prints what it lacks:
 *   "malloc for "qor_core_context_t" failed." for memory or a lock of its own, or "create context
 *   failed." and ""qor_core_context_constructor" called failed."; an empty line follows those with
 *   quotes.
 * - destroy is refused before DESTROY: "context is not ready to destroy.". The module's context
 *   stays. What is attached to a bus is freed when that is closed.
 * - register, unregister and handle_message go to the module's context. So does init, whose result
 *   it gives: CREATE follows, or STOP and "context init failed.". After uninit comes DESTROY.
 * - start starts the module's context, whose result it gives, and lets deliveries in; stop stops
 *   that context and then waits for PAUSE. resume and pause enter and leave.
 * - handle_task queues a copy of the task: 0, or -1 without memory ("malloc "que_node" failed." at
 *   first, nothing for a run), when the bus quits, or when the init has failed ("create a timer
 *   failed, source:<module>, task:<name>, session=<number>"); the task's arg then stays the
 *   caller's. A response that is refused for one of the last two reasons prints nothing.
 */
extern QOR_API qor_context_cls_t qor_core_context_class;

/** The user context that a context of this class is. Not checked. */
QOR_API qor_core_context_t *qor_core_context_type(qor_context_t *context);

/**
 * Changes the lifecycle.
 *
 * @param lifecycle  the new value
 * @return           0, or -1 with nothing changed
 *
 * Only upwards or to the same value; but RESUME is accepted from anywhere, and anything from PAUSE.
 * Prints "!(_this) == true." or "lifecycle change logical not correct.". Any thread.
 */
QOR_API int32_t qor_core_context_lifecycle_change(qor_core_context_t *_this, int32_t lifecycle);

/**
 * Lets deliveries in: INIT or CREATE becomes START.
 *
 * @return  0, or -1 after "!(_this) == true." or "lifecycle already START or not CREATE yet. START
 *          failed."
 */
QOR_API int32_t qor_core_context_lifecycle_start(qor_core_context_t *_this);

/**
 * Waits until the context is in PAUSE and makes that STOP.
 *
 * Only qor_core_context_lifecycle_change() reaches PAUSE: deliveries never do, so this waits until
 * the application says so.
 *
 * @return  0, or -1 after "!(_this) == true." or "lifecycle already STOP. STOP failed.", also when
 *          the bus quits meanwhile
 */
QOR_API int32_t qor_core_context_lifecycle_stop(qor_core_context_t *_this);

/**
 * Enters the context for a delivery; waits while it has not started. An init of the context's that
 * waits in the task queue and that nobody has begun is begun for it, see qor_context_module_init_t.
 *
 * @return  0, or -1 after "!(_this) == true.", "lifecycle already STOP or not START yet. RESUME
 *          failed." or, when that came about during the wait or the bus quits, "lifecycle already
 *          STOP or DESTROY. RESUME failed."
 */
QOR_API int32_t qor_core_context_lifecycle_resume(qor_core_context_t *_this);

/**
 * Leaves the context after a delivery. The lifecycle stays as it is: RESUME does not become PAUSE.
 *
 * @return  0, or -1 after "!(_this) == true." or "lifecycle already STOP or not RESUME yet. PAUSE
 *          failed."
 */
QOR_API int32_t qor_core_context_lifecycle_pause(qor_core_context_t *_this);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_CORE_CONTEXT_H */
