/* SPDX-License-Identifier: Apache-2.0 */
/* The platform: thread types and helpers, the intrusive list, the millisecond clock, output.
 * Another platform replaces the directory of this file. */
#ifndef QOR_HAL_H
#define QOR_HAL_H

#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include "qor_api.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

typedef pthread_t hal_thread_t;                   /**< a thread */
typedef pthread_attr_t hal_thread_attr_t;         /**< what a thread is made with */
typedef pthread_mutex_t hal_thread_mutex_t;       /**< a lock */
typedef pthread_cond_t hal_thread_cond_t;         /**< a condition */
typedef pthread_condattr_t hal_thread_condattr_t; /**< what a condition is made with */

/**
 * Writes to standard output and flushes it, so that a line printed just before a crash is seen, or
 * hands the line to the sink of qor_output_set(). One call is one uninterrupted piece of output.
 * Any thread.
 */
QOR_API void hal_printf(const char *fmt, ...) QOR_PRINTF(1, 2);

/** Levels of lines; the numbers are syslog's. */
enum { QOR_LEVEL_ERR = 3, QOR_LEVEL_WRN = 4, QOR_LEVEL_INF = 6 };

/** Where lines go instead of standard output. */
typedef struct qor_output {
    /** Takes a line, on the thread that prints it and perhaps with locks of the bus held: it must
     * not call the bus. fmt ends in a newline; fmt and ap are what vsyslog() and vfprintf() take. A
     * line that is printed from inside goes to standard output. */
    void (*write)(void *arg, int32_t level, const char *fmt, va_list ap);
    void *arg; /**< handed to write; stays the caller's */
} qor_output_t;

/**
 * Sends all lines of the process to another place: the library's, at the level that stands in them,
 * and what an application prints with hal_printf(), at QOR_LEVEL_INF where it has none.
 *
 * @param to  not copied, and read until the process ends, also after another has been set; NULL:
 *            standard output
 *
 * Any thread, any time; a line under way still goes to the former place. Prints
 * "!(!to || to->write) == true." for a record without a function, or "!(thread_records_open() == 0)
 * == true." when the system has no thread key left; then nothing changes.
 */
QOR_API void qor_output_set(const qor_output_t *to);

/**
 * Formats into a buffer, as snprintf does.
 *
 * @param str  the buffer
 * @param len  its size in bytes
 * @return     the length of the whole text, or a negative value
 */
QOR_API int hal_snprintf(char *str, const int len, const char *fmt, ...) QOR_PRINTF(3, 4);

/** Formats into a buffer from an argument list; otherwise as hal_snprintf(). */
QOR_API int hal_vsnprintf(char *str, const int len, const char *format, va_list ap)
    QOR_PRINTF(3, 0);

/**
 * Names the calling thread; the kernel keeps the first 15 characters.
 *
 * @return  0, or prctl's result when the kernel was asked and refused
 *
 * On the library's own threads the kernel is asked only for a name that differs from the last one
 * set here. A thread that is renamed some other way keeps that name until another one comes. The
 * name is copied. Any thread.
 */
QOR_API int hal_thread_name_set(const char *thread_name);

/**
 * Gives the calling thread a priority under its present scheduling policy. A priority that the
 * policy refuses changes nothing and is not reported.
 */
static inline void hal_thread_setpriority(int priority)
{
    int policy;
    struct sched_param param;
    if (pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
        param.sched_priority = priority;
        (void)pthread_setschedparam(pthread_self(), policy, &param);
    }
}

/**
 * Prepares a thread attribute for a round-robin priority.
 *
 * @return  0, or non-zero when a step failed
 *
 * An attribute that inherits the creator's scheduling (the default) stays so: its policy and
 * priority are recorded but have no effect on the thread, which must set its own priority with
 * hal_thread_setpriority().
 */
