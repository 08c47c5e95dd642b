/* SPDX-License-Identifier: Apache-2.0 */
/* Reports of tasks. Who receives them is looked up when registrations have changed. */
#include "task_watch.hpp"

#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_topic_core_priv.hpp"

namespace {

constexpr qor_context_topic_t topic = QOR_SYS_MONITOR_TASK;

/* Looks up who is the newest subscriber. The count of changes is read first: what changes
 * meanwhile makes it old. */
void watch_look_up(qor_bus_t *bus, uint32_t changes)
{
    task_watch &watch = bus->priv->watch;
    hal_scoped_lock lock(bus->priv->mutex);
    topic_dispatch under_way(bus->sys_topic_core, topic);
    hal_store(watch.monitor, topic_newest_subscriber(bus->sys_topic_core, topic));
    hal_store(watch.changes, changes);
}

} // namespace

void task_watch_open(qor_bus_t *bus, task_watch_serve serve)
{
    hal_store(bus->priv->watch.serve, serve);
}

bool task_watch_tell(qor_bus_t *bus, const qor_sys_monitor_task_t *report)
{
    task_watch &watch = bus->priv->watch;
    const task_watch_serve serve = hal_load(watch.serve);
    if (!serve) {
        return false;
    }
    const uint32_t changes = topic_changes(bus->sys_topic_core, topic);
    if (hal_load(watch.changes) != changes) {
        watch_look_up(bus, changes);
    }
    qor_context_t *monitor = hal_load(watch.monitor);
    if (!monitor || !serve(monitor, report)) {
        return false;
    }
    (void)bus_session_next(bus); /* drawn as for a message, for the numbers are visible */
    return true;
}
