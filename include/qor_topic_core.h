/* SPDX-License-Identifier: Apache-2.0 */
/* Table of topics: who subscribes to, listens to and filters each topic number. */
#ifndef QOR_TOPIC_CORE_H
#define QOR_TOPIC_CORE_H

#include "qor_context.h"
#include "qor_hal.h"
#include "qor_types.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** One topic. Each list has a mutex of its own, held for a single step. */
struct qor_topic {
    qor_context_topic_t topic;           /**< the topic's number, equal to its index */
    list_head subscriber_head;           /**< newest first; guarded by subscriber_mutex */
    list_head listener_head;             /**< newest first; guarded by listener_mutex */
    list_head filter_head;               /**< newest first; guarded by filter_mutex */
    hal_thread_mutex_t subscriber_mutex; /**< taken after the delegate's mutex of that kind */
    hal_thread_mutex_t listener_mutex;   /**< likewise */
    hal_thread_mutex_t filter_mutex;     /**< likewise */
};

/** One registration of a context in one list of one topic; made by qor_topic_node_create() only. */
struct qor_topic_node {
    qor_topic_t *topic;            /**< the topic whose list holds the node */
    qor_context_t *context;        /**< the registered context; not owned */
    qor_context_topic_attr_t attr; /**< mask and priority are carried, never read */
    list_head context_node;        /**< link in the list of the context's delegate */
    list_head topic_node;          /**< link in the topic's list; its values stay after removal */
};

/** A topic table. Valid numbers are 0 to id_max - 1. */
struct qor_topic_core {
    int32_t id_max;                      /**< number of topics */
    qor_topic_t *ids;                    /**< one record per topic, indexed by its number */
    struct qor_topic_core_private *priv; /**< the library's own */
};

/**
 * Makes a table.
 *
 * @param id_max  number of topics; with 0 every topic number is invalid
 * @return        the table, released with qor_topic_core_destroy(), or NULL
 *
 * Prints "malloc "qor_topic_core_t" failed." or, also when a topic's lock cannot be had, "malloc a
 * lots of "qor_topic_t" failed.", each followed by an empty line.
 */
QOR_API qor_topic_core_t *qor_topic_core_create(int32_t id_max);

/**
 * Frees a table that no thread uses any more. The argument is not checked.
 *
 * Registrations that are still in its lists are not freed: whoever made them removes them first.
 */
QOR_API void qor_topic_core_destroy(qor_topic_core_t *core);

/**
 * Registers a context as subscriber, listener or filter of a topic, in front of the earlier ones.
 *
 * @param topic_id  the topic's number
 * @param attr      copied as it is; NULL gives mask POINT, point AROUND, priority 0
 * @return          the registration, owned by the table, or NULL
 *
 * Prints "topic invalid." (an empty line follows), or "create node failed." without memory.
 * Registering twice makes two registrations, and both are visited. Any thread.
 */
QOR_API qor_topic_node_t *qor_topic_core_subscribe(qor_topic_core_t *core, qor_context_t *context,
                                                   qor_context_topic_t topic_id,
                                                   qor_context_topic_attr_t *attr);
/** Registers a listener; otherwise as qor_topic_core_subscribe(). */
QOR_API qor_topic_node_t *qor_topic_core_listen(qor_topic_core_t *core, qor_context_t *context,
                                                qor_context_topic_t topic_id,
                                                qor_context_topic_attr_t *attr);
/** Registers a filter; otherwise as qor_topic_core_subscribe(). */
QOR_API qor_topic_node_t *qor_topic_core_filter(qor_topic_core_t *core, qor_context_t *context,
                                                qor_context_topic_t topic_id,
                                                qor_context_topic_attr_t *attr);

/**
 * Removes the newest subscription that a context holds on a topic; none is no error.
 *
 * Prints "topic invalid." (an empty line follows). Any thread; a caller that keeps the
 * registrations in a list of its own holds that list's lock. The memory is freed once every
 * dispatch that was under way on the topic has ended.
 */
QOR_API void qor_topic_core_unsubscribe(qor_topic_core_t *core, qor_context_t *context,
                                        qor_context_topic_t topic_id);
/** Removes a listener; otherwise as qor_topic_core_unsubscribe(). */
QOR_API void qor_topic_core_unlisten(qor_topic_core_t *core, qor_context_t *context,
                                     qor_context_topic_t topic_id);
