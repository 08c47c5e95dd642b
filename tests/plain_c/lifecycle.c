/* SPDX-License-Identifier: Apache-2.0 */
/* The user context and its lifecycle, without a bus. */
#include "check.h"
#include "qor.h"

static const char *called = "";
static atomic_int consoles;

static void unreg(qor_context_t *context)
{
    (void)context;
    called = "unreg";
}

static int32_t init(qor_context_t *context, void *arg)
{
    (void)context;
    called = arg;
    return 0;
}

static void uninit(qor_context_t *context)
{
    (void)context;
    called = "uninit";
}

static int32_t console(qor_context_t *context)
{
    (void)context;
    atomic_fetch_add(&consoles, 1);
    return 0;
}

static int32_t handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    (void)context;
    return msg->session;
}

static qor_context_module_t module = {
    /* name */ "alone",
    /* id */ 0,
    /* pure */ 1,
    /* refcount */ 1,
    /* priority */ 1,
    /* stack_size */ 0,
    /* arg */ "argument",
    /* reg */ unreg,
    /* unreg */ unreg,
    /* init */ init,
    /* uninit */ uninit,
    /* console */ console,
    /* handle_message */ handle_message,
};

static void check_changes(qor_core_context_t *core)
{
    check("a context begins in INIT", core->lifecycle == QOR_USER_CONTEXT_LIFECYCLE_INIT);
    check("qor_core_context_lifecycle_start", qor_core_context_lifecycle_start(core) == 0);
    check("a started one does not start", qor_core_context_lifecycle_start(core) == -1);
    check("qor_core_context_lifecycle_resume", qor_core_context_lifecycle_resume(core) == 0);
    check("it has been entered", core->lifecycle == QOR_USER_CONTEXT_LIFECYCLE_RESUME);
    check("qor_core_context_lifecycle_pause", qor_core_context_lifecycle_pause(core) == 0);
    check("leaving does not pause", core->lifecycle == QOR_USER_CONTEXT_LIFECYCLE_RESUME);
    check("there is no way back",
          qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_START) == -1);
    check("qor_core_context_lifecycle_change",
          qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_PAUSE) == 0);
    check("qor_core_context_lifecycle_stop", qor_core_context_lifecycle_stop(core) == 0);
    check("a stopped one is not entered", qor_core_context_lifecycle_resume(core) == -1);
}

/* The module's callbacks, through both kinds of context. */
static void check_callbacks(qor_context_t *context)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 6, 0, NULL, 0);
    qor_context_init_task(context);
    check("qor_context_init_task calls init", strcmp(called, "argument") == 0);
    check("and starts the console", reached(&consoles, 1));
    check("a message reaches the module", qor_context_handle_message(context, &msg) == 6);
    qor_context_unregister(context);
    check("unregister reaches the module", strcmp(called, "unreg") == 0);
}

void check_lifecycle(void)
{
    qor_context_t *context = qor_core_context_class.create(&module);
    check("a user context is made", context && context->cls == &qor_core_context_class);
    qor_core_context_t *core = qor_core_context_type(context);
    qor_context_t *inner = core->context;
    check("with the module's context inside", inner->cls == &qor_impl_context_class);
    check_changes(core);
    qor_context_uninit(context);
    check("uninit reaches the module", strcmp(called, "uninit") == 0);
    check("and ends in DESTROY", core->lifecycle == QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_context_destroy(context);
    check_callbacks(inner); /* it has outlived its wrapper */
    qor_context_stop(inner);
    qor_context_destroy(inner);
}
