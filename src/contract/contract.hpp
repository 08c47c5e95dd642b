/* SPDX-License-Identifier: Apache-2.0 */
/* What stands behind a module's contract: its terms, what its queue holds, its ledger. */
#ifndef CONTRACT_HPP
#define CONTRACT_HPP

#include "qor_bus.h"
#include "qor_contract.h"
#include "qor_hal.h"

struct admission;
struct contract;
struct thread_record;

/* A counter of the ledger. */
using contract_counter = uint64_t qor_ledger_t::*;

/* What the private queue of a module with a contract does: who comes in, who waits, who goes, and
 * how many run. Called through the contract alone, so that a program that is linked statically and
 * gives none has none of it. What ends in _locked is called with the queue's lock held. */
struct contract_calls {
    /* Gives the contract to a context that has been attached. Before the module's reg, when nobody
     * else knows the context. */
    void (*bind)(qor_core_context_t *core, contract &promise);

    /* The context has started: from now on a strict queue runs. */
    void (*open)(qor_core_context_t *core);

    /* The queue is closed: whoever waits for a place leaves. */
    void (*closed_locked)(contract &promise);

    /* What a post comes to, as of qor_core_context_handle_task(). Its memory has been made. */
    int32_t (*admit)(admission &post);

    /* Whether the loop run that the thread with that record, or NULL, is in may run tasks of the
     * queue. */
    bool (*run_enter_locked)(qor_core_context_t *core, thread_record *record);

    /* Such a run of a strict queue ends. Its node comes back for the next one, if it is given. */
    void (*run_leave_locked)(contract &promise, qor_que_node_t *node);

    /* The next task that may be begun, or NULL. One that gets no run of its own is begun. */
    qor_time_que_node_t *(*take_locked)(qor_core_context_t *core, thread_record *record);

    /* A task that had got a run of its own is begun; NULL: it has gone past the queue. */
    void (*task_run_locked)(qor_core_context_t *core, qor_time_que_node_t *node,
                            thread_record *record);

    /* A task leaves the queue, or its run, unrun. */
    void (*task_leaves_locked)(contract &promise, qor_time_que_node_t *node, contract_counter as);

    /* Puts the node of a periodic timer that is due in its place, with the run that it may need:
     * false when the queue takes nothing any more. */
    bool (*periodic)(qor_core_context_t *core, qor_time_que_node_t *node);

    /* Starts a run for what may be begun again. */
    void (*serve)(contract &promise);
};

extern const contract_calls contract_queue_calls;

/* Made before the bus loops, freed with the bus. The terms do not change once the bus loops. */
struct contract {
    list_head link; /* in the bus's list; guarded by the bus's mutex */
    const qor_context_module_t *module;
    qor_contract_t terms; /* defaults filled in */
    uint32_t slots;       /* tasks at a time, of a strict module */
    const contract_calls *calls;
    qor_core_context_t *core;  /* whose queue it is; set with mutex */
    hal_thread_mutex_t *mutex; /* of the private queue; NULL before the module's reg; written under
                                  the bus's mutex */
    uint32_t replies;          /* own requests whose response has not begun; changed atomically */
    uint32_t returned; /* requests among the running whose handler has returned; likewise, but
                          lowered under the queue's lock */

    /* Guarded by the private queue's lock: */
    qor_ledger_t ledger;
    uint32_t counted; /* waiting tasks that have a place */
    uint32_t runs;    /* loop runs of a strict queue that wait for a worker or have one */
    int32_t started;  /* 1 once a strict module may run its tasks */
    list_head idle;   /* nodes for loop runs; with those in use at least one, for good */
    uint32_t idle_count;
    list_head blocked; /* posters that wait for a place, in order of arrival */
};

/* The name of its module. */
const char *contract_name(const contract &promise);

/* The contract of a bus's module; NULL: it has none. */
contract *contract_find(const qor_bus_t *bus, const qor_context_module_t *module);

/* Its ledger as it is now. The caller holds the queue's lock. */
qor_ledger_t contract_ledger_locked(const contract &promise);

/* Takes a place for the response to a request that the module is about to publish: 0, or -1 when
 * there is none. */
int32_t contract_reply_take(contract &promise);

/* Gives it back; NULL is let pass. */
void contract_reply_back(contract *promise);

/* Counts what is refused before the queue is asked; NULL is let pass. Takes the queue's lock. */
void contract_refused(contract *promise);

/* The thread with that record, or NULL for none, begins a task that the ledger counts. The caller
 * holds the queue's lock. */
void contract_task_begun_locked(contract &promise, thread_record *record);

/* A run of a periodic timer begins on the calling thread, and counts as accepted with that. Takes
 * the queue's lock. */
void contract_periodic_begun(contract &promise);

/* The same of a task that the ledger does not count; needs no lock. */
void contract_task_inside(contract &promise, thread_record *record);

/* Whether a request whose newest subscriber has that contract, or NULL, may not be handled in the
 * queue that the thread with that record, or NULL, has it from: one of the two is strict. */
bool contract_is_elsewhere(const contract *promise, const thread_record *record);

/* So the request that the thread runs has been handed on, or, with a record that lacks its module,
 * lost. */
void contract_moved(const qor_loss_t *lost);

/* The handler of the request that the thread with that record, or NULL, runs has returned. */
void contract_handler_returned(thread_record *record);

/* The task that the thread runs has ended. The caller holds the queue's lock. */
void contract_task_over_locked(contract &promise, thread_record *record);

/* The module is about to defer a request: 0, or -1 when as many are open as may be. Takes the
 * queue's lock. */
int32_t contract_defer(contract &promise);

/* It did not come to that; NULL is let pass. */
void contract_defer_undo(contract *promise);

/* A deferred request has come to its end, and those that have waited for that may begin. Takes the
 * queue's lock, and the bus's queue's. */
void contract_deferred_over(contract &promise);

/* Tells of a loss, on the thread that has lost, with no lock held; the record lacks its module. */
void contract_lost(const contract &promise, qor_loss_t loss);

/* Frees all contracts of a bus. */
void contracts_free(qor_bus_t *bus);

#endif /* CONTRACT_HPP */
