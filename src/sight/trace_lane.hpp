/* SPDX-License-Identifier: Apache-2.0 */
/* Lanes: a ring of events for each thread, and what the thread is inside, in memory that others
 * read while it is written, and after the process has died. docs/recording.md has the format. */
#ifndef TRACE_LANE_HPP
#define TRACE_LANE_HPP

#include "trace.hpp"

constexpr uint32_t trace_inside_max =
    5; /* so many of the things that a thread is inside are kept */
constexpr uint32_t trace_text_bytes = 11; /* of a text, in one event */
constexpr uint32_t trace_line_bytes = 31; /* of a printed line */

/* Nothing in a recording is a pointer or padding. What changes while it is recorded is written and
 * read a word at a time, with hal_store() and hal_load(). */
struct trace_event {
    uint32_t time; /* lower half of the clock */
    uint32_t what; /* see trace_what() */
    int32_t session;
    int32_t arg;
};

enum trace_role : uint32_t {
    trace_shared = 0,
    trace_works,
    trace_loops,
    trace_visits, /* any other thread */
};

struct trace_lane {
    uint32_t written;      /* events ever, lower half; stored after what it counts */
    uint32_t written_high; /* upper half */
    uint32_t time_high;    /* upper half of the newest event's time */
    uint32_t tid;
    char thread[16]; /* its name when it took the lane */
    uint32_t role;
    uint32_t depth;   /* how many things the thread is inside */
    uint32_t changes; /* of inside; odd while one is under way */
    uint32_t waits;   /* what a thread that is inside more waits for, see trace_what(); or 0 */
    trace_event inside[trace_inside_max]; /* outermost first; time is the clock >> 20 */
};

struct trace_naming {
    char name[20];
    uint32_t role; /* 0 user, 1 system */
    uint16_t flags, limit;
    uint32_t depth;
};

struct trace_head {
    char magic[8]; /* written last */
    uint32_t order;
    uint16_t major, minor;
    uint32_t head_size, lane_size, lanes, events; /* events of each lane: a power of two */
    uint32_t name_size, names, event_size, state;
    uint64_t clock_hz, clock_start, real_start; /* the last in ns since 1970 */
    uint32_t pid, pointer_size, names_lost, lanes_lacking, lanes_taken, mask;
    char program[16];
    uint32_t reserved[4];
};

constexpr uint32_t trace_state_recording = 1;
constexpr uint32_t trace_state_ended = 2;

static_assert(sizeof(trace_event) == 16 && sizeof(trace_naming) == 32, "as the format says");
static_assert(sizeof(trace_lane) == 128 && sizeof(trace_head) == 128, "as the format says");

/* A context as recordings name it. */
struct trace_named {
    const char *name; /* nothing is read beyond 20 bytes */
    uint32_t role;
    uint32_t flags;
    uint32_t limit; /* what does not fit 16 bits is any number */
    uint32_t depth;
};

constexpr uint32_t trace_from_any = UINT32_MAX;

/* One event, or the start of what a thread is inside. */
struct trace_note {
    uint32_t what;
    int32_t session;
    int32_t arg;
    uint32_t from; /* who caused it, if that is not whom the thread is inside; or trace_from_any */
    const char *text; /* what follows as text, or NULL */
};

/* The recording that is under way. Guarded by trace_mutex; a thread that is counted in at its lane
 * may use it too, for it stays until nobody is. */
struct trace_recording {
    uint32_t number; /* rises with each; 0: none is under way, and the rest means nothing. Read
                        without the lock */
    const qor_bus_t *bus;
    trace_head *head;
    trace_lane *lanes; /* the first is shared by the threads that have got none */
    trace_naming *names;
    trace_event *events; /* lane after lane */
    uint64_t (*clock)(void);
};

extern hal_thread_mutex_t trace_mutex;
extern trace_recording trace_now;

/* Makes lanes findable: 0, or -1 when the system has no key left. The caller holds the lock. */
int32_t trace_lanes_open_locked();

/* Waits until no thread is counted in any more. The caller holds the lock and has ended the
 * recording. */
void trace_lanes_await_locked();

/* In the child of a fork, where the other threads are no more: nobody is counted in, and no lane is
 * anybody's. The caller holds the lock. */
void trace_lanes_forget_locked();

/* Notes an event on the calling thread's lane. */
void trace_lane_note(const trace_note &note);

/* The thread is inside something up to trace_lane_end(). Whether both are events is decided once:
 * by the class, at the beginning. */
trace_begun trace_lane_begin(const trace_note &note, uint32_t class_);
void trace_lane_end(const trace_begun &begun, const trace_note &note);

/* Names a context of a bus. */
void trace_lane_name(const qor_bus_t *bus, uint32_t who, const trace_named &named);

/* See trace_functions. */
uint32_t trace_thread_read(const qor_bus_t *bus, uint32_t behind, qor_info_thread &info);
void trace_stalled(const qor_bus_t *bus, int32_t session, qor_info_inside &found);

/* The calling thread's lane of the recording that is under way, or NULL. The caller holds the lock.
 */
const trace_lane *trace_lane_mine_locked();

/* Copies a lane but for its events, as it was at one moment; with depth 0 when what its thread is
 * inside changes too fast to be read. The caller holds the lock. */
void trace_lane_copy_locked(const trace_lane &lane, trace_lane &copy);

#endif /* TRACE_LANE_HPP */
