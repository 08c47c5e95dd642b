/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers: a function that runs again and again, on a grid of its own. */
#ifndef QOR_PERIODIC_H
#define QOR_PERIODIC_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * A periodic timer's function. Runs on a worker thread with no lock held, never beside itself.
 *
 * @param self     the context that armed the timer
 * @param session  the timer's number
 * @param arg      stays its owner's, see qor_context_every()
 * @param missed   points of the grid without a run of their own since the last run began, or since
 *                 the call if this is the first
 *
 * One that ends its thread with pthread_exit() is over, and the timer goes on.
 */
typedef void (*qor_context_every_run_t)(qor_context_t *self, int32_t session, void *arg,
                                        uint32_t missed);

/**
 * Arms a periodic timer: run is called every period_ms milliseconds until the timer is cancelled.
 *
 * @param self       the context that a module gets, or one that is attached to the bus itself
 * @param run        what is called
 * @param arg        handed to run; with a result of 0 or more it is the timer's until recycle
 * @param recycle    releases arg, once, when the timer has come to its end; may be NULL
 * @param period_ms  milliseconds, at least 1
 * @return           the session number, 0 or more, or -1: arg then stays the caller's and recycle
 *                   is not called
 *
 * The runs are due at the time of the call plus 1, 2, 3... periods; how long a run takes, or how
 * late it begins, moves none of them. A point of that grid that passes while a run waits for a
 * worker or is under way gets no run of its own: it is counted in missed. The clock is the
 * monotonic one, and a period has no upper end but that of its type.
 *
 * All memory is had here: no run can fail for the want of it. Each run is a task of the bus, after
 * its time in the order of the bus's tasks, and is reported to QOR_SYS_MONITOR_TASK and names its
 * thread as tasks of modules do. It waits in no module's queue, so it may run beside other tasks of
 * its module, takes none of the places of its refcount, and, as other timers do, may begin before
 * the module has started. In a strict module (qor_contract.h) it waits in the module's queue for
 * its turn instead. qor_bus_drain() waits for a run that is due or under way, not for the next one.
 *
 * No other session is given this number while the timer has it. qor_context_timer_cancel() and
 * qor_context_x_timer_cancel() of a module, the first also of a context attached to the bus, and
 * qor_bus_cancel() look for a periodic timer first, whoever armed it. They end it from any thread,
 * inside its run too, with the result 0: no further run begins. One that a worker has taken up by
 * then goes on to its end, and the worker recycles arg after it; one that waits in the queue of a
 * strict module has arg recycled in place of its run; else cancel itself recycles it before it
 * returns. A timer also ends with the bus, and with a module whose init fails: before its
 * uninit, and after a run that is under way. recycle is called with no lock held, on the thread
 * that ends the timer: the canceller, a worker, or the one in qor_bus_loop(), qor_bus_close() or
 * the failed init.
 *
 * Prints "!(self) == true.", "!(run) == true.", "!(period_ms > 0) == true.", "not on a bus, source:
 * <module>", "the bus has quit, or the init has failed, source: <module>" or, on a bus without a
 * timer queue, "!(bus->time_que) == true."; without memory "malloc "qor_time_que_node_t" failed."
 * or "malloc "qor_que_node_t" failed." comes from the queues. Any thread.
 */
QOR_API int32_t qor_context_every(qor_context_t *self, qor_context_every_run_t run, void *arg,
                                  qor_context_recycle_t recycle, int32_t period_ms);

QOR_END_DECLS

#endif /* QOR_PERIODIC_H */
