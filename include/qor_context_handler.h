/* SPDX-License-Identifier: Apache-2.0 */
/* The handler table: a context's way to the bus, and the calls that go through it. */
#ifndef QOR_CONTEXT_HANDLER_H
#define QOR_CONTEXT_HANDLER_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/**
 * Stores a fresh session number in *session. 0 on success. Like all slots of the table it is called
 * with no lock held, on any thread, and locks for itself.
 */
typedef int32_t (*qor_context_handler_session_t)(qor_context_t *context, int32_t *session);

/**
 * Registers the context on a topic. attr is copied; NULL means the defaults. Negative on failure.
 */
typedef int32_t (*qor_context_handler_subscribe_t)(qor_context_t *context,
                                                   qor_context_topic_t topic,
                                                   qor_context_topic_attr_t *attr);

/** Removes the context's registration of a topic. Negative on failure. */
typedef int32_t (*qor_context_handler_unsubscribe_t)(qor_context_t *context,
                                                     qor_context_topic_t topic);

/**
 * Sends a message. Record and buffers stay the caller's: what is kept beyond the call is a clone.
 * Negative on failure.
 */
typedef int32_t (*qor_context_handler_publish_t)(qor_context_t *context, qor_context_msg_t *msg);

/** Hands a task over. The record stays the caller's and is copied. Negative when it is refused. */
typedef int32_t (*qor_context_handler_post_t)(qor_context_t *context, qor_context_task_t *task);

/** Cancels what is pending under a session number. Negative when nothing is. */
typedef int32_t (*qor_context_handler_cancel_t)(qor_context_t *context, int32_t session);

/**
 * The operations by which a context reaches the bus. Static and constant; any slot may be NULL, and
 * a call of it then fails with a diagnostic line.
 */
struct qor_context_handler {
    qor_context_handler_session_t session;         /**< draws a session number */
    qor_context_handler_subscribe_t subscribe;     /**< becomes the subscriber of a topic */
    qor_context_handler_unsubscribe_t unsubscribe; /**< reverses subscribe */
    qor_context_handler_subscribe_t listen;        /**< becomes a listener */
    qor_context_handler_unsubscribe_t unlisten;    /**< reverses listen */
    qor_context_handler_subscribe_t filter;        /**< becomes a filter */
    qor_context_handler_unsubscribe_t unfilter;    /**< reverses filter */
    qor_context_handler_publish_t publish;  /**< hands a clone to the subscriber; result: handed */
    qor_context_handler_publish_t publishx; /**< delivers on this thread; result: the handler's */
    qor_context_handler_publish_t syscall;  /**< hands a clone to a system module; no response */
    qor_context_handler_publish_t syscallx; /**< delivers to a system module on this thread */
    qor_context_handler_post_t post;        /**< runs a task now, or after its delay if above 0 */
    qor_context_handler_post_t postx;       /**< second entry for tasks; not used by the library */
    qor_context_handler_cancel_t cancel;    /**< cancels a pending task or timer */
    qor_context_handler_cancel_t cancelx;   /**< the same, for qor_context_x_timer_cancel() */
};

/**
 * @name Dispatchers
 *
 * Each calls the slot of its name in the context's handler table and returns the result unchanged.
 * The arguments after the context are handed on unchecked. Returns -1 after one of these lines:
 * "!(_this) == true." for a NULL context, "!(handler) == true." for a context without table, and,
 * for an empty slot post, "!(handler->post) == true.". Callable from any thread, several at once.
 * @{
 */

/** Draws a session number into *session. */
QOR_API int32_t qor_context_handler_session(qor_context_t *_this, int32_t *session);

/** Makes the context a subscriber of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_handler_subscribe(qor_context_t *_this, qor_context_topic_t topic,
                                              qor_context_topic_attr_t *attr);

/** Removes the context's subscription of a topic. */
QOR_API int32_t qor_context_handler_unsubscribe(qor_context_t *_this, qor_context_topic_t topic);

/** Makes the context a listener of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_handler_listen(qor_context_t *_this, qor_context_topic_t topic,
                                           qor_context_topic_attr_t *attr);

/** Removes the context's listener registration, which qor_context_unlisten() does not. */
QOR_API int32_t qor_context_handler_unlisten(qor_context_t *_this, qor_context_topic_t topic);

/** Makes the context a filter of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_handler_filter(qor_context_t *_this, qor_context_topic_t topic,
                                           qor_context_topic_attr_t *attr);

/** Removes the context's filter registration. */
QOR_API int32_t qor_context_handler_unfilter(qor_context_t *_this, qor_context_topic_t topic);

/** Has a clone of the message handled by the topic's subscriber, in a task of its own. */
QOR_API int32_t qor_context_handler_publish(qor_context_t *_this, qor_context_msg_t *msg);

/** Has the message itself handled by the topic's subscriber, before the call returns. */
QOR_API int32_t qor_context_handler_publishx(qor_context_t *_this, qor_context_msg_t *msg);

/** Has a clone of the message handled by a system module. There is no response. */
QOR_API int32_t qor_context_handler_syscall(qor_context_t *_this, qor_context_msg_t *msg);

/** Has the message itself handled by a system module, before the call returns. */
QOR_API int32_t qor_context_handler_syscallx(qor_context_t *_this, qor_context_msg_t *msg);

/** Posts a task: at once if its delay is below 1, else as a timer. */
QOR_API int32_t qor_context_handler_post(qor_context_t *_this, qor_context_task_t *task);

/** Posts a task through the second entry. A context's way to the bus may lack it. */
QOR_API int32_t qor_context_handler_postx(qor_context_t *_this, qor_context_task_t *task);

/** Cancels the pending task or timer of a session number. */
QOR_API int32_t qor_context_handler_cancel(qor_context_t *_this, int32_t session);

/** The same through the second entry. A context's way to the bus may lack it. */
QOR_API int32_t qor_context_handler_cancelx(qor_context_t *_this, int32_t session);

/** @} */

/**
 * @name Shortcuts for modules
 *
 * The dispatchers under the names that modules use. They test nothing themselves: what is printed
 * comes from the dispatcher, whose result is returned unchanged.
 * @{
 */

/** Draws a session number into *session. */
QOR_API int32_t qor_context_session(qor_context_t *_this, int32_t *session);

/** Makes the context a subscriber of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_subscribe(qor_context_t *_this, qor_context_topic_t topic,
                                      qor_context_topic_attr_t *attr);

/** Removes the context's subscription of a topic. */
QOR_API int32_t qor_context_unsubscribe(qor_context_t *_this, qor_context_topic_t topic);

/** Makes the context a listener of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_listen(qor_context_t *_this, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr);

/**
 * Removes the context's subscription of a topic, as qor_context_unsubscribe() does; a listener
 * registration stays in place. Use qor_context_handler_unlisten() to remove that one; on a module
 * in a user context even that one arrives here.
 */
QOR_API int32_t qor_context_unlisten(qor_context_t *_this, qor_context_topic_t topic);

/** Makes the context a filter of a topic. A NULL attr means the defaults. */
QOR_API int32_t qor_context_filter(qor_context_t *_this, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr);

/** Removes the context's filter registration. */
QOR_API int32_t qor_context_unfilter(qor_context_t *_this, qor_context_topic_t topic);

/** @} */

QOR_END_DECLS

#endif /* QOR_CONTEXT_HANDLER_H */
