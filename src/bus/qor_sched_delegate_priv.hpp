/* SPDX-License-Identifier: Apache-2.0 */
/* What bus and contexts need to know of delegates: registrations, and the tasks that carry requests
 * and responses. */
#ifndef QOR_SCHED_DELEGATE_PRIV_HPP
#define QOR_SCHED_DELEGATE_PRIV_HPP

#include "qor_context_task.h"
#include "qor_sched_delegate.h"
#include "que_front.hpp"

struct contract;

struct qor_sched_delegate_private {
    list_head link;    /* in the bus's list of delegates */
    contract *promise; /* of the context's module; NULL: it has none */
    uint32_t number;   /* 1 and up, in the order in which the bus's delegates were made */
    int32_t closed;    /* 1 once destroyed: registrations are refused; read without a common lock */
    uint32_t failed; /* requests whose handler gave less than 0, modulo 2^32; changed atomically */
    const qor_context_module_t *module; /* what the context is of; stay when it is gone. NULL: there
                                           was none, or no bus */
    const qor_context_cls_t *cls;
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

/* The contract of an attached context's module, or NULL. */
contract *sched_delegate_contract(const qor_context_t *context);

/* Whether a task shows a strict listener a message. */
bool sched_delegate_is_listener(const qor_context_task_t *task);

/* Prints the line of a refused post. */
void sched_delegate_post_refused(qor_context_t *context, const qor_context_task_t *task);

/* A relay hands a request to its subscriber: its context is the publisher, its argument the copy of
 * the message that travels on. So it has no recycle, and whoever does not run it calls one of the
 * two functions below. */
bool sched_delegate_is_relay(const qor_context_task_t *task);

/* A node of either queue, whose task is given, if its response may take its memory; else NULL. */
template <typename N> inline N *sched_delegate_request(N *node, const qor_context_task_t *task)
{
    return (que_front_of(node)->flags & que_message) && sched_delegate_is_relay(task) ? node
                                                                                      : nullptr;
}

/* Takes a request back: no response follows. The argument is the task; it stands in for a recycle.
 */
void sched_delegate_relay_discard(void *task);

/* Answers a request that will not be handled: the publisher gets a response with ret -1. */
void sched_delegate_relay_refuse(void *task);

/* Whether a task carries a message: a request, a response, or what a strict listener sees. */
bool sched_delegate_carries(const qor_context_task_t *task);

/* Whether a task brings a publisher its response. */
bool sched_delegate_is_response(const qor_context_task_t *task);

/* Fills the task of a request, without recycle, or of a response. */
void sched_delegate_message_task(qor_context_task_t *task, qor_context_t *publisher,
                                 qor_context_msg_t *msg, qor_context_recycle_t recycle);

/* Ends a request that no handler has ended, with that result: a task of the library's own passes
 * the points after the handler and hands the response over. The node, of the task queue and made as
 * a message's, goes along. 0, or -1 when the bus quits, and message and node are gone. */
int32_t sched_delegate_finish_post(qor_que_node_t *node, qor_context_t *publisher,
                                   qor_context_msg_t *msg, int32_t ret);

/* The delegate whose link in the bus's list is given. */
qor_sched_delegate_t *delegate_at(list_head *link);

/* Frees all delegates of a bus when no thread and no context is left to name them. */
void sched_delegates_free(qor_bus_t *bus);

#endif /* QOR_SCHED_DELEGATE_PRIV_HPP */
