/* SPDX-License-Identifier: Apache-2.0 */
/* Recorder: laying out the application's memory, beginning and ending a recording, and copying one
 * that is under way. */
#include "qor_trace.h"

#include <stdio.h>
#include <unistd.h>

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_diag.hpp"
#include "qor_util.hpp"
#include "trace_context.hpp"
#include "trace_lane.hpp"

namespace {

constexpr char file_tag[] = "qor_trace";
constexpr char magic[] = "QORTRC1\n";
constexpr uint32_t events_least = 64;
constexpr uint64_t nanoseconds = 1000000000;

uint32_t recordings; /* how many there were; guarded by trace_mutex */
bool fork_known;     /* guarded by trace_mutex */

uint64_t nanoseconds_of(clockid_t clock)
{
    struct timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * nanoseconds + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t clock_monotonic()
{
    return nanoseconds_of(CLOCK_MONOTONIC);
}

/* sum + count * size; SIZE_MAX when that does not fit. */
size_t size_add(size_t sum, size_t count, size_t size)
{
    size_t product;
    const bool over =
        __builtin_mul_overflow(count, size, &product) || __builtin_add_overflow(sum, product, &sum);
    return over ? SIZE_MAX : sum;
}

/* What the heads, the names and that many events in each lane take; 0 when it does not fit. Lanes
 * and names count the one that is always there. */
size_t recording_size(size_t lanes, size_t names, size_t events)
{
    const size_t ring = size_add(0, events, sizeof(trace_event));
    size_t sum = size_add(sizeof(trace_head), lanes, sizeof(trace_lane));
    sum = size_add(sum, names, sizeof(trace_naming));
    sum = size_add(sum, lanes, ring); /* what did not fit before does not now */
    return sum < SIZE_MAX ? sum : 0;
}

/* How a recorder's memory is laid out. */
struct trace_plan {
    uint32_t lanes, names, events;
};

/* The largest rings that fit; no events when not even the least do. */
trace_plan plan_make(const qor_bus_t *bus, const qor_trace_config_t &config)
{
    trace_plan plan = {};
    plan.lanes = (config.lanes ? config.lanes : hal_load(bus->thread_num) + 4) + 1;
    plan.names =
        (config.names ? config.names : static_cast<uint32_t>(bus_module_count(bus->modules)) + 12) +
        1;
    const auto fits = [&](size_t events) {
        const size_t size =
            plan.lanes && plan.names ? recording_size(plan.lanes, plan.names, events) : 0;
        return size && size <= config.memory_size;
    };
    uint32_t events = events_least;
    while (events < 1u << 31 && fits(static_cast<size_t>(events) * 2)) {
        events *= 2;
    }
    plan.events = fits(events) ? events : 0;
    return plan;
}

/* The lane's own, which others do not change yet. */
void lanes_clear(trace_lane *lanes, uint32_t count, uint32_t time_high)
{
    memset(lanes, 0, count * sizeof(*lanes));
    for (uint32_t i = 0; i < count; i++) {
        lanes[i].time_high = time_high;
    }
}

void head_fill(trace_head &head, const trace_plan &plan, const qor_trace_config_t &config,
               uint64_t now)
{
    head = {};
    head.order = 0x01020304;
    head.major = 1;
    head.head_size = sizeof(trace_head);
    head.lane_size = sizeof(trace_lane);
    head.lanes = plan.lanes;
    head.events = plan.events;
    head.name_size = sizeof(trace_naming);
    head.names = plan.names;
    head.event_size = sizeof(trace_event);
    head.state = trace_state_recording;
    head.clock_hz = config.clock_hz ? config.clock_hz : nanoseconds;
    head.clock_start = now;
    head.real_start = nanoseconds_of(CLOCK_REALTIME);
    head.pid = static_cast<uint32_t>(getpid());
    head.pointer_size = sizeof(void *);
    head.mask = (config.mask ? config.mask : 0u + QOR_TRACE_DEFAULT) & QOR_TRACE_ALL;
    prctl(PR_GET_NAME, head.program);
}

[[gnu::format(printf, 2, 0)]] void line_note(int32_t level, const char *format, va_list ap)
{
    char text[trace_line_bytes + 1];
    va_list copy;
    va_copy(copy, ap);
    vsnprintf(text, sizeof(text), format, copy);
    va_end(copy);
    text[strcspn(text, "\n")] = '\0';
    trace_lane_note(
        {trace_what(trace_line, static_cast<uint32_t>(level)), 0, 0, trace_from_any, text});
}

/* Ends a recording. The caller holds the lock. */
void recording_end_locked()
{
    hal_store(trace_mask, 0u);
    __atomic_store_n(&trace_now.number, 0u, __ATOMIC_SEQ_CST);
    trace_lanes_await_locked();
    hal_store(trace_now.head->state, trace_state_ended);
}

void bus_over(const qor_bus_t *bus)
{
    hal_scoped_lock lock(trace_mutex);
    if (trace_now.number && trace_now.bus == bus) {
        recording_end_locked();
    }
}

constexpr trace_functions functions = {
    /* note */ trace_context_note,
    /* handle_message */ trace_context_handle_message,
    /* execute */ trace_context_execute,
    /* begin */ trace_context_begin,
    /* end */ trace_context_end,
    /* line */ line_note,
    /* named */ trace_context_named,
    /* closed */ bus_over,
    /* thread */ trace_thread_read,
    /* stalled */ trace_stalled,
};

/* The child of a fork shares the memory of a mapped file and must not write into it. */
void fork_before()
{
    hal_lock(trace_mutex);
}

void fork_parent()
{
    pthread_mutex_unlock(&trace_mutex);
}

void fork_child()
{
    trace_lanes_forget_locked();
    hal_store(trace_mask, 0u);
    hal_store(trace_now.number, 0u);
    pthread_mutex_unlock(&trace_mutex);
}

/* What a recorder needs once in a process. The caller holds the lock. */
bool recorder_open_locked()
{
    fork_known = fork_known || pthread_atfork(fork_before, fork_parent, fork_child) == 0;
    return fork_known && trace_lanes_open_locked() == 0;
}

/* Begins the recording that the plan says. The caller holds the lock. */
void recording_begin_locked(const qor_bus_t *bus, const qor_trace_config_t &config,
                            const trace_plan &plan)
{
    trace_recording &now = trace_now;
    now.bus = bus;
    now.clock = config.clock ? config.clock : clock_monotonic;
    now.head = static_cast<trace_head *>(config.memory);
    now.lanes = reinterpret_cast<trace_lane *>(now.head + 1);
    now.names = reinterpret_cast<trace_naming *>(now.lanes + plan.lanes);
    now.events = reinterpret_cast<trace_event *>(now.names + plan.names);
    const uint64_t start = now.clock();
    head_fill(*now.head, plan, config, start);
    lanes_clear(now.lanes, plan.lanes, static_cast<uint32_t>(start >> 32));
    memset(now.names, 0, plan.names * sizeof(*now.names));
    memcpy(now.head->magic, magic, sizeof(now.head->magic));
    recordings = recordings + 1 < 1u << 31 ? recordings + 1 : 1;
    __atomic_store_n(&now.number, recordings, __ATOMIC_SEQ_CST);
    hal_store(trace_made, &functions);
}

/* Without the bus's lock: it is held where the recorder's is taken. */
bool bus_is_looping(const qor_bus_t *bus)
{
    return hal_load(bus->priv->looping);
}

/* Begins a recording: NULL, or what is wrong. That is printed without the lock, for a line may be
 * an event. */
const char *recording_try(const qor_bus_t *bus, const qor_trace_config_t &config,
                          const trace_plan &plan)
{
    hal_scoped_lock lock(trace_mutex);
    if (trace_now.number || bus_is_looping(bus)) {
        return "a recorder or the loop is running.";
    }
    if (!recorder_open_locked()) {
        return "no thread key left.";
    }
    recording_begin_locked(bus, config, plan);
    return nullptr;
}

/* Ends a recording, if there is one: false while the loop of its bus runs. */
bool recording_is_over()
{
    hal_scoped_lock lock(trace_mutex);
    if (trace_now.number && bus_is_looping(trace_now.bus)) {
        return false;
    }
    if (trace_now.number) {
        recording_end_locked();
    }
    return true;
}

/* Names the contexts that the bus has already; whoever makes one from now on names it. */
void contexts_name(qor_bus_t *bus)
{
    hal_scoped_lock lock(bus->priv->mutex);
    util_list_each(bus->priv->delegates, trace_context_named);
}

/* Lets the hooks in, once the names are there. */
void hooks_open()
{
    hal_scoped_lock lock(trace_mutex);
    if (trace_now.number) {
        hal_store(trace_mask, trace_now.head->mask);
    }
}

/* A word of a ring, which its thread may be writing. */
void words_copy(void *to, const void *from, size_t size)
{
    uint32_t *words = static_cast<uint32_t *>(to);
    const uint32_t *source = static_cast<const uint32_t *>(from);
    for (size_t i = 0; i < size / sizeof(*words); i++) {
        words[i] = hal_load(source[i]);
    }
}

/* Copies a lane's events, which belong to the copy of its head. Those that its thread has begun to
 * overwrite since become empty. */
void ring_copy_locked(const trace_lane &lane, const trace_lane &copied, const trace_event *ring,
                      trace_event *copy)
{
    const uint32_t events = trace_now.head->events;
    words_copy(copy, ring, events * sizeof(*ring));
    const uint32_t since = hal_load(lane.written) - copied.written;
    for (uint32_t i = 0; i <= since && i < events; i++) { /* the last may be under way */
        copy[(copied.written + i) & (events - 1)] = {};
    }
}

/* The caller holds the lock, which keeps the memory and the shared lane as they are. */
void recording_copy_locked(char *to)
{
    const trace_head &head = *trace_now.head;
    const char *from = reinterpret_cast<const char *>(&head);
    const auto at = [to, from](const void *place) {
        return to + (static_cast<const char *>(place) - from);
    };
    words_copy(to, from, sizeof(head));
    memcpy(at(trace_now.names), trace_now.names, head.names * sizeof(trace_naming));
    for (uint32_t i = 0; i < head.lanes; i++) {
        const trace_lane &lane = trace_now.lanes[i];
        const trace_event *ring = trace_now.events + static_cast<size_t>(i) * head.events;
        trace_lane *copy = reinterpret_cast<trace_lane *>(at(&lane));
        trace_lane_copy_locked(lane, *copy);
        ring_copy_locked(lane, *copy, ring, reinterpret_cast<trace_event *>(at(ring)));
    }
}

} // namespace

size_t qor_trace_size(uint32_t lanes, uint32_t names, uint32_t events)
{
    uint32_t rounded = events_least;
    while (rounded < events && rounded < 1u << 31) {
        rounded *= 2;
    }
    const bool fits = rounded >= events && lanes < UINT32_MAX && names < UINT32_MAX;
    return fits ? recording_size(static_cast<size_t>(lanes) + 1, static_cast<size_t>(names) + 1,
                                 rounded)
                : 0;
}

int32_t qor_trace_start(qor_bus_t *bus, const qor_trace_config_t *config)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(config, -1);
    QOR_CHECK(config->size == sizeof(*config), -1);
    QOR_CHECK(config->memory, -1);
    const uintptr_t address = reinterpret_cast<uintptr_t>(config->memory);
    QOR_CHECK(address % 64 == 0, -1);
    const trace_plan plan = plan_make(bus, *config);
    QOR_CHECK_TEXT(plan.events, "config->memory_size >= least", -1);
    if (const char *problem = recording_try(bus, *config, plan)) {
        QOR_ERR("%s", problem);
        return -1;
    }
    contexts_name(bus);
    hooks_open();
    return 0;
}

int32_t qor_trace_stop(void)
{
    if (!recording_is_over()) {
        QOR_ERR("the loop is running.");
        return -1;
    }
    return 0;
}

uint32_t qor_trace_mask_set(uint32_t mask)
{
    hal_scoped_lock lock(trace_mutex);
    const uint32_t before = hal_load(trace_mask);
    if (trace_now.number) {
        hal_store(trace_mask, mask & QOR_TRACE_ALL);
    }
    return before;
}

void qor_trace_mark(uint32_t id, int32_t value)
{
    if (trace_on(QOR_TRACE_MARKS)) {
        trace_lane_note(
            {trace_what(trace_marked), static_cast<int32_t>(id), value, trace_from_any, nullptr});
    }
}

int64_t qor_trace_snapshot(void *dst, size_t size)
{
    hal_scoped_lock lock(trace_mutex);
    if (!dst || !trace_now.number) {
        return -1;
    }
    const trace_head &head = *trace_now.head;
    const size_t needed = recording_size(head.lanes, head.names, head.events);
    if (size < needed) {
        return -1;
    }
    recording_copy_locked(static_cast<char *>(dst));
    return static_cast<int64_t>(needed);
}
