/* SPDX-License-Identifier: Apache-2.0 */
/* Looking into a bus that is at work: its queues, modules, topics, threads and open requests, as
 * records or as text. */
#ifndef QOR_INSPECT_H
#define QOR_INSPECT_H

#include "qor_contract.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

/** What a record handed to a qor_see_t is. */
enum {
    QOR_INFO_BUS = 0,     /**< qor_info_bus_t */
    QOR_INFO_CONTEXT = 1, /**< qor_info_context_t */
    QOR_INFO_TOPIC = 2,   /**< qor_info_topic_t */
    QOR_INFO_THREAD = 3,  /**< qor_info_thread_t */
    QOR_INFO_REQUEST = 4, /**< qor_info_request_t */
};

/**
 * A bus. Each record begins with its size: a later library may give a longer one. Counts are since
 * the beginning, modulo 2^32 unless it is said otherwise; times are in milliseconds.
 */
typedef struct qor_info_bus {
    uint32_t size;          /**< of this record */
    uint32_t workers;       /**< how many run; 0 before and after the loop */
    uint32_t idle;          /**< of them, those that wait for a task */
    uint32_t quitting;      /**< 1 once qor_bus_quit() has begun, else 0 */
    uint32_t queued;        /**< tasks that wait for a worker */
    uint32_t queued_max;    /**< most that ever did */
    uint32_t timers;        /**< armed: of the bus, and those behind delayed tasks, periodic
                                 timers and limits of deferred requests */
    int32_t next_timer_ms;  /**< until the next is due, negative when it is late; INT32_MAX:
                                 there is none */
    uint32_t posts_refused; /**< by qor_bus_post() and qor_bus_timer_post(), because it quits */
    uint32_t allocations_failed; /**< in the process */
    uint32_t lines;              /**< printed by the process through hal_printf() */
} qor_info_bus_t;

/**
 * A context that is attached to the bus. What follows lifecycle is a private queue's and so 0 for a
 * system context, but for failed.
 */
typedef struct qor_info_context {
    uint32_t size;        /**< of this record */
    char name[20];        /**< of its module; what is longer is cut off */
    int32_t role;         /**< QOR_BUS_ROLE_* */
    int32_t lifecycle;    /**< QOR_USER_CONTEXT_LIFECYCLE_*; -1 for a system context */
    uint32_t runs;        /**< loop runs that are queued or under way, as slots count them */
    uint32_t runs_max;    /**< how many slots there are */
    uint32_t queued;      /**< in the private queue */
    uint32_t queued_max;  /**< most that ever were */
    uint32_t delayed;     /**< of queued: not due yet */
    int32_t waiting_ms;   /**< how long what is due for longest has waited; 0: nothing
                               is, or only just */
    uint32_t requests;    /**< taken into the queue */
    uint32_t responses;   /**< likewise */
    uint32_t tasks;       /**< likewise: all others. A task that is taken back because the bus quits
                               is counted here and among the refused */
    uint32_t bypassed;    /**< gone past the full queue */
    uint32_t refused;     /**< posts that got -1 */
    uint32_t failed;      /**< requests whose handler gave less than 0 */
    uint32_t contract;    /**< 1: the module has one; 0: all below is 0. With one, bypassed and
                               refused are the ledger's */
    uint32_t strict;      /**< as in its terms; the next four too */
    uint32_t depth;       /**< places */
    uint32_t replies_max; /**< bound on replies */
    uint32_t open_max;    /**< bound on ledger.open; 0: none */
    int32_t overflow;     /**< QOR_OVERFLOW_* */
    uint32_t limit;       /**< tasks at a time, when strict; else 0 */
    uint32_t replies;     /**< own requests whose response has not begun */
    uint32_t blocked;     /**< posters that wait for a place */
    qor_ledger_t ledger;  /**< what has become of all it was given: running, open, dropped_* ... */
} qor_info_context_t;

/** A topic that has or had a registration or a request. */
typedef struct qor_info_topic {
    uint32_t size;        /**< of this record */
    int32_t role;         /**< QOR_BUS_ROLE_*: whose table it is of */
    int32_t topic;        /**< its number */
    char subscriber[20];  /**< module of the newest subscriber, "" for none */
    uint32_t subscribers; /**< registrations now; the next two too */
    uint32_t listeners;   /**< likewise */
    uint32_t filters;     /**< likewise */
    uint32_t requests;    /**< published, modulo 2^31: asynchronous and synchronous ones and, when
                               they are carried out, system calls; not the reports to the monitor,
                               which take a shorter way */
    uint32_t unserved;    /**< of them, those that found no subscriber that takes any */
} qor_info_topic_t;

