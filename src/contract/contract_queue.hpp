/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a module with a contract: who comes in, who waits, who goes, and how many
 * run. Functions that end in _locked are called with the queue's lock held. */
#ifndef CONTRACT_QUEUE_HPP
#define CONTRACT_QUEUE_HPP

#include "qor_contract_priv.hpp"
#include "qor_core_context.h"
#include "qor_time_que.h"

struct admission;

/* Gives a context that has been attached the contract of its module, if there is one. Before the
 * module's reg, when nobody else knows the context. */
void contract_queue_bind(qor_core_context_t *core);

/* The context has started: from now on a strict queue runs. */
void contract_queue_open(qor_core_context_t *core);

/* The queue is closed: whoever waits for a place leaves. */
void contract_queue_closed_locked(contract &promise);

/* What a post comes to, as of qor_core_context_handle_task(). Its memory has been made. */
int32_t contract_queue_admit(admission &post);

/* Whether the loop run that the calling thread is in may run tasks of a strict queue. */
bool contract_run_enter_locked(qor_core_context_t *core);

/* Such a run ends. Its node comes back for the next one, if it is given. */
void contract_run_leave_locked(contract &promise, qor_que_node_t *node);

/* The next task that may be begun, or NULL. One that gets no run of its own is begun. */
qor_time_que_node_t *contract_queue_take_locked(qor_core_context_t *core);

/* A task that had got a run of its own is begun; NULL: it has gone past the queue. */
void contract_task_run_locked(qor_core_context_t *core, qor_time_que_node_t *node);

/* Puts the node of a periodic timer that is due in its place, with the run that it may need: false
 * when the queue takes nothing any more. */
bool contract_queue_periodic(qor_core_context_t *core, qor_time_que_node_t *node);

/* A run of a periodic timer begins, and counts as accepted with that. */
void contract_periodic_begun(contract &promise);

/* A task leaves the queue, or its run, unrun. */
void contract_task_leaves_locked(contract &promise, qor_time_que_node_t *node, contract_counter as);

#endif /* CONTRACT_QUEUE_HPP */
