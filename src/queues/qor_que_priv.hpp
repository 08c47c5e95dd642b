/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus and the pool may do with a blocking queue beyond the public functions. */
#ifndef QOR_QUE_PRIV_HPP
#define QOR_QUE_PRIV_HPP

#include "qor_que.h"

/* The first half of qor_que_quit(): quitting from now on, everybody wakes, the nodes stay until
 * que_discard_all(). Once is enough, again does no harm. Takes the lock. */
void que_quit_begin(qor_que_t *que);

/* As qor_que_node_create(), with id 0 and a body that is not zeroed: the caller is about to fill
 * it.
 */
qor_que_node_t *que_node_unfilled(size_t size);

/* Destroys a node that is not run. recycle, which may be NULL, is for bodies whose node says
 * nothing of its own (que_front::discard). */
void que_node_discard(qor_que_node_t *node, qor_que_node_recycle_t recycle);

/* The second half of quit: takes node after node out under the lock, discards each without it, and
 * sets count to 0. recycle stands in for the queue's own, and may be NULL. */
void que_discard_all(qor_que_t *que, qor_que_node_recycle_t recycle);

/* Takes the first node without waiting and, unlike qor_que_deque(), lowers count. NULL when the
 * queue is empty or quitting. Takes the lock. */
qor_que_node_t *que_take(qor_que_t *que);

/* Which node is meant; called with the queue's lock held. */
using que_test = bool (*)(const qor_que_node_t *node, const void *what);

/* Takes out the first node that passes the test, which gets what; NULL when there is none. Takes
 * the lock; works on a quitting queue too. */
qor_que_node_t *que_take_if(qor_que_t *que, que_test test, const void *what);

/* How long a queue is, and how many wait for it to be longer. */
struct que_lengths {
    uint32_t now;
    uint32_t highest; /* so far */
    uint32_t takers;  /* threads that wait for a node */
};

/* The caller holds the lock. */
que_lengths que_lengths_locked(const qor_que_t *que);

/* Whether nothing is queued and at least so many takers wait. The caller holds the lock. */
bool que_is_settled_locked(const qor_que_t *que, uint32_t takers);

/* Waits until that is so, the queue quits or the deadline (monotonic ms) is reached. The number is
 * looked at each time; whoever lowers it wakes the queue. Takes the lock. */
void que_settle_until(qor_que_t *que, const uint32_t &takers, int64_t deadline);

#endif /* QOR_QUE_PRIV_HPP */
