/* SPDX-License-Identifier: Apache-2.0 */
/* Makes a recording whose events are known: make_recording FILE writes the recording, and prints
 * how often each thing happened, as the modules themselves have counted it. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qor.h"

enum { TOPIC_ASK, TOPIC_CALL, TOPIC_LATER, TOPIC_NONE, TOPICS };
enum { ASKED = 20, CALLED = 10, TASKS = 15, MARKS = 40, UNSERVED = 3, LATER = 2 };
enum { LANES = 3, NAMES = 12, EVENTS = 512 };

static atomic_int handled, responded, called, ran, heard, filtered, completed;
static qor_bus_t *bus;

/* Deterministic, and the same number of ticks everywhere: a recording says nothing of its machine.
 */
static uint64_t tick(void)
{
    static atomic_int ticks;
    return (uint64_t)atomic_fetch_add(&ticks, 1) * 1000;
}

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t nothing_to_do(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    return 0;
}

static void server_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_ASK, NULL);
    qor_context_subscribe(self, TOPIC_CALL, NULL);
    qor_context_subscribe(self, TOPIC_LATER, NULL);
}

static int32_t server_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    uint64_t token;
    if (msg->topic == TOPIC_CALL) {
        atomic_fetch_add(&called, 1);
        return 0;
    }
    atomic_fetch_add(&handled, 1);
    if (msg->topic == TOPIC_LATER && qor_context_defer(self, msg, -1, &token) == 0) {
        atomic_fetch_add(&completed, qor_deferred_complete(token, 5, NULL, 0) == 0);
    }
    return 0;
}

static int32_t client_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    atomic_fetch_add(&responded, 1);
    return 0;
}

static void observer_reg(qor_context_t *self)
{
    qor_context_topic_attr_t before = {.mask = QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       .point = QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE};
    qor_context_topic_attr_t after = {.mask = QOR_CONTEXT_TOPIC_ATTR_POINT,
                                      .point = QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER};
    qor_context_filter(self, TOPIC_ASK, &before);
    qor_context_listen(self, TOPIC_ASK, &after);
}

static int32_t observer_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    atomic_fetch_add(msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE ? &filtered : &heard, 1);
    return 0;
}

static void *task(void *self)
{
    (void)self;
    atomic_fetch_add(&ran, 1);
    return NULL;
}

#define MODULE(title, registers, handles)                                                    \
    {                                                                                        \
        .name = title, .pure = 1, .reg = registers, .unreg = nothing, .init = nothing_to_do, \
        .uninit = nothing, .handle_message = handles                                         \
    }

static qor_context_module_t server = MODULE("server", server_reg, server_handle);
static qor_context_module_t observer = MODULE("observer", observer_reg, observer_handle);
static qor_context_t *client_context;

static void client_reg(qor_context_t *self)
{
    client_context = self;
}

static qor_context_module_t client = MODULE("client", client_reg, client_handle);

static void *loop(void *arg)
{
    (void)arg;
    qor_bus_loop(bus);
    return NULL;
}

static int settled(void)
{
    return qor_bus_drain(bus, 60000) == 0;
}

/* Everything that is counted, one after the other. */
static int act(void)
{
    int done = 1;
    for (int i = 0; i < ASKED; i++) {
        done &= qor_context_req(client_context, TOPIC_ASK, NULL, 0) >= 0 && settled();
    }
    for (int i = 0; i < CALLED; i++) {
        done &= qor_context_x_req(client_context, TOPIC_CALL, NULL, 0) >= 0;
    }
    for (int i = 0; i < TASKS; i++) {
        done &= qor_context_run(client_context, task, NULL) >= 0 && settled();
    }
    for (uint32_t i = 0; i < MARKS; i++) {
        qor_trace_mark(i, (int32_t)(i * i));
    }
    for (int i = 0; i < UNSERVED; i++) {
        qor_context_req(client_context, TOPIC_NONE, NULL, 0);
    }
    for (int i = 0; i < LATER; i++) {
        done &= qor_context_req(client_context, TOPIC_LATER, NULL, 0) >= 0 && settled();
    }
    return done;
}

static int write_down(const char *path, const void *memory, size_t size)
{
    FILE *file = fopen(path, "wb");
    const int written = file && fwrite(memory, 1, size, file) == size;
    return file && fclose(file) == 0 && written;
}

static void tell(void)
{
    printf("\nrequests %d\nhandled %d\nresponded %d\ncalled %d\nran %d\nfiltered %d\nheard %d\n",
           ASKED + LATER, atomic_load(&handled), atomic_load(&responded), atomic_load(&called),
           atomic_load(&ran), atomic_load(&filtered), atomic_load(&heard));
    printf("marks %d\ndropped %d\ncompleted %d\n", MARKS, UNSERVED, atomic_load(&completed));
}

int main(int argc, char **argv)
{
    qor_context_module_t *modules[] = {&server, &client, &observer, NULL};
    const size_t size = qor_trace_size(LANES, NAMES, EVENTS);
    void *memory = NULL;
    hal_thread_t thread;
    if (argc != 2 || posix_memalign(&memory, 64, size) != 0) {
        return 2;
    }
    memset(memory, 0, size); /* what is written down is the same each time */
    const qor_trace_config_t config = {
        .size = sizeof(config),
        .mask = QOR_TRACE_ALL & ~QOR_TRACE_LINES, /* lines have addresses */
        .memory = memory,
        .memory_size = size,
        .lanes = LANES,
        .names = NAMES,
        .clock = tick,
    };
    bus = qor_bus_create(modules, TOPICS);
    qor_bus_thread_num_set(bus, 1);
    if (qor_trace_start(bus, &config) != 0 || pthread_create(&thread, NULL, loop, NULL) != 0) {
        return 2;
    }
    const int done = qor_bus_wait_up(bus, 60000, NULL) == 0 && act();
    qor_bus_quit(bus);
    pthread_join(thread, NULL);
    qor_bus_close(bus);
    const int written = write_down(argv[1], memory, size);
    free(memory);
    tell();
    return done && written ? 0 : 1;
}
