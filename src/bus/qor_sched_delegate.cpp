/* SPDX-License-Identifier: Apache-2.0 */
/* Scheduling delegate: which thread hands what to whom, who copies a message and who frees it. */
#include "qor_sched_delegate.h"

#include "contract.hpp"
#include "hal_sync.hpp"
#include "message_node.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_deferred_priv.hpp"
#include "qor_diag.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_topic_core.h"
#include "qor_topic_core_priv.hpp"
#include "qor_util.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_sched_delegate";

struct delegate_block {
    qor_sched_delegate_t delegate;
    qor_sched_delegate_private priv;
};

/* One mutex for each kind of registration: all, or -1 and none. */
int32_t delegate_locks_init(delegate_block &block)
{
    return hal_mutexes_init({&block.delegate.subscriber_mutex, &block.delegate.listener_mutex,
                             &block.delegate.filter_mutex});
}

const char *name_of(qor_context_t *context)
{
    return qor_context_module_name_get(context);
}

/* Enters and returns the context of a topic's newest subscriber, or NULL. */
qor_context_t *subscriber_enter(qor_topic_core_t *table, qor_context_topic_t topic,
                                topic_entry as = topic_enters)
{
    topic_dispatch under_way(table, topic, as);
    qor_topic_node_t *node = topic_subscriber_step(table, topic, nullptr);
    if (!node && as == topic_requested) {
        under_way.unserved();
    }
    return node ? node->context : nullptr;
}

/* Leaves a context after a delivery. The printed name is the delivering step's. */
int32_t context_leave(qor_context_t *context, const char *func)
{
    const int32_t left = qor_context_pause(context);
    if (left < 0) {
        QOR_LINE("err", func, "pause failed. context = %s", name_of(context));
    }
    return left;
}

/* A result that stands for other ends is no handler's in a module with a contract. */
int32_t handler_result(const qor_context_t *aim, int32_t ret)
{
    const contract *promise = sched_delegate_contract(aim);
    if (!promise) {
        return ret;
    }
    QOR_LINE("err", "qor_sched_delegate_handle_message_aim", "reserved result %d, module = %s", ret,
             contract_name(*promise));
    return -1;
}

/* Has a message handled by a context that has been entered. */
int32_t message_deliver(const qor_context_t *publisher, qor_context_t *context,
                        qor_context_msg_t *msg, trace_kind kind)
{
    return trace_on(trace_class(kind) | QOR_TRACE_STACKS)
               ? trace_recorder().handle_message(publisher, context, msg, kind)
               : qor_context_handle_message(context, msg);
}

/* What shows a message to one who registered for it. */
trace_kind kind_of(const qor_context_msg_t *msg)
{
    switch (msg->type) {
    case QOR_CONTEXT_MSG_FILTER_BEFORE:
        return trace_filters_before;
    case QOR_CONTEXT_MSG_FILTER_AFTER:
        return trace_filters_after;
    case QOR_CONTEXT_MSG_LISTEN_BEFORE:
        return trace_listens_before;
    default:
        return trace_listens_after;
    }
}

/* Notes that a request or a post has come to nothing. */
void drop_note(const qor_context_t *context, uint32_t reason, const qor_context_msg_t *msg)
{
    trace_tell(QOR_TRACE_REQUESTS, context, trace_what(trace_drop, reason), msg->session,
               msg->topic);
}

/* Notes a request, before it is handed over. */
void request_note(const qor_context_t *publisher, const qor_context_t *subscriber,
                  const qor_context_msg_t *msg, uint32_t detail)
{
    if (trace_on(QOR_TRACE_REQUESTS)) {
        trace_recorder().note(publisher, subscriber, trace_what(trace_request, detail),
                              msg->session, msg->topic);
    }
}

/* A handler's result is negative. */
void handler_failed(const qor_context_t *aim)
{
    if (sched_delegate_bus(aim)) {
        __atomic_fetch_add(&delegate_of(aim)->priv->failed, 1, __ATOMIC_RELAXED);
    }
}

