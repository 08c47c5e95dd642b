/* SPDX-License-Identifier: Apache-2.0 */
/* What an application asks for before the loop runs: to be told of stalls, limits of its modules.
 */
#include "bus_sight.hpp"

#include <string.h>

#include "qor_context_module.h"
#include "qor_diag.hpp"
#include "qor_health.h"
#include "qor_util.hpp"

namespace {

constexpr char file_tag[] = "qor_health";

const char *sight_change_locked(qor_bus_t *bus,
                                const char *(*change)(qor_bus_t *bus, const void *wanted),
                                const void *wanted)
{
    qor_bus_private &priv = *bus->priv;
    if (priv.looping || priv.stopping) {
        return "loop: the bus loops already.";
    }
    if (!priv.sight) {
        priv.sight = util_zalloc<bus_sight>(bus_module_count(bus->modules) * sizeof(int32_t));
    }
    return priv.sight ? change(bus, wanted) : "malloc \"bus_sight\" failed.";
}

struct module_limit {
    const char *module;
    int32_t limit_ms;
};

const char *limit_change(qor_bus_t *bus, const void *wanted)
{
    const module_limit &limit = *static_cast<const module_limit *>(wanted);
    const char *wrong = "name: no module has it.";
    for (size_t place = 0; const qor_context_module_t *module = bus->modules[place]; place++) {
        if (strncmp(module->name, limit.module, sizeof(module->name)) == 0) {
            sight_limits(bus->priv->sight)[place] = limit.limit_ms;
            wrong = nullptr;
        }
    }
    return wrong;
}

const char *stalled_change(qor_bus_t *bus, const void *wanted)
{
    const bus_sight &sight = *static_cast<const bus_sight *>(wanted);
    bus->priv->sight->stalled = sight.stalled;
    bus->priv->sight->arg = sight.arg;
    return nullptr;
}

} // namespace

int32_t sight_change(qor_bus_t *bus, const char *func,
                     const char *(*change)(qor_bus_t *bus, const void *wanted), const void *wanted)
{
    const char *wrong;
    {
        hal_scoped_lock lock(bus->priv->mutex);
        wrong = sight_change_locked(bus, change, wanted);
    }
    if (wrong) {
        QOR_LINE("err", func, "%s", wrong);
        return -1;
    }
    return 0;
}

int32_t qor_bus_limit_set(qor_bus_t *bus, const char *module, int32_t limit_ms)
{
    QOR_CHECK(bus, -1);
    QOR_CHECK(module, -1);
    QOR_CHECK(limit_ms >= 0, -1);
    const module_limit wanted = {module, limit_ms};
    return sight_change(bus, __func__, limit_change, &wanted);
}

int32_t qor_bus_stalled_set(qor_bus_t *bus, qor_stalled_t stalled, void *arg)
{
    QOR_CHECK(bus, -1);
    const bus_sight wanted = {stalled, arg, nullptr};
    return sight_change(bus, __func__, stalled_change, &wanted);
}
