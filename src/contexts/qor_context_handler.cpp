/* SPDX-License-Identifier: Apache-2.0 */
/* Handler dispatchers: find the context's table, test the slot, call it. */
#include "qor_context_handler.h"

#include "qor_context.h"
#include "qor_diag.hpp"

namespace {

constexpr char file_tag[] = "qor_context_handler";

/* Reports what a dispatcher lacks; the printed name is the dispatcher's. Returns its failure. */
int32_t handler_missing(const qor_context_t *_this, const char *func)
{
    qor_check_failed<file_tag>(func, __LINE__, _this ? "handler" : "_this");
    return -1;
}

} // namespace

int32_t qor_context_handler_session(qor_context_t *_this, int32_t *session)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->session, -1);
    return handler->session(_this, session);
}

int32_t qor_context_handler_subscribe(qor_context_t *_this, qor_context_topic_t topic,
                                      qor_context_topic_attr_t *attr)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->subscribe, -1);
    return handler->subscribe(_this, topic, attr);
}

int32_t qor_context_handler_unsubscribe(qor_context_t *_this, qor_context_topic_t topic)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->unsubscribe, -1);
    return handler->unsubscribe(_this, topic);
}

int32_t qor_context_handler_listen(qor_context_t *_this, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->listen, -1);
    return handler->listen(_this, topic, attr);
}

int32_t qor_context_handler_unlisten(qor_context_t *_this, qor_context_topic_t topic)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->unlisten, -1);
    return handler->unlisten(_this, topic);
}

int32_t qor_context_handler_filter(qor_context_t *_this, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->filter, -1);
    return handler->filter(_this, topic, attr);
}

int32_t qor_context_handler_unfilter(qor_context_t *_this, qor_context_topic_t topic)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->unfilter, -1);
    return handler->unfilter(_this, topic);
}

int32_t qor_context_handler_publish(qor_context_t *_this, qor_context_msg_t *msg)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->publish, -1);
    return handler->publish(_this, msg);
}

int32_t qor_context_handler_publishx(qor_context_t *_this, qor_context_msg_t *msg)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->publishx, -1);
    return handler->publishx(_this, msg);
}

int32_t qor_context_handler_syscall(qor_context_t *_this, qor_context_msg_t *msg)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->syscall, -1);
    return handler->syscall(_this, msg);
}

int32_t qor_context_handler_syscallx(qor_context_t *_this, qor_context_msg_t *msg)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->syscallx, -1);
    return handler->syscallx(_this, msg);
}

int32_t qor_context_handler_post(qor_context_t *_this, qor_context_task_t *task)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->post, -1);
    return handler->post(_this, task);
}

int32_t qor_context_handler_postx(qor_context_t *_this, qor_context_task_t *task)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->postx, -1);
    return handler->postx(_this, task);
}

int32_t qor_context_handler_cancel(qor_context_t *_this, int32_t session)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->cancel, -1);
    return handler->cancel(_this, session);
}

int32_t qor_context_handler_cancelx(qor_context_t *_this, int32_t session)
{
    const qor_context_handler_t *handler = _this ? _this->handler : nullptr;
    if (!handler) {
        return handler_missing(_this, __func__);
    }
    QOR_CHECK(handler->cancelx, -1);
    return handler->cancelx(_this, session);
}

int32_t qor_context_session(qor_context_t *_this, int32_t *session)
{
    return qor_context_handler_session(_this, session);
}

int32_t qor_context_subscribe(qor_context_t *_this, qor_context_topic_t topic,
                              qor_context_topic_attr_t *attr)
{
    return qor_context_handler_subscribe(_this, topic, attr);
}

int32_t qor_context_unsubscribe(qor_context_t *_this, qor_context_topic_t topic)
{
    return qor_context_handler_unsubscribe(_this, topic);
}

int32_t qor_context_listen(qor_context_t *_this, qor_context_topic_t topic,
                           qor_context_topic_attr_t *attr)
{
    return qor_context_handler_listen(_this, topic, attr);
}

int32_t qor_context_unlisten(qor_context_t *_this, qor_context_topic_t topic)
{
    /* Deliberate: calls unsubscribe, so that the context loses its subscription and keeps its
     * listener registration. User contexts come through here for every unlisten of their modules.
     * Test: ContextHandler.UnlistenShortcutRemovesTheSubscription. */
    return qor_context_handler_unsubscribe(_this, topic);
}

int32_t qor_context_filter(qor_context_t *_this, qor_context_topic_t topic,
                           qor_context_topic_attr_t *attr)
{
    return qor_context_handler_filter(_this, topic, attr);
}

int32_t qor_context_unfilter(qor_context_t *_this, qor_context_topic_t topic)
{
    return qor_context_handler_unfilter(_this, topic);
}