/* The aim has been entered; it may be NULL. */
int32_t qor_sched_delegate_handle_message_aim(const qor_context_t *publisher, qor_context_t *aim,
                                              qor_context_msg_t *msg, trace_kind kind)
{
    if (!aim) {
        return -1;
    }
    const int32_t ret = message_deliver(publisher, aim, msg, kind);
    if (ret < 0) {
        handler_failed(aim);
    }
    context_leave(aim, __func__);
    return ret > QOR_RET_GONE ? ret : handler_result(aim, ret);
}

void *listener_show(qor_context_t *listener, int32_t, void *arg)
{
    qor_context_msg_t *msg = static_cast<qor_context_msg_t *>(arg);
    (void)message_deliver(nullptr, listener, msg, kind_of(msg));
    return nullptr;
}

/* A strict listener sees a copy of its own, in its turn. What does not get there is its loss alone.
 */
void listener_post(contract &promise, qor_context_t *listener, qor_context_msg_t *msg)
{
    qor_context_msg_t *clone = qor_context_msg_clone(msg);
    qor_context_task_t task = {};
    qor_context_taskx_init(&task, listener, nullptr, msg->session, listener_show, clone);
    task.recycle = recycle_of(qor_context_msg_destroy);
    if (clone && qor_context_handle_task(listener, &task) == 0) {
        return;
    }
    contract_lost(promise,
                  {nullptr, msg->topic, msg->session, QOR_LOSS_LISTENER, QOR_LOSS_REFUSED});
    if (clone) {
        qor_context_msg_destroy(clone);
    } else {
        contract_refused(&promise);
    }
}

using node_next = qor_topic_node_t *(*)(qor_topic_core_t *, qor_context_topic_t,
                                        qor_topic_node_t *);

/* Calls every registration that a walk yields and that wants this point of the passage. The printed
 * name is the calling walk's. */
void registrations_call(node_next next, qor_context_t *publisher, qor_context_msg_t *msg,
                        int32_t point, const char *func)
{
    qor_topic_core_t *table = delegate_table(delegate_of(publisher));
    const qor_context_topic_t topic = msg->topic; /* a filter may change the message's */
    topic_walk under_way(table, topic); /* a handler may remove the node that it runs for */
    for (qor_topic_node_t *node = next(table, topic, nullptr); node;
         node = next(table, topic, node)) {
        qor_context_t *context = node->context;
        const bool excepted = (node->attr.point & QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF) != 0;
        if (!(node->attr.point & point) || (excepted && context == publisher)) {
            /* Deliberate: the walk has entered this context and it is not left again.
             * Test: SchedDelegate.APassedOverRegistrationStaysEntered. */
            continue;
        }
        /* Deliberate: the result is ignored; neither filters nor listeners stop a message.
         * Test: SchedDelegate.AFailingFilterDoesNotPreventDelivery. */
        contract *promise =
            next == topic_listener_step ? sched_delegate_contract(context) : nullptr;
        if (promise && promise->terms.strict) {
            listener_post(*promise, context, msg);
        } else {
            (void)message_deliver(nullptr, context, msg, kind_of(msg));
        }
        if (context_leave(context, func) < 0) {
            return;
        }
    }
}

/* Out of line: requests that nobody filters need no room for what it keeps. */
[[gnu::noinline]] int32_t qor_sched_delegate_filter_dispatch(qor_context_t *publisher,
                                                             qor_context_msg_t *msg)
{
    const int32_t point = msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE
                              ? QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE
                              : QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER;
    /* A filter may see a message that its own module is handling. */
    deferred_scope none(nullptr, nullptr, nullptr);
    registrations_call(topic_filter_step, publisher, msg, point, __func__);
    return 0;
}

