/* SPDX-License-Identifier: Apache-2.0 */
/* A module with a contract, from its terms to its ledger. */
#include <string.h>

#include "check.h"
#include "qor.h"

enum { TOPIC = 0, TOPICS = 1, ROUNDS = 20 };

static atomic_int up;
static atomic_int answers;
static atomic_int inside;
static atomic_int beside;
static qor_bus_t *bus;

static void reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC, NULL);
}

static void unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC);
}

/* A task of the module's own, for an init would wait for its own start. */
static void *ask(void *self)
{
    for (int i = 0; i < ROUNDS; i++) {
        qor_context_req(self, TOPIC, &i, sizeof(i));
    }
    atomic_fetch_add(&up, 1);
    return NULL;
}

static int32_t init(qor_context_t *self, void *arg)
{
    (void)arg;
    return qor_context_run(self, ask, self) < 0 ? -1 : 0;
}

static int32_t handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    atomic_fetch_add(&beside, atomic_fetch_add(&inside, 1) != 0);
    atomic_fetch_add(&answers, msg->type == QOR_CONTEXT_MSG_RESPONSE);
    atomic_fetch_sub(&inside, 1);
    return 0;
}

static void uninit(qor_context_t *self)
{
    (void)self;
}

static qor_context_module_t module = {"strict", 0,     1,    0,      0,    0,     NULL,
                                      reg,      unreg, init, uninit, NULL, handle};

static void *loop(void *result)
{
    *(int32_t *)result = qor_bus_loop(bus);
    return NULL;
}

void check_contract(void)
{
    qor_context_module_t *table[] = {&module, NULL};
    qor_contract_t contract;
    qor_ledger_t ledger = {0};
    hal_thread_t thread;
    int32_t result = -2;

    bus = qor_bus_create(table, TOPICS);
    qor_contract_init(&contract);
    check("qor_contract_init", contract.size == sizeof(contract) && contract.strict == 0);
    contract.strict = 1;
    check("an unknown module has no contract",
          qor_bus_contract_set(bus, "nobody", &contract) == -1);
    check("qor_bus_contract_set", qor_bus_contract_set(bus, "strict", &contract) == 0);
    ledger.size = sizeof(ledger);
    check("a ledger is empty at first",
          qor_bus_ledger(bus, "strict", &ledger) == 0 && ledger.accepted == 0);
    check("the loop has a thread", pthread_create(&thread, NULL, loop, &result) == 0);
    check("a strict module comes up", reached(&up, 1));
    check("its requests are answered", reached(&answers, ROUNDS));
    check("the bus settles", qor_bus_drain(bus, 20000) == 0);
    check("never beside itself", atomic_load(&beside) == 0);
    check("qor_bus_ledger", qor_bus_ledger(bus, "strict", &ledger) == 0 &&
                                ledger.accepted == 2 * ROUNDS + 1 && ledger.run == ledger.accepted);
    qor_bus_quit(bus);
    pthread_join(thread, NULL);
    qor_bus_close(bus);
    check("the loop has returned", result == 0);
}
