/* SPDX-License-Identifier: Apache-2.0 */
/* What the threads of a recording are inside, as an inspection shows it. */
#include "qor_inspect.h" /* upward: the record that is filled here */
#include "qor_util.hpp"
#include "trace_lane.hpp"

namespace {

static_assert(trace_inside_max == QOR_INSIDE_MAX, "all that a lane keeps is shown");
constexpr int32_t kind_of(uint32_t detail, bool waits)
{
    return static_cast<int32_t>(detail) + (waits ? QOR_INSIDE_WAITS : 0);
}

static_assert(kind_of(trace_handles, false) == QOR_INSIDE_REQUEST &&
                  kind_of(trace_inits, false) == QOR_INSIDE_INIT &&
                  kind_of(trace_waits_start, true) == QOR_INSIDE_WAITS_START &&
                  kind_of(trace_waits_up, true) == QOR_INSIDE_WAITS_UP,
              "a recording's numbers are an inspection's");

/* So many times 2^20 ticks in milliseconds. Divides bit by bit, for dividing 64 bits takes a
 * function of its own on a small processor. */
int32_t ms_of(uint32_t times, uint64_t hz)
{
    uint64_t left = uint64_t{times} * 1000 << 20;
    uint64_t rest = 0;
    uint64_t ms = 0;
    for (int bit = 0; bit < 64; bit++) {
        rest = rest << 1 | left >> 63;
        left <<= 1;
        ms <<= 1;
        if (rest >= hz) {
            rest -= hz;
            ms |= 1;
        }
    }
    return ms < INT32_MAX ? static_cast<int32_t>(ms) : INT32_MAX;
}

/* The caller holds the lock. */
void inside_read_locked(const trace_event &frame, uint32_t now, qor_info_inside_t &inside)
{
    const uint32_t who = frame.what >> 16;
    const bool waits = (frame.what & 0xff) == trace_wait;
    if (who < trace_now.head->names) {
        util_name_copy(inside.name, trace_now.names[who].name); /* "" where there is none */
    }
    inside.kind = kind_of(frame.what >> 8 & 0xff, waits);
    inside.session = frame.session;
    inside.topic = waits ? -1 : frame.arg;
    inside.age_ms = ms_of(now - frame.time, trace_now.head->clock_hz);
}

/* The caller holds the lock. */
void lane_read_locked(const trace_lane &lane, qor_info_thread_t &info)
{
    trace_lane copy;
    trace_lane_copy_locked(lane, copy);
    info.tid = copy.tid;
    info.role = copy.role;
    info.depth = copy.depth;
    memcpy(info.name, copy.thread, strnlen(copy.thread, sizeof(info.name) - 1));
    const uint32_t now = static_cast<uint32_t>(trace_now.clock() >> 20);
    for (uint32_t i = 0; i < copy.depth && i < trace_inside_max; i++) {
        inside_read_locked(copy.inside[i], now, info.inside[i]);
    }
}

} // namespace

uint32_t trace_thread_read(const qor_bus_t *bus, uint32_t behind, qor_info_thread_t &info)
{
    hal_scoped_lock lock(trace_mutex);
    if (!trace_now.number || trace_now.bus != bus || behind >= trace_now.head->lanes_taken) {
        return 0;
    }
    lane_read_locked(trace_now.lanes[behind + 1], info); /* the first is nobody's own */
    return behind + 1;
}
