/* SPDX-License-Identifier: Apache-2.0 */
/* What stands behind a user context, and what the other sources may do with one. */
#ifndef QOR_CORE_CONTEXT_PRIV_HPP
#define QOR_CORE_CONTEXT_PRIV_HPP

#include "qor_bus_up_priv.hpp"
#include "qor_context_task.h"
#include "qor_core_context.h"

/* How far the init of a context has come. */
enum user_init : int32_t {
    user_init_unknown = 0, /* nobody has offered it yet */
    user_init_offered,     /* whoever claims it first begins it */
    user_init_begun,
};

struct contract;

/* What a task of a private queue is to its module. */
enum user_task_kind {
    user_plain = 0,
    user_request,
    user_response,
    user_task_kinds,
};

struct qor_core_context_private {
    list_head failed;    /* in the bus's list of destroyed contexts */
    contract *promise;   /* the module's; NULL: it has none. Set before its reg */
    module_start *start; /* how far its module has come, for the manager; NULL: nobody asks */

    /* Guarded by the private queue's lock: */
    uint32_t numbers;   /* tasks so far, from 1 to INT32_MAX; each has its own number */
    uint32_t under_way; /* tasks out of the queue or past it that are not over: they run, or wait on
                           the bus; and periodic timers; not those below a failed init that
                           waits */
    int32_t closed;     /* 1 once the init has failed: takes no task, begins none */
    qor_que_node_t *loop; /* kept for the next loop run; NULL: none is, or it is in use */
    uint32_t accepted[user_task_kinds]; /* tasks that the queue has taken, modulo 2^32 */
    uint32_t highest;                   /* most nodes that it ever held */
    uint32_t bypassed;                  /* tasks that have gone past it, modulo 2^32 */

    uint32_t refused; /* posts that were, modulo 2^32; changed atomically */

    /* Guarded by the context's mutex: */
    user_init init;
    qor_context_task_t init_task; /* what begins it, once it is offered; claimed already */
};

/* The class's handle_task: queues a copy of the task and schedules a run for it. */
int32_t qor_core_context_handle_task(qor_context_t *context, qor_context_task_t *task);

/* The class's loop, and a task's function: a loop run. Returns with the queue drained of what is
 * due, or early when the bus quits: a module that keeps posting to itself must not keep its worker.
 */
int32_t qor_core_context_loop(qor_context_t *context);

/* Ends the periodic timer of a session, or takes a task out of the private queue, with the timer or
 * the run that was to start it, and discards it; 0 when there was one, else -1. */
int32_t user_task_cancel(qor_core_context_t *core, int32_t session);

/* The context that is attached to the bus for a module that sees this one: its wrapper, or for any
 * other itself. */
qor_context_t *user_context_attached(qor_context_t *context);

/* Releases what a task of a private queue carries when it is discarded unrun. Takes the task as
 * void *, so that it can stand in for a recycle. */
void user_task_discard(void *task);

/* From now on posts are refused with a line and no task is begun. */
void user_tasks_close(qor_core_context_t *core);

/* Discards what is queued: the context ends with its bus. */
void user_tasks_discard(qor_core_context_t *core);

/* Recycles what a closed context has queued, on the bus too. Requests of others are answered with
 * ret -1. */
void user_tasks_refuse(qor_core_context_t *core);

/* Waits until no task of a closed context is under way any more. Tasks on the calling thread's own
 * stack are not waited for, by nobody who waits here: they end only after this returns. */
void user_tasks_await(qor_core_context_t *core);

/* Offers an init: the task begins it, and whoever claims it first runs that. Those who wait for the
 * start are woken. */
void user_init_offer(qor_core_context_t *core, const qor_context_task_t *task);

/* Claims an init for a task that is about to begin it: false when somebody else has. */
bool user_init_claim(qor_core_context_t *core);

/* For a thread that is about to wait for the start: has an init that nobody has begun run, by a
 * helper, or on this thread if there is none to be had. false when there is nothing to begin. */
bool user_init_help(qor_core_context_t *core, qor_bus_t *bus);

/* Ends an init without success: STOP, and a line. */
void user_init_failed(qor_core_context_t *core);

/* Takes down a context whose init has failed: nothing is taken or begun any more, unreg, what is
 * queued is recycled, what runs is waited for, uninit. */
void user_context_fail(qor_context_t *context);

/* Takes a context down in the order of the lifecycle, whatever it has reached. */
void user_context_close(qor_context_t *context);

/* Frees a user context and its inner one. No thread is left that could name either. */
void user_context_free(qor_core_context_t *core);

/* Frees the contexts that were destroyed while they were attached to the bus. */
void user_contexts_free(qor_bus_t *bus);

#endif /* QOR_CORE_CONTEXT_PRIV_HPP */
