/* SPDX-License-Identifier: Apache-2.0 */
/* What the orderly end needs to know of delegates. */
#ifndef QOR_SCHED_DELEGATE_PRIV_HPP
#define QOR_SCHED_DELEGATE_PRIV_HPP

#include "qor_sched_delegate.h"

struct qor_sched_delegate_private {
    list_head link; /* in the bus's list of delegates */
    int32_t closed; /* 1 once destroyed: registrations are refused; read without a common lock */
};

/* A context's delegate, or NULL. */
qor_sched_delegate_t *delegate_of(const qor_context_t *context);

/* The same for the operation func: without a delegate its line is printed. */
qor_sched_delegate_t *delegate_checked(const qor_context_t *context, const char *func);

/* The topic table that a delegate's registrations and requests go to. */
qor_topic_core_t *delegate_table(const qor_sched_delegate_t *delegate);

/* The six slots of the handler table that register, see qor_context_handler.h. */
int32_t qor_sched_delegate_subscribe(qor_context_t *context, qor_context_topic_t topic,
                                     qor_context_topic_attr_t *attr);
int32_t qor_sched_delegate_unsubscribe(qor_context_t *context, qor_context_topic_t topic);
int32_t qor_sched_delegate_listen(qor_context_t *context, qor_context_topic_t topic,
                                  qor_context_topic_attr_t *attr);
int32_t qor_sched_delegate_unlisten(qor_context_t *context, qor_context_topic_t topic);
int32_t qor_sched_delegate_filter(qor_context_t *context, qor_context_topic_t topic,
                                  qor_context_topic_attr_t *attr);
int32_t qor_sched_delegate_unfilter(qor_context_t *context, qor_context_topic_t topic);

/* Removes all registrations, subscriptions first, and refuses further ones. */
void delegate_unregister_all(qor_sched_delegate_t *delegate);

/* The bus that a context is attached to; NULL when it is not. */
qor_bus_t *sched_delegate_bus(const qor_context_t *context);

/* A node for a run of a context's, made before it is known whether the bus will take it. NULL
 * without memory; goes back with free() while it is unused. */
qor_que_node_t *sched_delegate_run_node();

/* Posts such a run(context) under a fresh session. 0, or -1 when the bus quits, and the node stays
 * the caller's. */
int32_t sched_delegate_run_post(qor_context_t *context, qor_que_node_t *node,
                                qor_context_run_t run);

/* Prints the line of a refused post for a run that could not be posted. */
void sched_delegate_run_refused(qor_context_t *context, qor_que_node_t *node);

/* The function of the relay task. Its argument is a message clone that travels on, so the task has
 * no recycle: whoever discards it frees the clone. */
qor_context_runx_t sched_delegate_relay();

/* Frees all delegates of a bus when no thread and no context is left to name them. */
void sched_delegates_free(qor_bus_t *bus);

#endif /* QOR_SCHED_DELEGATE_PRIV_HPP */
