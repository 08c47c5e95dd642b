/* SPDX-License-Identifier: Apache-2.0 */
/* Where the task runs that the monitor warns of. */
#include "hal_sync.hpp"
#include "qor_inspect.h" /* upward: the record that is filled here */
#include "trace_lane.hpp"

namespace {

/* Whether it is of the kinds that the monitor watches: what a worker has taken from a queue. */
bool is_watched(const qor_info_inside_t &inside, int32_t session)
{
    return inside.session == session &&
           (inside.kind <= QOR_INSIDE_LISTEN_AFTER || inside.kind == QOR_INSIDE_TASK);
}

/* The context of what a lane's thread is inside at that depth. */
uint32_t whom(const qor_bus_t *bus, uint32_t lane, uint32_t depth)
{
    hal_scoped_lock lock(trace_mutex);
    return trace_now.number && trace_now.bus == bus
               ? hal_load(trace_now.lanes[lane].inside[depth].what) >> 16
               : 0;
}

} // namespace

void trace_stalled(const qor_bus_t *bus, int32_t session, qor_info_inside_t &found)
{
    uint32_t who = 0;
    uint32_t lane = 0;
    for (;;) {
        qor_info_thread_t thread = {};
        lane = trace_thread_read(bus, lane, thread);
        if (lane == 0) {
            break;
        }
        for (uint32_t i = 0; i < thread.depth && i < QOR_INSIDE_MAX; i++) {
            if (is_watched(thread.inside[i], session) && thread.inside[i].age_ms > found.age_ms) {
                found = thread.inside[i];
                who = whom(bus, lane, i);
            }
        }
    }
    if (trace_on(QOR_TRACE_CHANGES)) {
        trace_lane_note(
            {trace_what(trace_stall, 0, who), session, found.age_ms, trace_from_any, nullptr});
    }
}
