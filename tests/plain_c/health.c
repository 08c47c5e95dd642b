/* SPDX-License-Identifier: Apache-2.0 */
/* Explanation and health of a bus that never loops. */
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "qor.h"

static void count_line(void *lines, const char *line)
{
    *(int32_t *)lines += strncmp(line, "bus: ", 5) == 0;
}

static void stalled(void *arg, const char *task, const char *module, int32_t topic, int32_t session,
                    int32_t age_ms)
{
    (void)arg, (void)task, (void)module, (void)topic, (void)session, (void)age_ms;
}

static void judge(qor_bus_t *bus)
{
    qor_health_t health = {0};
    int32_t lines = 0;

    health.size = sizeof(health);
    check("a limit", qor_bus_limit_set(bus, "lone", 100) == 0);
    check("circles are refused", qor_bus_circle_set(bus, QOR_CIRCLE_REFUSE) == 0);
    check("stalls are told", qor_bus_stalled_set(bus, stalled, NULL) == 0);
    check("no circle", qor_bus_explain(bus, count_line, &lines) == 0);
    check("and a line", lines == 1);
    check("all is well", qor_bus_health(bus, 600000, &health) == 0);
    check("nobody is at work", health.busy == 0 && health.over == 0 && health.circles == 0);
}

void check_health(void)
{
    static qor_context_module_t lone = {.name = "lone"};
    qor_context_module_t *modules[] = {&lone, NULL};
    qor_bus_t *bus = qor_bus_create(modules, 1);
    qor_trace_config_t config = {0};
    void *memory = NULL;

    config.size = sizeof(config);
    config.mask = QOR_TRACE_STACKS;
    config.lanes = 2;
    config.names = 4;
    config.memory_size = qor_trace_size(2, 4, 64);
    check("memory for stacks", posix_memalign(&memory, 64, config.memory_size) == 0);
    config.memory = memory;
    check("stacks are recorded", qor_trace_start(bus, &config) == 0);
    judge(bus);
    qor_bus_close(bus);
    free(memory);
}
