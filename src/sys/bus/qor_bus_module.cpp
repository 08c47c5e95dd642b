/* SPDX-License-Identifier: Apache-2.0 */
/* Bus registration module: its private data is the bus. */
#include "qor_bus_module.h"

#include <string.h>

#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_diag.hpp"
#include "qor_sched_delegate.h"

namespace {

constexpr char file_tag[] = "qor_bus_module";

void qor_bus_module_subscribe(qor_context_t *context)
{
    qor_context_subscribe(context, QOR_SYS_BUS_REGISTER, nullptr);
}

void qor_bus_module_unsubscribe(qor_context_t *context)
{
    qor_context_unsubscribe(context, QOR_SYS_BUS_REGISTER);
}

int32_t qor_bus_module_init(qor_context_t *context, void *arg)
{
    qor_context_priv_data_set(context, arg);
    return 0;
}

int32_t qor_bus_module_handle_message(qor_context_t *context, qor_context_msg_t *msg)
{
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        QOR_WRN("not support type.");
        return -1;
    }
    return qor_bus_module_handle_request_message(context, msg);
}

} // namespace

qor_context_module_t qor_bus_module = {
    /* name */ "qor_bus_module",
    /* id */ 0,
    /* pure */ 0,
    /* refcount */ -1,
    /* priority */ 0,
    /* stack_size */ 0,
    /* arg */ nullptr,
    /* reg */ qor_bus_module_subscribe,
    /* unreg */ qor_bus_module_unsubscribe,
    /* init */ qor_bus_module_init,
    /* uninit */ nullptr,
    /* console */ nullptr,
    /* handle_message */ qor_bus_module_handle_message,
};

int32_t qor_bus_module_handle_request_message(qor_context_t *context, qor_context_msg_t *msg)
{
    if (msg->topic != QOR_SYS_BUS_REGISTER) {
        QOR_WRN("not support type.");
        return -1;
    }
    qor_bus_t *bus = static_cast<qor_bus_t *>(qor_context_priv_data_get(context));
    /* Deliberate: the request's size is not looked at; the manager sends whole records.
     * Test: BusModule.TheRequestsSizeIsNotChecked. */
    qor_sys_bus_register_request_t request;
    memcpy(&request, msg->request.buf, sizeof(request));
    /* Deliberate: a second registration makes a second delegate, which replaces the first.
     * Test: BusModule.ASecondRegistrationReplacesTheDelegate. */
    return qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, request.context) ? 0 : -1;
}
