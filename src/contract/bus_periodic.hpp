/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers as the bus knows them: which there are, when each is due, how each ends. */
#ifndef BUS_PERIODIC_HPP
#define BUS_PERIODIC_HPP

#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_context_task.h"

struct bus_periodics;

/* What others do with periodic timers. Called through the table alone, so that a program that is
 * linked statically and arms none has none of it. */
struct periodic_calls {
    /* Whether a timer has this session. */
    bool (*has)(bus_periodics &table, int32_t session);

    /* Ends the timer of a session: 0, or -1 when there is none. */
    int32_t (*cancel)(qor_bus_t *bus, int32_t session);

    /* Ends all timers of a context. What is under way goes on. */
    void (*end)(qor_bus_t *bus, const qor_context_t *context);

    /* The loop has taken a timer that is due out of the timer queue. Takes its node. */
    void (*due)(qor_time_que_node_t *node);

    /* Runs what a strict queue has given the node of. */
    void (*run)(qor_core_context_t *core, qor_time_que_node_t *node);

    /* The leave function of a run's scope, and the user context that the timer of such a scope
     * ends with; NULL when a context of another kind has armed it. */
    void (*left)(void *timer);
    qor_core_context_t *(*core)(void *timer);
};

/* Those of a bus that are armed. It is part of what outlives qor_bus_uninit(). */
struct bus_periodics {
    hal_thread_mutex_t mutex;    /* guards the table and the timers' links; taken after a private
                                    queue's, before the timer queue's */
    list_head armed[32];         /* by the lowest bits of the session */
    uint32_t mask;               /* which of these are not empty; read without the mutex */
    const periodic_calls *calls; /* NULL before the first is armed; likewise */
};

/* A periodic timer: the body of a node that belongs to the timer queue, with the node of its run as
 * the spare, or is on its way: the loop has taken it out, the spare waits in the task queue, a
 * worker runs it. Its node's due time is the point of the grid that it waits for, or that its run
 * has begun at. Whoever takes one of the two nodes out of its queue has the timer, and passes it on
 * or releases it. */
struct bus_periodic {
    list_head link; /* in the table; NULL links: the timer is to end */
    qor_bus_t *bus;
    struct qor_bus_private *priv; /* the bus's, and its timer queue: for a bus that is gone */
    qor_time_que_t *timers;
    qor_context_t *context; /* attached to the bus; the timer ends with it */
    void *arg;
    qor_context_recycle_t recycle;
    void (*over)(bus_periodic *timer); /* told after recycle; may be NULL */
    bool (*turn)(bus_periodic *timer); /* of a strict module: puts the node where the run waits for
                                          its turn; false when it is not taken there. NULL: the
                                          run is a task of the bus's */
    int32_t session;
    int32_t period;  /* ms */
    uint32_t passed; /* points between the last run and the one that it is queued for */
};

/* Opens the table of a zeroed record: 0, or -1 without its lock. */
int32_t bus_periodics_open(bus_periodics &table);

void bus_periodics_close(bus_periodics &table);

/* Makes a timer with a session: a record of so many bytes that begins with it, zeroed but for what
 * is known here. From now on the table has the calls. NULL without memory, and a line. */
bus_periodic *bus_periodic_create(qor_bus_t *bus, size_t size, const periodic_calls *calls);

/* Releases one that has not been started: recycle and over are not called. */
void bus_periodic_destroy(bus_periodic *timer);

/* The task of its runs. Nobody but who has the timer may look at it. */
qor_context_task_t *bus_periodic_task(bus_periodic *timer);

/* Arms a timer that is filled. false when the bus quits, and it stays the caller's. */
bool bus_periodic_start(bus_periodic *timer);

/* The timer of a node, and the node of a timer: who has the one has the other. */
bus_periodic *bus_periodic_of(qor_time_que_node_t *node);
qor_time_que_node_t *bus_periodic_node(bus_periodic *timer);

/* A worker has come to the run, and gives the node of its task up: the next run needs it. missed is
 * set, and the run may begin; or false. bus_periodic_over() follows either way. */
bool bus_periodic_begin(bus_periodic *timer, uint32_t *missed);

/* The run is over: the timer waits for the next point that has not passed, or ends. */
void bus_periodic_over(bus_periodic *timer);

/* Those of the calls that need nothing of the timer's context. */
bool bus_periodic_has(bus_periodics &table, int32_t session);
int32_t bus_periodic_cancel(qor_bus_t *bus, int32_t session);
void bus_periodics_end(qor_bus_t *bus, const qor_context_t *context);
void bus_periodic_due(qor_time_que_node_t *node);

#endif /* BUS_PERIODIC_HPP */
