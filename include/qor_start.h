/* SPDX-License-Identifier: Apache-2.0 */
/* Start: waiting until the modules are up. */
#ifndef QOR_START_H
#define QOR_START_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** How far the start of a module has come. */
enum {
    QOR_START_PENDING = 0,     /**< it may still come up */
    QOR_START_UP = 1,          /**< its init gave 0 or more, and its start has returned */
    QOR_START_NO_CONSOLE = 2,  /**< the same, but the thread of its console could not be made */
    QOR_START_INIT_FAILED = 3, /**< its init gave less than 0, or ended its thread */
    QOR_START_NEVER = 4,       /**< its phase never begins; because names the module that failed
                                    last in the phase before */
    QOR_START_NO_PURE = 5,     /**< its phase never begins: no module has pure */
    QOR_START_NO_CLASS = 6,    /**< the registry has no class for its id */
    QOR_START_NO_MEMORY = 7,   /**< no memory or lock for its context or its init, or the context
                                    could not be attached to the bus */
    QOR_START_BROKEN = 8       /**< start-up itself has failed: the manager of the modules did not
                                    come up, or a reg has ended the thread that called it */
};

/** One module in a report. */
typedef struct qor_start_entry {
    char name[20];     /**< of the module; what is longer is cut off */
    char because[20];  /**< name of another module with QOR_START_NEVER, else "" */
    int32_t state;     /**< QOR_START_* */
    int32_t init_time; /**< ms that the init of a module that is pending has taken so far; -1 when
                            it has not begun, and in every other state */
} qor_start_entry_t;

/** What qor_bus_wait_up() found. */
typedef struct qor_start_report {
    qor_start_entry_t *entries; /**< the caller's array, filled in the order of the table; may be
                                     NULL when capacity is 0 */
    uint32_t capacity;          /**< how many entries the array has room for; the caller's */
    uint32_t total;             /**< how many modules the table has, also beyond capacity */
} qor_start_report_t;

/**
 * Waits until no module of the bus can come up any more without being asked to: each is up, has
 * failed, or is of a phase that never begins.
 *
 * @param wait_time  longest wait in milliseconds; 0 looks once, negative waits without limit
 * @param report     NULL, or filled for every result but a bad call: with the states of one moment
 * @return           0: all modules are up, with or without their consoles; 1: some never will be;
 *                   2: qor_bus_quit() came first; -1: the time is over, or a bad call
 *
 * Before qor_bus_loop() runs nothing comes up, and this waits. Afterwards it gives 0 or 1 at once,
 * as often as it is called. A module whose init has failed counts as failed before its unreg and
 * uninit are called.
 *
 * A bad call changes nothing: "!(_this) == true.", "!(!report || report->entries ||
 * !report->capacity) == true." or, called from a task of this bus, from an init, or from a recycle
 * that its loop calls, "a task of the bus would wait for itself.". Any other thread, several at
 * once; qor_bus_close() waits for those who are inside.
 */
QOR_API int32_t qor_bus_wait_up(qor_bus_t *_this, int32_t wait_time, qor_start_report_t *report);

QOR_END_DECLS

#endif /* QOR_START_H */
