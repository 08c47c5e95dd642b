/* SPDX-License-Identifier: Apache-2.0 */
/* The protocol of the built-in modules: system topics and the payloads of their requests. */
#ifndef QOR_SYS_H
#define QOR_SYS_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** Topics of the system topic table, the numbers that system requests address. */
enum {
    QOR_SYS_MNG_MODULE_REGISTER = 0,  /**< module manager: accepted and ignored */
    QOR_SYS_MNG_CONTEXT_REGISTER = 1, /**< module manager: accepted and ignored */
    QOR_SYS_BUS_REGISTER = 2,         /**< bus module: qor_sys_bus_register_request_t */
    QOR_SYS_MONITOR_TASK = 3,         /**< monitor: qor_sys_monitor_task_t */
    QOR_SYS_NUM = 4                   /**< number of system topics */
};

/** What a monitor record reports. */
enum {
    QOR_SYS_MONITOR_TASK_START = 0, /**< the task is about to run */
    QOR_SYS_MONITOR_TASK_OVER = 1   /**< the task has returned */
};

/**
 * Request of QOR_SYS_MONITOR_TASK: a user context reports a task of its private queue. The record
 * itself is the request buffer. A clone need not align it: receivers copy it out before reading.
 */
typedef struct qor_sys_monitor_task {
    int32_t session; /**< the task's session number */
    char name[32];   /**< the task's name, at most 31 characters, always terminated */
    int32_t state;   /**< QOR_SYS_MONITOR_TASK_START or QOR_SYS_MONITOR_TASK_OVER */
} qor_sys_monitor_task_t;

/**
 * Request of QOR_SYS_BUS_REGISTER: attaches a context to the bus. The record itself is the request
 * buffer and its size the request size. There is no response part.
 */
typedef struct qor_sys_bus_register_request {
    qor_context_t *context; /**< the context to attach; stays the caller's */
} qor_sys_bus_register_request_t;

QOR_END_DECLS

#endif /* QOR_SYS_H */
