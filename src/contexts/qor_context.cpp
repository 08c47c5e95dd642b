/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts: the base record, and one dispatcher per operation of the class. */
#include "qor_context.h"

#include "qor_context_forward.hpp"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_diag.hpp"

namespace {

constexpr char file_tag[] = "qor_context_api";

/* The body of all system requests; its check prints this name. */
int32_t _qor_context_sys_req(qor_context_t *_this, qor_context_handler_publish_t send,
                             qor_context_topic_t topic, void *req_buf, int32_t req_size,
                             void *res_buf, int32_t res_size)
{
    QOR_CHECK(_this, -1);
    int32_t session = 0;
    /* Deliberate: a draw that fails is ignored and leaves session 0.
     * Test: Context.SystemRequestGoesOnAfterAFailedDraw. */
    qor_context_session(_this, &session);
    qor_context_msg_t msg = {};
    qor_context_msg_fill_full(&msg, session, topic, req_buf, req_size, res_buf, res_size);
    return send(_this, &msg) < 0 ? -1 : session;
}

/* Reports what a dispatcher lacks; the printed name is the dispatcher's. Returns its failure. */
int32_t class_missing(const qor_context_t *_this, const char *func)
{
    qor_check_failed<file_tag>(func, __LINE__, _this ? "_this->cls" : "_this");
    return -1;
}

} // namespace

qor_context_t *qor_context_create(qor_context_cls_t *cls, qor_context_module_t *module)
{
    QOR_CHECK(cls, nullptr);
    QOR_CHECK(module, nullptr);
    /* Deliberate: the only slot that is not tested. A class that makes no contexts is no class, and
     * the call faults. Test: Context.CreateFaultsWithoutTheSlot. */
    return cls->create(module);
}

void qor_context_destroy(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        class_missing(_this, __func__);
        return;
    }
    QOR_CHECK_VOID(_this->cls->destroy);
    _this->cls->destroy(_this);
}

qor_context_t *qor_context_constructor(qor_context_t *_this, qor_context_cls_t *cls,
                                       qor_context_module_t *module)
{
    QOR_CHECK(_this, nullptr);
    QOR_CHECK(cls, nullptr);
    QOR_CHECK(module, nullptr);
    *_this = {}; /* NULL links tell owners that the context is on no list */
    _this->cls = cls;
    _this->module = module;
    return _this;
}

void qor_context_destructor(qor_context_t *_this)
{
    QOR_CHECK_VOID(_this);
    /* Deliberate: unlinks and releases nothing. The list belongs to the context's owner, public
     * data to uninit. Test: Context.DestructorLeavesLinkAndPublicData. */
}

int32_t qor_context_init(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    QOR_CHECK(_this->cls->init, -1);
    return _this->cls->init(_this);
}

void qor_context_uninit(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        class_missing(_this, __func__);
        return;
    }
    QOR_CHECK_VOID(_this->cls->uninit);
    /* Deliberate: public data goes before the class cleans up, and the field is not cleared. The
     * class must not rely on it, and a second uninit releases it again.
     * Test: Context.UninitReleasesPublicDataFirstAndKeepsThePointer. */
    if (_this->pub_data && _this->pub_data_recycle) {
        _this->pub_data_recycle(_this->pub_data);
    }
    _this->cls->uninit(_this);
}

int32_t qor_context_start(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    QOR_CHECK(_this->cls->start, -1);
    return _this->cls->start(_this);
}

void qor_context_stop(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        class_missing(_this, __func__);
        return;
    }
    QOR_CHECK_VOID(_this->cls->stop);
    _this->cls->stop(_this);
}

int32_t qor_context_resume(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    return _this->cls->resume ? _this->cls->resume(_this) : 0;
}

int32_t qor_context_pause(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    return _this->cls->pause ? _this->cls->pause(_this) : 0;
}

void qor_context_register(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        class_missing(_this, __func__);
        return;
    }
    QOR_CHECK_VOID(_this->cls->reg);
    _this->cls->reg(_this);
}

void qor_context_unregister(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        class_missing(_this, __func__);
        return;
    }
    QOR_CHECK_VOID(_this->cls->unreg);
    _this->cls->unreg(_this);
}

