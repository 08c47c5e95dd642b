/* SPDX-License-Identifier: Apache-2.0 */
/* Dispatches under way on a topic, and what they keep readable. */
#ifndef QOR_TOPIC_CORE_PRIV_HPP
#define QOR_TOPIC_CORE_PRIV_HPP

#include "qor_topic_core.h"
#include "qor_topic_epoch.hpp"
#include "thread_record.hpp"

/* A dispatch on a topic, from construction to destruction. A registration that is removed meanwhile
 * leaves its list at once, but its memory stays until every dispatch that may stand on it has
 * ended. Costs one atomic operation at each end and takes no lock. Does nothing for a bad topic
 * number. */
class topic_dispatch {
public:
    topic_dispatch(qor_topic_core_t *core, qor_context_topic_t topic,
                   topic_entry as = topic_enters);
    ~topic_dispatch();
    /* The request that is published has found nobody who takes it. */
    void unserved();

    topic_dispatch(const topic_dispatch &) = delete;
    topic_dispatch &operator=(const topic_dispatch &) = delete;

private:
    friend class topic_walk;
    struct qor_topic_core_private *topic_; /* NULL: bad topic number */
    uint32_t epoch_;
};

/* A dispatch that calls handlers, one of which may end its thread. */
class topic_walk {
public:
    topic_walk(qor_topic_core_t *core, qor_context_topic_t topic);

private:
    topic_dispatch under_way_;
    thread_scope inside_;
};

/* As qor_topic_core_subscriber_node_next() and its siblings, without a lock: for steps inside a
 * dispatch of the caller's on that topic, from which it has the node. */
qor_topic_node_t *topic_subscriber_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                        qor_topic_node_t *node);
qor_topic_node_t *topic_listener_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                      qor_topic_node_t *node);
qor_topic_node_t *topic_filter_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                    qor_topic_node_t *node);

/* The context of a topic's newest subscription, not entered, or NULL; inside a dispatch. */
qor_context_t *topic_newest_subscriber(qor_topic_core_t *core, qor_context_topic_t topic);

/* How often registrations of a topic were made or removed, modulo 2^32. */
uint32_t topic_changes(const qor_topic_core_t *core, qor_context_topic_t topic);

/* Tells whether a registration has been removed; the caller's dispatch keeps it readable. */
bool topic_node_removed(const qor_topic_node_t *node);

#endif /* QOR_TOPIC_CORE_PRIV_HPP */
