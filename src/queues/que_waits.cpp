/* SPDX-License-Identifier: Apache-2.0 */
/* Waits of both kinds of queue. */
#include "que_waits.hpp"

int32_t que_cond_init(hal_thread_cond_t *cond, clockid_t clock)
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

int64_t que_deadline(int32_t wait_time)
{
    return wait_time < 0 ? que_never : util_timestamp() + wait_time;
}

bool que_time_is_over(int64_t deadline)
{
    return deadline != que_never && util_timestamp() >= deadline;
}

/* The moment of a deadline, or one before it that is weeks away. Reckoned from now, for what lies
 * between fits into 32 bits: dividing 64 bits takes a function of its own on a small processor. */
static void que_moment(int64_t deadline, struct timespec *moment)
{
    clock_gettime(CLOCK_MONOTONIC, moment);
    uint32_t ms = static_cast<uint32_t>(moment->tv_nsec) / 1000000;
    const int64_t left = deadline - (int64_t{moment->tv_sec} * 1000 + ms);
    if (left > 0) {
        ms += left < INT32_MAX ? static_cast<uint32_t>(left) : INT32_MAX;
    }
    moment->tv_sec += static_cast<time_t>(ms / 1000);
    moment->tv_nsec = static_cast<long>(ms % 1000 * 1000000);
}

void que_sleep_until(hal_thread_cond_t &cond, hal_thread_mutex_t &mutex, int64_t deadline)
{
    if (deadline == que_never) {
        pthread_cond_wait(&cond, &mutex);
        return;
    }
    struct timespec until;
    que_moment(deadline, &until);
    pthread_cond_timedwait(&cond, &mutex, &until);
}

int32_t que_waits_open(que_waits &waits, hal_thread_mutex_t &mutex, hal_thread_cond_t &changed,
                       clockid_t clock)
{
    hal_thread_cond_t *conds[] = {&waits.settled, &waits.takers.cond, &waits.givers.cond, &changed};
    const clockid_t clocks[] = {CLOCK_MONOTONIC, CLOCK_MONOTONIC, CLOCK_MONOTONIC, clock};
    if (pthread_mutex_init(&mutex, nullptr) != 0) {
        return -1;
    }
    for (int made = 0; made < 4; made++) {
        if (que_cond_init(conds[made], clocks[made]) != 0) {
            while (made > 0) {
                pthread_cond_destroy(conds[--made]);
            }
            pthread_mutex_destroy(&mutex);
            return -1;
        }
    }
    waits.mutex = &mutex;
    waits.changed = &changed;
    return 0;
}

void que_waits_close(que_waits &waits)
{
    {
        hal_scoped_lock lock(*waits.mutex);
        while (waits.inside > 0) {
            pthread_cond_wait(waits.changed, waits.mutex);
        }
    }
    pthread_cond_destroy(&waits.settled);
    pthread_cond_destroy(&waits.givers.cond);
    pthread_cond_destroy(&waits.takers.cond);
    pthread_cond_destroy(waits.changed);
    pthread_mutex_destroy(waits.mutex);
}

void que_wait_ended(que_waits &waits)
{
    if (--waits.inside == 0) { /* only que_waits_close() waits for this */
        pthread_cond_broadcast(waits.changed);
    }
}

void que_wait(que_waits &waits, que_waiters &who, int64_t deadline)
{
    waits.inside++;
    who.waiting++;
    if (waits.settlers > 0 && &who == &waits.takers) { /* idle takers are what they wait for */
        pthread_cond_broadcast(&waits.settled);
    }
    que_sleep_until(who.cond, *waits.mutex, deadline);
    who.waiting--;
    /* The first thread to leave its wait counts as the one that was woken, even if it left because
     * its time was over: it finds what the wake was for and takes it. The thread for which the wake
     * was meant finds nothing then, and waits again. */
    if (who.waking > 0) {
        who.waking--;
    }
    que_wait_ended(waits);
}

void que_wait_for_change(que_waits &waits)
{
    waits.inside++;
    pthread_cond_wait(waits.changed, waits.mutex);
    que_wait_ended(waits);
}

void que_wake(que_waiters &who, uint32_t things)
{
    if (who.waking < things && who.waking < who.waiting) {
        who.waking++;
        pthread_cond_signal(&who.cond);
    }
}

void que_wake_all(que_waiters &who)
{
    who.waking = who.waiting;
    pthread_cond_broadcast(&who.cond);
}

void que_wake_everybody(que_waits &waits)
{
    pthread_cond_broadcast(waits.changed);
    que_wake_all(waits.takers);
    que_wake_all(waits.givers);
    pthread_cond_broadcast(&waits.settled);
}
