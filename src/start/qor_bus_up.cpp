/* SPDX-License-Identifier: Apache-2.0 */
/* Waiting until the modules are up, and what is kept for it while they come up. */
#include "qor_start.h"

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "qor_util.hpp"
#include "que_waits.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_bus";

size_t phase_size(qor_context_module_t **modules, bool pure)
{
    size_t size = 0;
    for (; *modules; modules++) {
        size += ((*modules)->pure != 0) == pure;
    }
    return size;
}

/* The caller holds the mutex. */
void start_end_locked(qor_bus_private &priv)
{
    priv.start.ended = 1;
    priv.start.late = priv.stopping;
    pthread_cond_broadcast(&priv.rested);
}

void start_break_locked(qor_bus_private &priv)
{
    priv.start.broken = 1;
    start_end_locked(priv);
}

int32_t start_state(const bus_start &start, size_t place)
{
    const int32_t state = start.modules ? start.modules[place].state : QOR_START_PENDING;
    if (state != QOR_START_PENDING || !start.ended) {
        return state;
    }
    if (start.broken) {
        return QOR_START_BROKEN;
    }
    return start.because ? QOR_START_NEVER : QOR_START_NO_PURE;
}

int32_t start_init_time(const bus_start &start, size_t place)
{
    const int64_t begun = start.modules ? start.modules[place].begun : 0;
    const int64_t passed = begun ? util_timestamp() - begun : -1;
    return passed < INT32_MAX ? static_cast<int32_t>(passed) : INT32_MAX;
}

void start_entry_fill(qor_start_entry_t *entry, const qor_bus_t *bus, size_t place)
{
    const bus_start &start = bus->priv->start;
    *entry = {};
    util_name_copy(entry->name, bus->modules[place]->name);
    entry->state = start_state(start, place);
    entry->init_time = entry->state == QOR_START_PENDING ? start_init_time(start, place) : -1;
    if (entry->state == QOR_START_NEVER) {
        util_name_copy(entry->because, start.because->name);
    }
}

/* Fills the report, if there is one; whether all modules are up. The caller holds the mutex. */
bool start_look_locked(const qor_bus_t *bus, qor_start_report_t *report)
{
    bool up = !bus->priv->start.broken;
    size_t place = 0;
    for (; bus->modules[place]; place++) {
        const int32_t state = start_state(bus->priv->start, place);
        up = up && (state == QOR_START_UP || state == QOR_START_NO_CONSOLE);
        if (report && place < report->capacity) {
            start_entry_fill(&report->entries[place], bus, place);
        }
    }
    if (report) {
        report->total = static_cast<uint32_t>(place);
    }
    return up;
}

} // namespace

void bus_start_modules(qor_bus_t *bus, module_start *modules)
{
    if (!bus) {
        return;
    }
    hal_scoped_lock lock(bus->priv->mutex);
    bus_start &start = bus->priv->start;
    start.modules = modules;
    start.wanted = phase_size(bus->modules, true);
    if (start.wanted == 0) {
        start_end_locked(*bus->priv);
    }
}

void bus_start_init(qor_bus_t *bus, module_start *module)
{
    if (!module) {
        return;
    }
    hal_scoped_lock lock(bus->priv->mutex);
    module->begun = util_timestamp();
}

void bus_start_over(qor_bus_t *bus, module_start *module, int32_t state, bool next)
{
    if (!module) {
        return;
    }
    hal_scoped_lock lock(bus->priv->mutex);
    bus_start &start = bus->priv->start;
    module->state = state;
    const qor_context_module_t *descriptor = bus->modules[module - start.modules];
    if (descriptor->pure && state > QOR_START_NO_CONSOLE) {
        start.because = descriptor;
    }
    start.wanted += next ? phase_size(bus->modules, false) : 0;
    if (--start.wanted == 0) {
        start_end_locked(*bus->priv);
    }
}

void bus_start_break(qor_bus_t *bus)
{
    if (bus) {
        hal_scoped_lock lock(bus->priv->mutex);
        start_break_locked(*bus->priv);
    }
}

void bus_start_up_over(qor_bus_t *bus)
{
    hal_scoped_lock lock(bus->priv->mutex);
    if (!bus->priv->start.modules) {
        start_break_locked(*bus->priv);
    }
}

int32_t qor_bus_wait_up(qor_bus_t *_this, int32_t wait_time, qor_start_report_t *report)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(!report || report->entries || !report->capacity, -1);
    if (bus_visitor_refused(_this, __func__)) {
        return -1;
    }
    qor_bus_private &priv = *_this->priv;
    const bus_start &start = priv.start;
    const int64_t deadline = que_deadline(wait_time);
    bus_visitor inside(priv);
    trace_span waits(QOR_TRACE_CHANGES, nullptr, trace_what(trace_wait, trace_waits_up), 0,
                     wait_time);
    hal_scoped_lock lock(priv.mutex);
    while (!start.ended && !priv.stopping && !que_time_is_over(deadline)) {
        que_sleep_until(priv.rested, priv.mutex, deadline);
    }
    const bool up = start_look_locked(_this, report);
    if (start.ended && !start.late) {
        return up ? 0 : 1;
    }
    return priv.stopping ? 2 : -1;
}
