/* SPDX-License-Identifier: Apache-2.0 */
/* Linked into a build of the library with the linker's --wrap for every function below. Nothing
 * here orders one thread before another, for then ThreadSanitizer would not see that the library
 * fails to: all counts are relaxed. */
#include "meddle.h"
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <time.h>

enum { SECOND = 1000000000, CONDS = 256 };

static struct {
    uint64_t seed;
    int percent;
    int starve;
    int threads; /* that have drawn */
    int64_t delays, spurious, starved, wall_waits;
    int64_t blocks;
    int64_t ahead; /* s, of the monotonic clock */
    int64_t step;  /* s, of the system's */
    pthread_cond_t *monotonic[CONDS];
} all;

static __thread uint64_t dice; /* 0: this thread has not drawn */

#define READ(field) __atomic_load_n(&all.field, __ATOMIC_RELAXED)
#define WRITE(field, value) __atomic_store_n(&all.field, value, __ATOMIC_RELAXED)
#define ADD(field, value) __atomic_add_fetch(&all.field, value, __ATOMIC_RELAXED)

int __real_pthread_mutex_lock(pthread_mutex_t *);
int __real_pthread_mutex_trylock(pthread_mutex_t *);
int __real_pthread_mutex_unlock(pthread_mutex_t *);
int __real_pthread_cond_init(pthread_cond_t *, const pthread_condattr_t *);
int __real_pthread_cond_destroy(pthread_cond_t *);
int __real_pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
int __real_pthread_cond_signal(pthread_cond_t *);
int __real_pthread_cond_broadcast(pthread_cond_t *);
int __real_clock_gettime(clockid_t, struct timespec *);
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
char *__real_strdup(const char *);
void __real_free(void *);

void fault_delay(uint64_t seed, int percent)
{
    WRITE(seed, seed);
    WRITE(percent, percent);
}

void fault_starve(int per_million)
{
    WRITE(starve, per_million);
}

void fault_monotonic_move(int64_t seconds)
{
    WRITE(ahead, seconds);
}

void fault_wall_step(int64_t seconds)
{
    ADD(step, seconds);
}

int64_t fault_delays(void)
{
    return READ(delays);
}

int64_t fault_spurious(void)
{
    return READ(spurious);
}

int64_t fault_starved(void)
{
    return READ(starved);
}

int64_t fault_wall_waits(void)
{
    return READ(wall_waits);
}

int64_t fault_blocks(void)
{
    return READ(blocks);
}

static uint32_t draw(uint32_t below)
{
    if (dice == 0) {
        dice = (READ(seed) + (uint64_t)ADD(threads, 1)) * 0x9e3779b97f4a7c15u | 1;
    }
    dice ^= dice << 13;
    dice ^= dice >> 7;
    dice ^= dice << 17;
    return (uint32_t)(dice >> 32) % below;
}

static int happens(void)
{
    const int percent = READ(percent);
    return percent > 0 && draw(100) < (uint32_t)percent;
}

/* Mostly another thread goes first; now and then many do, or this one is gone for a while. */
static void pause_drawn(void)
{
    const uint32_t how = draw(100);
    ADD(delays, 1);
    if (how < 70) {
        sched_yield();
    } else if (how < 90) {
        for (volatile uint32_t turns = draw(2000); turns > 0; turns--) {
        }
    } else {
        const struct timespec nap = {0, (long)(how < 99 ? draw(100000) : draw(2000000))};
        nanosleep(&nap, NULL);
    }
}

static void delay(void)
{
    if (happens()) {
        pause_drawn();
    }
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    delay();
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex)
{
    delay();
    return __real_pthread_mutex_trylock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    const int result = __real_pthread_mutex_unlock(mutex);
    delay();
    return result;
}

int __wrap_pthread_cond_signal(pthread_cond_t *cond)
{
    delay();
    return __real_pthread_cond_signal(cond);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t *cond)
{
    delay();
    return __real_pthread_cond_broadcast(cond);
}

