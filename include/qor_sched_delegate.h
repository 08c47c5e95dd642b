/* SPDX-License-Identifier: Apache-2.0 */
/* Scheduling delegate: carries out a context's calls on the bus. One for each attached context. */
#ifndef QOR_SCHED_DELEGATE_H
#define QOR_SCHED_DELEGATE_H

#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/**
 * A delegate. It is its context's public data, and its handler table is the context's.
 *
 * What the table's entries do, as seen from the module that calls them:
 *  - publish: before-filters, a copy for the before-listeners, then a copy of the message goes to
 *    the topic's newest subscriber as a task; the publisher gets the response as a message of type
 *    RESPONSE under the same session. Older subscribers receive nothing while a newer one exists.
 *  - publishx: the same on the calling thread, with the caller's own message.
 *  - syscall, syscallx: to a system module, without filters, listeners and response.
 *  - A filter sees, and may change, the very message that goes on; its result is ignored.
 *  - A subscriber that fails does not stop the response, which then carries the negative result.
 *  - A subscriber is entered to be handed a request and not left again, and a filter or listener
 *    that is passed over stays entered: active_refcount of a user context counts these too.
 *  - post: now when the delay is below 1, else as a timer; both failures print the same text.
 *  - postx and cancelx are empty.
 */
struct qor_sched_delegate {
    qor_bus_t *bus;                      /**< the bus the context lives on */
    int32_t role;                        /**< QOR_BUS_ROLE_*: which topic table it uses */
    qor_context_t *context;              /**< the context served; not owned */
    list_head subscriber_head;           /**< own registrations, oldest first; subscriber_mutex */
    list_head listener_head;             /**< likewise; listener_mutex */
    list_head filter_head;               /**< likewise; filter_mutex */
    hal_thread_mutex_t subscriber_mutex; /**< taken before the topic's mutex of that kind */
    hal_thread_mutex_t listener_mutex;   /**< likewise */
    hal_thread_mutex_t filter_mutex;     /**< likewise */
    struct qor_sched_delegate_private *priv; /**< the library's own */
};

/**
 * Attaches a context to a bus: the new delegate becomes its public data, released by
 * qor_sched_delegate_destroy(), and its handler table is replaced by the delegate's.
 *
 * @param role  QOR_BUS_ROLE_USER or QOR_BUS_ROLE_SYS
 * @return      the delegate, freed by qor_bus_close() of its bus, or NULL
 *
 * Prints "malloc for "qor_sched_delegate_t" failed." and an empty line when memory or a lock cannot
 * be had; the context is left as it was. To be called before other threads can reach the context.
 */
QOR_API qor_sched_delegate_t *qor_sched_delegate_create(qor_bus_t *bus, int role,
                                                        qor_context_t *context);

/**
 * Removes every registration that the context still holds: subscriptions, listeners, filters.
 *
 * The record is not freed: tasks that are still queued may name it. Prints "!(_this) == true.".
 */
QOR_API void qor_sched_delegate_destroy(qor_sched_delegate_t *_this);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_SCHED_DELEGATE_H */
