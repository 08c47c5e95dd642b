/* SPDX-License-Identifier: Apache-2.0 */
/* What stands behind a bus: its threads, what its orderly end needs, and the memory of hand-overs.
 */
#ifndef QOR_BUS_PRIV_HPP
#define QOR_BUS_PRIV_HPP

#include "bus_periodic.hpp"
#include "qor_bus.h"
#include "qor_bus_up_priv.hpp"
#include "qor_context_task.h"
#include "task_watch.hpp"
#include "thread_record.hpp"

/* A worker's place, which a new thread takes when a task has ended the one before. */
struct bus_worker {
    qor_bus_t *bus;
    hal_thread_t thread; /* guarded by the bus's mutex until the crew is joined */
    hal_thread_t before; /* the thread that it replaces, to be joined; valid when replaces is set */
    int32_t replaces;
    thread_record record;
};

/* The workers of a loop; lives in its frame. */
struct bus_crew {
    const hal_thread_attr_t *attr;
    bus_worker *workers; /* as many as are wanted */
    uint32_t count;      /* how many threads there are */
    uint32_t starting;   /* those that have yet to say whether they can work; guarded, as the next,
                            by the bus's mutex */
    uint32_t able;       /* those that can */
};

struct bus_sight;

struct qor_bus_private {
    hal_thread_mutex_t mutex; /* guards the fields below; taken before a waiter's and a queue's */
    int32_t stopping;         /* 1 once qor_bus_quit() has begun; read without the mutex */
    int32_t looping;          /* 1 while qor_bus_loop() runs; read without the mutex */
    int32_t gone;             /* 1 once qor_bus_uninit() has run: the loop leaves the bus alone;
                                 guarded by the timer queue's mutex */
    uint32_t workers;         /* how many there are; read without the mutex */
    bus_crew *crew;           /* NULL when the loop is not running, or joins them */
    list_head helpers;        /* bus_helper::link */
    uint32_t busy; /* what drain waits for beside the queues: inits that run for somebody who
                      waits, deferred requests; read without the mutex */
    hal_thread_cond_t rested; /* monotonic; broadcast when there is none any more, when the
                                     workers and when the modules have started, and at quit */
    uint32_t visitors;        /* bus_visitor_enter(); close waits for the last */
    hal_thread_cond_t visited;
    list_head waiters;   /* bus_waiter::link */
    list_head delegates; /* every delegate made for the bus; freed by qor_bus_close() */
    uint32_t contexts;   /* how many there were: the newest delegate's number */
    task_watch watch;
    list_head contracts; /* contract::link; does not change once the loop runs */
    uint32_t stuck;      /* workers that wait for a start or for a place in a queue */
    list_head failed;    /* user contexts that were destroyed while others may still name them */
    bus_start start;
    bus_periodics periodics;
    uint32_t refused; /* posts, modulo 2^32; changed atomically */
    bus_sight *sight; /* NULL: nobody has asked to be told anything; does not change once the loop
                         runs */
};

/* Tells whether the bus has been asked to end; false for NULL. */
bool bus_stopping(const qor_bus_t *bus);

/* Whether any module has a contract. */
inline bool bus_has_contracts(const qor_bus_t &bus)
{
    return !list_empty(&bus.priv->contracts);
}

/* Whether tasks are reported and threads named. */
bool bus_watched(const qor_bus_t *bus);

/* A table has fewer modules than that. */
constexpr size_t bus_module_limit = 1024;

/* How many modules a table has; the limit stands for any number from there on. */
size_t bus_module_count(qor_context_module_t **modules);

/* Counts a thread in that is inside the bus where close has to wait for it, and out again; the
 * latter takes the private block as void *, so that it can stand in a clean-up. */
void bus_visitor_enter(qor_bus_private &priv);
void bus_visitor_leave(void *priv);

/* A thread of the application's that waits inside qor_bus_drain() or qor_bus_wait_up(), from
 * construction to destruction. */
class bus_visitor {
public:
    explicit bus_visitor(qor_bus_private &priv) : priv_(priv) { bus_visitor_enter(priv_); }
    ~bus_visitor() { bus_visitor_leave(&priv_); }
    bus_visitor(const bus_visitor &) = delete;
    bus_visitor &operator=(const bus_visitor &) = delete;

private:
    qor_bus_private &priv_;
};

/* Whether the calling thread must not be one, for the bus would wait for it: then there is a line
 * under the name of func. */
bool bus_visitor_refused(const qor_bus_t *bus, const char *func);

