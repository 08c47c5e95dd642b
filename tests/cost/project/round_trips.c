/* SPDX-License-Identifier: Apache-2.0 */
/* A number of requests and their responses between two modules, with one worker: each response is
 * the next question. Or, with "calls", that many synchronous requests from the first response on.
 *   usage: round_trips NUMBER [strict|calls] */
#include <stdlib.h>
#include <string.h>

#include "qor.h"

enum { TOPIC_QUESTION, TOPIC_COUNT };

static qor_bus_t *bus;
static long left;
static int calling;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t nothing_to_do(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    return 0;
}

static void answerer_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_QUESTION, NULL);
}

static int32_t answerer_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    memcpy(msg->response.buf, msg->request.buf, sizeof(int64_t));
    return 0;
}

static int32_t ask(qor_context_t *self)
{
    int64_t question = left;
    return qor_context_req_ret(self, TOPIC_QUESTION, &question, sizeof(question), sizeof(question));
}

static int32_t asker_init(qor_context_t *self, void *arg)
{
    (void)arg;
    return ask(self) < 0 ? -1 : 0;
}

/* All that are left are asked at once. */
static int32_t call(qor_context_t *self)
{
    int64_t question, answer;
    for (; left > 0; left--) {
        question = left;
        if (qor_context_x_req_ret(self, TOPIC_QUESTION, &question, sizeof(question), &answer,
                                  sizeof(answer)) < 0) {
            break;
        }
    }
    return qor_bus_quit(bus);
}

/* An answer to another question ends the bus early, with some of the number left. */
static int32_t asker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    int64_t answer;
    if (calling) {
        return call(self);
    }
    memcpy(&answer, msg->response.buf, sizeof(answer));
    if (answer != left || --left == 0 || ask(self) < 0) {
        return qor_bus_quit(bus);
    }
    return 0;
}

static qor_context_module_t answerer = {
    .name = "answerer",
    .pure = 1,
    .reg = answerer_reg,
    .unreg = nothing,
    .init = nothing_to_do,
    .uninit = nothing,
    .handle_message = answerer_handle,
};

static qor_context_module_t asker = {
    .name = "asker",
    .pure = 1,
    .reg = nothing,
    .unreg = nothing,
    .init = asker_init,
    .uninit = nothing,
    .handle_message = asker_handle,
};

static int32_t make_strict(const char *name)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = 1;
    return qor_bus_contract_set(bus, name, &contract);
}

int main(int argc, char **argv)
{
    qor_context_module_t *modules[] = {&answerer, &asker, NULL};
    left = argc >= 2 ? atol(argv[1]) : 0;
    bus = left > 0 ? qor_bus_create(modules, TOPIC_COUNT) : NULL;
    if (!bus) {
        return 2;
    }
    calling = argc == 3 && strcmp(argv[2], "calls") == 0;
    if (argc == 3 && !calling && (make_strict("answerer") < 0 || make_strict("asker") < 0)) {
        return 2;
    }
    qor_bus_thread_num_set(bus, 1);
    const int32_t looped = qor_bus_loop(bus);
    qor_bus_close(bus);
    return looped == 0 && left == 0 ? 0 : 1;
}
