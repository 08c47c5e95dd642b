/* SPDX-License-Identifier: Apache-2.0 */
/* What typed.cpp does, in C: as careful with types and sizes, and as strict.
 *   usage: twin calls|publications|tasks NUMBER */
#include <stdlib.h>
#include <string.h>

#include "qor.h"

enum { TOPIC_TWICE, TOPIC_STEP, TOPIC_COUNT };

static qor_bus_t *bus;
static qor_context_t *client;
static long left;
static const char *what;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t publish(qor_context_t *self)
{
    int64_t number = left;
    return qor_context_req(self, TOPIC_STEP, &number, sizeof(number));
}

static int32_t twice(const qor_context_msg_t *msg)
{
    int64_t number;
    if (msg->request.size != sizeof(number) || msg->response.size != sizeof(number)) {
        return -1;
    }
    memcpy(&number, msg->request.buf, sizeof(number));
    number *= 2;
    memcpy(msg->response.buf, &number, sizeof(number));
    return 0;
}

static int32_t step(qor_context_t *self, const qor_context_msg_t *msg)
{
    int64_t number;
    if (msg->request.size != sizeof(number) || msg->response.size != 0) {
        return -1;
    }
    memcpy(&number, msg->request.buf, sizeof(number));
    if (number != left || --left == 0) {
        return qor_bus_quit(bus);
    }
    return publish(self) < 0 ? -1 : 0;
}

static int32_t server_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        return 0;
    }
    switch (msg->topic) {
    case TOPIC_TWICE:
        return twice(msg);
    case TOPIC_STEP:
        return step(self, msg);
    default:
        return -1;
    }
}

static int32_t client_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    return 0;
}

static void *call_all(void *arg)
{
    for (; left > 0; left--) {
        int64_t number = left, answer = 0;
        if (qor_context_x_req_ret(client, TOPIC_TWICE, &number, sizeof(number), &answer,
                                  sizeof(answer)) < 0 ||
            answer != 2 * number) {
            break;
        }
    }
    qor_bus_quit(bus);
    return arg;
}

static void *run_next(void *arg)
{
    if (--left == 0 || qor_context_x_run(client, run_next, NULL) < 0) {
        qor_bus_quit(bus);
    }
    return arg;
}

static void server_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_TWICE, NULL);
    qor_context_subscribe(self, TOPIC_STEP, NULL);
}

static int32_t no_init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    return 0;
}

static int32_t client_init(qor_context_t *self, void *arg)
{
    (void)arg;
    client = self;
    if (strcmp(what, "publications") == 0) {
        return publish(self);
    }
    return qor_context_x_run(self, strcmp(what, "calls") == 0 ? call_all : run_next, NULL);
}

static qor_context_module_t server_module = {
    .name = "server",
    .pure = 1,
    .reg = server_reg,
    .unreg = nothing,
    .init = no_init,
    .uninit = nothing,
    .handle_message = server_handle,
};

static qor_context_module_t client_module = {
    .name = "client",
    .pure = 1,
    .reg = nothing,
    .unreg = nothing,
    .init = client_init,
    .uninit = nothing,
    .handle_message = client_handle,
};

static int make_strict(const char *name)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = 1;
    return qor_bus_contract_set(bus, name, &contract) == 0;
}

int main(int argc, char **argv)
{
    qor_context_module_t *modules[] = {&server_module, &client_module, NULL};
    what = argc == 3 ? argv[1] : "";
    left = argc == 3 ? atol(argv[2]) : 0;
    bus = left > 0 ? qor_bus_create(modules, TOPIC_COUNT) : NULL;
    if (!bus || !make_strict("server") || !make_strict("client")) {
        return 2;
    }
    qor_bus_thread_num_set(bus, 1);
    const int32_t looped = qor_bus_loop(bus);
    qor_bus_close(bus);
    return looped == 0 && left == 0 ? 0 : 1;
}
