/* SPDX-License-Identifier: Apache-2.0 */
/* Two modules: the asker sends a greeting when it comes up, the answerer answers it, and the answer
 * ends the program. */
#include <string.h>

#include "qor.h"

enum { TOPIC_GREETING, TOPIC_COUNT };

static qor_bus_t *bus;

static void nothing(qor_context_t *self)
{
    (void)self;
}

/* The answerer takes requests on its topic and writes into their response part. */
static void answerer_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_GREETING, NULL);
}

static int32_t answerer_init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    return 0;
}

static int32_t answerer_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    hal_printf("asked: %.5s\n", (const char *)msg->request.buf);
    memcpy(msg->response.buf, "hi", 2);
    return 0;
}

/* The asker's request has room for a response of two bytes, which comes as a message of its own. */
static int32_t asker_init(qor_context_t *self, void *greeting)
{
    return qor_context_req_ret(self, TOPIC_GREETING, greeting, 5, 2);
}

static int32_t asker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    hal_printf("answered: %.2s\n", (const char *)msg->response.buf);
    return qor_bus_quit(bus);
}

static qor_context_module_t answerer = {
    .name = "answerer",
    .pure = 1, /* comes up in the first of two phases */
    .reg = answerer_reg,
    .unreg = nothing,
    .init = answerer_init,
    .uninit = nothing,
    .handle_message = answerer_handle,
};

static qor_context_module_t asker = {
    .name = "asker",
    .pure = 1,
    .arg = "hello", /* for its init */
    .reg = nothing,
    .unreg = nothing,
    .init = asker_init,
    .uninit = nothing,
    .handle_message = asker_handle,
};

int main(void)
{
    qor_context_module_t *modules[] = {&answerer, &asker, NULL};
    bus = qor_bus_create(modules, TOPIC_COUNT);
    if (!bus) {
        return 1;
    }
    const int32_t looped = qor_bus_loop(bus); /* until qor_bus_quit() */
    qor_bus_close(bus);
    return looped == 0 ? 0 : 1;
}