/* Waits until there is none: quit has sent them away, but they may still be about to look at the
 * bus. */
void bus_visitors_await(qor_bus_private &priv);

/* Recycles what is still queued once the queues have quit. */
void bus_tasks_discard(qor_bus_t *bus);

/* Discards the bus's deferred requests. */
void bus_deferred_over(const qor_bus_t *bus);

/* Undoes what qor_bus_init() did before it made the tables; the private block goes with it. */
void bus_head_uninit(qor_bus_t *bus);

/* Whether there was a periodic timer of that session; it is ended. */
bool bus_periodic_is_cancelled(qor_bus_t *bus, int32_t session);

/* Draws a number that nobody gets: a periodic timer may have it, see qor_bus_session(). */
int32_t bus_session_next(qor_bus_t *bus);

/* A node of the task queue with room for a task that is still to be filled; NULL without memory. */
qor_que_node_t *bus_node();

/* The task in a node of either queue. */
qor_context_task_t *bus_task_of(qor_que_node_t *node);
qor_context_task_t *bus_task_of(qor_time_que_node_t *node);

/* Now, as que_since_set() wants it: in ms, and never 0. */
uint32_t bus_since();

/* Queues a node that carries its task, under the task's session. 0, or -1 when the bus quits, and
 * the node stays the caller's. */
int32_t bus_node_post(qor_bus_t *bus, qor_que_node_t *node);

/* The same of the timer queue, and behind it the node that its task will be queued with: a timer
 * that has been accepted cannot fail any more. */
qor_time_que_node_t *bus_timer_node();

/* Queues such a node, due in task->delay milliseconds. 0, or -1 when the bus quits, and the node
 * stays the caller's. */
int32_t bus_timer_node_post(qor_bus_t *bus, qor_time_que_node_t *node);

/* Prepares the attribute of the bus's threads: 0, or -1 with a line under the name of func and
 * nothing to destroy. */
int32_t bus_thread_attr_init(const qor_bus_t *bus, hal_thread_attr_t *attr, const char *func);

/* Gives the calling thread the priority that the bus wants for its threads, if any. What their
 * attribute says does not count, for it inherits. */
void bus_thread_setpriority(const qor_bus_t *bus);

/* Names the calling thread after a task, unless nobody watches the bus's; the bus may be NULL. */
void bus_thread_name_set(const qor_bus_t *bus, const char *name);

/* Starts up to so many workers; crew->able says how many of them work. */
void bus_crew_start(qor_bus_t *bus, bus_crew *crew, uint32_t wanted);

/* Joins the workers; the task queue quits. */
void bus_crew_join(qor_bus_private &priv, bus_crew *crew);

/* Runs a task on a thread of its own, beside the workers, and then counts the init out that the
 * caller has counted in. 0, or -1 when the bus quits or has no thread to give, and nothing is
 * counted out. The thread is joined by the loop. */
int32_t bus_helper_start(qor_bus_t *bus, const qor_context_task_t *task);

/* Joins all helpers. The bus quits, so no further one starts, and nobody else joins any. */
void bus_helpers_join(qor_bus_t *bus);

/* Counts in what drain waits for beside the queues, and out again: an init that runs for somebody
 * who waits, a request that is deferred. */
void bus_busy_begin(qor_bus_t *bus);
void bus_busy_end(qor_bus_t *bus);

/* Counts the calling thread, if it is a worker, among those that wait for others; always, or only
 * if another worker is left then: false when none is. */
void bus_stuck_begin(qor_bus_t *bus);
bool bus_stuck_try(qor_bus_t *bus);

/* Counts it out again. */
void bus_stuck_end(qor_bus_t *bus);

/* A thread that waits on a condition of a context's, from construction to destruction: quit
 * broadcasts the condition, so a waiting loop that also tests bus_stopping() ends. Made before the
 * mutex is taken. Does nothing for a NULL bus. */
class bus_waiter {
public:
    bus_waiter(qor_bus_t *bus, hal_thread_mutex_t &mutex, hal_thread_cond_t &cond);
    ~bus_waiter();
    bus_waiter(const bus_waiter &) = delete;
    bus_waiter &operator=(const bus_waiter &) = delete;

    /* Used by quit, under the bus's mutex. */
    static void wake(list_head *link);

private:
    list_head link_;
    qor_bus_t *bus_;
    hal_thread_mutex_t &mutex_;
    hal_thread_cond_t &cond_;
};

#endif /* QOR_BUS_PRIV_HPP */