void *qor_sched_delegate_listen_dispatch_task(qor_context_t *publisher, int32_t, void *arg)
{
    qor_context_msg_t *msg = static_cast<qor_context_msg_t *>(arg);
    if (!msg) {
        return nullptr; /* its clone failed at the hand-off, which has said so */
    }
    const int32_t point = msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE
                              ? QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE
                              : QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER;
    registrations_call(topic_listener_step, publisher, msg, point, __func__);
    return nullptr;
}

int32_t qor_sched_delegate_listen_dispatch_entry(qor_context_t *publisher, qor_context_msg_t *msg)
{
    qor_context_msg_t *clone = qor_context_msg_clone(msg);
    if (!clone) {
        /* Deliberate: the task is posted all the same, without a message.
         * Test: SchedDelegateFaults.AListenerTaskIsPostedWithoutItsMessage. */
        QOR_ERR("listen: message clone failed. topic: %d, session = %d", msg->topic, msg->session);
    }
    const int32_t posted = qor_bus_runx(delegate_of(publisher)->bus, publisher,
                                        qor_sched_delegate_listen_dispatch_task, clone,
                                        recycle_of(qor_context_msg_destroy));
    if (posted < 0 || !clone) {
        drop_note(publisher, trace_of_listener + (clone ? trace_refused : trace_no_memory), msg);
    }
    if (posted < 0 && clone) {
        qor_context_msg_destroy(clone);
    }
    return posted;
}

/* One point of a message's passage: filters now, listeners in a task of their own. */
void passage_point(qor_context_t *publisher, qor_context_msg_t *msg, int32_t filter_type,
                   int32_t listen_type)
{
    qor_topic_core_t *table = delegate_table(delegate_of(publisher));
    msg->type = filter_type;
    if (qor_topic_core_someone_filtered(table, msg->topic)) {
        qor_sched_delegate_filter_dispatch(publisher, msg);
    }
    msg->type = listen_type;
    if (qor_topic_core_someone_listened(table, msg->topic)) {
        qor_sched_delegate_listen_dispatch_entry(publisher, msg);
    }
}

void passage_before(qor_context_t *publisher, qor_context_msg_t *msg)
{
    passage_point(publisher, msg, QOR_CONTEXT_MSG_FILTER_BEFORE, QOR_CONTEXT_MSG_LISTEN_BEFORE);
    msg->type = QOR_CONTEXT_MSG_REQUEST;
}

void passage_after(qor_context_t *publisher, qor_context_msg_t *msg)
{
    passage_point(publisher, msg, QOR_CONTEXT_MSG_FILTER_AFTER, QOR_CONTEXT_MSG_LISTEN_AFTER);
    msg->type = QOR_CONTEXT_MSG_RESPONSE;
}

/* Has a request handled by a context that has been entered, or NULL. The printed name is the
 * calling operation's. */
int32_t request_handle(qor_context_t *publisher, qor_context_t *aim, qor_context_msg_t *msg,
                       trace_kind kind, const char *func)
{
    const int32_t ret = qor_sched_delegate_handle_message_aim(publisher, aim, msg, kind);
    if (ret < 0) {
        /* Deliberate: the after-points and the response follow all the same.
         * Test: SchedDelegate.AFailedHandlerStillGivesAResponse. */
        QOR_LINE("err", func,
                 "handle message failed, ret = %d source = %s, topic = %d, session = %d", ret,
                 name_of(publisher), msg->topic, msg->session);
    }
    msg->ret = ret;
    return ret;
}

/* What a task gives whoever executes it; a worker drops it. */
void *task_result(int32_t result)
{
    return reinterpret_cast<void *>(static_cast<intptr_t>(result));
}

void *qor_sched_delegate_handle_message_self(qor_context_t *publisher, int32_t, void *arg)
{
    if (qor_context_resume(publisher) < 0) {
        QOR_ERR("resume failed. context = %s", name_of(publisher));
        return task_result(-1);
    }
    qor_context_msg_t *msg = static_cast<qor_context_msg_t *>(arg);
    const int32_t ret = message_deliver(nullptr, publisher, msg, trace_responds);
    context_leave(publisher, __func__);
    return task_result(ret);
}

