/* SPDX-License-Identifier: Apache-2.0 */
/* The recorder: from its memory to what is in it. */
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "qor.h"

enum { LANES = 2, NAMES = 4, EVENTS = 64 };

static uint64_t ticks;

static uint64_t tick(void)
{
    return ++ticks;
}

/* How many events the first thread's lane has had. */
static uint32_t written(const void *recording)
{
    uint32_t count;
    memcpy(&count, (const char *)recording + 128 + 128, sizeof(count));
    return count;
}

/* Records marks on a bus that never loops. */
static void record(qor_bus_t *bus, void *memory, void *copy, size_t size)
{
    qor_trace_config_t config = {0};

    config.size = sizeof(config);
    config.memory = memory;
    config.memory_size = size;
    config.lanes = LANES;
    config.names = NAMES;
    config.clock = tick;
    check("recording begins", qor_trace_start(bus, &config) == 0);
    check("the memory says so", memcmp(memory, "QORTRC1\n", 8) == 0);
    qor_trace_mark(7, -1);
    check("a mark is an event", written(memory) == 1);
    check("the default classes are recorded", qor_trace_mask_set(0) == QOR_TRACE_DEFAULT);
    qor_trace_mark(8, 0);
    check("a pause records nothing", written(memory) == 1);
    qor_trace_mask_set(QOR_TRACE_ALL);
    check("a copy is as long as the memory", qor_trace_snapshot(copy, size) == (int64_t)size);
    check("and has what is in it", written(copy) == 1);
    check("recording ends", qor_trace_stop() == 0);
    check("once", qor_trace_snapshot(copy, size) == -1);
}

void check_trace(void)
{
    qor_context_module_t *none[] = {NULL};
    qor_bus_t *bus = qor_bus_create(none, 1);
    const size_t size = qor_trace_size(LANES, NAMES, EVENTS);
    void *memory = NULL;
    char *copy = malloc(size);

    check("there is memory to record in", posix_memalign(&memory, 64, size) == 0 && copy);
    record(bus, memory, copy, size);
    qor_bus_close(bus);
    free(memory);
    free(copy);
}
