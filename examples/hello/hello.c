/* SPDX-License-Identifier: Apache-2.0 */
/* Two modules: the asker greets, the answerer answers, and then the program ends. */
#include <signal.h>
#include <string.h>

#include "qor.h"

enum { TOPIC_GREETING, TOPIC_COUNT };

static qor_bus_t *bus;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static void answerer_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_GREETING, NULL);
}

static int32_t answerer_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    hal_printf("%s: %.5s\n", qor_context_module_name_get(self), (char *)msg->request.buf);
    memcpy(msg->response.buf, "hi", 2);
    return 0;
}

static int32_t init(qor_context_t *self, void *greeting)
{
    return greeting ? qor_context_req_ret(self, TOPIC_GREETING, greeting, 5, /* response */ 2) : 0;
}

static int32_t asker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    hal_printf("%s: %.2s\n", qor_context_module_name_get(self), (char *)msg->response.buf);
    return qor_bus_quit(bus);
}

/* name, class, phase, parallel runs, priority, stack, argument, then the callbacks */
static qor_context_module_t answerer_module = {
    "answerer", 0, 1, 0, 0, 0, NULL, answerer_reg, nothing, init, nothing, NULL, answerer_handle};
static qor_context_module_t asker_module = {
    "asker", 0, 1, 0, 0, 0, "hello", nothing, nothing, init, nothing, NULL, asker_handle};

/* A signal handler must not call qor_bus_quit(); a thread that waits for the signal may. */
static void *wait_for_signal(void *signals)
{
    int number;
    sigwait(signals, &number);
    qor_bus_quit(bus);
    return NULL;
}

int main(void)
{
    qor_context_module_t *modules[] = {&asker_module, &answerer_module, NULL};
    hal_thread_t waiter;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    bus = qor_bus_create(modules, TOPIC_COUNT);
    if (!bus) {
        return 1;
    }
    pthread_create(&waiter, NULL, wait_for_signal, &signals);
    qor_bus_loop(bus); /* until qor_bus_quit() */
    pthread_kill(waiter, SIGTERM);
    pthread_join(waiter, NULL);
    qor_bus_close(bus);
    return 0;
}