/** Removes a filter; otherwise as qor_topic_core_unsubscribe(). */
QOR_API void qor_topic_core_unfilter(qor_topic_core_t *core, qor_context_t *context,
                                     qor_context_topic_t topic_id);

/**
 * Removes a given subscription; core is not used, the node leads to its topic.
 *
 * Prints "!(node) == true." or "!(node->topic) == true.". Each variant takes the mutex of its own
 * kind, so the variant must match the list that holds the node. Locks and memory as for
 * qor_topic_core_unsubscribe().
 */
QOR_API void qor_topic_core_unsubscribe_by_node(qor_topic_core_t *core, qor_topic_node_t *node);
/** Removes a given listener; otherwise as qor_topic_core_unsubscribe_by_node(). */
QOR_API void qor_topic_core_unlisten_by_node(qor_topic_core_t *core, qor_topic_node_t *node);
/** Removes a given filter; otherwise as qor_topic_core_unsubscribe_by_node(). */
QOR_API void qor_topic_core_unfilter_by_node(qor_topic_core_t *core, qor_topic_node_t *node);

/**
 * Tells whether a topic has a subscriber at this moment, without taking a lock.
 *
 * @return  1 or 0; 0 for an invalid topic, after "topic invalid." and an empty line
 */
QOR_API int32_t qor_topic_core_someone_subscribed(qor_topic_core_t *core,
                                                  qor_context_topic_t topic_id);
/** Tells whether a topic has a listener; otherwise as qor_topic_core_someone_subscribed(). */
QOR_API int32_t qor_topic_core_someone_listened(qor_topic_core_t *core,
                                                qor_context_topic_t topic_id);
/**
 * Tells whether a topic has a filter; otherwise as qor_topic_core_someone_subscribed().
 *
 * An invalid topic gives -1, unlike the two siblings: a caller that tests for non-zero goes on to
 * walk the topic, and the walk reports the number once more.
 */
QOR_API int32_t qor_topic_core_someone_filtered(qor_topic_core_t *core,
                                                qor_context_topic_t topic_id);

/**
 * Steps through a topic's subscribers from the newest to the oldest, entering each one's context.
 *
 * @param node  the node of the step before; NULL to start
 * @return      the next node, whose context the caller leaves with qor_context_pause(); NULL at the
 *              end, or when the next context cannot be entered: the walk then ends there
 *
 * Prints "topic invalid." (an empty line follows), or "resume failed. context = %s". No lock is
 * held between steps, nor while a context is entered, which may wait for that context's start. A
 * caller outside the library must see to it that the node it stands on is not removed meanwhile.
 */
QOR_API qor_topic_node_t *qor_topic_core_subscriber_node_next(qor_topic_core_t *core,
                                                              qor_context_topic_t topic_id,
                                                              qor_topic_node_t *node);
/** Steps through a topic's listeners; otherwise as qor_topic_core_subscriber_node_next(). */
QOR_API qor_topic_node_t *qor_topic_core_listener_node_next(qor_topic_core_t *core,
                                                            qor_context_topic_t topic_id,
                                                            qor_topic_node_t *node);
/** Steps through a topic's filters; otherwise as qor_topic_core_subscriber_node_next(). */
QOR_API qor_topic_node_t *qor_topic_core_filter_node_next(qor_topic_core_t *core,
                                                          qor_context_topic_t topic_id,
                                                          qor_topic_node_t *node);

/**
 * Makes a registration that is in no list yet.
 *
 * @param topic    the topic it is for
 * @param context  the context; not owned
 * @param attr     copied as it is; NULL gives mask POINT, point AROUND, priority 0
 * @return         the node, released with qor_topic_node_destroy(), or NULL. A caller that links it
 *                 into a topic's list under that list's mutex may remove it like any other; it is
 *                 then freed at once, so nobody may walk the list.
 *
 * Prints "malloc "qor_topic_node_t" failed." and an empty line.
 */
QOR_API qor_topic_node_t *qor_topic_node_create(qor_topic_t *topic, qor_context_t *context,
                                                qor_context_topic_attr_t *attr);

/**
 * Unlinks a registration from both lists and frees it at once.
 *
 * Takes no lock: the caller holds those of both lists and knows that nobody walks them. Prints
 * "!(node) == true.".
 */
QOR_API void qor_topic_node_destroy(qor_topic_node_t *node);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_TOPIC_CORE_H */
