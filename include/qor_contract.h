/* SPDX-License-Identifier: Apache-2.0 */
/* Contracts of modules: promises beyond those that every module has, chosen per module before the
 * bus loops. */
#ifndef QOR_CONTRACT_H
#define QOR_CONTRACT_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** What becomes of an arrival that finds all places of a module's queue taken. */
enum {
    QOR_OVERFLOW_DEFAULT = 0,     /**< BYPASS, or REFUSE when strict */
    QOR_OVERFLOW_BYPASS = 1,      /**< it goes past the queue to a worker; not with strict */
    QOR_OVERFLOW_REFUSE = 2,      /**< the poster gets -1 and a line */
    QOR_OVERFLOW_DROP_OLDEST = 3, /**< the one that was accepted longest ago goes */
    QOR_OVERFLOW_DROP_NEWEST = 4, /**< it goes; the poster gets what it would have got */
    QOR_OVERFLOW_BLOCK = 5,       /**< the poster waits for a place */
};

/** What was lost. */
enum {
    QOR_LOSS_REQUEST = 0,  /**< a request; its publisher gets a response with QOR_RET_DROPPED */
    QOR_LOSS_LISTENER = 1, /**< what a listener would have seen */
    QOR_LOSS_TASK = 2,     /**< an immediate task; its recycle is called */
};

/** Why. */
enum {
    QOR_LOSS_OLDEST = 0,   /**< made room for another */
    QOR_LOSS_NEWEST = 1,   /**< found no room */
    QOR_LOSS_TRANSFER = 2, /**< was for a newer subscriber, whose queue did not take it */
    QOR_LOSS_REFUSED = 3,  /**< a listener's: no room, no memory, or the module is closed */
};

/** A loss. */
typedef struct qor_loss {
    const char *module;        /**< the losing module's name; valid during the call */
    qor_context_topic_t topic; /**< of a request or listener call, else -1 */
    int32_t session;           /**< its session */
    int32_t kind;              /**< QOR_LOSS_REQUEST ... */
    int32_t reason;            /**< QOR_LOSS_OLDEST ... */
} qor_loss_t;

/**
 * Told of each loss: on the thread that lost, with no lock held; the record is gone after the call.
 * What is lost inside the call on its thread is counted, not told.
 */
typedef void (*qor_contract_lost_t)(void *arg, const qor_loss_t *loss);

/**
 * A contract. Outside of every promise stand filters and synchronous requests, which run on the
 * caller's thread, and the module's console, which has its own. docs/guide/contracts.md has what is
 * promised without a contract and with one.
 *
 * A poster blocks only where that cannot stop the bus: not in a task of the same module, not on the
 * loop's thread, and not on a worker when every other worker waits for a place or for a start;
 * there, and when a request is handed on to a newer subscriber, BLOCK is REFUSE. What comes later,
 * such as responses that wait for the start of a module whose init blocks here, wait_time ends. A
 * listener's call is never waited for: BLOCK is DROP_NEWEST. Before a strict module has started,
 * overflow refuses whatever the policy.
 */
typedef struct qor_contract {
    uint32_t size;     /**< of the record as the caller knows it; qor_contract_init() sets it */
    uint32_t strict;   /**< 1: at most refcount (0 means 1) tasks of the module's queue at a time:
                            requests, responses, runs, timers, listener calls; else 0 */
    uint32_t depth;    /**< places for requests, listener calls and immediate tasks that wait; 0
                            means 50 */
    uint32_t replies;  /**< bound on the module's own requests whose response has not begun; 0 means
                            50 */
    int32_t overflow;  /**< QOR_OVERFLOW_... */
    int32_t wait_time; /**< of BLOCK, ms */
    uint32_t open_max; /**< bound on deferred requests of the module; 0: any number */
    uint32_t reserved0;       /**< 0 */
    qor_contract_lost_t lost; /**< may be NULL */
    void *arg;                /**< of lost; stays the caller's */
    uint32_t reserved[4];     /**< 0 */
} qor_contract_t;

