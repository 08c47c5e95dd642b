/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus and the contexts may do with a timed queue beyond the public functions. */
#ifndef QOR_TIME_QUE_PRIV_HPP
#define QOR_TIME_QUE_PRIV_HPP

#include "qor_time_que.h"

/* The first half of qor_time_que_quit(): quitting from now on, everybody wakes, the nodes stay
 * until time_que_discard_all(). Once is enough, again does no harm. Takes the lock. */
void time_que_quit_begin(qor_time_que_t *que);

/* The second half: takes node after node out under the lock, destroys each without it, and sets
 * count to 0. recycle stands in for the queue's own, and may be NULL. */
void time_que_discard_all(qor_time_que_t *que, qor_time_que_node_recycle_t recycle);

/* Takes one particular node out again: 1 when it was still queued and so is the caller's now, else
 * 0. The node may long have been taken and freed, and its memory may serve another one that is
 * queued, even one of the same id: is_it() tells by the body, which the number is handed on for.
 * Takes the lock; works on a quitting queue too. */
int32_t time_que_take_back(qor_time_que_t *que, qor_time_que_node_t *node,
                           bool (*is_it)(const void *body, uint32_t number), uint32_t number);

/* Whether nothing is due and a taker waits. The caller holds the lock. */
bool time_que_is_settled_locked(const qor_time_que_t *que);

/* Waits until that is so, the queue quits or the deadline (monotonic ms) is reached. Takes the
 * lock. */
void time_que_settle_until(qor_time_que_t *que, int64_t deadline);

#endif /* QOR_TIME_QUE_PRIV_HPP */
