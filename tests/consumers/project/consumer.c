/* SPDX-License-Identifier: Apache-2.0 */
/* The least application: one module, whose timer ends the bus. Exits with 0 when it has run. */
#include "qor.h"

static int32_t finished;

static void *finish(void *bus)
{
    finished = 1;
    qor_bus_quit((qor_bus_t *)bus);
    return NULL;
}

static void nothing(qor_context_t *context)
{
    (void)context;
}

static int32_t init(qor_context_t *context, void *bus)
{
    return qor_context_timer(context, finish, bus, 10) < 0 ? -1 : 0;
}

static int32_t handle(qor_context_t *context, qor_context_msg_t *msg)
{
    (void)context;
    (void)msg;
    return 0;
}

static qor_context_module_t module = {
    "consumer", 0, 1, 1, 0, 0, NULL, nothing, nothing, init, nothing, NULL, handle,
};

int main(void)
{
    qor_context_module_t *modules[] = {&module, NULL};
    qor_bus_t *bus = qor_bus_create(modules, 1);
    if (bus == NULL) {
        return 1;
    }
    module.arg = bus;
    qor_bus_loop(bus);
    qor_bus_close(bus);
    return finished ? 0 : 1;
}
