/* SPDX-License-Identifier: Apache-2.0 */
/* Why a bus does not go on: who waits for whom, circles of waits, and whether a watchdog may be
 * fed. All of it needs a recorder, see qor_trace.h, which has QOR_TRACE_STACKS in its mask: that
 * alone suffices, and costs no event. What began before it was recorded is not seen. */
#ifndef QOR_HEALTH_H
#define QOR_HEALTH_H

#include "qor_inspect.h"
#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * Says in lines of text what a bus is at: of qor_bus_dump() the bus, each module that has something
 * to do, each thread that is inside something and each open request; then circles of waits.
 *
 *     bus: workers 1, idle 0, quitting 0, queued 1, ...
 *     thread 41: worker, depth 2 > beta init 9, session 0, topic -1, ms 520 > alpha waits 21,
 *     session 0, topic -1, ms 520, waits for the start of alpha, held up by thread 42
 *     thread 42: alpha, depth 2 > alpha init 9, session 0, topic -1, ms 520 > beta waits 21,
 *     session 0, topic -1, ms 519, waits for the start of beta, held up by thread 41
 *     circle of 2: alpha (thread 42) beta (thread 41)
 *
 * The numbers are those of QOR_INSIDE_*. What a thread waits for is said also where it is inside
 * more than is shown. It is held up by the thread that is inside the init, or inside a reg that
 * comes before; 0: nobody is. In a circle stand the modules whose start is waited for, each with
 * the thread that holds it up and waits for the next, the last for the first.
 *
 * Threads that the recorder has no lane for are counted on a line, "threads without a lane, not
 * shown: 2": what they are inside, and circles through them, are not known. Threads that run an
 * init for somebody who waits come and go, each with a lane; so lanes for the workers, the modules
 * and four more are enough. What a handler waits for by means of its own cannot be seen either;
 * the line of the module that would have to do it gives it away.
 *
 * A circle is one that nobody leaves before the bus quits: inits that wait for each other's start
 * or for their own, or a reg that waits for a start that comes after it. Waits that a time ends are
 * none: those for room, of qor_bus_drain() and of qor_bus_wait_up().
 *
 * @param text  called for each line with no lock held; it may call the bus, but not close it
 * @param arg   handed to text; stays the caller's
 * @return      the number of circles, or -1 after "!(bus) == true.", "!(text) == true." or "nothing
 *              is recorded."
 *
 * Any thread, until qor_bus_close(), which waits for those inside. Allocates nothing.
 */
QOR_API int32_t qor_bus_explain(qor_bus_t *bus, qor_text_t text, void *arg);

/** How a bus is. Times are in milliseconds. */
typedef struct qor_health {
    uint32_t size;          /**< sizeof(qor_health_t), set by the caller */
    uint32_t workers;       /**< how many run */
    uint32_t busy;          /**< of them, those that do not wait for a task */
    uint32_t over;          /**< threads, workers or others, that have been inside something of a
                                 module's for longer than its limit */
    uint32_t circles;       /**< see qor_bus_explain() */
    int32_t oldest_ms;      /**< how long a thread has been inside something, of all the longest;
                                 0: none is */
    int32_t oldest_session; /**< the session of that; 0 for an init */
    char oldest[20];        /**< whose it is; "" for nobody's */
    int32_t queue_ms;       /**< how long the first task has waited for a worker, up to four hours;
                                 0: none does */
    int32_t timer_ms;       /**< how late the next timer is; 0: it is not */
} qor_health_t;

/**
 * Fills health, for the thread that feeds a watchdog: allocates nothing and waits for no task.
 *
 * @param limit_ms  how long something may take, more than 0; a module may have a limit of its own
 * @param health    its size is set
 * @return          0 when over and circles are 0, and queue_ms and timer_ms are below limit_ms;
 *                  else 1; -1, and health is as it was, after "!(bus) == true.", "!(limit_ms > 0)
 *                  == true.", "!(health) == true.", "!(health->size == sizeof(*health)) == true."
 *                  or "nothing is recorded."
 *
 * A thread that only waits is not over by that: the init it waits in is. Threads that the recorder
 * has no lane for, see qor_trace_config_t, are not seen but as busy workers. Any thread, until
 * qor_bus_close(), which waits for those inside.
 */
QOR_API int32_t qor_bus_health(qor_bus_t *bus, int32_t limit_ms, qor_health_t *health);

/**
 * Sets how long something of a module's may take, before the loop runs.
 *
 * @param module    its name; all modules of that name get the limit
 * @param limit_ms  0: that of qor_bus_health(), as without this call
 * @return          0, or -1 after "!(bus) == true.", "!(module) == true.", "!(limit_ms >= 0) ==
 *                  true.", "loop: the bus loops already.", "name: no module has it." or
 *                  "malloc "bus_sight" failed."
 */
QOR_API int32_t qor_bus_limit_set(qor_bus_t *bus, const char *module, int32_t limit_ms);

/**
 * Called on the monitor's console thread right after each line in which it names a task that runs
 * long, with no lock held. What is slow here delays the monitor's other lines.
 *
 * @param task     the task's name, as in the line
 * @param module   whose task it is
 * @param topic    that it handles a message of
 * @param session  as in the line
 * @param age_ms   how long it has run
 *
 * Where nothing is recorded, or the task has ended meanwhile, module is "" and topic and age_ms are
 * -1; topic also of a task that handles no message. When several tasks of one session run, the
 * oldest is told.
 */
typedef void (*qor_stalled_t)(void *arg, const char *task, const char *module, int32_t topic,
                              int32_t session, int32_t age_ms);

/**
 * Has the application told when the monitor names a task, before the loop runs.
 *
 * @param stalled  NULL: nobody is told, as without this call
 * @param arg      handed to stalled; stays the caller's
 * @return         0, or -1 after "!(bus) == true.", "loop: the bus loops already." or "malloc
 *                 "bus_sight" failed."
 */
QOR_API int32_t qor_bus_stalled_set(qor_bus_t *bus, qor_stalled_t stalled, void *arg);

/** What becomes of a delivery that would wait for a start that waits for the delivery. */
enum {
    QOR_CIRCLE_WAIT = 0,   /**< it waits, as without this call */
    QOR_CIRCLE_REFUSE = 1, /**< it fails, with the line "lifecycle already STOP or DESTROY. RESUME
                                failed." */
};

/**
 * Sets what becomes of circles of waits, before the loop runs. Of deliveries that close a circle at
 * one moment at least one is refused, perhaps each. A circle that a thread without a lane takes
 * part in, or that begins while QOR_TRACE_STACKS is not recorded, is waited in.
 *
 * @param policy  QOR_CIRCLE_*
 * @return        0, or -1 after "!(bus) == true.", "!(policy == QOR_CIRCLE_WAIT || policy ==
 *                QOR_CIRCLE_REFUSE) == true.", "loop: the bus loops already.", "malloc "bus_sight"
 *                failed.", or, for QOR_CIRCLE_REFUSE, "nothing is recorded."
 */
QOR_API int32_t qor_bus_circle_set(qor_bus_t *bus, int32_t policy);

QOR_END_DECLS

#endif /* QOR_HEALTH_H */
