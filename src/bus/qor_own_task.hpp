/* SPDX-License-Identifier: Apache-2.0 */
/* The library's own tasks, known by their functions. */
#ifndef QOR_OWN_TASK_HPP
#define QOR_OWN_TASK_HPP

#include "qor_context_task.h"

/* Whether a task names its thread itself before it comes to any foreign code: a loop run of a user
 * context, and the run of a single node. Its worker then saves the call. */
bool own_task_names_itself(const qor_context_task_t *task);

/* Releases what a task record carries when it is discarded unrun: calls its recycle, and frees the
 * argument of the two library tasks that have none because they hand it on when they run. Takes the
 * record as void *, so that it can stand in for qor_context_task_uninit() as a node's recycle. */
void own_task_discard(void *task);

#endif /* QOR_OWN_TASK_HPP */
