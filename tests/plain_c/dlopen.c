/* SPDX-License-Identifier: Apache-2.0 */
/* A program that is not linked to the library: opens it, runs a bus to its end, closes it, and does
 * all that once more.
 *   usage: dlopened LIBRARY */
#include <dlfcn.h>
#include <stdatomic.h>
#include <stdio.h>

#include "qor.h"

/* What it needs of the library. */
static struct {
    __typeof__(qor_bus_create) *create;
    __typeof__(qor_bus_loop) *loop;
    __typeof__(qor_bus_drain) *drain;
    __typeof__(qor_bus_quit) *quit;
    __typeof__(qor_bus_close) *close;
    __typeof__(qor_context_runx) *runx;
} api;

static atomic_int up, executed, down;

static void nothing(qor_context_t *self)
{
    (void)self;
}

static void *run(qor_context_t *self, int32_t session, void *arg)
{
    (void)self;
    (void)session;
    atomic_fetch_add(&executed, 1);
    return arg;
}

static int32_t init(qor_context_t *self, void *arg)
{
    (void)arg;
    atomic_fetch_add(&up, 1);
    return api.runx(self, run, NULL) < 0 ? -1 : 0;
}

static void uninit(qor_context_t *self)
{
    (void)self;
    atomic_fetch_add(&down, 1);
}

static int32_t handle_message(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    (void)msg;
    return 0;
}

static qor_context_module_t module = {
    "only", 0, 1, 1, 0, 0, NULL, nothing, nothing, init, uninit, NULL, handle_message,
};

/* Writes what did not go well on standard error. Returns 1 for that, else 0. */
static int failed(const char *what, int good)
{
    if (!good) {
        fprintf(stderr, "does not hold: %s\n", what);
    }
    return !good;
}

/* Finds a function; the standard knows no other way from an address of data. */
static int find(void *library, const char *name, void *function)
{
    void *address = dlsym(library, name);
    memcpy(function, &address, sizeof(address));
    return failed(name, address != NULL);
}

static void *loop(void *bus)
{
    return api.loop(bus) == 0 ? bus : NULL;
}

/* 0 when a bus has come up, run its module's task, and gone down. */
static int run_bus(void)
{
    const struct timespec pause = {0, 1000000};
    const int64_t deadline = util_timestamp() + 20000;
    qor_context_module_t *modules[] = {&module, NULL};
    qor_bus_t *bus = api.create(modules, 1);
    hal_thread_t thread;
    void *ended = NULL;

    if (failed("a bus is made", bus != NULL) ||
        failed("the loop has a thread", pthread_create(&thread, NULL, loop, bus) == 0)) {
        return 1;
    }
    while (atomic_load(&executed) == 0 && util_timestamp() < deadline) {
        nanosleep(&pause, NULL);
    }
    int bad = failed("the module comes up", atomic_load(&up) == 1);
    bad += failed("its task runs", atomic_load(&executed) == 1);
    bad += failed("the bus settles", api.drain(bus, 20000) == 0);
    bad += failed("the bus quits", api.quit(bus) == 0);
    pthread_join(thread, &ended);
    bad += failed("the loop returns", ended == bus);
    api.close(bus);
    return bad + failed("the module goes down", atomic_load(&down) == 1);
}

static int open_and_close(const char *path)
{
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        return failed(dlerror(), 0);
    }
    int bad = find(library, "qor_bus_create", &api.create);
    bad += find(library, "qor_bus_loop", &api.loop);
    bad += find(library, "qor_bus_drain", &api.drain);
    bad += find(library, "qor_bus_quit", &api.quit);
    bad += find(library, "qor_bus_close", &api.close);
    bad += find(library, "qor_context_runx", &api.runx);
    if (bad == 0) {
        bad = run_bus();
    }
    return bad + failed("the library is closed", dlclose(library) == 0);
}

int main(int argc, char **argv)
{
    int bad = failed("one argument", argc == 2);
    for (int round = 0; round < 2 && bad == 0; round++) {
        atomic_store(&up, 0);
        atomic_store(&executed, 0);
        atomic_store(&down, 0);
        bad = open_and_close(argv[1]);
#if defined(__GLIBC__)
        /* musl keeps what it has opened. */
        bad += failed("it is gone", dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) == NULL);
#endif
    }
    return bad > 0;
}
