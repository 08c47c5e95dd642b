/* SPDX-License-Identifier: Apache-2.0 */
/* Module descriptors, and the calls that modules make: requests, runs and timers. */
#ifndef QOR_CONTEXT_MODULE_H
#define QOR_CONTEXT_MODULE_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * Takes up or gives up the module's topics, or cleans the module up. Like all callbacks of a module
 * it receives the context that the module's own calls are made on, and runs with no lock held on
 * the thread that brings the context up or takes it down.
 *
 * A reg that sends a request to a module of its own phase, its own module included, waits for a
 * start that cannot come before reg returns: until the bus quits.
 *
 * unreg and uninit are called for every module whose reg was called: also when its init has failed,
 * and when its init never ran because the bus was closed before.
 */
typedef void (*qor_context_module_void_t)(qor_context_t *context);

/**
 * Initialises the module; arg is the descriptor's. Negative on failure.
 *
 * It may send requests to other modules, and then waits until they have started. Inits whose
 * requests form a circle, or one that sends to its own module, wait until the bus quits.
 *
 * Runs on a worker. The inits of a phase begin with the module that comes last in the array. One
 * that somebody waits for, with a request or in any other delivery, may begin before its turn, on a
 * helper thread with the workers' stack size and priority, or on the waiting thread when there is
 * no such thread to be had: so a start that does not wait for itself always comes. That holds for
 * waits for a start alone. Inits that block on anything else keep their workers; when they keep all
 * of them, the inits that nobody waits for do not begin.
 *
 * An init that ends its thread with pthread_exit() has failed. What follows a failure is told at
 * qor_mng_module.
 */
typedef int32_t (*qor_context_module_init_t)(qor_context_t *context, void *arg);

/** The module's console, on a thread of its own from start on. Stop waits for its return. */
typedef int32_t (*qor_context_module_console_t)(qor_context_t *context);

/**
 * Handles a message: a request, a response, or what a listener or filter sees (see its type). The
 * message and its buffers are valid during the call. A request's response part is written in place
 * (it is seldom aligned: use memcpy), and the result becomes the message's ret.
 *
 * Runs on whichever thread delivers the message, and may run several times at once: whatever
 * refcount says, calls for filters, listeners and synchronous requests, and the module's own timers
 * run beside it. docs/behaviour.md has the table.
 */
typedef int32_t (*qor_context_module_message_t)(qor_context_t *context, qor_context_msg_t *msg);

/**
 * A module: one functional unit of the application, as handed to the bus in a NULL-terminated
 * array. Descriptors are borrowed and must outlive the bus.
 *
 * refcount is how many runs that posts start may empty the module's queue at once; negative is any
 * number. It bounds nothing else: docs/behaviour.md has what may run beside what.
 *
 * No C++ exception may leave a callback or a task: the library has no unwind tables, so that ends
 * the process (std::terminate). A callback or task that calls pthread_exit() on a thread of the
 * library's ends there: the library gives back what it held for it, a request is answered with ret
 * -1, an init has failed, and another worker takes the place. What the application has taken, such
 * as memory or locks, is not released. On a thread of the application's, which has got there by a
 * synchronous request, nothing is given back; only an init that it runs has failed. After fork()
 * the child has none of the bus's threads, and the locks stay as they were at that moment: it may
 * only call exec or _exit.
 */
struct qor_context_module {
    const char name[20];                         /**< terminated; names the console thread too */
    int32_t id;                                  /**< class of its context; 0 is the system class */
    uint32_t pure;                               /**< modules other than 0 are brought up first */
    int32_t refcount;                            /**< slots for runs of its queue; 0 means 1 */
    int32_t priority;                            /**< real-time priority of the console thread */
    int32_t stack_size;                          /**< the console thread's stack in bytes */
    void *arg;                                   /**< second argument of init */
    qor_context_module_void_t reg;               /**< subscribes, listens and filters */
    qor_context_module_void_t unreg;             /**< the reverse */
    qor_context_module_init_t init;              /**< initialises */
    qor_context_module_void_t uninit;            /**< cleans up */
    qor_context_module_console_t console;        /**< optional thread */
    qor_context_module_message_t handle_message; /**< handles messages */
};

