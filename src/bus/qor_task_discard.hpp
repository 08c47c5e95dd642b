/* SPDX-License-Identifier: Apache-2.0 */
/* Releasing tasks that will never run. */
#ifndef QOR_TASK_DISCARD_HPP
#define QOR_TASK_DISCARD_HPP

/* Releases what a task record carries when it is discarded unrun: calls its recycle, and frees the
 * argument of the two library tasks that have none because they hand it on when they run. Takes the
 * record as void *, so that it can stand in for qor_context_task_uninit() as a node's recycle. */
void qor_task_discard(void *task);

#endif /* QOR_TASK_DISCARD_HPP */
