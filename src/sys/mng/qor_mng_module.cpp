/* SPDX-License-Identifier: Apache-2.0 */
/* Module manager: one user context for each module, brought up in two phases. */
#include "qor_mng_module.h"

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_bus_up_priv.hpp"
#include "qor_context.h"
#include "qor_context_core_priv.hpp"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_impl_context_priv.hpp"
#include "qor_mng_module_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "qor_util.hpp"
#include "que_front.hpp"
#include "thread_record.hpp"

namespace {

constexpr char file_tag[] = "qor_mng_module";
constexpr char init_task_name[] = "qor_mng_module_init_task"; /* whose lines these steps print */

/* Followed by how far the start of each module has come. */
struct alignas(module_start) qor_mng_module_t {
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

/* How far the start of its module has come; NULL on a manager without a bus. */
module_start *start_of(qor_context_t *context)
{
    return qor_core_context_type(context)->priv->start;
}

/* The caller holds the mutex. */
void unlink_locked(qor_context_t *context)
{
    if (context->node.prev) {
        list_del(&context->node);
    }
}

void qor_mng_module_init_module_by_pure(qor_mng_module_t *mng, int32_t pure);

/* A context that has come up joins those that have started. Returns the phase that is to begin now,
 * or -1. Decided under the mutex, so that of several that finish at once exactly one begins it. */
int32_t manager_started(qor_mng_module_t *mng, qor_context_t *context)
{
    hal_scoped_lock lock(mng->mutex);
    unlink_locked(context);
    list_add(&context->node, &mng->ctx_head);
    const bool next = list_empty(&mng->uninit_ctx_head) && mng->pure > 0;
    const bool mute = impl_console_missing(qor_core_context_type(context)->context);
    bus_start_over(sched_delegate_bus(mng->ctx), start_of(context),
                   mute ? QOR_START_NO_CONSOLE : QOR_START_UP, next);
    return next ? --mng->pure : -1;
}

/* Takes down a context whose init has failed. */
void manager_failed(qor_mng_module_t *mng, qor_context_t *context,
                    int32_t state = QOR_START_INIT_FAILED)
{
    /* First, because the callbacks that follow may end the thread. */
    bus_start_over(sched_delegate_bus(mng->ctx), start_of(context), state);
    QOR_LINE("inf", init_task_name,
             "============ %s context(%p) init failed ===========", name_of(context),
             static_cast<void *>(context));
    user_context_fail(context);
    {
        hal_scoped_lock lock(mng->mutex);
        unlink_locked(context);
    }
    qor_context_destroy(context);
    /* Deliberate: the phase is not looked at. When the context that finishes last fails, the next
     * phase never starts. Test: MngModule.NoSecondPhaseWhenTheLastOneFails. */
}

/* An init has ended its thread, and so failed. */
void manager_init_left(void *arg)
{
    qor_context_t *context = static_cast<qor_context_t *>(arg);
    qor_core_context_t *core = qor_core_context_type(context);
    user_init_failed(core);
    manager_failed(manager_of(core->priv->init_task.context), context);
}

int32_t manager_context_init(qor_context_t *context)
{
    thread_scope inside(manager_init_left, context);
    return qor_context_init(context);
}

/* An init that is claimed. */
void *manager_init_run(qor_context_t *manager, int32_t, void *arg)
{
    qor_mng_module_t *mng = manager_of(manager);
    qor_context_t *context = static_cast<qor_context_t *>(arg);
    QOR_LINE("inf", init_task_name,
             "============ %s context(%p) init start ===========", name_of(context), arg);
    bus_start_init(sched_delegate_bus(mng->ctx), start_of(context));
    if (manager_context_init(context) < 0) {
        manager_failed(mng, context);
        return nullptr;
    }
    QOR_LINE("inf", init_task_name,
             "============ %s context(%p) init success ===========", name_of(context), arg);
    qor_context_start(context);
    const int32_t phase = manager_started(mng, context);
    if (phase >= 0) {
        qor_mng_module_init_module_by_pure(mng, phase);
    }
    return nullptr;
}

/* The task that a worker comes to; a thread that waited for the start may have been first. */
void *qor_mng_module_init_task(qor_context_t *manager, int32_t session, void *arg)
{
    return user_init_claim(qor_core_context_type(static_cast<qor_context_t *>(arg)))
               ? manager_init_run(manager, session, arg)
               : nullptr;
}

int32_t manager_attach(qor_mng_module_t *mng, qor_context_t *context)
{
    qor_sys_bus_register_request_t request = {context};
    return qor_context_x_req(mng->ctx, QOR_SYS_BUS_REGISTER, &request, sizeof(request));
}

/* Creates, attaches and registers one module's context. The lines carry the phase's name. */
void manager_create(qor_mng_module_t *mng, size_t place, const char *func)
{
    qor_context_module_t *module = mng->modules[place];
    qor_bus_t *bus = sched_delegate_bus(mng->ctx);
    module_start *start = bus ? reinterpret_cast<module_start *>(mng + 1) + place : nullptr;
    qor_context_t *context = qor_core_context_class.create(module);
    if (!context) {
        QOR_LINE("err", func, "create context failed. module name = %s", module->name);
        bus_start_over(bus, start,
                       context_core_class(module->id) ? QOR_START_NO_MEMORY : QOR_START_NO_CLASS);
        return;
    }
    qor_core_context_type(context)->priv->start = start;
    QOR_LINE("inf", func, "create %s's context success. context = %p", module->name,
             static_cast<void *>(context));
    const bool attached = manager_attach(mng, context) >= 0;
    if (!attached) {
        QOR_LINE("err", func, "context register to bus failed. module name = %s", module->name);
        /* Deliberate: it has not got beyond INIT, so it refuses to be destroyed and stays until the
         * bus is closed. Test: MngModuleFaults.AContextThatCannotBeAttachedStays. */
        qor_context_destroy(context);
        bus_start_over(bus, start, QOR_START_NO_MEMORY);
    }
    {
        hal_scoped_lock lock(mng->mutex);
        list_add(&context->node, attached ? &mng->uninit_ctx_head : &mng->lost_head);
    }
    if (attached) {
        qor_context_register(context);
    }
}

/* Offers an init and queues its task: 0, or -1 without memory. */
int32_t manager_init_queue(qor_mng_module_t *mng, qor_context_t *context)
{
    qor_bus_t *bus = sched_delegate_bus(mng->ctx);
    if (!bus) {
        qor_context_runx_name(mng->ctx, name_of(context), qor_mng_module_init_task, context);
        return 0;
    }
    qor_que_node_t *node = bus_node();
    if (!node) {
        return -1;
    }
    qor_context_task_t *task = bus_task_of(node);
    qor_context_taskx_init(task, mng->ctx, name_of(context), qor_bus_session(bus), manager_init_run,
                           context);
    user_init_offer(qor_core_context_type(context), task);
    task->fun.runx = qor_mng_module_init_task;
    que_front_of(node)->flags = que_own;
    if (bus_node_post(bus, node) < 0) {
        sched_delegate_post_refused(mng->ctx, task);
        qor_que_node_destroy(node, nullptr);
    }
    return 0;
}

/* Queues the init tasks of a phase, newest context first. One without memory has failed. */
void manager_inits_queue(qor_mng_module_t *mng)
{
    list_head failed = {&failed, &failed};
    {
        hal_scoped_lock lock(mng->mutex);
        util_list_each(mng->uninit_ctx_head, [mng, &failed](list_head *link) {
            if (manager_init_queue(mng, context_of(link)) < 0) {
                list_del(link);
                list_add_tail(link, &failed);
            }
        });
    }
    util_list_each(failed, [mng](list_head *link) {
        list_del(link);
        user_init_failed(qor_core_context_type(context_of(link)));
        manager_failed(mng, context_of(link), QOR_START_NO_MEMORY);
    });
}

/* A reg has ended the thread that was bringing a phase up. */
void manager_left(void *mng)
{
    bus_start_break(sched_delegate_bus(static_cast<qor_mng_module_t *>(mng)->ctx));
}

/* Creates the contexts of a phase. The lines carry its name. */
void manager_create_all(qor_mng_module_t *mng, int32_t pure, const char *func)
{
    thread_scope inside(manager_left, mng);
    for (size_t place = 0; mng->modules[place]; place++) {
        if ((mng->modules[place]->pure != 0) == (pure != 0)) {
            manager_create(mng, place, func);
        }
    }
}

void qor_mng_module_init_module_by_pure(qor_mng_module_t *mng, int32_t pure)
{
    manager_create_all(mng, pure, __func__);
    manager_inits_queue(mng);
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
    qor_context_module_t **modules = static_cast<qor_context_module_t **>(arg);
    qor_bus_t *bus = sched_delegate_bus(context);
    const size_t count = bus ? bus_module_count(modules) : 0;
    qor_mng_module_t *mng = util_zalloc<qor_mng_module_t>(count * sizeof(module_start));
    if (!mng || pthread_mutex_init(&mng->mutex, nullptr) != 0) {
        free(mng);
        QOR_ERR("malloc \"qor_mng_module_t\" failed.");
        return -1;
    }
    INIT_LIST_HEAD(&mng->ctx_head);
    INIT_LIST_HEAD(&mng->uninit_ctx_head);
    INIT_LIST_HEAD(&mng->lost_head);
    mng->pure = 1;
    mng->modules = modules;
    mng->ctx = context;
    qor_context_priv_data_set(context, mng);
    bus_start_modules(bus, reinterpret_cast<module_start *>(mng + 1));
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
        user_context_close(context_of(link));
    };
    util_list_each(mng->uninit_ctx_head, take_down);
    util_list_each(mng->ctx_head, take_down);
    util_list_each(mng->lost_head, [](list_head *link) {
        list_del(link);
        user_context_free(qor_core_context_type(context_of(link)));
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
