/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus and the contexts may do with a timed queue beyond the public functions. */
#ifndef QOR_TIME_QUE_PRIV_HPP
#define QOR_TIME_QUE_PRIV_HPP

#include "qor_time_que.h"

/* The first half of qor_time_que_quit(): quitting from now on, everybody wakes, the nodes stay
 * until time_que_discard_all(). Once is enough, again does no harm. Takes the lock. */
void time_que_quit_begin(qor_time_que_t *que);

/* As qor_time_que_node_create(), with id and due time 0 and a body that is not zeroed: the caller
 * is about to fill all three. */
qor_time_que_node_t *time_que_node_unfilled(size_t size);

/* From now on equal due times come out in the order of their arrival. The queue is empty. */
void time_que_in_order(qor_time_que_t *que);

/* Keeps a node that has been taken out for time_que_kept_locked(), or destroys it when many are
 * kept already. All nodes that are kept in one queue have the same size. The caller holds the lock.
 */
void time_que_keep_locked(qor_time_que_t *que, qor_time_que_node_t *node);

/* A node that was kept, or NULL; its body is what it was. The caller holds the lock. */
qor_time_que_node_t *time_que_kept_locked(qor_time_que_t *que);

/* Destroys a node that is not run, as que_node_discard() does. */
void time_que_node_discard(qor_time_que_node_t *node, qor_time_que_node_recycle_t recycle);

/* The second half of quit: takes node after node out under the lock, discards each without it, and
 * sets count to 0. recycle stands in for the queue's own, and may be NULL. */
void time_que_discard_all(qor_time_que_t *que, qor_time_que_node_recycle_t recycle);

/* Which node is meant; called with the queue's lock held. */
using time_que_test = bool (*)(const qor_time_que_node_t *node, const void *what);

/* Takes out the first node that passes the test, which gets what; NULL when there is none. Takes
 * the lock; works on a quitting queue too. */
qor_time_que_node_t *time_que_take_if(qor_time_que_t *que, time_que_test test, const void *what);

/* The same for a caller that holds the lock. */
qor_time_que_node_t *time_que_take_if_locked(qor_time_que_t *que, time_que_test test,
                                             const void *what);

/* The same among the nodes with an id, for a caller that does not hold the lock. Of a long queue
 * only these are looked at, and so it costs little where few have the id. */
qor_time_que_node_t *time_que_take_id_if(qor_time_que_t *que, size_t id, time_que_test test,
                                         const void *what);

/* Whether nothing is due and a taker waits. The caller holds the lock. */
bool time_que_is_settled_locked(const qor_time_que_t *que);

/* Waits until that is so, the queue quits or the deadline (monotonic ms) is reached. Takes the
 * lock. */
void time_que_settle_until(qor_time_que_t *que, int64_t deadline);

#endif /* QOR_TIME_QUE_PRIV_HPP */