void *qor_sched_delegate_message(qor_context_t *publisher, int32_t session, void *arg);

/* Hands a message that has become a response to its publisher. Refused when the bus quits, or when
 * the publisher's init has failed, the message is freed. */
int32_t response_hand_over(qor_context_t *publisher, qor_context_msg_t *clone)
{
    qor_context_task_t response = {};
    sched_delegate_message_task(&response, publisher, clone, recycle_of(qor_context_msg_destroy));
    const int32_t handed = qor_context_handle_task(publisher, &response);
    if (handed < 0) {
        drop_note(publisher, trace_refused, clone);
        contract_reply_back(sched_delegate_contract(publisher));
        qor_context_msg_destroy(clone);
    }
    return handed;
}

/* Hands a request on to the queue of a newer subscriber, which has been entered for it: 0, or -1
 * and what that does not take is dropped. */
int32_t request_move(qor_context_t *publisher, qor_context_t *aim, qor_context_msg_t *clone)
{
    qor_context_task_t relay = {};
    sched_delegate_message_task(&relay, publisher, clone, nullptr);
    const qor_loss_t lost = {nullptr, clone->topic, clone->session, QOR_LOSS_REQUEST,
                             QOR_LOSS_TRANSFER};
    thread_record *record = thread_record_get();
    request_note(publisher, aim, clone, trace_moved);
    if (record) {
        record->moving = clone;
    }
    const int32_t handed = qor_context_handle_task(aim, &relay);
    if (record) {
        record->moving = nullptr;
    }
    contract_moved(handed < 0 ? &lost : nullptr);
    return handed < 0 ? -1 : 0;
}

/* What follows when the result of a request is there. */
void *qor_sched_delegate_finish(qor_context_t *publisher, int32_t, void *arg)
{
    qor_context_msg_t *clone = static_cast<qor_context_msg_t *>(arg);
    passage_after(publisher, clone);
    return task_result(response_hand_over(publisher, clone));
}

void *qor_sched_delegate_publish_relay(qor_context_t *publisher, int32_t session, void *arg)
{
    const qor_sched_delegate_t *delegate = delegate_of(publisher);
    const bool contracts = bus_has_contracts(*delegate->bus);
    thread_record *record = thread_record_get();
    qor_context_msg_t *clone = static_cast<qor_context_msg_t *>(arg);
    /* Deliberate: the subscriber is looked up here and now. One that has unsubscribed since the
     * request was handed to it is passed by in favour of the newest that remains.
     * Test: SchedDelegate.TheRelayLooksTheSubscriberUpAgain. */
    qor_context_t *aim = subscriber_enter(delegate_table(delegate), clone->topic);
    if (contracts && aim && contract_is_elsewhere(sched_delegate_contract(aim), record)) {
        if (request_move(publisher, aim, clone) == 0) {
            return nullptr;
        }
        clone->ret = QOR_RET_DROPPED;
    } else {
        deferred_scope inside(clone, publisher, aim, record);
        request_handle(publisher, aim, clone, trace_handles, __func__);
        if (contracts) {
            contract_handler_returned(record);
        }
        if (inside.deferral()) {
            message_node_release(); /* first: the message may be gone after the next call */
            hal_load(deferred_made)->returned(inside.deferral(), clone->ret);
            return nullptr;
        }
    }
    return qor_sched_delegate_finish(publisher, session, clone);
}

/* What brings a request to its subscriber and the response back. One function for both, so that
 * both have the same default name and a thread that runs one after the other keeps it. */
