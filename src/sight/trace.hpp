/* SPDX-License-Identifier: Apache-2.0 */
/* What the sources tell the recorder. Built without it, nothing of this is left. Nobody links the
 * recorder for it: it is called through a pointer that starting it sets. */
#ifndef TRACE_HPP
#define TRACE_HPP

#include <stdarg.h>

#include "hal_sync.hpp"
#include "qor_trace.h"

/* Types of events, as a recording holds them. */
enum trace_type : uint32_t {
    trace_time = 1,
    trace_from,
    trace_request,
    trace_start,
    trace_end,
    trace_drop,
    trace_post,
    trace_due,
    trace_cancel,
    trace_bypass,
    trace_register,
    trace_lifecycle,
    trace_wait,
    trace_waited,
    trace_quit,
    trace_marked,
    trace_name,
    trace_stall,
    trace_line,
    trace_deferred,
    trace_completed,
    trace_lost,
    trace_missed,
};

/* What is started and ended. */
enum trace_kind : uint32_t {
    trace_handles = 0, /* a request */
    trace_responds,
    trace_listens_before,
    trace_listens_after,
    trace_filters_before,
    trace_filters_after,
    trace_runs, /* a task */
    trace_calls,
    trace_system,
    trace_inits,
};

/* What a thread waits for. */
enum trace_awaited : uint32_t {
    trace_waits_start = 5,
    trace_waits_pause,
    trace_waits_drain,
    trace_waits_slot, /* kept free: nobody waits for one */
    trace_waits_room,
    trace_waits_up,
};

/* Why a request or a post came to nothing. */
enum trace_reason : uint32_t {
    trace_unserved = 1,
    trace_no_memory,
    trace_refused,
    trace_discarded,
    trace_of_listener = 64, /* added */
};

/* How a deferred request was completed. */
enum trace_completion : uint32_t {
    trace_by_handler = 0,
    trace_by_time,
    trace_by_discard,
};

/* In a request's detail. */
constexpr uint32_t trace_to_system = 1; /* its topic is of the system's table */
constexpr uint32_t trace_moved = 2;     /* handed on to a newer subscriber */

/* In a registration's detail, added to 0 subscribe, 1 listen, 2 filter. */
constexpr uint32_t trace_of_system = 64;
constexpr uint32_t trace_removed = 128;

/* A loss's detail, of QOR_LOSS_*. */
constexpr uint32_t trace_loss(int32_t kind, int32_t reason)
{
    return static_cast<uint32_t>(reason + kind * 16);
}

/* The second word of an event. */
constexpr uint32_t trace_what(trace_type type, uint32_t detail = 0, uint32_t who = 0)
{
    return type | detail << 8 | who << 16;
}

constexpr uint32_t trace_from_any = UINT32_MAX;

/* One event, or the start of what a thread is inside. */
struct trace_note {
    uint32_t what;
    int32_t session;
    int32_t arg;
    uint32_t from; /* who caused it, if that is not whom the thread is inside; or trace_from_any */
    const char *text; /* what follows as text, or NULL */
};

/* A context as recordings name it. */
struct trace_context {
    uint32_t who;
    const char *name; /* nothing is read beyond 20 bytes */
    uint32_t role;
    uint32_t flags; /* 1 strict, 4 with a contract */
    uint32_t limit; /* of tasks at a time; what does not fit 16 bits is any number */
    uint32_t depth; /* of its queue */
};

/* What the recorder does. */
struct trace_functions {
    void (*note)(const trace_note &note);
    /* The thread is inside something from here on; it is an event only if noted. What comes back is
     * handed to end(). */
    uint32_t (*begin)(const trace_note &note, bool noted);
    void (*end)(uint32_t begun, const trace_note &note);
    void (*line)(int32_t level, const char *format, va_list ap);
    void (*context)(const qor_bus_t *bus, const trace_context &context);
    void (*closed)(const qor_bus_t *bus);
};

#ifndef QOR_WITHOUT_TRACE
constexpr bool trace_built = true;
extern uint32_t trace_mask;               /* QOR_TRACE_*; read without a lock */
extern const trace_functions *trace_made; /* NULL: no recorder was ever started; read likewise */

/* Whether any of these classes is recorded. If so, trace_made is there. */
inline bool trace_on(uint32_t classes)
{
    return __builtin_expect((hal_load(trace_mask) & classes) != 0, 0);
}

inline const trace_functions *trace_recorder()
{
    return hal_load(trace_made);
}
#else
constexpr bool trace_built = false;

constexpr bool trace_on(uint32_t)
{
    return false;
}

constexpr const trace_functions *trace_recorder()
{
    return nullptr;
}
#endif

/* The class that starts and ends of a kind belong to. */
constexpr uint32_t trace_class(trace_kind kind)
{
    switch (kind) {
    case trace_handles:
    case trace_responds:
        return QOR_TRACE_REQUESTS;
    case trace_runs:
        return QOR_TRACE_TASKS;
    case trace_calls:
        return QOR_TRACE_CALLS;
    case trace_system:
        return QOR_TRACE_SYSTEM;
    case trace_inits:
        return QOR_TRACE_CHANGES;
    default:
        return QOR_TRACE_OBSERVERS;
    }
}

#endif /* TRACE_HPP */
