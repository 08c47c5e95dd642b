/* SPDX-License-Identifier: Apache-2.0 */
/* What the orderly end needs to know of user contexts. */
#ifndef QOR_CORE_CONTEXT_PRIV_HPP
#define QOR_CORE_CONTEXT_PRIV_HPP

#include "qor_core_context.h"

struct qor_core_context_private {
    list_head failed;  /* in the bus's list of destroyed contexts */
    uint32_t enqueued; /* tasks so far, modulo 2^32; guarded by the private queue's lock */
};

/* The class's handle_task: queues a copy of the task and schedules a run for it. */
int32_t qor_core_context_handle_task(qor_context_t *context, qor_context_task_t *task);

/* The class's loop, and a task's function: a loop run. Returns with the queue drained of what is
 * due, or early when the bus quits: a module that keeps posting to itself must not keep its worker.
 */
int32_t qor_core_context_loop(qor_context_t *context);

/* Takes a task out of the private queue and discards it; 0 when it was there. Its loop run or timer
 * stays, and finds nothing then. */
int32_t core_task_cancel(qor_core_context_t *core, int32_t session);

/* The function of a task that runs a node of a private queue. Its argument is that node, which it
 * destroys itself, so the task has no recycle: whoever discards it destroys the node. */
qor_context_runx_t core_context_node_run();

/* The function of a task that drains a private queue. */
qor_context_run_t core_context_loop_run();

/* Takes a context down in the order of the lifecycle, whatever it has reached. */
void core_context_close(qor_context_t *context);

/* Frees a user context and its inner one. No thread is left that could name either. */
void core_context_free(qor_core_context_t *core);

/* Frees the contexts that were destroyed while they were attached to the bus. */
void core_contexts_free(qor_bus_t *bus);

#endif /* QOR_CORE_CONTEXT_PRIV_HPP */
