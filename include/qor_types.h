/* SPDX-License-Identifier: Apache-2.0 */
/* Forward declarations of the bus's records, and the scalar and function types they share. */
#ifndef QOR_TYPES_H
#define QOR_TYPES_H

#include "qor_api.h"

QOR_BEGIN_DECLS

typedef struct qor_que qor_que_t;
typedef struct qor_que_node qor_que_node_t;
typedef struct qor_time_que qor_time_que_t;
typedef struct qor_time_que_node qor_time_que_node_t;
typedef struct qor_thread_pool qor_thread_pool_t;
typedef struct qor_thread_pool_thread qor_thread_pool_thread_t;
typedef struct qor_context_msg qor_context_msg_t;
typedef struct qor_context_task qor_context_task_t;
typedef struct qor_context_topic_attr qor_context_topic_attr_t;
typedef struct qor_context_cls qor_context_cls_t;
typedef struct qor_context_module qor_context_module_t;
typedef struct qor_context_handler qor_context_handler_t;
typedef struct qor_context qor_context_t;
typedef struct qor_context_core qor_context_core_t;
typedef struct qor_impl_context qor_impl_context_t;
typedef struct qor_core_context qor_core_context_t;
typedef struct qor_topic qor_topic_t;
typedef struct qor_topic_node qor_topic_node_t;
typedef struct qor_topic_core qor_topic_core_t;
typedef struct qor_bus qor_bus_t;
typedef struct qor_sched_delegate qor_sched_delegate_t;

/** Number of a topic: an index into a topic table. */
typedef int32_t qor_context_topic_t;

/**
 * A task's function that needs its argument only. Runs on a worker thread with no lock held; arg
 * stays its owner's (see qor_context_recycle_t). The bus drops the result.
 */
typedef void *(*qor_context_run_t)(void *arg);

/**
 * A task's function that also receives the context it belongs to and its session number. Runs on a
 * worker thread with no lock held; arg stays its owner's. The bus drops the result.
 */
typedef void *(*qor_context_runx_t)(qor_context_t *context, int32_t session, void *arg);

/**
 * Releases a task's argument. Called with no lock held on the thread that finishes or discards the
 * task, once for every copy of the task that ends there.
 */
typedef void (*qor_context_recycle_t)(void *arg);

QOR_END_DECLS

#endif /* QOR_TYPES_H */
