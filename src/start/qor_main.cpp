/* SPDX-License-Identifier: Apache-2.0 */
/* Start-up and its reverse: the one source that knows every kind of context and module. */
#include "qor_main.h"

#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_bus_up_priv.hpp"
#include "qor_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_impl_context.h"
#include "qor_main_priv.hpp"
#include "qor_mng_module.h"
#include "qor_mng_module_priv.hpp"
#include "qor_monitor_module.h"
#include "qor_monitor_module_priv.hpp"
#include "qor_sched_delegate.h"
#include "qor_sched_delegate_priv.hpp"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_main";

/* The order gives the ids. */
qor_context_module_t *const sys_modules[] = {&qor_bus_module, &qor_monitor_module, &qor_mng_module,
                                             nullptr};

void main_context_start(qor_bus_t *bus, qor_context_module_t *module, int32_t id)
{
    qor_context_t *context = qor_impl_context_class.create(module);
    /* Deliberate: neither result is looked at, what follows reports a NULL context itself.
     * Test: MainFaults.AMissingSystemContextIsNotNoticedAtStartUp. */
    qor_sched_delegate_create(bus, QOR_BUS_ROLE_SYS, context);
    qor_context_id_set(context, id);
    if (context) {
        list_add(&context->node, &context_head);
    }
    qor_context_register(context);
    qor_context_init_task(context);
}

/* The state goes after the console has ended, and without the module's uninit: the system modules
 * have none. */
void main_context_close(qor_context_t *context)
{
    if (context->module == &qor_mng_module) {
        mng_module_close(context);
    }
    qor_context_unregister(context);
    if (context->module == &qor_monitor_module) {
        monitor_module_quit(context);
    }
    qor_context_stop(context);
    if (context->module == &qor_monitor_module) {
        monitor_module_close(context);
    }
    list_del(&context->node);
    if (context->pub_data_recycle) {
        context->pub_data_recycle(context->pub_data);
    }
    qor_context_destroy(context);
}

/* A system context that could not be attached is the bus's that came up last. */
bool main_context_belongs(qor_context_t *context, const qor_bus_t *bus)
{
    const qor_bus_t *attached = sched_delegate_bus(context);
    return attached ? attached == bus : qor_bus_module.arg == bus;
}

} // namespace

list_head context_head = {&context_head, &context_head};
QOR_COMMON_DATA(list_head, context_head);

void main_contexts_close(qor_bus_t *bus)
{
    util_list_each(context_head, [bus](list_head *link) {
        auto *context = util_container<qor_context_t, offsetof(qor_context_t, node)>(link);
        if (main_context_belongs(context, bus)) {
            main_context_close(context);
        }
    });
    user_contexts_free(bus);
    sched_delegates_free(bus);
    if (qor_bus_module.arg == bus) {
        qor_bus_module.arg = nullptr;
        qor_mng_module.arg = nullptr;
    }
}

void qor_main(qor_bus_t *bus)
{
    /* Deliberate: the descriptors are global, so a process runs one bus at a time.
     * Test: Main.TheDescriptorsReceiveTheBusAndItsModules. */
    qor_bus_module.arg = bus;
    qor_mng_module.arg = bus->modules;
    int32_t id = 1;
    for (qor_context_module_t *const *module = sys_modules; *module; module++) {
        main_context_start(bus, *module, id++);
    }
    bus_start_up_over(bus);
}

void qor_context_init_task(qor_context_t *context)
{
    if (qor_context_init(context) < 0) {
        QOR_ERR("context init failed. name = %s", qor_context_module_name_get(context));
        return;
    }
    if (qor_context_start(context) < 0) {
        QOR_ERR("context start failed. name = %s", qor_context_module_name_get(context));
    }
}
