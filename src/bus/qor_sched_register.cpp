/* SPDX-License-Identifier: Apache-2.0 */
/* The registrations of a scheduling delegate: which topics its context serves, hears and filters.
 */
#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_diag.hpp"
#include "qor_sched_delegate.h"
#include "qor_sched_delegate_priv.hpp"
#include "qor_topic_core.h"
#include "qor_topic_core_priv.hpp"
#include "qor_util.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_sched_delegate";

/* What the three kinds of registration differ in. */
struct delegate_kind {
    uint32_t traced; /* as the recorder numbers them */
    list_head qor_sched_delegate_t::*head;
    hal_thread_mutex_t qor_sched_delegate_t::*mutex;
    qor_topic_node_t *(*add)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t,
                             qor_context_topic_attr_t *);
    void (*remove)(qor_topic_core_t *, qor_context_t *, qor_context_topic_t);
    void (*remove_node)(qor_topic_core_t *, qor_topic_node_t *);
};

constexpr delegate_kind subscribers = {0,
                                       &qor_sched_delegate_t::subscriber_head,
                                       &qor_sched_delegate_t::subscriber_mutex,
                                       qor_topic_core_subscribe,
                                       qor_topic_core_unsubscribe,
                                       qor_topic_core_unsubscribe_by_node};
constexpr delegate_kind listeners = {1,
                                     &qor_sched_delegate_t::listener_head,
                                     &qor_sched_delegate_t::listener_mutex,
                                     qor_topic_core_listen,
                                     qor_topic_core_unlisten,
                                     qor_topic_core_unlisten_by_node};
constexpr delegate_kind filters = {2,
                                   &qor_sched_delegate_t::filter_head,
                                   &qor_sched_delegate_t::filter_mutex,
                                   qor_topic_core_filter,
                                   qor_topic_core_unfilter,
                                   qor_topic_core_unfilter_by_node};

/* Notes a registration, or with trace_removed its removal. */
void registration_note(const delegate_kind &kind, const qor_sched_delegate_t *delegate,
                       uint32_t removed, qor_context_topic_t topic)
{
    if (trace_on(QOR_TRACE_CHANGES)) {
        const uint32_t system = delegate->role == QOR_BUS_ROLE_SYS ? trace_of_system : 0;
        trace_recorder().note(nullptr, delegate->context,
                              trace_what(trace_register, kind.traced | system | removed), 0, topic);
    }
}

/* The printed name is the calling operation's. */
int32_t delegate_register(const delegate_kind &kind, qor_context_t *context,
                          qor_context_topic_t topic, qor_context_topic_attr_t *attr,
                          const char *func)
{
    qor_sched_delegate_t *_this = delegate_checked(context, func);
    if (!_this) {
        return -1;
    }
    qor_topic_core_t *table = delegate_table(_this);
    /* Another thread may remove the node between the two steps. */
    topic_dispatch under_way(table, topic);
    qor_topic_node_t *node = kind.add(table, context, topic, attr);
    if (!node) {
        QOR_LINE("err", func, "create node failed.");
        return -1;
    }
    hal_scoped_lock lock(_this->*kind.mutex);
    if (topic_node_removed(node)) {
        return 0;
    }
    if (hal_load(_this->priv->closed)) {
        kind.remove_node(table, node);
        QOR_LINE("err", func, "create node failed.");
        return -1;
    }
    list_add_tail(&node->context_node, &(_this->*kind.head));
    registration_note(kind, _this, 0, topic);
    return 0;
}

int32_t delegate_unregister(const delegate_kind &kind, qor_context_t *context,
                            qor_context_topic_t topic, const char *func)
{
    qor_sched_delegate_t *_this = delegate_checked(context, func);
    if (!_this) {
        return -1;
    }
    hal_scoped_lock lock(_this->*kind.mutex);
    kind.remove(delegate_table(_this), context, topic);
    registration_note(kind, _this, trace_removed, topic);
    return 0;
}

/* Both locks are held together, delegate first, so that no unregistering finds the node in between.
 */
void delegate_unregister_kind(const delegate_kind &kind, qor_sched_delegate_t *delegate)
{
    hal_scoped_lock lock(delegate->*kind.mutex);
    list_head &head = delegate->*kind.head;
    while (!list_empty(&head)) {
        list_head *link = head.next;
        list_del(link);
        qor_topic_node_t *node =
            util_container<qor_topic_node_t, offsetof(qor_topic_node_t, context_node)>(link);
        registration_note(kind, delegate, trace_removed, node->topic->topic);
        kind.remove_node(delegate_table(delegate), node);
    }
}

} // namespace

int32_t qor_sched_delegate_subscribe(qor_context_t *context, qor_context_topic_t topic,
                                     qor_context_topic_attr_t *attr)
{
    return delegate_register(subscribers, context, topic, attr, __func__);
}

int32_t qor_sched_delegate_unsubscribe(qor_context_t *context, qor_context_topic_t topic)
{
    return delegate_unregister(subscribers, context, topic, __func__);
}

int32_t qor_sched_delegate_listen(qor_context_t *context, qor_context_topic_t topic,
                                  qor_context_topic_attr_t *attr)
{
    return delegate_register(listeners, context, topic, attr, __func__);
}

int32_t qor_sched_delegate_unlisten(qor_context_t *context, qor_context_topic_t topic)
{
    return delegate_unregister(listeners, context, topic, __func__);
}

int32_t qor_sched_delegate_filter(qor_context_t *context, qor_context_topic_t topic,
                                  qor_context_topic_attr_t *attr)
{
    return delegate_register(filters, context, topic, attr, __func__);
}

int32_t qor_sched_delegate_unfilter(qor_context_t *context, qor_context_topic_t topic)
{
    return delegate_unregister(filters, context, topic, __func__);
}

void delegate_unregister_all(qor_sched_delegate_t *delegate)
{
    hal_store(delegate->priv->closed, 1); /* a registration under way takes itself back */
    delegate_unregister_kind(subscribers, delegate);
    delegate_unregister_kind(listeners, delegate);
    delegate_unregister_kind(filters, delegate);
}
