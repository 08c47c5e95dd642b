/* SPDX-License-Identifier: Apache-2.0 */
/* Topic table. Lists are changed under one mutex each, and stepped through under it by callers; the
 * bus's own dispatches step without. Whoever takes several of a topic's takes them in the order
 * subscribers, listeners, filters. A removed registration is freed when the dispatches that may
 * stand on it have ended. */
#include "qor_topic_core.h"

#include "hal_sync.hpp"
#include "qor_diag.hpp"
#include "qor_topic_core_priv.hpp"
#include "qor_topic_epoch.hpp"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_topic_core";

/* What a registration has behind its public fields. */
struct topic_node {
    qor_topic_node_t node;
    qor_topic_core_private *home; /* of its topic; NULL for a node that the table did not link */
    int32_t removed;              /* written under the list's mutex, read without it */
    topic_retired retired;        /* while it waits to be freed */
};

qor_topic_node_t *node_of(list_head *link)
{
    return util_container<qor_topic_node_t, offsetof(qor_topic_node_t, topic_node)>(link);
}

topic_node *whole_node(qor_topic_node_t *node)
{
    return reinterpret_cast<topic_node *>(node); /* the public part is the first field */
}

/* A registration of the node's topic has come or gone. To be called after it has: who looks a
 * registration up first reads the count, and an older count with what is found is looked up again.
 */
void topic_changed(const qor_topic_node_t *node)
{
    qor_topic_core_private *home = reinterpret_cast<const topic_node *>(node)->home;
    if (home) {
        __atomic_fetch_add(&home->changes, 1, __ATOMIC_SEQ_CST);
    }
}

/* Hands a node that has left its lists over to be freed. One that its maker linked, not the table,
 * is freed at once: its maker knows who walks it. */
void topic_node_retire(qor_topic_node_t *node)
{
    topic_node *whole = whole_node(node);
    if (!whole->home) {
        free(whole);
        return;
    }
    whole->retired.block = whole;
    topic_epoch_retire(*whole->home, &whole->retired);
}

/* Takes a node out of both lists. The caller holds the topic list's mutex, and the delegate's when
 * the node is in its list. */
void topic_node_unlink(qor_topic_node_t *node)
{
    hal_store(whole_node(node)->removed, 1);
    if (node->context_node.prev) {
        list_del(&node->context_node);
    }
    if (node->topic_node.prev) {
        /* Deliberate: the links keep their values, so that a walk that stands on this node finds
         * on. Test: TopicCore.AWalkGoesOnFromARemovedNode. */
        const bool linked = node->topic_node.next != &node->topic_node;
        __list_del_entry(&node->topic_node);
        if (linked) {
            topic_changed(node);
        }
    }
}

int32_t qor_topic_core_topic_check(qor_topic_core_t *_this, qor_context_topic_t topic_id)
{
    QOR_CHECK(_this, -1);
    if (topic_id < 0 || topic_id >= _this->id_max) {
        QOR_ERR_SPACED("topic invalid.");
        return -1;
    }
    return 0;
}

/* What the three kinds of registration differ in. */
struct topic_kind {
    list_head qor_topic_t::*head;
    hal_thread_mutex_t qor_topic_t::*mutex;
};

constexpr topic_kind subscribers = {&qor_topic_t::subscriber_head, &qor_topic_t::subscriber_mutex};
constexpr topic_kind listeners = {&qor_topic_t::listener_head, &qor_topic_t::listener_mutex};
constexpr topic_kind filters = {&qor_topic_t::filter_head, &qor_topic_t::filter_mutex};

/* The name that is printed is the calling operation's. */
qor_topic_node_t *topic_core_add(qor_topic_core_t *core, qor_context_t *context,
                                 qor_context_topic_t topic_id, qor_context_topic_attr_t *attr,
                                 const topic_kind &kind, const char *func)
{
    if (qor_topic_core_topic_check(core, topic_id) < 0) {
        return nullptr;
    }
    qor_topic_t *topic = &core->ids[topic_id];
    qor_topic_node_t *node = qor_topic_node_create(topic, context, attr);
    if (!node) {
        QOR_LINE("err", func, "create node failed.");
        return nullptr;
    }
    whole_node(node)->home = &core->priv[topic_id];
    hal_scoped_lock lock(topic->*kind.mutex);
    list_add(&node->topic_node, &(topic->*kind.head));
    topic_changed(node);
    return node;
}