void *qor_sched_delegate_message(qor_context_t *publisher, int32_t session, void *arg)
{
    switch (static_cast<const qor_context_msg_t *>(arg)->type) {
    case QOR_CONTEXT_MSG_RESPONSE:
        return qor_sched_delegate_handle_message_self(publisher, session, arg);
    case QOR_CONTEXT_MSG_FILTER_AFTER:
        return qor_sched_delegate_finish(publisher, session, arg);
    default:
        return qor_sched_delegate_publish_relay(publisher, session, arg);
    }
}

/* Requests and responses differ in their recycle: a request's message lives on as the response. */
bool task_is_message(const qor_context_task_t *task)
{
    return task->fun_type != QOR_CONTEXT_FUN_RUN && task->fun.runx == qor_sched_delegate_message;
}

int32_t qor_sched_delegate_session(qor_context_t *context, int32_t *session)
{
    qor_sched_delegate_t *_this = delegate_of(context);
    QOR_CHECK(_this, -1);
    *session = qor_bus_session(_this->bus);
    return 0;
}

/* Both publications begin with this; the printed name is theirs. */
int32_t message_check(qor_context_t *publisher, const qor_context_msg_t *msg, const char *func)
{
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        QOR_LINE("err", func, "not support message type, source:%s, topic:%d, session=%d",
                 name_of(publisher), msg->topic, msg->session);
        return -1;
    }
    return 0;
}

/* Both sizes are the caller's and may be anything, so they are added without sign. */
int32_t msg_payload_size(const qor_context_msg_t *msg)
{
    return static_cast<int32_t>(static_cast<uint32_t>(msg->request.size) +
                                static_cast<uint32_t>(msg->response.size));
}

/* Passes the points before a request and hands a copy of it to its subscriber. The printed name is
 * the calling operation's. */
int32_t request_publish(qor_context_t *publisher, qor_context_msg_t *msg, const char *func)
{
    passage_before(publisher, msg);
    /* Deliberate: the subscriber is entered here and not left again.
     * Test: SchedDelegate.PublishLeavesTheSubscriberEntered. */
    qor_context_t *subscriber =
        subscriber_enter(delegate_table(delegate_of(publisher)), msg->topic, topic_requested);
    if (!subscriber) {
        drop_note(publisher, trace_unserved, msg);
        QOR_LINE("err", func, "no one subscribe, source:%s, topic:%d, session=%d",
                 name_of(publisher), msg->topic, msg->session);
        return -1;
    }
    qor_context_msg_t *clone = qor_context_msg_clone(msg);
    if (!clone) {
        drop_note(publisher, trace_no_memory, msg);
        QOR_LINE("err", func, "clone message faied, source:%s, topic:%d, session=%d, msg_len = %d",
                 name_of(publisher), msg->topic, msg->session, msg_payload_size(msg));
        return -1;
    }
    qor_context_task_t relay = {};
    sched_delegate_message_task(&relay, publisher, clone, nullptr);
    request_note(publisher, subscriber, msg, 0);
    const int32_t handed = qor_context_handle_task(subscriber, &relay);
    if (handed < 0) {
        drop_note(publisher, trace_refused, msg);
        qor_context_msg_destroy(clone);
    }
    return handed;
}

int32_t qor_sched_delegate_publish(qor_context_t *publisher, qor_context_msg_t *msg)
{
    qor_sched_delegate_t *_this = delegate_of(publisher);
    QOR_CHECK(_this, -1);
    QOR_CHECK(msg, -1);
    if (message_check(publisher, msg, __func__) < 0) {
        return -1;
    }
    contract *promise = _this->priv->promise;
    if (promise && contract_reply_take(*promise) < 0) {
        QOR_ERR("replies: all places are taken, source:%s, topic:%d, session=%d",
                name_of(publisher), msg->topic, msg->session);
        return -1;
    }
    const int32_t handed = request_publish(publisher, msg, __func__);
    if (handed < 0) {
        contract_reply_back(promise);
    }
    return handed;
}

