/* SPDX-License-Identifier: Apache-2.0 */
/* Makes chosen calls of the library fail, and gives no block for an allocation of no bytes. Linked
 * into the test build of the library (see fault.c). */
#ifndef QOR_TESTS_FAULT_H
#define QOR_TESTS_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

#define FAULT_API __attribute__((visibility("default")))

typedef enum fault_kind {
    FAULT_ALLOC,  /* malloc, calloc, realloc, strdup: NULL, ENOMEM */
    FAULT_THREAD, /* pthread_create: EAGAIN */
    FAULT_MUTEX,  /* pthread_mutex_init: ENOMEM */
    FAULT_COND,   /* pthread_cond_init: ENOMEM */
    FAULT_SCHED,  /* pthread_attr_setschedparam: EINVAL */
    FAULT_STACK,  /* pthread_attr_setstacksize: EINVAL */
    FAULT_ATTR,   /* pthread_attr_init, pthread_condattr_init: ENOMEM */
    FAULT_WAIT,   /* pthread_cond_wait: returns at once */
    FAULT_TIMED,  /* pthread_cond_timedwait: returns at once */
    FAULT_KEY,    /* pthread_setspecific: ENOMEM */
    FAULT_KINDS
} fault_kind;

/* Lets call number `after` from now (0: the next one) fail, once; none when negative. Begins to
 * count anew. */
FAULT_API void fault_arm(fault_kind kind, int after);
/* The same, and every call behind that one fails as well, until the next fault_arm(). */
FAULT_API void fault_arm_from(fault_kind kind, int after);
/* The same as fault_arm(), but at that call run(arg) is called first, on the thread that makes it;
 * the call fails if the result is not 0. */
FAULT_API void fault_arm_run(fault_kind kind, int after, int (*run)(void *), void *arg);
/* How many calls the library has made, and how many were made to fail, since fault_arm(). */
FAULT_API int fault_calls(fault_kind kind);
FAULT_API int fault_fired(fault_kind kind);
/* Blocks that the library holds more (or fewer) than at fault_arm(FAULT_ALLOC, ...). */
FAULT_API int fault_live(void);
/* Mutexes, conditions and attributes that the library has made and not destroyed yet. */
FAULT_API int fault_locks(void);
/* The priority that the library last put into a thread attribute. */
FAULT_API int fault_sched_priority(void);
/* The priority that a thread of the library has last asked for itself. */
FAULT_API int fault_own_priority(void);

#ifdef __cplusplus
}
#endif
#endif
