/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus and the pool may do with a blocking queue beyond the public functions. */
#ifndef QOR_QUE_PRIV_HPP
#define QOR_QUE_PRIV_HPP

#include "qor_que.h"

/* The first half of qor_que_quit(): quitting from now on, everybody wakes, the nodes stay until
 * que_discard_all(). Once is enough, again does no harm. Takes the lock. */
void que_quit_begin(qor_que_t *que);

/* The second half: takes node after node out under the lock, destroys each without it, and sets
 * count to 0. recycle stands in for the queue's own, and may be NULL. */
void que_discard_all(qor_que_t *que, qor_que_node_recycle_t recycle);

/* Takes the first node without waiting and, unlike qor_que_deque(), lowers count. NULL when the
 * queue is empty or quitting. Takes the lock. */
qor_que_node_t *que_take(qor_que_t *que);

/* Whether nothing is queued and at least so many takers wait. The caller holds the lock. */
bool que_is_settled_locked(const qor_que_t *que, uint32_t takers);

/* Waits until that is so, the queue quits or the deadline (monotonic ms) is reached. Takes the
 * lock. */
void que_settle_until(qor_que_t *que, uint32_t takers, int64_t deadline);

#endif /* QOR_QUE_PRIV_HPP */
