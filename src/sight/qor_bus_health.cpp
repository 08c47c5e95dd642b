/* SPDX-License-Identifier: Apache-2.0 */
/* The health of a bus: what it is at, judged by limits of time. */
#include "qor_health.h"

#include <string.h>

#include "bus_sight.hpp"
#include "info.hpp"
#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "que_front.hpp"
#include "trace.hpp"
#include "wait_circles.hpp"

namespace {

constexpr char file_tag[] = "qor_health";

/* How long something of that module's may take. */
int32_t limit_of(const qor_bus_t *bus, const char *module, int32_t limit_ms)
{
    bus_sight *sight = sight_of(bus);
    for (size_t place = 0; sight && bus->modules[place]; place++) {
        const int32_t own = sight_limits(sight)[place];
        if (own &&
            strncmp(bus->modules[place]->name, module, sizeof(qor_health_t::oldest) - 1) == 0) {
            return own;
        }
    }
    return limit_ms;
}

/* A thread that waits is over only by what it waits in. */
bool thread_is_over(const qor_bus_t *bus, const qor_info_thread_t &thread, int32_t limit_ms,
                    qor_health_t &health)
{
    bool over = false;
    for (uint32_t i = 0; i < thread.depth && i < QOR_INSIDE_MAX; i++) {
        const qor_info_inside_t &inside = thread.inside[i];
        if (inside.kind >= QOR_INSIDE_WAITS) {
            continue;
        }
        over = over || inside.age_ms > limit_of(bus, inside.name, limit_ms);
        if (inside.age_ms > health.oldest_ms) {
            health.oldest_ms = inside.age_ms;
            health.oldest_session = inside.session;
            memcpy(health.oldest, inside.name, sizeof(health.oldest));
        }
    }
    return over;
}

void threads_read(const qor_bus_t *bus, int32_t limit_ms, qor_health_t &health)
{
    for (uint32_t lane = 0;;) {
        qor_info_thread_t thread = {};
        lane = trace_recorder().thread(bus, lane, thread);
        if (lane == 0) {
            break;
        }
        health.over += thread_is_over(bus, thread, limit_ms, health);
    }
    wait_link link;
    for (uint32_t lane = 0; (lane = wait_read(bus, lane, link)) > 0;) {
        health.circles += link.circle > 0;
    }
}

/* A node that was queued while nothing was recorded says nothing. */
int32_t first_waits(qor_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    if (list_empty(&que->head)) {
        return 0;
    }
    const auto *first = reinterpret_cast<const qor_que_node_t *>(que->head.next); /* first field */
    const uint32_t since = que_front_of(first)->flags >> que_since_bit;
    constexpr uint32_t fits = UINT32_MAX >> que_since_bit;
    return since ? static_cast<int32_t>((bus_since() - since) & fits) : 0;
}

} // namespace

int32_t qor_bus_health(qor_bus_t *bus, int32_t limit_ms, qor_health_t *health)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(limit_ms > 0, -1);
    QOR_CHECK(health, -1);
    QOR_CHECK(health->size == sizeof(*health), -1);
    bus_visitor inside(*bus->priv);
    uint32_t lacking;
    if (!wait_is_recorded(bus, lacking)) {
        QOR_ERR("nothing is recorded.");
        return -1;
    }
    qor_info_bus_t info = {};
    info_bus_read(bus, info);
    *health = {};
    health->size = sizeof(*health);
    health->workers = info.workers;
    health->busy = info.workers - info.idle;
    health->queue_ms = first_waits(bus->que);
    health->timer_ms = info.next_timer_ms < 0 ? -info.next_timer_ms : 0;
    threads_read(bus, limit_ms, *health);
    return health->over || health->circles || health->queue_ms >= limit_ms ||
           health->timer_ms >= limit_ms;
}
