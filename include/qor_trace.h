/* SPDX-License-Identifier: Apache-2.0 */
/* Recorder: what the threads of a bus do, kept in memory of the application's. A ring of the newest
 * events for each thread, and what each thread is inside. What it writes is read by qor-trace on
 * another machine; docs/recording.md has the format. */
#ifndef QOR_TRACE_H
#define QOR_TRACE_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** Classes of events; bits of a mask. */
enum {
    QOR_TRACE_REQUESTS = 1,  /**< requests and responses: handed over, started, ended, lost */
    QOR_TRACE_OBSERVERS = 2, /**< start and end of filters and listeners */
    QOR_TRACE_CALLS = 4,     /**< start and end of synchronous requests */
    QOR_TRACE_TASKS = 8,     /**< tasks and timers of modules */
    QOR_TRACE_CHANGES = 16,  /**< registrations, inits, lifecycle, waits, quit, drain, stalls */
    QOR_TRACE_SYSTEM = 32,   /**< system calls */
    QOR_TRACE_MARKS = 64,    /**< qor_trace_mark() */
    QOR_TRACE_LINES = 128,   /**< printed lines, the first 31 bytes of each; also those that the
                                  application prints with hal_printf() */
    QOR_TRACE_STACKS = 256,  /**< no events: only what each thread is inside */
    QOR_TRACE_DEFAULT = 351, /**< all but system calls and lines */
    QOR_TRACE_ALL = 511
};

/** What to record, and where. 0 is a default everywhere but for size, memory and memory_size. */
typedef struct qor_trace_config {
    uint32_t size;           /**< sizeof(qor_trace_config_t) */
    uint32_t mask;           /**< QOR_TRACE_*; 0 is QOR_TRACE_DEFAULT */
    void *memory;            /**< aligned to 64 bytes; the recorder's until it has stopped */
    size_t memory_size;      /**< bytes; what heads and names leave is shared by the lanes */
    uint32_t lanes;          /**< threads with events of their own; 0: the bus's workers and 4
                                  more. Threads beyond that share a further lane, which is slower */
    uint32_t names;          /**< contexts that can be named; 0: the bus's modules and 12 */
    uint64_t (*clock)(void); /**< never runs backwards, must not call the bus, and is called from
                                any thread; NULL: CLOCK_MONOTONIC */
    uint64_t clock_hz;       /**< ticks of clock in a second; 0: 10^9 */
} qor_trace_config_t;

/**
 * How many bytes a recorder needs.
 *
 * @param lanes   threads with events of their own
 * @param names   contexts that can be named
 * @param events  that each lane keeps; rounded up to a power of two, at least 64
 * @return        bytes, or 0 when they do not fit size_t
 */
QOR_API size_t qor_trace_size(uint32_t lanes, uint32_t names, uint32_t events);

/**
 * Begins to record what a bus does, before qor_bus_loop() runs. A process has one recorder.
 *
 * The memory may be an array, or a file that is mapped shared: on a file system in memory that
 * survives a process that is killed. The child of a fork() does not write into it.
 *
 * @param config  copied; clock is called until the recorder has stopped
 * @return        0, or -1 with a line, and the memory is as it was
 *
 * Prints "!(bus) == true.", "!(config) == true.", "!(config->size == sizeof(*config)) == true.",
 * "!(config->memory) == true.", "!(address % 64 == 0) == true.", "!(config->memory_size >= least)
 * == true." where least is qor_trace_size() for 64 events, "a recorder or the loop is running.",
 * "no thread key left.", or "built without the recorder.". Any thread.
 */
QOR_API int32_t qor_trace_start(qor_bus_t *bus, const qor_trace_config_t *config);

/**
 * Ends recording and lets go of the memory, whose head then says that it was ended in order.
 * Threads may still be inside the library: what they would record is left out from here on.
 * qor_bus_close() does it for its bus.
 *
 * @return  0, also when nothing is recorded; -1 with the line "the loop is running."
 */
QOR_API int32_t qor_trace_stop(void);

/**
 * Changes what is recorded, from any thread at any time. What has been noted as started is noted as
 * ended, whatever the mask.
 *
 * @param mask  QOR_TRACE_*; 0 pauses
 * @return      the former mask; 0, and nothing changes, when nothing is recorded
 */
QOR_API uint32_t qor_trace_mask_set(uint32_t mask);

/**
 * Notes an event of the application's own. Any thread, but not from a signal handler. Does nothing
 * while QOR_TRACE_MARKS is not recorded.
 */
QOR_API void qor_trace_mark(uint32_t id, int32_t value);

/**
 * Copies the recording that is under way, as a file would hold it. Events that are overwritten
 * while it is copied are left out and count as lost. Any thread.
 *
 * @param size  bytes at dst: at least the memory_size of the recorder
 * @return      how many bytes it is long, or -1 when dst is NULL or too small, or when nothing is
 *              recorded; nothing is printed, for that may be on purpose
 */
QOR_API int64_t qor_trace_snapshot(void *dst, size_t size);

QOR_END_DECLS

#endif /* QOR_TRACE_H */
