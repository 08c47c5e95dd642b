/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus keeps for its orderly end: who waits, which delegates exist, which contexts failed.
 */
#ifndef QOR_BUS_PRIV_HPP
#define QOR_BUS_PRIV_HPP

#include "qor_bus.h"

struct qor_bus_private {
    hal_thread_mutex_t mutex; /* guards the fields below; taken before a waiter's and a queue's */
    int32_t stopping;         /* 1 once qor_bus_quit() has begun; read without the mutex */
    int32_t looping;          /* 1 while qor_bus_loop() runs */
    uint32_t workers;         /* how many have started; stored before the loop first waits */
    int32_t gone;             /* 1 once qor_bus_uninit() has run: the loop leaves the bus alone */
    uint32_t drains;          /* threads inside qor_bus_drain(); close waits for the last */
    hal_thread_cond_t drained;
    list_head waiters;   /* bus_waiter::link */
    list_head delegates; /* every delegate made for the bus; freed by qor_bus_close() */
    list_head failed;    /* user contexts that were destroyed while others may still name them */
};

/* Tells whether the bus has been asked to end; false for NULL. */
bool bus_stopping(const qor_bus_t *bus);

/* Waits until no thread is inside qor_bus_drain(): quit has sent them away, but they may still be
 * about to look at the bus. */
void bus_drains_await(qor_bus_private &priv);

/* Recycles what is still queued once the queues have quit. */
void bus_tasks_discard(qor_bus_t *bus);

/* A thread that waits on a condition of a context's, from construction to destruction: quit
 * broadcasts the condition, so a waiting loop that also tests bus_stopping() ends. Made before the
 * mutex is taken. A NULL bus is let pass. */
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
