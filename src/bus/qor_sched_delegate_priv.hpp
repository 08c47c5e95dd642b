/* SPDX-License-Identifier: Apache-2.0 */
/* What the orderly end needs to know of delegates. */
#ifndef QOR_SCHED_DELEGATE_PRIV_HPP
#define QOR_SCHED_DELEGATE_PRIV_HPP

#include "qor_sched_delegate.h"

/* The bus that a context is attached to; NULL when it is not. */
qor_bus_t *sched_delegate_bus(const qor_context_t *context);

/* The function of the relay task. Its argument is a message clone that travels on, so the task has
 * no recycle: whoever discards it frees the clone. */
qor_context_runx_t sched_delegate_relay();

/* Frees all delegates of a bus when no thread and no context is left to name them. */
void sched_delegates_free(qor_bus_t *bus);

#endif /* QOR_SCHED_DELEGATE_PRIV_HPP */