int32_t qor_sched_delegate_publishx(qor_context_t *publisher, qor_context_msg_t *msg)
{
    qor_sched_delegate_t *_this = delegate_of(publisher);
    QOR_CHECK(_this, -1);
    QOR_CHECK(msg, -1);
    if (message_check(publisher, msg, __func__) < 0) {
        return -1;
    }
    passage_before(publisher, msg);
    qor_context_t *aim = /* as in the relay */
        subscriber_enter(delegate_table(_this), msg->topic, topic_requested);
    int32_t ret;
    {
        deferred_scope none(nullptr, nullptr, nullptr);
        ret = request_handle(publisher, aim, msg, trace_calls, __func__);
    }
    passage_after(publisher, msg);
    return ret;
}

int32_t qor_sched_delegate_syscallx(qor_context_t *context, qor_context_msg_t *msg)
{
    qor_sched_delegate_t *_this = delegate_of(context);
    QOR_CHECK(_this, -1);
    QOR_CHECK(msg, -1);
    /* Deliberate: neither system call leaves the module that it enters here; system contexts have
     * nothing to leave. Test: SchedDelegate.SystemCallsLeaveTheModuleEntered. */
    qor_context_t *module =
        subscriber_enter(_this->bus->sys_topic_core, msg->topic, topic_requested);
    if (!module) {
        QOR_ERR("no one subscribe, source:%s, topic:%d, session=%d", name_of(context), msg->topic,
                msg->session);
        return -1;
    }
    deferred_scope none(nullptr, nullptr, nullptr);
    return trace_on(QOR_TRACE_SYSTEM)
               ? trace_recorder().handle_message(context, module, msg, trace_system)
               : qor_context_handle_message(module, msg);
}

void *qor_sched_delegate_syscall_entry(qor_context_t *context, int32_t, void *arg)
{
    qor_sched_delegate_syscallx(context, static_cast<qor_context_msg_t *>(arg));
    return nullptr;
}

int32_t qor_sched_delegate_syscall(qor_context_t *context, qor_context_msg_t *msg)
{
    qor_sched_delegate_t *_this = delegate_of(context);
    QOR_CHECK(_this && _this->bus, -1);
    QOR_CHECK(msg, -1);
    qor_context_t *node = subscriber_enter(_this->bus->sys_topic_core, msg->topic);
    QOR_CHECK(node, -1);
    qor_context_msg_t *new_msg = qor_context_msg_clone(msg);
    QOR_CHECK(new_msg, -1);
    qor_context_task_t task = {};
    qor_context_taskx_init(&task, context, nullptr, new_msg->session,
                           qor_sched_delegate_syscall_entry, new_msg);
    task.recycle = recycle_of(qor_context_msg_destroy);
    const int32_t handed = qor_context_handle_task(node, &task);
    if (handed < 0) {
        qor_context_msg_destroy(new_msg);
    }
    return handed;
}

int32_t qor_sched_delegate_post(qor_context_t *context, qor_context_task_t *task)
{
    qor_sched_delegate_t *_this = delegate_of(context);
    QOR_CHECK(_this, -1);
    QOR_CHECK(task, -1);
    const int32_t posted =
        task->delay < 1 ? qor_bus_post(_this->bus, task) : qor_bus_timer_post(_this->bus, task);
    if (posted < 0) {
        if (trace_on(QOR_TRACE_TASKS) && !sched_delegate_carries(task)) {
            trace_recorder().note(nullptr, context, trace_what(trace_drop, trace_refused),
                                  task->session, -1);
        }
        if (!sched_delegate_is_response(task)) { /* nobody asked for the post of a response */
            sched_delegate_post_refused(context, task);
        }
        return -1;
    }
    return 0;
}

int32_t qor_sched_delegate_cancel(qor_context_t *context, int32_t session)
{
    qor_sched_delegate_t *_this = delegate_of(context);
    QOR_CHECK(_this, -1);
    if (qor_bus_cancel(_this->bus, session) < 0) {
        QOR_ERR("cancel a timer failed, source:%s, session=%d", name_of(context), session);
        return -1;
    }
    return 0;
}