/**
 * @name Requests
 *
 * Each fills a message on the stack and hands it to the context's way to the bus: req to its
 * publish (a clone is handled in a task of the subscriber), x_req to its publishx (the subscriber
 * handles it on the calling thread, before the call returns). With _s the caller supplies the
 * session number, otherwise one is drawn; a failed draw is ignored and leaves the session 0. With
 * _ret the request carries a response part.
 *
 * req returns the session number, by which the response is recognised, or -1 if the request could
 * not be handed over; x_req returns the result of publishx, that is the subscriber's. Each req that
 * was handed over, also one without _ret, brings the caller's module a message of type RESPONSE,
 * with the subscriber's result in ret; a subscriber that is taken down after a failed init gives -1
 * there. The memory of the response is had with the request. It is lost only when the bus quits, or
 * when the init of the caller's own module has failed meanwhile.
 *
 * Both wait while the subscriber has not started. Requests that a module has been sent within one
 * millisecond are not handled in the order of sending: the one that has waited longest stays first,
 * the others come newest first.
 *
 * Buffers stay the caller's. Sizes are in bytes and, like topic and buffers, not checked. A NULL
 * context prints "!(_this) == true." from the body that the members share (_qor_context_req,
 * _qor_context_req_s, _qor_context_x_req, _qor_context_x_req_s) and gives -1. Callable from any
 * thread, several at once. No member allocates.
 * @{
 */

/** Sends a request. */
QOR_API int32_t qor_context_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                int32_t req_size);

/** Sends a request with room for res_size response bytes, which the RESPONSE message carries. */
QOR_API int32_t qor_context_req_ret(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                    int32_t req_size, int32_t res_size);

/** qor_context_req() under the session number ss. */
QOR_API int32_t qor_context_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                                  void *req_buf, int32_t req_size);

/** qor_context_req_ret() under the session number ss. */
QOR_API int32_t qor_context_req_ret_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                                      void *req_buf, int32_t req_size, int32_t res_size);

/** Has a request handled now. */
QOR_API int32_t qor_context_x_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                  int32_t req_size);

/** Has a request handled now; the subscriber writes its response into res_buf. */
QOR_API int32_t qor_context_x_req_ret(qor_context_t *_this, qor_context_topic_t topic,
                                      void *req_buf, int32_t req_size, void *res_buf,
                                      int32_t res_size);

/** qor_context_x_req() under the session number ss. */
QOR_API int32_t qor_context_x_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                                    void *req_buf, int32_t req_size);

/** qor_context_x_req_ret() under the session number ss. */
QOR_API int32_t qor_context_x_req_ret_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                                        void *req_buf, int32_t req_size, void *res_buf,
                                        int32_t res_size);

/** @} */

/**
 * @name Runs and timers
 *
 * Each posts a task that calls func: runs as soon as possible, timers after delay milliseconds (at
 * once if delay is below 1). An x after the word (runx, timerx): func also receives the context and
 * the session. x_ before it (x_run, x_timer): a user context calls func from its own queue, where
 * requests and responses wait as well, and which is emptied by as many runs at once as refcount
 * says; without it func gets a run of its own on the bus, beside all others. Plain run goes through
 * the queue as well. A timer that falls due has its queue emptied by one run more. Other contexts
 * make no difference.
 *
 * Four members per family: _full has every parameter; the plain one draws a session number and
 * leaves name NULL; _name draws one and takes a name; _s takes the session number. The plain and
 * the _name member return the session, by which a task can be cancelled while it waits in the
 * module's queue (not once it has a run of its own), or -1; _full and _s return the result of the
 * post, 0 on the bus, and not the session. A failed draw is ignored and leaves the session 0.
 *
 * With a result of 0 or more all memory is there that the task needs until it has run; without it
 * the result is -1. The posts of a module whose init has failed, also those from its unreg and
 * uninit, are refused with -1 and "create a timer failed, source:<module>, task:<name>,
 * session=<number>", as by a bus that quits.
 *
 * name is copied, 31 characters at most, and names the thread while func runs; NULL stands for the
 * default "task:" and func's address. arg is handed on and never released by the library; it must
 * live until func has run or the task is cancelled.
 *
 * A NULL context prints "!(_this) == true." from the member that was called. A NULL func prints
 * "!(func) == true." from the _full member, after a session may have been drawn. Both give -1.
 * Callable from any thread, several at once. No member allocates.
 * @{
 */

/** Posts func(arg) to the queue. */
QOR_API int32_t qor_context_run_full(qor_context_t *_this, const char *name, int32_t ss,
                                     qor_context_run_t func, void *arg);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_run(qor_context_t *_this, qor_context_run_t func, void *arg);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_run_s(qor_context_t *_this, int32_t ss, qor_context_run_t func,
                                  void *arg);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_run_name(qor_context_t *_this, const char *name, qor_context_run_t func,
                                     void *arg);