/**
 * What has become of everything that a module's queue was given, since the beginning. At any
 * moment, and in every copy: accepted = run + running + waiting + delayed + dropped_oldest +
 * dropped_newest + dropped_transfer + cancelled + discarded + transferred.
 */
typedef struct qor_ledger {
    uint32_t size;             /**< of the record as the caller knows it */
    uint32_t reserved;         /**< 0 */
    uint64_t accepted;         /**< taken into the queue, or dropped by it; a periodic timer counts
                                    one for each run begun */
    uint64_t run;              /**< ended; a request as soon as its handler has returned */
    uint64_t running;          /**< begun and not ended */
    uint64_t waiting;          /**< not begun, and accepted without a delay */
    uint64_t delayed;          /**< not begun, and accepted with one, due or not */
    uint64_t dropped_oldest;   /**< QOR_LOSS_OLDEST */
    uint64_t dropped_newest;   /**< QOR_LOSS_NEWEST */
    uint64_t dropped_transfer; /**< QOR_LOSS_TRANSFER */
    uint64_t cancelled;        /**< taken back by cancel */
    uint64_t discarded;        /**< not run because the module or the bus has ended */
    uint64_t transferred;      /**< requests handed on to a newer subscriber */
    uint64_t refused;          /**< not accepted: the poster got -1, a listener nothing */
    uint64_t bypassed;         /**< gone past the queue; not among the accepted */
    uint64_t open;             /**< deferred requests that are open now; they count as run */
    uint64_t finished;         /**< deferred requests that have ended, however */
    uint64_t highest;          /**< most that ever waited, as depth counts them */
} qor_ledger_t;

/** Fills a contract that promises nothing beyond acceptance in order: size, and 0 elsewhere. Prints
 * "!(contract) == true.". */
QOR_API void qor_contract_init(qor_contract_t *contract);

/**
 * Gives a module a contract. For modules of the array given to qor_bus_create(), before
 * qor_bus_loop(); the record is copied, and a second call replaces the first.
 *
 * In every module with a contract the queue's order is that of acceptance: by the millisecond of
 * acceptance, or at which a delayed task was due, then by the number of acceptance; so a timer that
 * is late goes before what was accepted after it was due. Without a contract requests of one
 * millisecond come out newest first.
 *
 * @param name      of the module
 * @param contract  a size smaller than today's is taken, and what is missing is 0
 * @return          0, or -1 with a line and nothing changed
 *
 * Prints "!(_this) == true.", "!(name) == true.", "!(contract) == true." or what is wrong: "loop:
 * the bus loops already.", also when it has ended; "name: a system module's.", "name: not
 * terminated.", "name: two modules have it.", "name: no module has it.", "name: the module's class
 * is another than 0."; "size: not known."; "strict: neither 0 nor 1.", "strict: refcount is
 * negative."; "overflow: not known.", "overflow: nothing goes past a strict queue."; "wait_time:
 * below 1 ms." with BLOCK; "reserved: not 0."; or "malloc "contract" failed.". Any thread.
 *
 * What a contract refuses later is said by whom it refuses: qor_core_context_handle_task prints
 * "queue full, module:<module>, task:<task>, session=<number>", qor_sched_delegate_publish
 * "replies: all places are taken, source:<module>, topic:<number>, session=<number>", and a handler
 * that returns a QOR_RET_* "reserved result <number>, module = <module>" under
 * qor_sched_delegate_handle_message_aim.
 */
QOR_API int32_t qor_bus_contract_set(qor_bus_t *_this, const char *name,
                                     const qor_contract_t *contract);

/**
 * Copies a module's ledger: one copy, exact at one moment. Any thread, until qor_bus_close().
 *
 * @param ledger  size is set by the caller, to sizeof(qor_ledger_t); a smaller known one gets what
 *                it has room for
 * @return        0, or -1 with a line: "!(_this) == true.", "!(name) == true.", "!(ledger) ==
 *                true.", "name: no contract for \"<name>\"." or "size: not known."
 */
QOR_API int32_t qor_bus_ledger(qor_bus_t *_this, const char *name, qor_ledger_t *ledger);

QOR_END_DECLS

#endif /* QOR_CONTRACT_H */