qor_context_handler_t qor_sched_delegate_handler = {
    /*  1 session */ qor_sched_delegate_session,
    /*  2 subscribe */ qor_sched_delegate_subscribe,
    /*  3 unsubscribe */ qor_sched_delegate_unsubscribe,
    /*  4 listen */ qor_sched_delegate_listen,
    /*  5 unlisten */ qor_sched_delegate_unlisten,
    /*  6 filter */ qor_sched_delegate_filter,
    /*  7 unfilter */ qor_sched_delegate_unfilter,
    /*  8 publish */ qor_sched_delegate_publish,
    /*  9 publishx */ qor_sched_delegate_publishx,
    /* 10 syscall */ qor_sched_delegate_syscall,
    /* 11 syscallx */ qor_sched_delegate_syscallx,
    /* 12 post */ qor_sched_delegate_post,
    /* Deliberate: postx and cancelx are empty, a call is reported as a missing handler.
     * Test: SchedDelegate.PostxAndCancelxAreEmpty. */
    /* 13 postx */ nullptr,
    /* 14 cancel */ qor_sched_delegate_cancel,
    /* 15 cancelx */ nullptr,
};

} // namespace

const deferred_calls *deferred_made;

qor_sched_delegate_t *delegate_of(const qor_context_t *context)
{
    return static_cast<qor_sched_delegate_t *>(context->pub_data);
}

qor_sched_delegate_t *delegate_checked(const qor_context_t *context, const char *func)
{
    qor_sched_delegate_t *delegate = delegate_of(context);
    if (!delegate) {
        qor_check_failed<file_tag>(func, __LINE__, "_this");
    }
    return delegate;
}

qor_topic_core_t *delegate_table(const qor_sched_delegate_t *delegate)
{
    return qor_bus_topic_core_get(delegate->bus, delegate->role);
}

qor_bus_t *sched_delegate_bus(const qor_context_t *context)
{
    return context->handler == &qor_sched_delegate_handler ? delegate_of(context)->bus : nullptr;
}

contract *sched_delegate_contract(const qor_context_t *context)
{
    return context->handler == &qor_sched_delegate_handler ? delegate_of(context)->priv->promise
                                                           : nullptr;
}

void sched_delegate_post_refused(qor_context_t *context, const qor_context_task_t *task)
{
    /* Deliberate: one text for tasks and timers, even when no timer was asked for.
     * Test: SchedDelegate.ARefusedPostSpeaksOfATimer. */
    QOR_LINE("err", "qor_sched_delegate_post",
             "create a timer failed, source:%s, task:%s, session=%d", name_of(context), task->name,
             task->session);
}

bool sched_delegate_is_relay(const qor_context_task_t *task)
{
    return task_is_message(task) && !task->recycle;
}

bool sched_delegate_is_listener(const qor_context_task_t *task)
{
    return task->fun_type != QOR_CONTEXT_FUN_RUN && task->fun.runx == listener_show;
}

bool sched_delegate_carries(const qor_context_task_t *task)
{
    return task_is_message(task) || sched_delegate_is_listener(task);
}

bool sched_delegate_is_response(const qor_context_task_t *task)
{
    return task_is_message(task) && task->recycle;
}

void sched_delegate_relay_discard(void *task)
{
    const qor_context_task_t *relay = static_cast<const qor_context_task_t *>(task);
    drop_note(relay->context, trace_discarded, static_cast<qor_context_msg_t *>(relay->arg));
    contract_reply_back(sched_delegate_contract(relay->context));
    qor_context_msg_destroy(static_cast<qor_context_msg_t *>(relay->arg));
}

