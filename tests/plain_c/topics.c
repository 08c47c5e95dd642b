/* SPDX-License-Identifier: Apache-2.0 */
/* The topic table. */
#include "check.h"
#include "qor_topic_core.h"

enum { TOPICS = 3, TOPIC = 1 };

static qor_context_cls_t cls; /* no slot filled: every context lets itself be entered */
static qor_context_t first = {&cls, NULL, NULL, 0, {NULL, NULL}, NULL, NULL, NULL, NULL};
static qor_context_t second = {&cls, NULL, NULL, 0, {NULL, NULL}, NULL, NULL, NULL, NULL};

typedef qor_topic_node_t *(*next_t)(qor_topic_core_t *, qor_context_topic_t, qor_topic_node_t *);

/* Whether a walk meets these contexts, in this order, and no others. */
static int walks(qor_topic_core_t *table, next_t next, qor_context_t *one, qor_context_t *two)
{
    qor_context_t *const wanted[] = {one, two, NULL};
    int i = 0;
    for (qor_topic_node_t *n = next(table, TOPIC, NULL); n; n = next(table, TOPIC, n)) {
        if (n->context != wanted[i++]) {
            return 0;
        }
        qor_context_pause(n->context);
    }
    return wanted[i] == NULL;
}

static void check_subscribers(qor_topic_core_t *table)
{
    qor_topic_node_t *node = qor_topic_core_subscribe(table, &first, TOPIC, NULL);
    check("qor_topic_core_subscribe", node && node->context == &first);
    check("someone has subscribed", qor_topic_core_someone_subscribed(table, TOPIC) == 1);
    check("but to this topic only", qor_topic_core_someone_subscribed(table, 0) == 0);
    qor_topic_core_subscribe(table, &second, TOPIC, NULL);
    check("the newest subscriber comes first",
          walks(table, qor_topic_core_subscriber_node_next, &second, &first));
    qor_topic_core_unsubscribe_by_node(table, node);
    check("a node is removed", walks(table, qor_topic_core_subscriber_node_next, &second, NULL));
    qor_topic_core_unsubscribe(table, &second, TOPIC);
    check("nobody subscribes any more", qor_topic_core_someone_subscribed(table, TOPIC) == 0);
}

static void check_listeners(qor_topic_core_t *table)
{
    qor_context_topic_attr_t attr = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                     QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, 0};
    qor_topic_node_t *node = qor_topic_core_listen(table, &first, TOPIC, &attr);
    check("qor_topic_core_listen", node && node->attr.point == attr.point);
    check("someone listens", qor_topic_core_someone_listened(table, TOPIC) == 1);
    qor_topic_core_listen(table, &second, TOPIC, NULL);
    check("the newest listener comes first",
          walks(table, qor_topic_core_listener_node_next, &second, &first));
    qor_topic_core_unlisten_by_node(table, node);
    qor_topic_core_unlisten(table, &second, TOPIC);
    check("nobody listens any more", qor_topic_core_someone_listened(table, TOPIC) == 0);
}

static void check_filters(qor_topic_core_t *table)
{
    qor_topic_node_t *node = qor_topic_core_filter(table, &first, TOPIC, NULL);
    check("qor_topic_core_filter", node != NULL);
    check("someone filters", qor_topic_core_someone_filtered(table, TOPIC) == 1);
    qor_topic_core_filter(table, &second, TOPIC, NULL);
    check("the newest filter comes first",
          walks(table, qor_topic_core_filter_node_next, &second, &first));
    qor_topic_core_unfilter_by_node(table, node);
    qor_topic_core_unfilter(table, &second, TOPIC);
    check("nobody filters any more", qor_topic_core_someone_filtered(table, TOPIC) == 0);
}

void check_topics(void)
{
    qor_topic_core_t *table = qor_topic_core_create(TOPICS);
    check("qor_topic_core_create", table && table->id_max == TOPICS);
    check_subscribers(table);
    check_listeners(table);
    check_filters(table);
    check("a topic beyond the last is refused",
          qor_topic_core_subscribe(table, &first, TOPICS, NULL) == NULL);

    qor_topic_node_t *node = qor_topic_node_create(&table->ids[TOPIC], &first, NULL);
    check("qor_topic_node_create", node && node->attr.point == QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND);
    qor_topic_node_destroy(node);
    qor_topic_core_destroy(table);
}
