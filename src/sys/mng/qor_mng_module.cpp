/* SPDX-License-Identifier: Apache-2.0 */
/* Module manager: one user context for each module, brought up in two phases. */
#include "qor_mng_module.h"

#include "hal_sync.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_mng_module_priv.hpp"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_mng_module";

struct qor_mng_module_t {
    list_head ctx_head;             /* contexts that have started, the last one first */
    list_head uninit_ctx_head;      /* contexts of this phase whose init is not over */
    int32_t pure;                   /* the phase: 1, then 0 */
    qor_context_t *ctx;             /* the manager's own context */
    qor_context_module_t **modules; /* the application's, NULL-terminated */
    hal_thread_mutex_t mutex;       /* guards the lists and pure; taken before the bus's locks */
    list_head lost_head;            /* contexts that could not be attached; freed at close */
};

qor_mng_module_t *manager_of(qor_context_t *context)
{
    return static_cast<qor_mng_module_t *>(qor_context_priv_data_get(context));
}

qor_context_t *context_of(list_head *link)
{
    return util_container<qor_context_t, offsetof(qor_context_t, node)>(link);
}

const char *name_of(qor_context_t *context)
{
    return qor_context_module_name_get(context);
}

/* The caller holds the mutex. */
void unlink_locked(qor_context_t *context)
{
    if (context->node.prev) {
        list_del(&context->node);
    }
}

int32_t qor_mng_module_init_module_by_pure(qor_mng_module_t *mng, int32_t pure);

/* A context that has come up joins those that have started. Returns the phase that is to begin now,
 * or -1. Decided under the mutex, so that of several that finish at once exactly one begins it. */
int32_t manager_started(qor_mng_module_t *mng, qor_context_t *context)
{
    hal_scoped_lock lock(mng->mutex);
    unlink_locked(context);
    list_add(&context->node, &mng->ctx_head);
    return list_empty(&mng->uninit_ctx_head) && mng->pure > 0 ? --mng->pure : -1;
}

/* Takes down a context whose init has failed. */
void manager_failed(qor_mng_module_t *mng, qor_context_t *context)
{
    qor_context_unregister(context);
    qor_context_uninit(context);
    {
        hal_scoped_lock lock(mng->mutex);
        unlink_locked(context);
    }
    qor_context_destroy(context);
    /* Deliberate: the phase is not looked at. When the context that finishes last fails, the next
     * phase never starts. Test: MngModule.NoSecondPhaseWhenTheLastOneFails. */
}

void *qor_mng_module_init_task(qor_context_t *manager, int32_t, void *arg)
{
    qor_mng_module_t *mng = manager_of(manager);
    qor_context_t *context = static_cast<qor_context_t *>(arg);
    QOR_INF("============ %s context(%p) init start ===========", name_of(context), arg);
    if (qor_context_init(context) < 0) {
        QOR_INF("============ %s context(%p) init failed ===========", name_of(context), arg);
        manager_failed(mng, context);
        return nullptr;
    }
    QOR_INF("============ %s context(%p) init success ===========", name_of(context), arg);
    qor_context_start(context);
    const int32_t phase = manager_started(mng, context);
    if (phase >= 0) {
        qor_mng_module_init_module_by_pure(mng, phase);
    }
    return nullptr;
}

int32_t manager_attach(qor_mng_module_t *mng, qor_context_t *context)
{
    qor_sys_bus_register_request_t request = {context};
    return qor_context_x_req(mng->ctx, QOR_SYS_BUS_REGISTER, &request, sizeof(request));
}

/* Creates, attaches and registers one module's context. The lines carry the phase's name. */
void manager_create(qor_mng_module_t *mng, qor_context_module_t *module, const char *func)
{
    qor_context_t *context = qor_core_context_class.create(module);
    if (!context) {
        QOR_LINE("err", func, "create context failed. module name = %s", module->name);
        return;
    }
    QOR_LINE("inf", func, "create %s's context success. context = %p", module->name,
             static_cast<void *>(context));
    const bool attached = manager_attach(mng, context) >= 0;
    if (!attached) {
        QOR_LINE("err", func, "context register to bus failed. module name = %s", module->name);
        /* Deliberate: it has not got beyond INIT, so it refuses to be destroyed and stays until the
         * bus is closed. Test: MngModuleFaults.AContextThatCannotBeAttachedStays. */
        qor_context_destroy(context);
    }
    {
        hal_scoped_lock lock(mng->mutex);
        list_add(&context->node, attached ? &mng->uninit_ctx_head : &mng->lost_head);
    }
    if (attached) {
        qor_context_register(context);
    }
}