/** Posts func(context, session, arg), as a run of its own. */
QOR_API int32_t qor_context_runx_full(qor_context_t *_this, const char *name, int32_t ss,
                                      qor_context_runx_t func, void *arg);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_runx(qor_context_t *_this, qor_context_runx_t func, void *arg);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_runx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func,
                                   void *arg);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_runx_name(qor_context_t *_this, const char *name,
                                      qor_context_runx_t func, void *arg);

/** Posts func(arg) to the queue. */
QOR_API int32_t qor_context_x_run_full(qor_context_t *_this, const char *name, int32_t ss,
                                       qor_context_run_t func, void *arg);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_x_run(qor_context_t *_this, qor_context_run_t func, void *arg);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_x_run_s(qor_context_t *_this, int32_t ss, qor_context_run_t func,
                                    void *arg);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_x_run_name(qor_context_t *_this, const char *name,
                                       qor_context_run_t func, void *arg);

/** Posts func(context, session, arg) to the queue. */
QOR_API int32_t qor_context_x_runx_full(qor_context_t *_this, const char *name, int32_t ss,
                                        qor_context_runx_t func, void *arg);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_x_runx(qor_context_t *_this, qor_context_runx_t func, void *arg);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_x_runx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func,
                                     void *arg);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_x_runx_name(qor_context_t *_this, const char *name,
                                        qor_context_runx_t func, void *arg);

/** Posts func(arg) after delay, as a run of its own. */
QOR_API int32_t qor_context_timer_full(qor_context_t *_this, const char *name, int32_t ss,
                                       qor_context_run_t func, void *arg, int32_t delay);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_timer(qor_context_t *_this, qor_context_run_t func, void *arg,
                                  int32_t delay);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_timer_s(qor_context_t *_this, int32_t ss, qor_context_run_t func,
                                    void *arg, int32_t delay);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_timer_name(qor_context_t *_this, const char *name,
                                       qor_context_run_t func, void *arg, int32_t delay);

/** Posts func(context, session, arg) after delay, as a run of its own. */
QOR_API int32_t qor_context_timerx_full(qor_context_t *_this, const char *name, int32_t ss,
                                        qor_context_runx_t func, void *arg, int32_t delay);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_timerx(qor_context_t *_this, qor_context_runx_t func, void *arg,
                                   int32_t delay);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_timerx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func,
                                     void *arg, int32_t delay);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_timerx_name(qor_context_t *_this, const char *name,
                                        qor_context_runx_t func, void *arg, int32_t delay);

/** Posts func(arg) after delay, to the queue. */
QOR_API int32_t qor_context_x_timer_full(qor_context_t *_this, const char *name, int32_t ss,
                                         qor_context_run_t func, void *arg, int32_t delay);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_x_timer(qor_context_t *_this, qor_context_run_t func, void *arg,
                                    int32_t delay);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_x_timer_s(qor_context_t *_this, int32_t ss, qor_context_run_t func,
                                      void *arg, int32_t delay);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_x_timer_name(qor_context_t *_this, const char *name,
                                         qor_context_run_t func, void *arg, int32_t delay);

/** Posts func(context, session, arg) after delay, to the queue. */
QOR_API int32_t qor_context_x_timerx_full(qor_context_t *_this, const char *name, int32_t ss,
                                          qor_context_runx_t func, void *arg, int32_t delay);

/** The same under a drawn session and the default name. */
QOR_API int32_t qor_context_x_timerx(qor_context_t *_this, qor_context_runx_t func, void *arg,
                                     int32_t delay);

/** The same under the session ss and the default name. */
QOR_API int32_t qor_context_x_timerx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func,
                                       void *arg, int32_t delay);

/** The same under a drawn session and the given name. */
QOR_API int32_t qor_context_x_timerx_name(qor_context_t *_this, const char *name,
                                          qor_context_runx_t func, void *arg, int32_t delay);

/**
 * Cancels the pending task or timer of a session; the result is the cancel dispatcher's. Of a timer
 * nothing stays: it does not fall due any more, and arg is the caller's again after its recycle.
 *
 * What the module's queue does not hold is looked for among the tasks of the bus, where those are
 * passed over that the library has made for itself: see qor_bus_cancel().
 */
QOR_API int32_t qor_context_timer_cancel(qor_context_t *_this, int32_t ss);

/**
 * The same through the second cancel entry, cancelx, for what x_ members posted. Where a user
 * context's own queue does not hold the session, the way to the bus has no such entry: that prints
 * "!(handler->cancelx) == true." and gives -1, while qor_context_timer_cancel() asks the bus.
 */
QOR_API int32_t qor_context_x_timer_cancel(qor_context_t *_this, int32_t ss);

/** @} */

QOR_END_DECLS

#endif /* QOR_CONTEXT_MODULE_H */
