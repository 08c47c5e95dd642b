/* SPDX-License-Identifier: Apache-2.0 */
/* The context with its class, and the registry of classes. */
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "qor_context.h"
#include "qor_context_core.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_impl_context.h"

static const char *called = "";
static int recycled;

static void recycle(void *data)
{
    (void)data;
    recycled++;
}

static qor_context_t *create(qor_context_module_t *module);

static void destroy(qor_context_t *context)
{
    qor_context_destructor(context);
    free(context);
    called = "destroy";
}

static void reg(qor_context_t *context)
{
    (void)context;
    called = "reg";
}

static void unreg(qor_context_t *context)
{
    (void)context;
    called = "unreg";
}

static int32_t start(qor_context_t *context)
{
    (void)context;
    return 1;
}

static void stop(qor_context_t *context)
{
    (void)context;
    called = "stop";
}

static int32_t resume(qor_context_t *context)
{
    (void)context;
    return 2;
}

static int32_t leave(qor_context_t *context)
{
    (void)context;
    return 3;
}

static int32_t init(qor_context_t *context)
{
    (void)context;
    return 4;
}

static void uninit(qor_context_t *context)
{
    (void)context;
    called = "uninit";
}

static int32_t handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    (void)context;
    return msg->session;
}

static int32_t handle_task(qor_context_t *context, qor_context_task_t *task)
{
    (void)context;
    return task->session;
}

static int32_t loop(qor_context_t *context)
{
    (void)context;
    return 5;
}

static qor_context_cls_t cls = {
    /* name */ "own class",
    /* id */ 77,
    /* node */ {NULL, NULL},
    /* create */ create,
    /* destroy */ destroy,
    /* reg */ reg,
    /* unreg */ unreg,
    /* start */ start,
    /* stop */ stop,
    /* resume */ resume,
    /* pause */ leave,
    /* init */ init,
    /* uninit */ uninit,
    /* handle_message */ handle_message,
    /* handle_task */ handle_task,
    /* loop */ loop,
};

static qor_context_module_t module = {"own module", 77,   0,    0,    0,    0,   NULL,
                                      NULL,         NULL, NULL, NULL, NULL, NULL};

static qor_context_t *create(qor_context_module_t *of)
{
    qor_context_t *context = malloc(sizeof(*context));
    return context ? qor_context_constructor(context, &cls, of) : NULL;
}

static int was_called(const char *slot)
{
    return strcmp(called, slot) == 0;
}

static void check_operations(qor_context_t *context)
{
    qor_context_msg_t msg;
    qor_context_task_t task;

    qor_context_msg_fill(&msg, 8, 0, NULL, 0);
    memset(&task, 0, sizeof(task));
    task.session = 9;
    check("qor_context_init", qor_context_init(context) == 4);
    check("qor_context_start", qor_context_start(context) == 1);
    check("qor_context_resume", qor_context_resume(context) == 2);
    check("qor_context_pause", qor_context_pause(context) == 3);
    check("qor_context_handle_message", qor_context_handle_message(context, &msg) == 8);
    check("qor_context_handle_task", qor_context_handle_task(context, &task) == 9);
    check("qor_context_loop", qor_context_loop(context) == 5);
    qor_context_register(context);
    check("qor_context_register", was_called("reg"));
    qor_context_unregister(context);
    check("qor_context_unregister", was_called("unreg"));
    qor_context_stop(context);
    check("qor_context_stop", was_called("stop"));
    qor_context_uninit(context);
    check("qor_context_uninit", was_called("uninit"));
}

static void check_fields(qor_context_t *context)
{
    static qor_context_handler_t handler;
    int data;

    check("qor_context_cls_name_get", strcmp(qor_context_cls_name_get(context), cls.name) == 0);
    check("qor_context_module_name_get",
          strcmp(qor_context_module_name_get(context), module.name) == 0);
    check("a context begins without number", qor_context_id_get(context) == 0);
    check("qor_context_id_set", qor_context_id_set(context, 3) == 0);
    check("qor_context_id_get", qor_context_id_get(context) == 3);
    check("a number is set once", qor_context_id_set(context, 4) == -1);
    qor_context_handler_set(context, &handler);
    check("qor_context_handler_get", qor_context_handler_get(context) == &handler);
    qor_context_resource_set(context, &data);
    check("qor_context_resource_get", qor_context_resource_get(context) == &data);
    qor_context_priv_data_set(context, &data);
    check("qor_context_priv_data_get", qor_context_priv_data_get(context) == &data);
    qor_context_pub_data_set(context, &data, recycle);
    check("qor_context_pub_data_get", qor_context_pub_data_get(context) == &data);
    qor_context_uninit(context);
    check("uninit releases the public data", recycled == 1);
}

void check_context(void)
{
    qor_context_t *context = qor_context_create(&cls, &module);
    check("qor_context_create", context && context->cls == &cls);
    check_operations(context);
    check_fields(context);
    qor_context_destroy(context);
    check("qor_context_destroy", was_called("destroy"));
    check("NULL is refused", qor_context_init(NULL) == -1);
}

static int serves(qor_context_core_t *registry)
{
    qor_context_core_class_register(registry, &cls);
    qor_context_t *context = qor_context_core_create_context(registry, &module);
    const int served = context && context->cls == &cls;
    if (context) {
        qor_context_destroy(context);
    }
    qor_context_core_class_unregister(registry, &cls);
    return served && !qor_context_core_create_context(registry, &module);
}

/* A class has one link, so the class of system contexts is taken out of each registry before the
 * next is made; the one that the rest of the program uses comes last. */
void check_registry(void)
{
    static qor_context_core_t record;

    qor_context_core_t *registry = qor_context_core_create();
    check("qor_context_core_create", registry && registry->initialized == 1);
    check("a registry serves a class while it has it", serves(registry));
    qor_context_core_class_unregister(registry, &qor_impl_context_class);
    qor_context_core_destroy(registry);

    check("qor_context_core_constructor", qor_context_core_constructor(&record) == &record);
    check("and so does a constructed one", serves(&record));
    qor_context_core_class_unregister(&record, &qor_impl_context_class);

    check("the process has no registry yet", default_core.initialized == 0);
    check("qor_context_core_instance_get", qor_context_core_instance_get() == &default_core);
    check("and now it has", default_core.initialized == 1 && serves(&default_core));
}