/** What a thread does while it is inside something. */
enum {
    QOR_INSIDE_REQUEST = 0,        /**< handles a request */
    QOR_INSIDE_RESPONSE = 1,       /**< handles a response */
    QOR_INSIDE_LISTEN_BEFORE = 2,  /**< shows a listener a message, before it is handled */
    QOR_INSIDE_LISTEN_AFTER = 3,   /**< the same, after it was */
    QOR_INSIDE_FILTER_BEFORE = 4,  /**< has a message filtered, before it is handled */
    QOR_INSIDE_FILTER_AFTER = 5,   /**< the same, after it was */
    QOR_INSIDE_TASK = 6,           /**< runs a task or timer of the module's */
    QOR_INSIDE_CALL = 7,           /**< handles a synchronous request */
    QOR_INSIDE_SYSTEM = 8,         /**< handles a system call */
    QOR_INSIDE_INIT = 9,           /**< runs the module's init */
    QOR_INSIDE_REG = 10,           /**< runs the module's reg */
    QOR_INSIDE_WAITS = 16,         /**< from here on it waits: */
    QOR_INSIDE_WAITS_START = 21,   /**< until the module has started */
    QOR_INSIDE_WAITS_PAUSE = 22,   /**< until the module is in PAUSE */
    QOR_INSIDE_WAITS_DRAIN = 23,   /**< in qor_bus_drain() */
    QOR_INSIDE_WAITS_ROOM = 25,    /**< for a place in the module's queue */
    QOR_INSIDE_WAITS_UP = 26,      /**< in qor_bus_wait_up() */
    QOR_INSIDE_WAITS_WORKERS = 27, /**< in qor_bus_loop(), for the workers to end */
    QOR_INSIDE_WAITS_CONSOLE = 28, /**< for the module's console to end */
};

/** One of the things that a thread is inside. */
typedef struct qor_info_inside {
    char name[20];   /**< of the module; "" for none, or where the recorder has no name for it */
    int32_t kind;    /**< QOR_INSIDE_*; a later library may have more */
    int32_t session; /**< of the message or task; 0 for others */
    int32_t topic;   /**< of the message; -1 for others */
    int32_t age_ms;  /**< since when, exact to 2^20 ticks of the recorder's clock */
} qor_info_inside_t;

enum { QOR_INSIDE_MAX = 5 /**< so many of the things that a thread is inside are kept */ };

/** A thread that has been inside something since qor_trace_start(); it may have ended. */
typedef struct qor_info_thread {
    uint32_t size;  /**< of this record */
    uint32_t tid;   /**< as the system knows it */
    uint32_t role;  /**< 1 worker, 2 the loop's, 3 any other */
    char name[16];  /**< what it was named when it was first seen; "worker" for a worker */
    uint32_t depth; /**< how many things it is inside; 0 also when that changes too fast */
    qor_info_inside_t inside[QOR_INSIDE_MAX]; /**< the outermost of them, outermost first */
} qor_info_thread_t;

/** A request that its handler has deferred and that has not been completed. */
typedef struct qor_info_request {
    uint32_t size;   /**< of this record */
    char name[20];   /**< of the module that has deferred it */
    int32_t topic;   /**< its topic */
    int32_t session; /**< its session */
    int32_t age_ms;  /**< since it was deferred */
} qor_info_request_t;

/**
 * Receives one record, on the inspecting thread and with no lock held.
 *
 * @param kind  QOR_INFO_*; a later library may show kinds that are not known here, to be passed
 * over
 * @param info  the record of that kind; gone after the call
 * @return      0; anything else ends the inspection
 *
 * May call the bus: post, publish, unsubscribe, quit, inspect again; not qor_bus_close(), which
 * would wait for it. A thread that ends in here ends the inspection.
 */
typedef int32_t (*qor_see_t)(void *arg, int32_t kind, const void *info);

/**
 * Shows the bus, then each context in the order in which they were attached, each topic, the
 * application's first, each thread, and each open request. Threads are shown only while a recorder
 * records what this bus does; QOR_TRACE_STACKS suffices, and those without a lane of their own are
 * not.
 *
 * A record is of one moment, all together are not: what comes or goes meanwhile may be shown or
 * not. Single numbers among the counts are read without a lock: replies, failed, unserved,
 * posts_refused, allocations_failed, lines, and refused without a contract.
 *
 * @param see  called for each record
 * @param arg  handed to see; stays the caller's
 * @return     0, what see returned, or -1 after "!(bus) == true." or "!(see) == true."
 *
 * Any thread, also a handler's; before the loop, while it runs, while it quits, and after it until
 * qor_bus_close(), which waits for the inspections under way. Allocates nothing, waits for nothing
 * but locks that are held for a moment.
 */
QOR_API int32_t qor_bus_inspect(qor_bus_t *bus, qor_see_t see, void *arg);

/** Takes one line of text, without a newline and gone after the call. Called as a qor_see_t is. */
typedef void (*qor_text_t)(void *arg, const char *line);

/**
 * The same as text: one line for each record, of words and numbers, beginning with "bus",
 * "context", "topic", "thread" or "request".
 *
 * @param text  called for each line
 * @param arg   handed to text; stays the caller's
 * @return      0, or -1 after "!(bus) == true." or "!(text) == true."
 *
 * The lines are for people; a program takes the records.
 */
QOR_API int32_t qor_bus_dump(qor_bus_t *bus, qor_text_t text, void *arg);

QOR_END_DECLS

#endif /* QOR_INSPECT_H */
