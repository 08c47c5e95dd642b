/* SPDX-License-Identifier: Apache-2.0 */
/* The bus's recorder, in a file: what it has written is there whatever becomes of the program. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "telemetry.h"

/* Each with room to spare: threads, modules, and what a thread does in some minutes. */
enum { LANES = 12, NAMES = 24, EVENTS = 4096 };

/* Maps a new file of that size; NULL, and errno says why. */
static void *file_map(const char *path, size_t size)
{
    const int file = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) {
        return NULL;
    }
    void *memory = MAP_FAILED;
    const int error =
        posix_fallocate(file, 0, (off_t)size); /* a full disk is told here, not by SIGBUS */
    if (error == 0) {
        memory = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    } else {
        errno = error;
    }
    close(file);
    return memory == MAP_FAILED ? NULL : memory;
}

int trace_start(struct trace *trace, qor_bus_t *bus, const char *path)
{
    trace->size = qor_trace_size(LANES, NAMES, EVENTS);
    trace->memory = file_map(path, trace->size);
    if (!trace->memory) {
        fprintf(stderr, "telemetry: cannot write %s: %s\n", path, strerror(errno));
        return -1;
    }
    const qor_trace_config_t config = {
        .size = sizeof(config),
        .memory = trace->memory,
        .memory_size = trace->size,
        .lanes = LANES,
        .names = NAMES,
    };
    return qor_trace_start(bus, &config);
}

void trace_end(struct trace *trace)
{
    if (trace->memory) {
        munmap(trace->memory, trace->size);
    }
}
