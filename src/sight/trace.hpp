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
    trace_registers, /* runs a module's reg: kept as what a thread is inside, no event */
};

/* What a thread waits for. */
enum trace_awaited : uint32_t {
    trace_waits_start = 5,
    trace_waits_pause,
    trace_waits_drain,
    trace_waits_slot, /* kept free: nobody waits for one */
    trace_waits_room,
    trace_waits_up,
    trace_waits_workers, /* this and the next as trace_registers */
    trace_waits_console,
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

/* What a thread is inside, as it was begun. */
struct trace_begun {
    uint32_t recording; /* 0: it is not recorded */
    uint32_t what;
    int32_t session;
};

struct qor_info_inside;
struct qor_info_thread;

/* What the recorder does. What is given with a context gets its number. */
struct trace_functions {
    /* Notes an event. A publisher that is not NULL has caused it, which is told where it does not
     * show. */
    void (*note)(const qor_context_t *publisher, const qor_context_t *context, uint32_t what,
                 int32_t session, int32_t arg);

    /* Has a message handled, as qor_context_handle_message() does. */
    int32_t (*handle_message)(const qor_context_t *publisher, qor_context_t *context,
                              qor_context_msg_t *msg, trace_kind kind);

    /* Executes a task of a context's own. */
    void *(*execute)(const qor_context_t *context, qor_context_task_t *task);

    /* The thread is inside something, up to end(). */
    trace_begun (*begin)(uint32_t class_, const qor_context_t *context, uint32_t what,
                         int32_t session, int32_t arg);
    void (*end)(const trace_begun &begun, int32_t result);

    void (*line)(int32_t level, const char *format, va_list ap);

    /* Names the context of a delegate, whose link in its bus's list is given. */
    void (*named)(list_head *link);

    void (*closed)(const qor_bus_t *bus);

    /* What the next thread of a bus's recording behind that one is inside: its number, or 0. */
    uint32_t (*thread)(const qor_bus_t *bus, uint32_t behind, qor_info_thread &info);
    /* The monitor has warned of a task: finds where it runs, with age -1 when nowhere, and notes
     * it. */
    void (*stalled)(const qor_bus_t *bus, int32_t session, qor_info_inside &found);
};

#ifndef QOR_WITHOUT_TRACE
extern uint32_t trace_mask;               /* QOR_TRACE_*; read without a lock */
extern const trace_functions *trace_made; /* NULL: no recorder was ever started; read likewise */

/* Whether any of these classes is recorded. Only then trace_recorder() may be called. A plain load:
 * barriers on every request would cost those who do not record. */
inline bool trace_on(uint32_t classes)
{
    return __builtin_expect((__atomic_load_n(&trace_mask, __ATOMIC_RELAXED) & classes) != 0, 0);
}

inline const trace_functions &trace_recorder()
{
    (void)hal_load(trace_mask); /* now with a barrier: what was stored before the mask is there */
    return *hal_load(trace_made);
}

/* Who has recorded in this process, or may be about to; NULL: nobody yet. */
inline const trace_functions *trace_recorder_made()
{
    return hal_load(trace_made);
}
#else
constexpr bool trace_on(uint32_t)
{
    return false;
}

[[noreturn]] inline const trace_functions &trace_recorder()
{
    __builtin_unreachable();
}

constexpr const trace_functions *trace_recorder_made()
{
    return nullptr;
}
#endif

/* The calling thread is inside something of a context's, from construction to destruction. Not
 * where an instruction counts: neither end of it is inline. */
class trace_span {
public:
#ifndef QOR_WITHOUT_TRACE
    trace_span(uint32_t class_, const qor_context_t *context, uint32_t what, int32_t session,
               int32_t arg);
    ~trace_span();
#else
    trace_span(uint32_t, const qor_context_t *, uint32_t, int32_t, int32_t) {}
#endif
    trace_span(const trace_span &) = delete;
    trace_span &operator=(const trace_span &) = delete;

    void result(int32_t result)
    {
        result_ = result;
    }

private:
    trace_begun begun_ = {};
    int32_t result_ = 0;
};

/* Notes an event of a context's, or of none, if its class is recorded; not where an instruction
 * counts. */
#ifndef QOR_WITHOUT_TRACE
void trace_tell(uint32_t class_, const qor_context_t *context, uint32_t what, int32_t session,
                int32_t arg);
#else
inline void trace_tell(uint32_t, const qor_context_t *, uint32_t, int32_t, int32_t) {}
#endif

/* The class that starts and ends of a message's kind belong to. */
constexpr uint32_t trace_class(trace_kind kind)
{
    switch (kind) {
    case trace_handles:
    case trace_responds:
        return QOR_TRACE_REQUESTS;
    case trace_calls:
        return QOR_TRACE_CALLS;
    case trace_system:
        return QOR_TRACE_SYSTEM;
    default:
        return QOR_TRACE_OBSERVERS;
    }
}

#endif /* TRACE_HPP */
