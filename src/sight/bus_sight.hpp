/* SPDX-License-Identifier: Apache-2.0 */
/* What an application has asked to be told of a bus, or to be done about its waits. */
#ifndef BUS_SIGHT_HPP
#define BUS_SIGHT_HPP

#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"

/* Made by the first call that asks for something, and freed with the bus. Followed by the limits of
 * the bus's modules in ms, in their order; 0: a module has none of its own. Does not change once
 * the loop runs. */
struct bus_sight {
    /* See qor_stalled_t; NULL: nobody is told. */
    void (*stalled)(void *arg, const char *task, const char *module, int32_t topic, int32_t session,
                    int32_t age_ms);
    void *arg;
    /* Whether the calling thread, which is about to wait, closes a circle; NULL: nobody looks. */
    bool (*closes_circle)(const qor_bus_t *bus);
};

inline int32_t *sight_limits(bus_sight *sight)
{
    return reinterpret_cast<int32_t *>(sight + 1);
}

/* NULL when nothing has been asked for. */
inline bus_sight *sight_of(const qor_bus_t *bus)
{
    return bus ? hal_load(bus->priv->sight) : nullptr;
}

/* Has what is asked for changed, which makes it first, before the loop runs; the change gives what
 * is wrong, or NULL. 0, or -1 with a line under the name of func. */
int32_t sight_change(qor_bus_t *bus, const char *func,
                     const char *(*change)(qor_bus_t *bus, const void *wanted), const void *wanted);

#endif /* BUS_SIGHT_HPP */
