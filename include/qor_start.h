/* SPDX-License-Identifier: Apache-2.0 */
/* Start: waiting until the modules are up, and looking at a table of modules for what keeps them
 * from it. */
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
 * Before qor_bus_loop() runs nothing comes up, and this waits; also when the loop could not start,
 * until qor_bus_quit(). Afterwards it gives 0 or 1 at once,
 * as often as it is called. A module whose init has failed counts as failed before its unreg and
 * uninit are called.
 *
 * A bad call changes nothing: "!(_this) == true.", "!(!report || report->entries ||
 * !report->capacity) == true." or, called from a task of this bus, from an init, or from a recycle
 * that its loop calls, "a task of the bus would wait for itself.". Any other thread, several at
 * once; qor_bus_close() waits for those who are inside.
 */
QOR_API int32_t qor_bus_wait_up(qor_bus_t *_this, int32_t wait_time, qor_start_report_t *report);

/** How much a finding matters. */
enum {
    QOR_FINDING_WARNING = 1, /**< it works, but seldom as it was meant */
    QOR_FINDING_ERROR = 2    /**< the module, or the bus, does not come up, or memory is overrun */
};

/** What qor_bus_check() has found. */
typedef struct qor_bus_finding {
    char module[20];  /**< name of the module; what is longer is cut off; "" for the whole table */
    int32_t place;    /**< of the module in the table, from 0; -1 for the whole table */
    int32_t level;    /**< QOR_FINDING_* */
    const char *text; /**< what it is; constant */
} qor_bus_finding_t;

/** Takes a finding, which is gone after the call. On the thread that checks, with no lock held. */
typedef void (*qor_bus_finding_see_t)(void *arg, const qor_bus_finding_t *finding);

/**
 * Looks at a table of modules for what keeps them from coming up or from being told apart.
 *
 * @param modules  as for qor_bus_create(), before it or after; neither kept nor changed
 * @param see      called for each finding, those of the whole table first, then module by module;
 *                 NULL: they are only counted
 * @param arg      handed to see
 * @return         how many findings there are, or -1 for a NULL table ("!(modules) == true.")
 *
 * Errors: "1024 modules or more." (no bus is made of them; the first 1024 are looked at), "no
 * module has pure." (none comes up), "name not terminated.", "no class for its id.", "no init."
 * (it never comes up). Warnings: "name empty.", "name used before.", "listed before.", "no reg.",
 * "no unreg.", "no uninit.", "no handle_message.", "console: stack size refused.", "console:
 * priority not 1 to 99.".
 *
 * Callbacks and consoles are looked at in modules of the system class alone. A console's priority
 * may also be 0, which stands for 1. A stack size is what the C library takes or not: whether there
 * will be memory for it nobody knows. For the classes of ids the registry of the process is asked,
 * as it is now, so register them first; one that is not in use yet is not made, and has the system
 * class. Prints nothing else. Any thread.
 */
QOR_API int32_t qor_bus_check(qor_context_module_t **modules, qor_bus_finding_see_t see, void *arg);

QOR_END_DECLS

#endif /* QOR_START_H */
