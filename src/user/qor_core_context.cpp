/* SPDX-License-Identifier: Apache-2.0 */
/* User context: the table that leads the module's calls to the wrapper, and the operations of the
 * class. Lifecycle and private queue have sources of their own. */
#include "qor_core_context.h"

#include "contract.hpp"
#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_core.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_recycle.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "qor_util.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context";
constexpr uint32_t queue_limit = 50;

struct user_block {
    qor_core_context_t core;
    qor_core_context_private priv;
};

qor_context_t *wrapper_of(qor_context_t *inner)
{
    return static_cast<qor_context_t *>(qor_context_pub_data_get(inner));
}

int32_t qor_core_context_session(qor_context_t *inner, int32_t *session)
{
    return qor_context_session(wrapper_of(inner), session);
}

int32_t qor_core_context_subscribe(qor_context_t *inner, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr)
{
    return qor_context_subscribe(wrapper_of(inner), topic, attr);
}

int32_t qor_core_context_unsubscribe(qor_context_t *inner, qor_context_topic_t topic)
{
    return qor_context_unsubscribe(wrapper_of(inner), topic);
}

int32_t qor_core_context_listen(qor_context_t *inner, qor_context_topic_t topic,
                                qor_context_topic_attr_t *attr)
{
    return qor_context_listen(wrapper_of(inner), topic, attr);
}

int32_t qor_core_context_unlisten(qor_context_t *inner, qor_context_topic_t topic)
{
    /* Deliberate: this shortcut removes the subscription. Test: CoreContext.UnlistenUnsubscribes.
     */
    return qor_context_unlisten(wrapper_of(inner), topic);
}

int32_t qor_core_context_filter(qor_context_t *inner, qor_context_topic_t topic,
                                qor_context_topic_attr_t *attr)
{
    return qor_context_filter(wrapper_of(inner), topic, attr);
}

int32_t qor_core_context_unfilter(qor_context_t *inner, qor_context_topic_t topic)
{
    return qor_context_unfilter(wrapper_of(inner), topic);
}

int32_t qor_core_context_publish(qor_context_t *inner, qor_context_msg_t *msg)
{
    return qor_context_handler_publish(wrapper_of(inner), msg);
}

int32_t qor_core_context_publishx(qor_context_t *inner, qor_context_msg_t *msg)
{
    return qor_context_handler_publishx(wrapper_of(inner), msg);
}

int32_t qor_core_context_post(qor_context_t *inner, qor_context_task_t *task)
{
    return qor_context_handle_task(wrapper_of(inner), task);
}

int32_t qor_core_context_postx(qor_context_t *inner, qor_context_task_t *task)
{
    return qor_core_context_post(inner, task);
}

/* Cancels what the private queue has, or else what is beyond it. */
int32_t user_cancel(qor_context_t *inner, int32_t session,
                    int32_t (*beyond)(qor_context_t *wrapper, int32_t session))
{
    qor_context_t *wrapper = wrapper_of(inner);
    const bool own = user_task_cancel(qor_core_context_type(wrapper), session) == 0;
    const int32_t cancelled = own ? 0 : beyond(wrapper, session);
    trace_tell(QOR_TRACE_TASKS, wrapper, trace_what(trace_cancel), session, cancelled);
    return cancelled;
}

int32_t qor_core_context_cancel(qor_context_t *inner, int32_t session)
{
    return user_cancel(inner, session, qor_context_handler_cancel);
}

int32_t qor_core_context_cancelx(qor_context_t *inner, int32_t session)
{
    return user_cancel(inner, session, qor_context_handler_cancelx);
}