void topic_core_remove(qor_topic_core_t *core, qor_context_t *context, qor_context_topic_t topic_id,
                       const topic_kind &kind)
{
    if (qor_topic_core_topic_check(core, topic_id) < 0) {
        return;
    }
    qor_topic_t *topic = &core->ids[topic_id];
    const list_head *head = &(topic->*kind.head);
    qor_topic_node_t *node = nullptr;
    {
        hal_scoped_lock lock(topic->*kind.mutex);
        for (list_head *link = head->next; link != head && !node; link = link->next) {
            node = node_of(link)->context == context ? node_of(link) : nullptr;
        }
        if (!node) {
            return;
        }
        topic_node_unlink(node);
    }
    topic_node_retire(node);
}

void topic_core_remove_node(qor_topic_node_t *node, const topic_kind &kind)
{
    {
        hal_scoped_lock lock(node->topic->*kind.mutex);
        topic_node_unlink(node);
    }
    topic_node_retire(node);
}

int32_t topic_core_someone(qor_topic_core_t *core, qor_context_topic_t topic_id,
                           const topic_kind &kind, int32_t bad_topic)
{
    if (qor_topic_core_topic_check(core, topic_id) < 0) {
        return bad_topic;
    }
    const list_head *head = &(core->ids[topic_id].*kind.head);
    return hal_load(head->next) != head;
}

/* A registration, and its context as it was while the registration could be read. */
struct topic_step {
    qor_topic_node_t *node;
    qor_context_t *context;
};

/* The first registration behind another, or of the list, that is still there. A removed one leads
 * on to those behind it. */
topic_step topic_step_from(const list_head &head, const qor_topic_node_t *node)
{
    list_head *link = hal_load((node ? &node->topic_node : &head)->next);
    while (link != &head && topic_node_removed(node_of(link))) {
        link = hal_load(link->next);
    }
    return link == &head ? topic_step{} : topic_step{node_of(link), node_of(link)->context};
}

qor_topic_node_t *qor_topic_core_node_next(const topic_step &next)
{
    if (!next.node) {
        return nullptr;
    }
    /* Outside the mutex: entering may wait until the context has started, and its own init may be
     * about to register on this very topic. */
    if (qor_context_resume(next.context) < 0) {
        /* Deliberate: the walk ends at a context that cannot be entered, those behind it are not
         * visited. Test: TopicCore.AWalkEndsAtAContextThatCannotBeEntered. */
        QOR_ERR("resume failed. context = %s", qor_context_module_name_get(next.context));
        return nullptr;
    }
    return next.node;
}

/* A step of a caller's walk. */
qor_topic_node_t *topic_core_walk(qor_topic_core_t *core, qor_context_topic_t topic_id,
                                  qor_topic_node_t *node, const topic_kind &kind)
{
    if (qor_topic_core_topic_check(core, topic_id) < 0) {
        return nullptr;
    }
    qor_topic_t *topic = &core->ids[topic_id];
    const list_head &head = topic->*kind.head;
    if (hal_load((node ? &node->topic_node : &head)->next) == &head) {
        return nullptr;
    }
    topic_step next;
    {
        hal_scoped_lock lock(topic->*kind.mutex);
        next = topic_step_from(head, node);
    }
    return qor_topic_core_node_next(next);
}

/* A step of a walk inside a dispatch. It needs no lock: the dispatch was counted in before it
 * reached this registration, so that and all it leads to stay readable. */
qor_topic_node_t *topic_core_step(qor_topic_core_t *core, qor_context_topic_t topic_id,
                                  qor_topic_node_t *node, const topic_kind &kind)
{
    if (qor_topic_core_topic_check(core, topic_id) < 0) {
        return nullptr;
    }
    return qor_topic_core_node_next(topic_step_from(core->ids[topic_id].*kind.head, node));
}

void topic_locks_destroy(qor_topic_t &topic)
{
    pthread_mutex_destroy(&topic.filter_mutex);
    pthread_mutex_destroy(&topic.listener_mutex);
    pthread_mutex_destroy(&topic.subscriber_mutex);
}

int32_t topic_init(qor_topic_t &topic, qor_topic_core_private &priv, int32_t number)
{
    if (hal_mutexes_init({&topic.subscriber_mutex, &topic.listener_mutex, &topic.filter_mutex}) <
        0) {
        return -1;
    }
    if (topic_epoch_init(priv) < 0) {
        topic_locks_destroy(topic);
        return -1;
    }
    topic.topic = number;
    INIT_LIST_HEAD(&topic.subscriber_head);
    INIT_LIST_HEAD(&topic.listener_head);
    INIT_LIST_HEAD(&topic.filter_head);
    return 0;
}

void topic_uninit(qor_topic_t &topic, qor_topic_core_private &priv)
{
    topic_epoch_uninit(priv);
    topic_locks_destroy(topic);
}

