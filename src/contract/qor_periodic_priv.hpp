/* SPDX-License-Identifier: Apache-2.0 */
/* Runs of periodic timers, as the scopes of their threads remember them. */
#ifndef QOR_PERIODIC_PRIV_HPP
#define QOR_PERIODIC_PRIV_HPP

#include "qor_core_context.h"

/* The leave function of such a scope: the run has ended its thread, and the timer goes on. */
void user_periodic_left(void *timer);

/* The user context that the timer of such a scope ends with; NULL when a context of another kind
 * has armed it. */
qor_core_context_t *user_periodic_core(void *timer);

/* Runs what a strict queue has given the node of. */
void user_periodic_run(qor_core_context_t *core, qor_time_que_node_t *node);

#endif /* QOR_PERIODIC_PRIV_HPP */
