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
    hal_thread_cond_t cond;
    uint32_t waiting; /* in que_wait() */
    uint32_t waking;  /* at least so many of them are on their way out; each takes one thing */
};

/* The waiting part of a queue's private block, named waits there. */
struct que_waits {
    que_waiters takers;
    que_waiters givers;
    hal_thread_cond_t settled; /* monotonic; for those in que_settle() */
    uint32_t settlers;         /* how many they are */
    uint32_t inside;           /* threads in any wait; destroy stays until there is none */
};

/* A deadline that is never reached. */
constexpr int64_t que_never = INT64_MAX;

/* When a wait of so many milliseconds ends; negative is without limit. */
inline int64_t que_deadline(int32_t wait_time)
{
    return wait_time < 0 ? que_never : util_timestamp() + wait_time;
}

inline int32_t que_time_is_over(int64_t deadline)
{
    return deadline != que_never && util_timestamp() >= deadline;
}

/* Free places in a queue. */
template <typename Q> inline uint32_t que_room(const Q *que)
{
    const uint32_t count = static_cast<uint32_t>(que->count);
    return count < que->max_count ? que->max_count - count : 0;
}

/* A condition whose timed waits measure by the given clock: 0, or -1. */
inline int32_t que_cond_init(hal_thread_cond_t *cond, clockid_t clock)
{
    hal_thread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        return -1;
    }
    const bool made =
        pthread_condattr_setclock(&attr, clock) == 0 && pthread_cond_init(cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    return made ? 0 : -1;
}

/* Makes the mutex and the conditions of a zeroed queue: 0, or -1 and nothing is made. */
template <typename Q> int32_t que_waits_open(Q *que, clockid_t clock)
{
    que_waits &waits = que->priv->waits;
    hal_thread_cond_t *conds[] = {&waits.settled, &waits.takers.cond, &waits.givers.cond,
                                  &que->cond};
    if (pthread_mutex_init(&que->mutex, nullptr) != 0) {
        return -1;
    }
    for (int made = 0; made < 4; made++) {
        if (que_cond_init(conds[made], made == 0 ? CLOCK_MONOTONIC : clock) != 0) {
            while (made > 0) {
                pthread_cond_destroy(conds[--made]);
            }
            pthread_mutex_destroy(&que->mutex);
            return -1;
        }
    }
    return 0;
}

/* Waits until the last thread has left a quitting queue, then undoes que_waits_open(). */
template <typename Q> void que_waits_close(Q *que)
{
    que_waits &waits = que->priv->waits;
    {
        hal_scoped_lock lock(que->mutex);
        while (waits.inside > 0) {
            pthread_cond_wait(&que->cond, &que->mutex);
        }
    }
    pthread_cond_destroy(&waits.settled);
    pthread_cond_destroy(&waits.givers.cond);
    pthread_cond_destroy(&waits.takers.cond);
    pthread_cond_destroy(&que->cond);
    pthread_mutex_destroy(&que->mutex);
}

/* The end of any wait. Only que_waits_close() can be in need of this broadcast. */
template <typename Q> void que_wait_ended(Q *que)
{
    if (--que->priv->waits.inside == 0) {
        pthread_cond_broadcast(&que->cond);
    }
}

/* Waits until woken or until the deadline; the caller looks anew at what it waits for. */
template <typename Q> void que_wait(Q *que, que_waiters &who, int64_t deadline)
{
    que_waits &waits = que->priv->waits;
    waits.inside++;
    who.waiting++;
    if (waits.settlers > 0 && &who == &waits.takers) { /* idle takers are what they wait for */
        pthread_cond_broadcast(&waits.settled);
    }
    if (deadline == que_never) {
        pthread_cond_wait(&who.cond, &que->mutex);
    } else {
        struct timespec until;
        util_timespec(deadline, &until);
        pthread_cond_timedwait(&who.cond, &que->mutex, &until);
    }
    who.waiting--;
    /* Whoever comes back first counts as the one that was woken, even if its time is over: it finds
     * what the wake was for and takes it. The one that was meant then waits again. */
    if (who.waking > 0) {
        who.waking--;
    }
    que_wait_ended(que);
}

/* Wakes one more thread unless enough are on their way for so many things. To be called at each
 * thing that comes, and then one wake at a time is enough. */
inline void que_wake(que_waiters &who, uint32_t things)
{
    if (who.waking < things && who.waking < who.waiting) {
        who.waking++;
        pthread_cond_signal(&who.cond);
    }
}

inline void que_wake_all(que_waiters &who)
{
    who.waking = who.waiting;
    pthread_cond_broadcast(&who.cond);
}

/* Wakes everybody, wherever they wait. */
template <typename Q> void que_wake_everybody(Q *que)
{
    pthread_cond_broadcast(&que->cond);
    que_wake_all(que->priv->waits.takers);
    que_wake_all(que->priv->waits.givers);
    pthread_cond_broadcast(&que->priv->waits.settled);
}

/* Waits until settled() holds, which is asked each time a taker begins to wait, the queue quits or
 * the deadline is reached. */
template <typename Q, typename S> void que_settle(Q *que, int64_t deadline, S settled)
{
    que_waits &waits = que->priv->waits;
    waits.inside++;
    waits.settlers++;
    while (!settled() && !que->quitting && !que_time_is_over(deadline)) {
        if (deadline == que_never) {
            pthread_cond_wait(&waits.settled, &que->mutex);
        } else {
            struct timespec until;
            util_timespec(deadline, &until);
            pthread_cond_timedwait(&waits.settled, &que->mutex, &until);
        }
    }
    waits.settlers--;
    que_wait_ended(que);
}

/* Waits on the public condition. */
template <typename Q> void que_wait_for_change(Q *que)
{
    que->priv->waits.inside++;
    pthread_cond_wait(&que->cond, &que->mutex);
    que_wait_ended(que);
}

/* Waits for a free place: 0, or -1 when the time is over first or the queue quits. */
template <typename Q> int32_t que_wait_for_room(Q *que, int32_t wait_time)
{
    const int64_t deadline = que_deadline(wait_time);
    while (que_room(que) == 0 && !que->quitting) {
        if (que_time_is_over(deadline)) {
            return -1;
        }
        que_wait(que, que->priv->waits.givers, deadline);
    }
    return que->quitting ? -1 : 0;
}

#endif /* QUE_WAITS_HPP */