int32_t qor_context_handle_message(qor_context_t *_this, qor_context_msg_t *msg)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    QOR_CHECK(_this->cls->handle_message, -1);
    return _this->cls->handle_message(_this, msg);
}

int32_t qor_context_handle_task(qor_context_t *_this, qor_context_task_t *task)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    QOR_CHECK(_this->cls->handle_task, -1);
    return _this->cls->handle_task(_this, task);
}

int32_t qor_context_loop(qor_context_t *_this)
{
    if (!_this || !_this->cls) {
        return class_missing(_this, __func__);
    }
    /* Deliberate: tests handle_message and calls loop. A class without handle_message is refused
     * even if it has a loop; one with handle_message alone faults.
     * Test: Context.LoopTestsTheMessageSlot. */
    QOR_CHECK(_this->cls->handle_message, -1);
    return _this->cls->loop(_this);
}

const char *qor_context_cls_name_get(qor_context_t *_this)
{
    QOR_CHECK(_this && _this->cls, nullptr);
    return _this->cls->name;
}

const char *qor_context_module_name_get(qor_context_t *_this)
{
    QOR_CHECK(_this && _this->module, nullptr);
    return _this->module->name;
}

int32_t qor_context_id_get(qor_context_t *_this)
{
    QOR_CHECK(_this, -1);
    return _this->id;
}

int32_t qor_context_id_set(qor_context_t *_this, int32_t id)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(_this->id == 0 && id > 0, -1);
    _this->id = id;
    return 0;
}

void qor_context_handler_set(qor_context_t *_this, qor_context_handler_t *handler)
{
    QOR_CHECK_VOID(_this);
    QOR_CHECK_VOID(handler);
    _this->handler = handler;
}

qor_context_handler_t *qor_context_handler_get(qor_context_t *_this)
{
    QOR_CHECK(_this, nullptr);
    return _this->handler;
}

void qor_context_pub_data_set(qor_context_t *_this, void *pub_data, qor_context_recycle_t recycle)
{
    QOR_CHECK_VOID(_this);
    /* Deliberate: an earlier attachment is not released; whoever replaces it may still need it.
     * Test: Context.PublicDataIsOverwrittenWithoutRelease. */
    _this->pub_data = pub_data;
    _this->pub_data_recycle = recycle;
}

void *qor_context_pub_data_get(qor_context_t *_this)
{
    QOR_CHECK(_this, nullptr);
    return _this->pub_data;
}

void qor_context_resource_set(qor_context_t *_this, void *resource)
{
    QOR_CHECK_VOID(_this);
    _this->resource = resource;
}

void *qor_context_resource_get(qor_context_t *_this)
{
    QOR_CHECK(_this, nullptr);
    return _this->resource;
}

void qor_context_priv_data_set(qor_context_t *_this, void *priv_data)
{
    QOR_CHECK_VOID(_this);
    _this->priv_data = priv_data;
}

void *qor_context_priv_data_get(qor_context_t *_this)
{
    QOR_CHECK(_this, nullptr);
    return _this->priv_data;
}

int32_t qor_context_sys_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                            int32_t req_size)
{
    return _qor_context_sys_req(_this, qor_context_syscall, topic, req_buf, req_size, nullptr, 0);
}

int32_t qor_context_sys_req_ret(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                int32_t req_size, int32_t res_size)
{
    return _qor_context_sys_req(_this, qor_context_syscall, topic, req_buf, req_size, nullptr,
                                res_size);
}

int32_t qor_context_sysx_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                             int32_t req_size)
{
    /* Deliberate: returns the session although the request is handled before the call returns; of
     * the handler's result only the sign counts. Test: Context.SysxReqReturnsTheSession. */
    return _qor_context_sys_req(_this, qor_context_syscallx, topic, req_buf, req_size, nullptr, 0);
}

int32_t qor_context_sysx_req_ret(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                                 int32_t req_size, void *res_buf, int32_t res_size)
{
    /* Deliberate: asynchronous in spite of its name. A clone carries what res_buf holds, and the
     * caller's buffer is never written. Test: Context.SysxReqRetIsAsynchronous. */
    return _qor_context_sys_req(_this, qor_context_syscall, topic, req_buf, req_size, res_buf,
                                res_size);
}
