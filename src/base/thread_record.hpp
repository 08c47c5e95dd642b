/* SPDX-License-Identifier: Apache-2.0 */
/* What the library keeps about each of its own threads: the bus that the thread works for, and what
 * has to be given back if a task ends the thread with pthread_exit(). */
#ifndef THREAD_RECORD_HPP
#define THREAD_RECORD_HPP

#include "qor_hal.h"
#include "qor_types.h"

/* How deep scopes are remembered: a run, its task, and one for each walk over listeners or filters
 * that calls a handler inside the one before. What lies deeper is not given back by a
 * pthread_exit(). */
constexpr uint32_t thread_scopes_max = 16;

struct contract;

/* What a thread is to its bus. */
enum thread_role : int32_t {
    thread_helps = 0, /* or runs an init, or is none of the bus's */
    thread_works,
    thread_loops,
};

/* A task of a module with a contract, in the module's ledger. */
enum thread_task : int32_t {
    task_uncounted = 0, /* it is not in there, or has ended */
    task_running,
    task_returned, /* its handler has returned, which ends a request for the ledger */
};

/* The asynchronous request whose handler a thread is in. */
struct thread_request {
    const qor_context_msg_t *msg; /* NULL: none that may be deferred */
    qor_context_t *publisher;
    qor_context_t *aim; /* whose handler it is */
    uint64_t deferral;  /* what it has been deferred as; 0: it has not */
};

/* Outlives its thread, whose own data may still use the bus while it ends. Nothing here may point
 * into the frames of tasks: they do not outlast a pthread_exit(). Only its thread touches it.
 * (handled does, and is taken back before they are gone.) */
struct thread_record {
    qor_bus_t *bus; /* NULL: none */
    char name[16];  /* what hal_thread_name_set() has named the thread, as far as the kernel keeps
                       it */
    int32_t named;  /* 1 once it has */
    void *running;  /* the queue node whose task a worker runs; NULL: none, or it has been taken
                       over by its task, and is no longer the worker's */
    void *request;  /* the node of the request that the thread handles, for its response to travel
                       with; NULL: none, or it is on its way */
    thread_role role;
    contract *task_of;       /* whose queue's task the thread runs; NULL: none with a contract */
    thread_task task;        /* what that contract's ledger takes it for */
    int32_t losing;          /* 1 while it tells of a loss */
    const void *moving;      /* the message that it hands on to a newer subscriber, or NULL */
    thread_request *handled; /* NULL: none */
    int32_t printing;        /* 1 while it is inside the sink of lines */
    uint32_t depth;          /* scopes entered, also those beyond the limit */
    struct {
        void (*leave)(void *what);
        void *what;
    } scopes[thread_scopes_max];
};

/* Makes the records findable: 0, or -1 when the system has no key left. Any thread, any number of
 * times; once is enough for the process. */
int32_t thread_records_open();

/* The calling thread's record, or NULL: not a thread of the library's. */
thread_record *thread_record_get();

/* Makes a record the calling thread's, or takes it away with NULL: 0, or -1 without memory. */
int32_t thread_record_set(thread_record *record);

/* Leaves all scopes that are entered, innermost first: the thread is ending inside them. */
void thread_record_leave(thread_record &record);

/* The calling thread's record; a thread that is not the library's has one as long as this lives. */
class thread_record_here {
public:
    thread_record_here() : record_(thread_record_get())
    {
        if (!record_) {
            record_ = &own_;
            thread_record_set(&own_);
        }
    }
    ~thread_record_here()
    {
        if (record_ == &own_) {
            thread_record_set(nullptr);
        }
    }
    thread_record_here(const thread_record_here &) = delete;
    thread_record_here &operator=(const thread_record_here &) = delete;
    thread_record &get() { return *record_; }

private:
    thread_record *record_;
    thread_record own_ = {};
};

/* From construction to destruction, a pthread_exit() calls leave(what) on the calling thread, if it
 * is one of the library's. The usual way out calls nothing. */
class thread_scope {
public:
    thread_scope(void (*leave)(void *), void *what, thread_record *record = thread_record_get())
        : record_(record)
    {
        if (!record_) {
            return;
        }
        if (record_->depth < thread_scopes_max) {
            record_->scopes[record_->depth] = {leave, what};
        }
        record_->depth++;
    }
    ~thread_scope()
    {
        if (record_) {
            record_->depth--;
        }
    }
    /* Changes what is left; nothing has been entered inside since. */
    void becomes(void (*leave)(void *), void *what)
    {
        if (record_ && record_->depth <= thread_scopes_max) {
            record_->scopes[record_->depth - 1] = {leave, what};
        }
    }
    thread_scope(const thread_scope &) = delete;
    thread_scope &operator=(const thread_scope &) = delete;

private:
    thread_record *record_;
};

/* Calls visit(what) for each remembered scope of the calling thread that has this leave function.
 */
template <typename F> void thread_scopes_each(void (*leave)(void *), F visit)
{
    const thread_record *record = thread_record_get();
    for (uint32_t i = 0; record && i < record->depth && i < thread_scopes_max; i++) {
        if (record->scopes[i].leave == leave) {
            visit(record->scopes[i].what);
        }
    }
}

#endif /* THREAD_RECORD_HPP */