void topics_destroy(qor_topic_core_t *core)
{
    for (int32_t i = 0; i < core->id_max; i++) {
        topic_uninit(core->ids[i], core->priv[i]);
    }
    free(core->ids);
}

/* Makes a table's topics: all, or -1 and none. */
int32_t topics_create(qor_topic_core_t *core, int32_t id_max)
{
    /* One block for the public and the private half of all topics; without any it has room for one,
     * as a C library may give NULL for no bytes. */
    const size_t count = static_cast<size_t>(id_max);
    void *topics = util_memory(
        calloc(count ? count : 1, sizeof(qor_topic_t) + sizeof(qor_topic_core_private)));
    if (!topics) {
        return -1;
    }
    core->ids = static_cast<qor_topic_t *>(topics);
    core->priv = reinterpret_cast<qor_topic_core_private *>(core->ids + count);
    for (core->id_max = 0; core->id_max < id_max; core->id_max++) {
        const int32_t next = core->id_max;
        if (topic_init(core->ids[next], core->priv[next], next) < 0) {
            topics_destroy(core);
            return -1;
        }
    }
    return 0;
}

/* A handler has ended the thread of a walk. */
template <uint32_t epoch> void topic_left(void *topic)
{
    if (topic) {
        topic_epoch_leave(*static_cast<qor_topic_core_private *>(topic), epoch);
    }
}

} // namespace

topic_dispatch::topic_dispatch(qor_topic_core_t *core, qor_context_topic_t topic, topic_entry as)
    : topic_(topic >= 0 && topic < core->id_max ? &core->priv[topic] : nullptr), epoch_(0)
{
    if (topic_) {
        epoch_ = topic_epoch_enter(*topic_, as);
    }
}

topic_dispatch::~topic_dispatch()
{
    if (topic_) {
        topic_epoch_leave(*topic_, epoch_);
    }
}

void topic_dispatch::unserved()
{
    if (topic_) {
        __atomic_fetch_add(&topic_->unserved, 1, __ATOMIC_RELAXED);
    }
}

topic_walk::topic_walk(qor_topic_core_t *core, qor_context_topic_t topic)
    : under_way_(core, topic),
      inside_(under_way_.epoch_ ? topic_left<1> : topic_left<0>, under_way_.topic_)
{
}

bool topic_node_removed(const qor_topic_node_t *node)
{
    return hal_load(reinterpret_cast<const topic_node *>(node)->removed) != 0;
}

qor_topic_node_t *topic_subscriber_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                        qor_topic_node_t *node)
{
    return topic_core_step(core, topic, node, subscribers);
}

qor_topic_node_t *topic_listener_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                      qor_topic_node_t *node)
{
    return topic_core_step(core, topic, node, listeners);
}

qor_topic_node_t *topic_filter_step(qor_topic_core_t *core, qor_context_topic_t topic,
                                    qor_topic_node_t *node)
{
    return topic_core_step(core, topic, node, filters);
}

qor_context_t *topic_newest_subscriber(qor_topic_core_t *core, qor_context_topic_t topic)
{
    return topic_step_from(core->ids[topic].subscriber_head, nullptr).context;
}

uint32_t topic_changes(const qor_topic_core_t *core, qor_context_topic_t topic)
{
    return hal_load(core->priv[topic].changes);
}

qor_topic_core_t *qor_topic_core_create(int32_t id_max)
{
    qor_topic_core_t *core = util_zalloc<qor_topic_core_t>();
    if (!core) {
        QOR_ERR_SPACED("malloc \"qor_topic_core_t\" failed.");
        return nullptr;
    }
    if (topics_create(core, id_max) < 0) {
        QOR_ERR_SPACED("malloc a lots of \"qor_topic_t\" failed.");
        free(core);
        return nullptr;
    }
    return core;
}

void qor_topic_core_destroy(qor_topic_core_t *core)
{
    /* Deliberate: nodes that are still in a list are not freed, their owners hold pointers to them.
     * Test: TopicCore.DestroyLeavesRegistrationsAllocated. */
    topics_destroy(core);
    free(core);
}

qor_topic_node_t *qor_topic_core_subscribe(qor_topic_core_t *core, qor_context_t *context,
                                           qor_context_topic_t topic_id,
                                           qor_context_topic_attr_t *attr)
{
    return topic_core_add(core, context, topic_id, attr, subscribers, __func__);
}

qor_topic_node_t *qor_topic_core_listen(qor_topic_core_t *core, qor_context_t *context,
                                        qor_context_topic_t topic_id,
                                        qor_context_topic_attr_t *attr)
{
    return topic_core_add(core, context, topic_id, attr, listeners, __func__);
}