qor_context_handler_t qor_core_context_handler = {
    /*  1 session */ qor_core_context_session,
    /*  2 subscribe */ qor_core_context_subscribe,
    /*  3 unsubscribe */ qor_core_context_unsubscribe,
    /*  4 listen */ qor_core_context_listen,
    /*  5 unlisten */ qor_core_context_unlisten,
    /*  6 filter */ qor_core_context_filter,
    /*  7 unfilter */ qor_core_context_unfilter,
    /*  8 publish */ qor_core_context_publish,
    /*  9 publishx */ qor_core_context_publishx,
    /* Deliberate: modules have no system calls, those of a user context are the wrapper's.
     * Test: CoreContext.ModulesHaveNoSystemCalls. */
    /* 10 syscall */ nullptr,
    /* 11 syscallx */ nullptr,
    /* 12 post */ qor_core_context_post,
    /* 13 postx */ qor_core_context_postx,
    /* 14 cancel */ qor_core_context_cancel,
    /* 15 cancelx */ qor_core_context_cancelx,
};

int32_t qor_core_context_constructor(qor_core_context_t *core, qor_context_module_t *module)
{
    qor_context_t *base = &core->base;
    qor_context_constructor(base, &qor_core_context_class, module);
    qor_context_core_t *registry = qor_context_core_instance_get();
    core->context = registry ? qor_context_core_create_context(registry, module) : nullptr;
    if (!core->context) {
        qor_context_destructor(base);
        QOR_ERR("create context failed.");
        return -1;
    }
    core->que = qor_time_que_create(queue_limit, recycle_of(qor_context_task_uninit));
    if (!core->que) {
        qor_context_destroy(core->context);
        qor_context_destructor(base);
        return -1;
    }
    return 0;
}

qor_context_t *qor_core_context_create(qor_context_module_t *module)
{
    QOR_CHECK(module, nullptr);
    user_block *block = util_zalloc<user_block>();
    if (!block || hal_mutex_cond_init(block->core.mutex, block->core.cond) < 0) {
        free(block);
        QOR_ERR_SPACED("malloc for \"qor_core_context_t\" failed.");
        return nullptr;
    }
    qor_core_context_t *core = &block->core;
    if (qor_core_context_constructor(core, module) < 0) {
        QOR_ERR_SPACED("\"qor_core_context_constructor\" called failed.");
        hal_mutex_cond_destroy(core->mutex, core->cond);
        free(block);
        return nullptr;
    }
    core->priv = &block->priv;
    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_INIT;
    core->refcount_max = module->refcount == 0 ? 1 : static_cast<uint32_t>(module->refcount);
    qor_context_handler_set(core->context, &qor_core_context_handler);
    qor_context_pub_data_set(core->context, &core->base, nullptr);
    return &core->base;
}

/* Frees the wrapper alone. */
void user_context_release(qor_core_context_t *core)
{
    qor_time_que_destroy(core->que);
    if (core->priv->loop) {
        qor_que_node_destroy(core->priv->loop, nullptr);
    }
    hal_mutex_cond_destroy(core->mutex, core->cond);
    qor_context_destructor(&core->base);
    free(core); /* first field of its block */
}

void qor_core_context_destroy(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    if (hal_load(core->lifecycle) != QOR_USER_CONTEXT_LIFECYCLE_DESTROY) {
        QOR_ERR("context is not ready to destroy.");
        return;
    }
    user_tasks_discard(core);
    qor_bus_t *bus = sched_delegate_bus(context);
    if (!bus) {
        /* Deliberate: the inner context stays; its maker may still name it.
         * Test: CoreContext.DestroyLeavesTheInnerContext. */
        user_context_release(core);
        return;
    }
    /* Relays, responses, timers and walks of others may still name it: it stays until the bus is
     * closed, with a queue that takes nothing and a lifecycle that lets nobody in. */
    hal_scoped_lock lock(bus->priv->mutex);
    list_add(&core->priv->failed, &bus->priv->failed);
}

void qor_core_context_register(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    if (contract *promise = sched_delegate_contract(context)) {
        promise->calls->bind(core, *promise);
    }
    trace_span inside(0, context, trace_what(trace_start, trace_registers), 0, -1);
    qor_context_register(core->context);
}

void qor_core_context_unregister(qor_context_t *context)
{
    qor_context_unregister(qor_core_context_type(context)->context);
}

