/* SPDX-License-Identifier: Apache-2.0 */
/* What the orderly end needs to know of user contexts. */
#ifndef QOR_CORE_CONTEXT_PRIV_HPP
#define QOR_CORE_CONTEXT_PRIV_HPP

#include "qor_core_context.h"

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
