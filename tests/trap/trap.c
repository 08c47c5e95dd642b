/* SPDX-License-Identifier: Apache-2.0 */
/* A plain counter that a module's handler and its timers raise. Without a contract they run beside
 * each other; strict, they do not.
 *   usage: trap plain|strict */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "qor.h"

enum { TOPIC, TOPICS, ROUNDS = 200 };

static qor_bus_t *bus;
static long counter; /* plain on purpose */
static atomic_int visits;

static void visit(void)
{
    for (int i = 0; i < 20000; i++) {
        counter++;
    }
    if (atomic_fetch_add(&visits, 1) + 1 == 2 * ROUNDS) {
        qor_bus_quit(bus);
    }
}

static void *tick(void *arg)
{
    visit();
    return arg;
}

static void reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC, NULL);
}

static void unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC);
}

static void uninit(qor_context_t *self)
{
    (void)self;
}

static int32_t init(qor_context_t *self, void *arg)
{
    (void)arg;
    for (int i = 0; i < ROUNDS; i++) {
        if (qor_context_timer(self, tick, NULL, 1 + i / 4) < 0) {
            return -1;
        }
    }
    return 0;
}

static int32_t count_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    visit();
    return 0;
}

/* Sends the next request when the one before has been answered. */
static int32_t ask_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    static int sent; /* one response at a time is under way */
    (void)msg;
    if (++sent < ROUNDS) {
        qor_context_req(self, TOPIC, NULL, 0);
    }
    return 0;
}

static void no_reg(qor_context_t *self)
{
    (void)self;
}

static int32_t ask_init(qor_context_t *self, void *arg)
{
    (void)arg;
    return qor_context_req(self, TOPIC, NULL, 0) < 0 ? -1 : 0;
}

static qor_context_module_t count_module = {"count", 0,     1,    0,      0,    0,           NULL,
                                            reg,     unreg, init, uninit, NULL, count_handle};
static qor_context_module_t ask_module = {"ask",  0,      1,        0,      0,    0,         NULL,
                                          no_reg, no_reg, ask_init, uninit, NULL, ask_handle};

int main(int argc, char **argv)
{
    qor_context_module_t *modules[] = {&count_module, &ask_module, NULL};
    bus = qor_bus_create(modules, TOPICS);
    if (!bus || argc != 2) {
        return 2;
    }
    if (strcmp(argv[1], "strict") == 0) {
        qor_contract_t contract;
        qor_contract_init(&contract);
        contract.strict = 1;
        if (qor_bus_contract_set(bus, "count", &contract) < 0) {
            return 2;
        }
    }
    qor_bus_thread_num_set(bus, 4);
    const int32_t looped = qor_bus_loop(bus);
    qor_bus_close(bus);
    return looped == 0 ? 0 : 2;
}
