/* SPDX-License-Identifier: Apache-2.0 */
/* The task: a function with its argument, as the bus's worker threads run it. */
#ifndef QOR_CONTEXT_TASK_H
#define QOR_CONTEXT_TASK_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** Which member of fun a task calls; its fun_type field. Any value but 0 counts as RUNX. */
enum {
    QOR_CONTEXT_FUN_RUN = 0, /**< run(arg) */
    QOR_CONTEXT_FUN_RUNX = 1 /**< runx(context, session, arg) */
};

/**
 * A task. Queues copy it by value, so it may be built on the stack and forgotten after posting.
 *
 * The record owns nothing but its bytes. Every copy carries the same arg and recycle, and recycle
 * is called once for every copy that is finished or discarded.
 *
 * Diagnostics about tasks carry the tag of the messages, "qor_context_msg". A task has no lock: one
 * thread at a time uses it.
 */
struct qor_context_task {
    char name[32];          /**< at most 31 characters; the worker thread is named after it */
    qor_context_t *context; /**< owner; NULL is allowed for RUN, needed for RUNX */
    int32_t session;        /**< number under which the task can be cancelled */
    int32_t async;          /**< 0: run from a user context's queue; else by a run of its own */
    int32_t delay;          /**< milliseconds before the task is due; below 1 is now */
    void *arg;              /**< handed to the function and to recycle */
    qor_context_recycle_t recycle; /**< releases arg; may be NULL */
    int32_t fun_type;              /**< QOR_CONTEXT_FUN_... */
    union {
        qor_context_run_t run;
        qor_context_runx_t runx;
    } fun; /**< what to call; not checked here */
};

/**
 * Fills a task that calls run(arg): not asynchronous, without delay, without recycle.
 *
 * @param _this    the record; it need not have been zeroed, see qor_context_task_set_name()
 * @param context  the owning context or NULL; not owned by the task
 * @param name     copied; NULL names the task "task:" and the function's address
 * @param ss       session number
 * @param func     the function; not checked
 * @param arg      stays the caller's until recycle is set
 * @return         0, or -1 for a NULL record
 *
 * Prints "!(_this) == true." under the name of the step that both kinds share,
 * _qor_context_task_init.
 */
QOR_API int32_t qor_context_task_init(qor_context_task_t *_this, qor_context_t *context,
                                      const char *name, int32_t ss, qor_context_run_t func,
                                      void *arg);

/**
 * Fills a task that calls runx(context, session, arg); otherwise as qor_context_task_init().
 *
 * @param context  must not be NULL: prints "!(context) == true." before the record is looked at
 * @return         0 or -1
 */
QOR_API int32_t qor_context_taskx_init(qor_context_task_t *_this, qor_context_t *context,
                                       const char *name, int32_t ss, qor_context_runx_t func,
                                       void *arg);

/**
 * Allocates and fills a task; the arguments are those of qor_context_task_init().
 *
 * @return  the task, released with qor_context_task_destroy(), or NULL
 *
 * Prints "!(_this) == true." when there is no memory.
 */
QOR_API qor_context_task_t *qor_context_task_create(qor_context_t *context, const char *name,
                                                    int32_t ss, qor_context_run_t func, void *arg);

/**
 * Allocates and fills a task; the arguments are those of qor_context_taskx_init().
 *
 * @return  the task, released with qor_context_task_destroy(), or NULL
 *
 * Prints "!(context) == true." for a NULL context, "!(_this) == true." when there is no memory.
 */
QOR_API qor_context_task_t *qor_context_taskx_create(qor_context_t *context, const char *name,
                                                     int32_t ss, qor_context_runx_t func,
                                                     void *arg);

/**
 * Copies every field of src into _this. Both copies then carry the same arg and recycle.
 *
 * @return  0, or -1 for a NULL argument
 *
 * Prints "!(_this) == true." or "!(src) == true.".
 */
QOR_API int32_t qor_context_task_copy(qor_context_task_t *_this, const qor_context_task_t *src);

/**
 * Calls the task's function on the calling thread. Never calls recycle: whoever owns this copy does
 * that afterwards with qor_context_task_uninit().
 *
 * @return  the function's result, or NULL on failure
 *
 * Prints "!(_this) == true." for a NULL record and "!(_this->context) == true." for a RUNX task
 * without context. A fun_type other than 0 runs as RUNX. The spelling of the name is part of the
 * interface.
 */
QOR_API void *qor_context_task_excute(qor_context_task_t *_this);

/**
 * Calls recycle(arg) if recycle is set; the record itself stays.
 *
 * Prints "!(_this) == true." for NULL. Clears no field: on a record that is released twice, recycle
 * is called twice. Queues of tasks name this function as their node recycle.
 */
QOR_API void qor_context_task_uninit(qor_context_task_t *_this);

/** Releases arg as qor_context_task_uninit() does and frees a record that was created. Prints
 * "!(_this) == true." for NULL. */
QOR_API void qor_context_task_destroy(qor_context_task_t *_this);

/**
 * Copies a name into the task: at most 31 characters, zeroes behind a shorter one.
 *
 * @return  0, or -1 for a NULL argument
 *
 * Prints "!(_this && name) == true.". The 32nd byte of the field keeps its value, so that a name of
 * 31 characters or more is only terminated in a record that was zeroed before.
 */
QOR_API int32_t qor_context_task_set_name(qor_context_task_t *_this, const char *name);

/**
 * Copies the task's name out, with zeroes behind a shorter one.
 *
 * @param name  room for len bytes
 * @param len   bytes; below 1 copies nothing
 * @return      0, or -1 for a NULL argument
 *
 * Prints "!(_this && name) == true.". A name of len characters or more is not terminated.
 */
QOR_API int32_t qor_context_task_get_name(qor_context_task_t *_this, char *name, int32_t len);

/** Sets async. Returns 0, or -1 and "!(_this) == true." for a NULL record. */
QOR_API int32_t qor_context_task_set_async(qor_context_task_t *_this, int32_t async);

/** Reads async. Returns 0, or -1 and "!(_this && async) == true." for a NULL argument. */
QOR_API int32_t qor_context_task_get_async(qor_context_task_t *_this, int32_t *async);

/** Sets delay, in milliseconds. Returns 0, or -1 and "!(_this) == true." for a NULL record. */
QOR_API int32_t qor_context_task_set_delay(qor_context_task_t *_this, int32_t delay);

/** Reads delay. Returns 0, or -1 and "!(_this && delay) == true." for a NULL argument. */
QOR_API int32_t qor_context_task_get_delay(qor_context_task_t *_this, int32_t *delay);

/**
 * Sets the function that releases arg, or NULL for none.
 *
 * @return  0, or -1 and "!(_this) == true." for a NULL record
 */
QOR_API int32_t qor_context_task_set_recycle(qor_context_task_t *_this,
                                             qor_context_recycle_t recycle);

/** Reads recycle, which may be NULL. Also NULL, with "!(_this) == true.", for a NULL record. */
QOR_API qor_context_recycle_t qor_context_task_get_recycle(qor_context_task_t *_this);

QOR_END_DECLS

#endif /* QOR_CONTEXT_TASK_H */
