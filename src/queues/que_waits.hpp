/* SPDX-License-Identifier: Apache-2.0 */
/* How threads wait in a queue of either kind: takers and givers apart, woken one by one. The
 * queue's mutex guards everything here, and every function but open and close is called with it
 * held. */
#ifndef QUE_WAITS_HPP
#define QUE_WAITS_HPP

#include "hal_sync.hpp"
#include "qor_hal.h"

/* Threads that wait for the same thing, a node or room. */
struct que_waiters {
    hal_thread_cond_t cond; /* monotonic, as deadlines are */
    uint32_t waiting;       /* in que_wait() */
    uint32_t waking; /* at least so many of them are on their way out; each takes one thing */
};

/* The waiting part of a queue's private block, named waits there. */
struct que_waits {
    hal_thread_mutex_t *mutex; /* the queue's own, as is the next */
    hal_thread_cond_t *changed;
    que_waiters takers;
    que_waiters givers;
    hal_thread_cond_t settled; /* monotonic; for those in que_settle() */
    uint32_t settlers;         /* how many they are */
    uint32_t inside;           /* threads in any wait; destroy stays until there is none */
};

/* A deadline that is never reached. */
constexpr int64_t que_never = INT64_MAX;

/* When a wait of so many milliseconds ends; negative is without limit. */
int64_t que_deadline(int32_t wait_time);

bool que_time_is_over(int64_t deadline);

/* Waits on a monotonic condition until woken or until the deadline; the mutex is held. */
void que_sleep_until(hal_thread_cond_t &cond, hal_thread_mutex_t &mutex, int64_t deadline);

/* Makes a condition whose timed waits measure by the given clock: 0, or -1. */
int32_t que_cond_init(hal_thread_cond_t *cond, clockid_t clock);

/* Makes the queue's mutex, the conditions here, and the public one, in which the timed waits of
 * callers measure by the given clock. Returns 0, or -1 and nothing is made. */
int32_t que_waits_open(que_waits &waits, hal_thread_mutex_t &mutex, hal_thread_cond_t &changed,
                       clockid_t clock);

/* Waits until the last thread has left a quitting queue, then undoes que_waits_open(). */
void que_waits_close(que_waits &waits);

/* Waits until woken or until the deadline; the caller looks anew at what it waits for. */
void que_wait(que_waits &waits, que_waiters &who, int64_t deadline);

/* Waits on the public condition. */
void que_wait_for_change(que_waits &waits);

/* Wakes one more thread unless enough are on their way for so many things. To be called at each
 * thing that comes, and then one wake at a time is enough. */
void que_wake(que_waiters &who, uint32_t things);

void que_wake_all(que_waiters &who);

/* Wakes everybody, wherever they wait. */
void que_wake_everybody(que_waits &waits);

/* The end of any wait. */
void que_wait_ended(que_waits &waits);

/* Waits until settled() holds, which is asked each time a taker begins to wait, the queue quits or
 * the deadline is reached. */
template <typename Q, typename S> void que_settle(Q *que, int64_t deadline, S settled)
{
    que_waits &waits = que->priv->waits;
    waits.inside++;
    waits.settlers++;
    while (!settled() && !que->quitting && !que_time_is_over(deadline)) {
        que_sleep_until(waits.settled, *waits.mutex, deadline);
    }
    waits.settlers--;
    que_wait_ended(waits);
}

/* Free places in a queue. */
template <typename Q> inline uint32_t que_room(const Q *que)
{
    const uint32_t count = static_cast<uint32_t>(que->count);
    return count < que->max_count ? que->max_count - count : 0;
}

/* Waits for a free place: 0, or -1 when the time is over first or the queue quits. */
template <typename Q> int32_t que_wait_for_room(Q *que, int32_t wait_time)
{
    const int64_t deadline = que_deadline(wait_time);
    while (que_room(que) == 0 && !que->quitting) {
        if (que_time_is_over(deadline)) {
            return -1;
        }
        que_wait(que->priv->waits, que->priv->waits.givers, deadline);
    }
    return que->quitting ? -1 : 0;
}

#endif /* QUE_WAITS_HPP */
