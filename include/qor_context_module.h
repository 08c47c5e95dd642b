/* SPDX-License-Identifier: Apache-2.0 */
/* Module descriptors, and the calls that modules make: requests, runs and timers. */
#ifndef QOR_CONTEXT_MODULE_H
#define QOR_CONTEXT_MODULE_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * Takes up or gives up the module's topics, or cleans the module up. Like all callbacks of a
 * module it receives the context that the module's own calls are made on, and runs with no lock
 * held on the thread that brings the context up or takes it down.
 */
typedef void (*qor_context_module_void_t)(qor_context_t *context);

/** Initialises the module; arg is the descriptor's. Negative on failure. */
typedef int32_t (*qor_context_module_init_t)(qor_context_t *context, void *arg);

/** The module's console, on a thread of its own from start on. Stop waits for its return. */
typedef int32_t (*qor_context_module_console_t)(qor_context_t *context);

/**
 * Handles a message: a request, a response, or what a listener or filter sees (see its type). The
 * message and its buffers are valid during the call. A request's response part is written in place
 * (it is seldom aligned: use memcpy), and the result becomes the message's ret.
 */
typedef int32_t (*qor_context_module_message_t)(qor_context_t *context, qor_context_msg_t *msg);

/**
 * A module: one functional unit of the application, as handed to the bus in a NULL-terminated
 * array. Descriptors are borrowed and must outlive the bus.
 */
struct qor_context_module {
    const char name[20];                         /**< terminated; names the console thread too */
    int32_t id;                                  /**< class of its context; 0 is the system class */
    uint32_t pure;                               /**< modules other than 0 are brought up first */
    int32_t refcount;                            /**< most runs of its queue at once; 0 means 1 */
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
 * not be handed over; x_req returns the result of publishx, that is the subscriber's.
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

/** Sends a request whose clone has room for res_size response bytes; they come back with it. */
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
 * the session. x_ before it (x_run, x_timer): a user context calls func in line with the other
 * tasks of its own queue; without it func gets a run of its own on the bus. Plain run is in line
 * as well. Other contexts make no difference.
 *
 * Four members per family: _full has every parameter; the plain one draws a session number and
 * leaves name NULL; _name draws one and takes a name; _s takes the session number. The plain and
 * the _name member return the session, by which a pending task can be cancelled, or -1; _full and
 * _s return the result of the post, 0 on the bus, and not the session. A failed draw is ignored
 * and leaves the session 0.
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

/** Posts func(arg), in line. */
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

/** Posts func(arg), in line. */
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

/** Posts func(context, session, arg), in line. */
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

/** Posts func(arg) after delay, in line. */
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

/** Posts func(context, session, arg) after delay, in line. */
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

/** Cancels the pending task or timer of a session; the result is the cancel dispatcher's. */
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