void sched_delegate_relay_refuse(void *task)
{
    const qor_context_task_t *relay = static_cast<const qor_context_task_t *>(task);
    qor_context_msg_t *clone = static_cast<qor_context_msg_t *>(relay->arg);
    const deferred_calls *deferred = hal_load(deferred_made);
    if (deferred && deferred->left(clone)) {
        return;
    }
    clone->ret = -1;
    clone->type = QOR_CONTEXT_MSG_RESPONSE;
    response_hand_over(relay->context, clone);
}

void sched_delegate_message_task(qor_context_task_t *task, qor_context_t *publisher,
                                 qor_context_msg_t *msg, qor_context_recycle_t recycle)
{
    qor_context_taskx_init(task, publisher, nullptr, msg->session, qor_sched_delegate_message, msg);
    task->recycle = recycle;
}

int32_t sched_delegate_finish_post(qor_que_node_t *node, qor_context_t *publisher,
                                   qor_context_msg_t *msg, int32_t ret)
{
    msg->ret = ret;
    msg->type = QOR_CONTEXT_MSG_FILTER_AFTER;
    sched_delegate_message_task(bus_task_of(node), publisher, msg, nullptr);
    que_front *front = que_front_of(node);
    *front = {};
    front->flags = que_own | que_message;
    front->discard = sched_delegate_relay_discard;
    if (bus_node_post(delegate_of(publisher)->bus, node) < 0) {
        qor_que_node_destroy(node, sched_delegate_relay_discard);
        return -1;
    }
    return 0;
}

qor_sched_delegate_t *delegate_at(list_head *link)
{
    return &util_container<delegate_block, offsetof(delegate_block, priv.link)>(link)->delegate;
}

void sched_delegates_free(qor_bus_t *bus)
{
    util_list_each(bus->priv->delegates, [](list_head *link) {
        auto *block = util_container<delegate_block, offsetof(delegate_block, priv.link)>(link);
        qor_sched_delegate_destroy(&block->delegate);
        pthread_mutex_destroy(&block->delegate.subscriber_mutex);
        pthread_mutex_destroy(&block->delegate.listener_mutex);
        pthread_mutex_destroy(&block->delegate.filter_mutex);
        list_del(link);
        free(block);
    });
}

qor_sched_delegate_t *qor_sched_delegate_create(qor_bus_t *bus, int role, qor_context_t *context)
{
    delegate_block *block = util_zalloc<delegate_block>();
    if (!block || delegate_locks_init(*block) < 0) {
        free(block);
        QOR_ERR_SPACED("malloc for \"qor_sched_delegate_t\" failed.");
        return nullptr;
    }
    qor_sched_delegate_t *_this = &block->delegate;
    _this->priv = &block->priv;
    _this->bus = bus;
    _this->role = role;
    _this->context = context;
    INIT_LIST_HEAD(&_this->subscriber_head);
    INIT_LIST_HEAD(&_this->listener_head);
    INIT_LIST_HEAD(&_this->filter_head);
    if (bus) {
        hal_scoped_lock lock(bus->priv->mutex);
        list_add(&block->priv.link, &bus->priv->delegates);
        block->priv.number = ++bus->priv->contexts;
        if (context) {
            block->priv.promise = contract_find(bus, context->module);
            block->priv.module = context->module;
            block->priv.cls = context->cls;
        }
        if (const trace_functions *recorder = trace_recorder_made()) {
            recorder->named(&block->priv.link);
        }
    }
    qor_context_pub_data_set(context, _this, recycle_of(qor_sched_delegate_destroy));
    qor_context_handler_set(context, &qor_sched_delegate_handler);
    return _this;
}

void qor_sched_delegate_destroy(qor_sched_delegate_t *_this)
{
    QOR_CHECK_VOID(_this);
    /* Deliberate: the record and its locks stay, a task that is still queued may name them.
     * Test: SchedDelegate.DestroyLeavesTheRecord. */
    delegate_unregister_all(_this);
    const deferred_calls *deferred = hal_load(deferred_made);
    if (deferred) {
        deferred->subscriber_over(_this->context);
    }
}