/* A wait that nobody has ended; others may hold the mutex meanwhile. */
static void wake_up(pthread_mutex_t *mutex)
{
    ADD(spurious, 1);
    __real_pthread_mutex_unlock(mutex);
    pause_drawn();
    __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex)
{
    if (happens()) {
        wake_up(mutex);
        return 0;
    }
    return __real_pthread_cond_wait(cond, mutex);
}

/* Which conditions measure the monotonic clock: those that say so. */
static void cond_note(pthread_cond_t *cond, pthread_cond_t *was)
{
    for (int i = 0; i < CONDS; i++) {
        pthread_cond_t *place = was;
        if (__atomic_compare_exchange_n(&all.monotonic[i], &place, cond, 0, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED)) {
            return;
        }
    }
    if (cond) {
        abort(); /* more of them than there is room for */
    }
}

static int is_monotonic(const pthread_cond_t *cond)
{
    for (int i = 0; i < CONDS; i++) {
        if (READ(monotonic[i]) == cond) {
            return 1;
        }
    }
    return 0;
}

int __wrap_pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr)
{
    clockid_t clock = CLOCK_REALTIME;
    if (attr && pthread_condattr_getclock(attr, &clock) == 0 && clock == CLOCK_MONOTONIC) {
        cond_note(cond, NULL);
    }
    return __real_pthread_cond_init(cond, attr);
}

int __wrap_pthread_cond_destroy(pthread_cond_t *cond)
{
    cond_note(NULL, cond);
    return __real_pthread_cond_destroy(cond);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
    const int result = __real_clock_gettime(clock, now);
    now->tv_sec += (time_t)(clock == CLOCK_MONOTONIC  ? READ(ahead)
                            : clock == CLOCK_REALTIME ? READ(step)
                                                      : 0);
    return result;
}

static int is_before(const struct timespec *a, const struct timespec *b)
{
    return a->tv_sec != b->tv_sec ? a->tv_sec < b->tv_sec : a->tv_nsec < b->tv_nsec;
}

/* By the system's clock, which may be stepped meanwhile: one that looks every millisecond. */
static int wall_wait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *until)
{
    struct timespec now, look;
    ADD(wall_waits, 1);
    for (;;) {
        __wrap_clock_gettime(CLOCK_REALTIME, &now);
        if (!is_before(&now, until)) {
            return ETIMEDOUT;
        }
        __real_clock_gettime(CLOCK_REALTIME, &look);
        look.tv_nsec += SECOND / 1000;
        look.tv_sec += look.tv_nsec / SECOND;
        look.tv_nsec %= SECOND;
        const int result = __real_pthread_cond_timedwait(cond, mutex, &look);
        if (result != ETIMEDOUT) {
            return result;
        }
    }
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  const struct timespec *until)
{
    if (happens()) {
        wake_up(mutex);
        return 0;
    }
    if (!is_monotonic(cond)) {
        return wall_wait(cond, mutex, until);
    }
    struct timespec real = *until;
    real.tv_sec -= (time_t)READ(ahead);
    return __real_pthread_cond_timedwait(cond, mutex, &real);
}

static int starves(void)
{
    const int starve = READ(starve);
    if (starve == 0 || draw(1000000) >= (uint32_t)starve) {
        return 0;
    }
    ADD(starved, 1);
    errno = ENOMEM;
    return 1;
}

static void *held(void *block)
{
    if (block) {
        ADD(blocks, 1);
    }
    return block;
}

void *__wrap_malloc(size_t size)
{
    return starves() ? NULL : held(__real_malloc(size));
}

void *__wrap_calloc(size_t n, size_t size)
{
    return starves() ? NULL : held(__real_calloc(n, size));
}

void *__wrap_realloc(void *block, size_t size)
{
    return starves() ? NULL
           : block   ? __real_realloc(block, size)
                     : held(__real_realloc(block, size));
}

char *__wrap_strdup(const char *text)
{
    return starves() ? NULL : held(__real_strdup(text));
}

void __wrap_free(void *block)
{
    if (block) {
        ADD(blocks, -1);
    }
    __real_free(block);
}