int32_t qor_core_context_start(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    const int32_t ret = qor_context_start(core->context);
    qor_core_context_lifecycle_start(core);
    if (core->priv->promise) {
        core->priv->promise->calls->open(core);
    }
    return ret;
}

void qor_core_context_stop(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_context_stop(core->context);
    qor_core_context_lifecycle_stop(core);
}

int32_t qor_core_context_resume(qor_context_t *context)
{
    return qor_core_context_lifecycle_resume(qor_core_context_type(context));
}

int32_t qor_core_context_pause(qor_context_t *context)
{
    return qor_core_context_lifecycle_pause(qor_core_context_type(context));
}

/* The module's own. */
int32_t user_init(qor_core_context_t *core)
{
    trace_span inside(QOR_TRACE_CHANGES, &core->base, trace_what(trace_start, trace_inits), 0, -1);
    const int32_t ret = qor_context_init(core->context);
    inside.result(ret);
    return ret;
}

int32_t qor_core_context_init(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    const int32_t ret = user_init(core);
    if (ret < 0) {
        user_init_failed(core);
        return ret;
    }
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    return ret;
}

void qor_core_context_uninit(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    qor_context_uninit(core->context);
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

int32_t qor_core_context_handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    return qor_context_handle_message(qor_core_context_type(context)->context, msg);
}

} // namespace

qor_context_cls_t qor_core_context_class = {
    /* name */ "",
    /* id */ 0,
    /* node */ {nullptr, nullptr},
    /*  1 create */ qor_core_context_create,
    /*  2 destroy */ qor_core_context_destroy,
    /*  3 reg */ qor_core_context_register,
    /*  4 unreg */ qor_core_context_unregister,
    /*  5 start */ qor_core_context_start,
    /*  6 stop */ qor_core_context_stop,
    /*  7 resume */ qor_core_context_resume,
    /*  8 pause */ qor_core_context_pause,
    /*  9 init */ qor_core_context_init,
    /* 10 uninit */ qor_core_context_uninit,
    /* 11 handle_message */ qor_core_context_handle_message,
    /* 12 handle_task */ qor_core_context_handle_task,
    /* 13 loop */ qor_core_context_loop,
};

void user_init_failed(qor_core_context_t *core)
{
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    QOR_LINE("err", "qor_core_context_init", "context init failed.");
}

void user_context_fail(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    user_tasks_close(core);
    qor_context_unregister(context);
    user_tasks_refuse(core);
    user_tasks_await(core);
    qor_context_uninit(context);
}

void user_context_close(qor_context_t *context)
{
    qor_core_context_t *core = qor_core_context_type(context);
    if (hal_load(core->lifecycle) < QOR_USER_CONTEXT_LIFECYCLE_PAUSE) {
        qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
    }
    qor_context_unregister(context);
    /* The inner context alone is stopped, which joins the console whatever the lifecycle says, and
     * the wrapper does not wait for PAUSE again: the console of a module that goes down later may
     * have entered it since with a request. */
    qor_context_stop(core->context);
    if (hal_load(core->lifecycle) < QOR_USER_CONTEXT_LIFECYCLE_STOP) {
        qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    }
    qor_context_uninit(context);
    qor_context_destroy(context);
}

void user_context_free(qor_core_context_t *core)
{
    qor_context_destroy(core->context);
    user_context_release(core);
}

void user_contexts_free(qor_bus_t *bus)
{
    util_list_each(bus->priv->failed, [](list_head *link) {
        auto *block = util_container<user_block, offsetof(user_block, priv.failed)>(link);
        list_del(link);
        user_context_free(&block->core);
    });
}

qor_context_t *user_context_attached(qor_context_t *context)
{
    return context->handler == &qor_core_context_handler ? wrapper_of(context) : context;
}

qor_core_context_t *qor_core_context_type(qor_context_t *context)
{
    return reinterpret_cast<qor_core_context_t *>(context);
}
