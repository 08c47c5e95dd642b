/* SPDX-License-Identifier: Apache-2.0 */
/* Two modules that have something to do: the client asks twenty times a second, the server answers.
 * Both can be told to get stuck. */
#include "watchdog.h"

enum { ASK_MS = 50, ASKED_BEFORE = 10 };

int hangs, circles;
atomic_int ending;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static void server_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_WORK, NULL);
}

static int32_t server_init(qor_context_t *self, void *arg)
{
    (void)arg;
    return circles ? qor_context_x_req(self, TOPIC_REPORT, NULL, 0) : 0;
}

/* As a handler that waits for a device which never answers; the end of the bus saves this one. */
static void hang(void)
{
    const struct timespec pause = {.tv_nsec = 10000000};
    while (!qor_bus_quitting(bus)) {
        nanosleep(&pause, NULL);
    }
}

static int32_t server_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    static atomic_int asked; /* behind the 50th that waits, requests run beside each other */
    (void)self, (void)msg;
    if (hangs && atomic_fetch_add(&asked, 1) == ASKED_BEFORE) {
        hang();
    }
    return 0;
}

static void client_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_REPORT, NULL);
}

static void client_ask(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    (void)session, (void)arg, (void)missed;
    if (!atomic_load(&ending)) {
        qor_context_req(self, TOPIC_WORK, NULL, 0);
    }
}

static int32_t client_init(qor_context_t *self, void *arg)
{
    (void)arg;
    if (circles) {
        qor_context_x_req(self, TOPIC_WORK, NULL, 0);
    }
    return qor_context_every(self, client_ask, NULL, NULL, ASK_MS);
}

static int32_t client_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    return 0;
}

qor_context_module_t server_module = {
    .name = "server",
    .pure = 1, /* comes up in the first of two phases, as the other does */
    .reg = server_reg,
    .unreg = nothing,
    .init = server_init,
    .uninit = nothing,
    .handle_message = server_handle,
};

qor_context_module_t client_module = {
    .name = "client",
    .pure = 1,
    .reg = client_reg,
    .unreg = nothing,
    .init = client_init,
    .uninit = nothing,
    .handle_message = client_handle,
};