qor_topic_node_t *qor_topic_core_filter(qor_topic_core_t *core, qor_context_t *context,
                                        qor_context_topic_t topic_id,
                                        qor_context_topic_attr_t *attr)
{
    return topic_core_add(core, context, topic_id, attr, filters, __func__);
}

void qor_topic_core_unsubscribe(qor_topic_core_t *core, qor_context_t *context,
                                qor_context_topic_t topic_id)
{
    topic_core_remove(core, context, topic_id, subscribers);
}

void qor_topic_core_unlisten(qor_topic_core_t *core, qor_context_t *context,
                             qor_context_topic_t topic_id)
{
    topic_core_remove(core, context, topic_id, listeners);
}

void qor_topic_core_unfilter(qor_topic_core_t *core, qor_context_t *context,
                             qor_context_topic_t topic_id)
{
    topic_core_remove(core, context, topic_id, filters);
}

void qor_topic_core_unsubscribe_by_node(qor_topic_core_t *, qor_topic_node_t *node)
{
    QOR_CHECK_VOID(node);
    QOR_CHECK_VOID(node->topic);
    topic_core_remove_node(node, subscribers);
}

void qor_topic_core_unlisten_by_node(qor_topic_core_t *, qor_topic_node_t *node)
{
    QOR_CHECK_VOID(node);
    QOR_CHECK_VOID(node->topic);
    topic_core_remove_node(node, listeners);
}

void qor_topic_core_unfilter_by_node(qor_topic_core_t *, qor_topic_node_t *node)
{
    QOR_CHECK_VOID(node);
    QOR_CHECK_VOID(node->topic);
    topic_core_remove_node(node, filters);
}

int32_t qor_topic_core_someone_subscribed(qor_topic_core_t *core, qor_context_topic_t topic_id)
{
    return topic_core_someone(core, topic_id, subscribers, 0);
}

int32_t qor_topic_core_someone_listened(qor_topic_core_t *core, qor_context_topic_t topic_id)
{
    return topic_core_someone(core, topic_id, listeners, 0);
}

int32_t qor_topic_core_someone_filtered(qor_topic_core_t *core, qor_context_topic_t topic_id)
{
    /* Deliberate: -1 for a bad topic, where the siblings say 0. A caller that tests for non-zero
     * walks on and gets the bad topic reported by the walk too.
     * Test: TopicCore.SomeoneFilteredAnswersMinusOneForABadTopic. */
    return topic_core_someone(core, topic_id, filters, -1);
}

qor_topic_node_t *qor_topic_core_subscriber_node_next(qor_topic_core_t *core,
                                                      qor_context_topic_t topic_id,
                                                      qor_topic_node_t *node)
{
    return topic_core_walk(core, topic_id, node, subscribers);
}

qor_topic_node_t *qor_topic_core_listener_node_next(qor_topic_core_t *core,
                                                    qor_context_topic_t topic_id,
                                                    qor_topic_node_t *node)
{
    return topic_core_walk(core, topic_id, node, listeners);
}

qor_topic_node_t *qor_topic_core_filter_node_next(qor_topic_core_t *core,
                                                  qor_context_topic_t topic_id,
                                                  qor_topic_node_t *node)
{
    return topic_core_walk(core, topic_id, node, filters);
}

qor_topic_node_t *qor_topic_node_create(qor_topic_t *topic, qor_context_t *context,
                                        qor_context_topic_attr_t *attr)
{
    topic_node *whole = util_zalloc<topic_node>();
    if (!whole) {
        QOR_ERR_SPACED("malloc \"qor_topic_node_t\" failed.");
        return nullptr;
    }
    qor_topic_node_t *node = &whole->node;
    node->topic = topic;
    node->context = context;
    /* Deliberate: mask and priority are the caller's to carry, nobody reads them. The point counts
     * whatever the mask says, and a list stands in the order of registration.
     * Test: SchedDelegatePoint.CountsWhateverTheMaskSays,
     * TopicCoreKind.PriorityDoesNotOrderTheWalk.
     */
    if (attr) {
        node->attr = *attr;
    } else {
        node->attr.mask = QOR_CONTEXT_TOPIC_ATTR_POINT;
        node->attr.point = QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND;
    }
    INIT_LIST_HEAD(&node->context_node);
    INIT_LIST_HEAD(&node->topic_node);
    return node;
}

void qor_topic_node_destroy(qor_topic_node_t *node)
{
    QOR_CHECK_VOID(node);
    topic_node_unlink(node);
    free(node);
}