/* Queues the init tasks of a phase, newest context first. */
void manager_init_post(qor_mng_module_t *mng)
{
    hal_scoped_lock lock(mng->mutex);
    util_list_each(mng->uninit_ctx_head, [mng](list_head *link) {
        qor_context_t *context = context_of(link);
        qor_context_runx_name(mng->ctx, name_of(context), qor_mng_module_init_task, context);
    });
}

int32_t qor_mng_module_init_module_by_pure(qor_mng_module_t *mng, int32_t pure)
{
    if (pure < 0) {
        return -1;
    }
    for (qor_context_module_t **module = mng->modules; *module; module++) {
        if (((*module)->pure != 0) == (pure != 0)) {
            manager_create(mng, *module, __func__);
        }
    }
    manager_init_post(mng);
    return 1;
}

void qor_mng_module_subscribe(qor_context_t *context)
{
    qor_context_subscribe(context, QOR_SYS_MNG_MODULE_REGISTER, nullptr);
    qor_context_subscribe(context, QOR_SYS_MNG_CONTEXT_REGISTER, nullptr);
}

void qor_mng_module_unsubscribe(qor_context_t *context)
{
    qor_context_unsubscribe(context, QOR_SYS_MNG_MODULE_REGISTER);
    qor_context_unsubscribe(context, QOR_SYS_MNG_CONTEXT_REGISTER);
}

int32_t qor_mng_module_init(qor_context_t *context, void *arg)
{
    qor_mng_module_t *mng = util_zalloc<qor_mng_module_t>();
    if (!mng) {
        QOR_ERR("malloc \"qor_mng_module_t\" failed.");
        return -1;
    }
    INIT_LIST_HEAD(&mng->ctx_head);
    INIT_LIST_HEAD(&mng->uninit_ctx_head);
    INIT_LIST_HEAD(&mng->lost_head);
    mng->pure = 1;
    mng->modules = static_cast<qor_context_module_t **>(arg);
    pthread_mutex_init(&mng->mutex, nullptr);
    mng->ctx = context;
    qor_context_priv_data_set(context, mng);
    /* Deliberate: the next phase is begun by the last successful init of this one and by nothing
     * else, so an application without a pure module never comes up.
     * Test: MngModule.WithoutAPureModuleNothingComesUp. */
    qor_mng_module_init_module_by_pure(mng, mng->pure);
    return 0;
}

int32_t qor_mng_module_handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    const qor_mng_module_t *mng_module = manager_of(context);
    QOR_CHECK(mng_module, -1);
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        QOR_WRN("not support type.");
        return -1;
    }
    return qor_mng_module_handle_request_message(context, msg);
}

} // namespace

qor_context_module_t qor_mng_module = {
    /* name */ "qor_mng_module",
    /* id */ 0,
    /* pure */ 0,
    /* refcount */ -1,
    /* priority */ 0,
    /* stack_size */ 0,
    /* arg */ nullptr,
    /* reg */ qor_mng_module_subscribe,
    /* unreg */ qor_mng_module_unsubscribe,
    /* init */ qor_mng_module_init,
    /* uninit */ nullptr,
    /* console */ nullptr,
    /* handle_message */ qor_mng_module_handle_message,
};

void mng_module_close(qor_context_t *context)
{
    qor_mng_module_t *mng = manager_of(context);
    if (!mng) {
        return;
    }
    const auto take_down = [](list_head *link) {
        list_del(link);
        core_context_close(context_of(link));
    };
    util_list_each(mng->uninit_ctx_head, take_down);
    util_list_each(mng->ctx_head, take_down);
    util_list_each(mng->lost_head, [](list_head *link) {
        list_del(link);
        core_context_free(qor_core_context_type(context_of(link)));
    });
    pthread_mutex_destroy(&mng->mutex);
    free(mng);
}

int32_t qor_mng_module_handle_request_message(qor_context_t *, qor_context_msg_t *msg)
{
    switch (msg->topic) {
    case QOR_SYS_MNG_MODULE_REGISTER:
    case QOR_SYS_MNG_CONTEXT_REGISTER:
        /* Deliberate: accepted and ignored. Test: MngModule.RegisterRequestsAreIgnored. */
        return 0;
    default:
        QOR_WRN("not support type.");
        return -1;
    }
}
