/* SPDX-License-Identifier: Apache-2.0 */
/* Prints what a process costs before and while it runs a bus of four modules that do nothing. */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "qor.h"

enum { MODULES = 4 };

static qor_bus_t *bus;
static atomic_int up;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    atomic_fetch_add(&up, 1);
    return 0;
}

static int32_t handle_message(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self, (void)msg;
    return 0;
}

static void *loop(void *arg)
{
    qor_bus_loop(bus);
    return arg;
}

/* A number of /proc/self/status, -1 where there is none. */
static long status(const char *field)
{
    char line[128];
    long value = -1;
    FILE *file = fopen("/proc/self/status", "r");
    while (file && fgets(line, sizeof(line), file)) {
        if (strncmp(line, field, strlen(field)) == 0) {
            sscanf(line + strlen(field), ": %ld", &value);
        }
    }
    if (file) {
        fclose(file);
    }
    return value;
}

static void print(const char *when)
{
    printf("%s: %ld KiB resident, %ld KiB of them private, %ld threads\n", when, status("VmRSS"),
           status("RssAnon"), status("Threads"));
}

int main(void)
{
    qor_context_module_t module = {
        "idle", 0, 1, 0, 0, 0, NULL, nothing, nothing, init, nothing, NULL, handle_message};
    qor_context_module_t *modules[] = {&module, &module, &module, &module, NULL};
    hal_thread_t thread;

    print("without a bus");
    bus = qor_bus_create(modules, 1);
    if (!bus || pthread_create(&thread, NULL, loop, NULL) != 0) {
        return 1;
    }
    const int settled = qor_bus_drain(bus, 20000) == 0 && atomic_load(&up) == MODULES;
    print("with a bus of 4 modules");
    qor_bus_quit(bus);
    pthread_join(thread, NULL);
    qor_bus_close(bus);
    return settled ? 0 : 1;
}
