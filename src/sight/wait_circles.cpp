/* SPDX-License-Identifier: Apache-2.0 */
/* Circles of waits. A wait for a start ends when the init is over, which one thread runs, or is not
 * begun before a reg is over, which one thread runs. Neither comes back: so lanes that are read one
 * after the other show no circle that is none. */
#include "wait_circles.hpp"

#include "bus_sight.hpp"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_health.h"
#include "qor_sched_delegate_priv.hpp"
#include "qor_util.hpp"
#include "trace_lane.hpp"

namespace {

constexpr char file_tag[] = "qor_health";
constexpr uint32_t nobody = 0; /* no context, no lane */

/* How many lanes can be read. */
uint32_t lanes_locked(const qor_bus_t *bus)
{
    return trace_now.number && trace_now.bus == bus ? hal_load(trace_now.head->lanes_taken) : 0;
}

/* Whose start the thread of a lane waits for. */
uint32_t awaited_locked(uint32_t lane)
{
    trace_lane copy;
    trace_lane_copy_locked(trace_now.lanes[lane], copy);
    uint32_t what = copy.waits;
    if (copy.depth <= trace_inside_max) {
        what = copy.depth ? copy.inside[copy.depth - 1].what : 0;
    }
    return (what & 0xffff) == trace_what(trace_wait, trace_waits_start) ? what >> 16 : nobody;
}

/* Whether the thread of a lane is inside that. Of a reg it does not matter whose. */
bool is_inside_locked(uint32_t lane, uint32_t held)
{
    trace_lane copy;
    trace_lane_copy_locked(trace_now.lanes[lane], copy);
    const uint32_t mask = held >> 16 ? UINT32_MAX : 0xffff;
    bool inside = false;
    for (uint32_t i = 0; i < copy.depth && i < trace_inside_max; i++) {
        inside = inside || (copy.inside[i].what & mask) == held;
    }
    return inside;
}

/* The user context that recordings know by that number, or NULL. Delegates are only added in front,
 * and stay while a visitor or a task is inside the bus. */
const qor_core_context_t *user_numbered(const qor_bus_t *bus, uint32_t number)
{
    list_head *head = &bus->priv->delegates;
    for (list_head *link = hal_load(head->next); link != head; link = hal_load(link->next)) {
        const qor_sched_delegate_t *delegate = delegate_at(link);
        if (delegate->priv->number == number && delegate->priv->cls == &qor_core_context_class) {
            return qor_core_context_type(delegate->context);
        }
    }
    return nullptr;
}

/* What a thread has to leave before a context can start; 0: nothing, or one is on its way. */
uint32_t held_before_start(const qor_bus_t *bus, uint32_t who)
{
    const qor_core_context_t *core = bus_stopping(bus) ? nullptr : user_numbered(bus, who);
    if (!core || hal_load(core->lifecycle) > QOR_USER_CONTEXT_LIFECYCLE_CREATE) {
        return 0;
    }
    switch (hal_load(core->priv->init)) {
    case user_init_begun:
        return trace_what(trace_start, trace_inits, who);
    case user_init_unknown: /* the manager offers it after all regs of its phase */
        return core->priv->start ? trace_what(trace_start, trace_registers) : 0;
    default: /* whoever waits has it begun */
        return 0;
    }
}

/* The lane of the thread that a lane's waits for. */
uint32_t next_locked(const qor_bus_t *bus, uint32_t lane)
{
    const uint32_t who = awaited_locked(lane);
    const uint32_t held = who == nobody ? 0 : held_before_start(bus, who);
    for (uint32_t i = held ? lanes_locked(bus) : 0; i > 0; i--) {
        if (is_inside_locked(i, held)) {
            return i;
        }
    }
    return nobody;
}

/* How many waits lead from a lane back to it; 0: they do not. */
uint32_t circle_locked(const qor_bus_t *bus, uint32_t lane, uint32_t &first)
{
    const uint32_t lanes = lanes_locked(bus);
    uint32_t length = 0;
    uint32_t at = first = lane;
    do {
        at = next_locked(bus, at);
        first = at < first ? at : first;
        length++;
    } while (at != nobody && at != lane && length <= lanes);
    return at == lane ? length : 0;
}

void link_read_locked(const qor_bus_t *bus, uint32_t lane, uint32_t who, wait_link &link)
{
    link = {};
    link.tid = trace_now.lanes[lane].tid;
    if (who < trace_now.head->names) {
        util_name_copy(link.module, trace_now.names[who].name);
    }
    link.next = next_locked(bus, lane);
    link.next_tid = trace_now.lanes[link.next].tid; /* the shared one has none */
    uint32_t first;
    const uint32_t length = circle_locked(bus, lane, first);
    link.circle = first == lane ? length : 0;
}

/* Of threads that close a circle at once each has said before that it waits, and looks under one
 * lock: the last of them sees all. */
bool closes_circle(const qor_bus_t *bus)
{
    hal_scoped_lock lock(trace_mutex);
    const trace_lane *mine = lanes_locked(bus) ? trace_lane_mine_locked() : nullptr;
    uint32_t first;
    return mine && circle_locked(bus, static_cast<uint32_t>(mine - trace_now.lanes), first) > 0;
}

const char *circle_change(qor_bus_t *bus, const void *policy)
{
    uint32_t lacking;
    const bool refuse = *static_cast<const int32_t *>(policy) == QOR_CIRCLE_REFUSE;
    if (refuse && !wait_is_recorded(bus, lacking)) {
        return "nothing is recorded.";
    }
    bus->priv->sight->closes_circle = refuse ? closes_circle : nullptr;
    return nullptr;
}

} // namespace

bool wait_is_recorded(const qor_bus_t *bus, uint32_t &lacking)
{
    hal_scoped_lock lock(trace_mutex);
    if (!trace_now.number || trace_now.bus != bus || !trace_on(QOR_TRACE_STACKS)) {
        return false;
    }
    lacking = trace_now.head->lanes_lacking;
    return true;
}

uint32_t wait_read(const qor_bus_t *bus, uint32_t lane, wait_link &link)
{
    hal_scoped_lock lock(trace_mutex);
    while (++lane <= lanes_locked(bus)) {
        if (const uint32_t who = awaited_locked(lane)) {
            link_read_locked(bus, lane, who, link);
            return lane;
        }
    }
    return 0;
}

int32_t qor_bus_circle_set(qor_bus_t *bus, int32_t policy)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(policy == QOR_CIRCLE_WAIT || policy == QOR_CIRCLE_REFUSE, -1);
    return sight_change(bus, __func__, circle_change, &policy);
}
