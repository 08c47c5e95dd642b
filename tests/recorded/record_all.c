/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded into a program, has every bus that it creates recorded with all classes, one at a time.
 * The program must behave as without. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "qor.h"

enum { LANES = 8, NAMES = 64, EVENTS = 256 };

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static const qor_bus_t *recorded; /* guarded by mutex; NULL: none is */
static void *memory;

/* The function that the program would have called. */
static void find(void *function, const char *name)
{
    void *found = dlsym(RTLD_NEXT, name);
    if (!found) {
        abort();
    }
    memcpy(function, &found, sizeof(found));
}

static void record(qor_bus_t *bus)
{
    int32_t (*start)(qor_bus_t *, const qor_trace_config_t *);
    size_t (*size)(uint32_t, uint32_t, uint32_t);
    pthread_mutex_lock(&mutex);
    if (!recorded) {
        find(&start, "qor_trace_start");
        find(&size, "qor_trace_size");
        const size_t needed = size(LANES, NAMES, EVENTS);
        const qor_trace_config_t config = {
            .size = sizeof(config),
            .mask = QOR_TRACE_ALL,
            .memory = memory ? memory : (memory = aligned_alloc(64, (needed + 63) / 64 * 64)),
            .memory_size = needed,
            .lanes = LANES,
            .names = NAMES,
        };
        recorded = start(bus, &config) == 0 ? bus : NULL;
    }
    pthread_mutex_unlock(&mutex);
}

/* The library ends the recording itself. */
static void forget(const qor_bus_t *bus)
{
    pthread_mutex_lock(&mutex);
    recorded = recorded == bus ? NULL : recorded;
    pthread_mutex_unlock(&mutex);
}

/* One that the program begins goes first. */
int32_t qor_trace_start(qor_bus_t *bus, const qor_trace_config_t *config)
{
    int32_t (*start)(qor_bus_t *, const qor_trace_config_t *);
    int32_t (*stop)(void);
    find(&start, "qor_trace_start");
    find(&stop, "qor_trace_stop");
    pthread_mutex_lock(&mutex);
    if (recorded && stop() == 0) {
        recorded = NULL;
    }
    pthread_mutex_unlock(&mutex);
    return start(bus, config);
}

qor_bus_t *qor_bus_create(qor_context_module_t **modules, int32_t id_max)
{
    qor_bus_t *(*create)(qor_context_module_t **, int32_t);
    find(&create, "qor_bus_create");
    qor_bus_t *bus = create(modules, id_max);
    if (bus) {
        record(bus);
    }
    return bus;
}

void qor_bus_close(qor_bus_t *bus)
{
    void (*end)(qor_bus_t *);
    find(&end, "qor_bus_close");
    end(bus);
    forget(bus);
}

void qor_bus_destroy(qor_bus_t *bus)
{
    void (*end)(qor_bus_t *);
    find(&end, "qor_bus_destroy");
    end(bus);
    forget(bus);
}

void qor_bus_uninit(qor_bus_t *bus)
{
    void (*end)(qor_bus_t *);
    find(&end, "qor_bus_uninit");
    end(bus);
    forget(bus);
}
