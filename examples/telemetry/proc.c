/* SPDX-License-Identifier: Apache-2.0 */
#include "proc.h"

#include <inttypes.h>
#include <string.h>

/* The first line of /proc/stat sums up all processors. The two guest kinds that follow the eight
 * read here are contained in user and nice. */
static int read_cpu(struct reading *reading)
{
    int64_t user, nice, system, idle, iowait, irq, softirq, steal;
    FILE *file = fopen("/proc/stat", "r");
    if (!file) {
        return -1;
    }
    const int found = fscanf(file,
                             "cpu %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64
                             " %" SCNd64 " %" SCNd64 " %" SCNd64,
                             &user, &nice, &system, &idle, &iowait, &irq, &softirq, &steal);
    fclose(file);
    if (found != 8) {
        return -1;
    }
    reading->cpu_busy = user + nice + system + irq + softirq + steal;
    reading->cpu_total = reading->cpu_busy + idle + iowait;
    return 0;
}

/* Finds "NAME: number kB" in a file of such lines. */
static int read_kb(const char *path, const char *name, int64_t *kb)
{
    char line[256];
    int found = -1;
    FILE *file = fopen(path, "r");
    if (!file) {
        return -1;
    }
    while (found != 0 && fgets(line, sizeof(line), file)) {
        const size_t length = strlen(name);
        if (strncmp(line, name, length) == 0 && line[length] == ':') {
            found = sscanf(line + length + 1, "%" SCNd64, kb) == 1 ? 0 : -1;
        }
    }
    fclose(file);
    return found;
}

int proc_read(struct reading *reading)
{
    struct reading now = *reading;
    if (read_cpu(&now) != 0 || read_kb("/proc/meminfo", "MemTotal", &now.mem_total_kb) != 0 ||
        read_kb("/proc/meminfo", "MemAvailable", &now.mem_free_kb) != 0 ||
        read_kb("/proc/self/status", "VmRSS", &now.own_kb) != 0) {
        return -1;
    }
    *reading = now;
    return 0;
}