static inline int hal_thread_attr_setpriority(hal_thread_attr_t *attr, int priority)
{
    int inherit = PTHREAD_EXPLICIT_SCHED;
    struct sched_param param;
    memset(&param, 0, sizeof(param));
    if (pthread_attr_getinheritsched(attr, &inherit) != 0) {
        return -1;
    }
    /* Deliberate: an inheriting attribute is set to inherit once more, not switched to explicit
     * scheduling, so that creating a thread never needs privileges. The worker threads therefore
     * set their priority themselves. Test: Hal.PriorityLeavesAnInheritingAttributeInheriting. */
    if (inherit == PTHREAD_INHERIT_SCHED && pthread_attr_setinheritsched(attr, inherit) != 0) {
        return -1;
    }
    (void)pthread_attr_setschedpolicy(attr, SCHED_RR); /* a refusal shows at the next step */
    param.sched_priority = priority;
    return pthread_attr_setschedparam(attr, &param) != 0 ? -1 : 0;
}

/**
 * A link of a circular doubly linked list, or its head; an empty list's head points at itself. A
 * record joins a list by embedding one. Lists are not synchronised: the owner's lock guards them.
 */
typedef struct list_head {
    struct list_head *next; /**< stored atomically, so that "is the list empty" needs no lock */
    struct list_head *prev; /**< stored plainly */
} list_head;

/** Validity hook of an insertion; nothing is checked. */
static inline int __list_add_valid(list_head *entry, list_head *prev, list_head *next)
{
    (void)entry;
    (void)prev;
    (void)next;
    return 1;
}

/** Validity hook of a removal; nothing is checked. */
static inline int __list_del_entry_valid(list_head *entry)
{
    (void)entry;
    return 1;
}

/** Makes a head an empty list. */
static inline void INIT_LIST_HEAD(list_head *list)
{
    __atomic_store_n(&list->next, list, __ATOMIC_RELEASE);
    list->prev = list;
}

/** Inserts entry between two neighbours; list_add() and list_add_tail() are the usual ways. */
static inline void __list_add(list_head *entry, list_head *prev, list_head *next)
{
    if (!__list_add_valid(entry, prev, next)) {
        return;
    }
    next->prev = entry;
    __atomic_store_n(&entry->next, next, __ATOMIC_RELEASE);
    entry->prev = prev;
    __atomic_store_n(&prev->next, entry, __ATOMIC_RELEASE);
}

/** Inserts entry at the front of the list. */
static inline void list_add(list_head *entry, list_head *head)
{
    __list_add(entry, head, head->next);
}

/** Inserts entry at the end of the list. */
static inline void list_add_tail(list_head *entry, list_head *head)
{
    __list_add(entry, head->prev, head);
}

/** Joins the neighbours of entry, whose own links stay; list_del() is the usual way. */
static inline void __list_del_entry(list_head *entry)
{
    if (!__list_del_entry_valid(entry)) {
        return;
    }
    entry->next->prev = entry->prev;
    __atomic_store_n(&entry->prev->next, entry->next, __ATOMIC_RELEASE);
}

/**
 * Takes entry out of its list.
 *
 * Its links become NULL: removing it again is a fault, and a caller that cannot know tests
 * entry->prev for "linked" first.
 */
static inline void list_del(list_head *entry)
{
    __list_del_entry(entry);
    /* Deliberate: NULL, not self-linked; see above. Test: List.RemovedEntryHasNullLinks. */
    list_head *unlinked = NULL;
    __atomic_store_n(&entry->next, unlinked, __ATOMIC_RELEASE);
    entry->prev = unlinked;
}

/** Tells whether a list is empty. The caller holds the list's lock. */
static inline int list_empty(const list_head *head)
{
    return head->next == head;
}

/** util_timestamp() for strict ISO C, from which <time.h> hides the clock. Any thread. */
QOR_API int64_t hal_timestamp(void);

/** Reads the monotonic clock in milliseconds; changes of the wall clock do not touch it. */
static inline int64_t util_timestamp(void)
{
#ifdef CLOCK_MONOTONIC
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t seconds = ts.tv_sec;
    return seconds * 1000 + ts.tv_nsec / 1000000;
#else
    return hal_timestamp();
#endif
}

/* A 32-bit time_t holds every moment of the monotonic clock. No cast: one that is valid in C is
 * old-style in C++. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
/** Converts monotonic milliseconds into the form that the timed waits of POSIX take. */
static inline void util_timespec(int64_t timestamp, struct timespec *ts)
{
    ts->tv_sec = timestamp / 1000;
    ts->tv_nsec = timestamp % 1000 * 1000000;
}
#pragma GCC diagnostic pop

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_HAL_H */
