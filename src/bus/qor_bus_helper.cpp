/* SPDX-License-Identifier: Apache-2.0 */
/* Helpers: threads beside the workers that run one task each. They begin the inits that somebody
 * waits for, when every worker may be among those who wait. */
#include <stdlib.h>

#include "hal_sync.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_util.hpp"
#include "thread_record.hpp"

namespace {

struct bus_helper {
    list_head link; /* in the bus's list; guarded by its mutex */
    qor_bus_t *bus;
    hal_thread_t thread;
    qor_context_task_t task;
    int32_t over; /* 1 as its last act; guarded by the bus's mutex */
    thread_record record;
};

void bus_helper_left(void *arg)
{
    bus_helper *helper = static_cast<bus_helper *>(arg);
    thread_record_leave(helper->record);
    bus_busy_end(helper->bus);
    hal_scoped_lock lock(helper->bus->priv->mutex);
    helper->over = 1;
}

void *bus_helper_run(void *arg)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); /* it would end with locks held */
    bus_helper *helper = static_cast<bus_helper *>(arg);
    helper->record.bus = helper->bus;
    thread_record_set(&helper->record);
    pthread_cleanup_push(bus_helper_left, helper);
    bus_thread_setpriority(helper->bus);
    bus_thread_name_set(helper->bus, helper->task.name);
    qor_context_task_excute(&helper->task);
    pthread_cleanup_pop(1);
    return nullptr;
}

bus_helper *helper_of(list_head *link)
{
    return reinterpret_cast<bus_helper *>(link); /* first member */
}

void bus_helper_join(list_head *link)
{
    bus_helper *helper = helper_of(link);
    pthread_join(helper->thread, nullptr);
    list_del(&helper->link);
    free(helper);
}

/* Moves the helpers that are over to another list. The caller holds the mutex. */
void bus_helpers_take_locked(qor_bus_private &priv, list_head *over)
{
    util_list_each(priv.helpers, [over](list_head *link) {
        if (helper_of(link)->over) {
            list_del(link);
            list_add(link, over);
        }
    });
}

/* The caller holds the mutex. 0, or -1. */
int32_t bus_helper_create_locked(qor_bus_t *bus, bus_helper *helper)
{
    hal_thread_attr_t attr;
    if (bus_thread_attr_init(bus, &attr, "qor_bus_loop") != 0) {
        return -1;
    }
    const int created = pthread_create(&helper->thread, &attr, bus_helper_run, helper);
    pthread_attr_destroy(&attr);
    if (created != 0) {
        return -1;
    }
    list_add(&helper->link, &bus->priv->helpers);
    return 0;
}

} // namespace

int32_t bus_helper_start(qor_bus_t *bus, const qor_context_task_t *task)
{
    bus_helper *helper = util_zalloc<bus_helper>();
    if (!helper) {
        return -1;
    }
    helper->bus = bus;
    qor_context_task_copy(&helper->task, task);
    list_head over = {&over, &over};
    int32_t started = -1;
    {
        hal_scoped_lock lock(bus->priv->mutex);
        if (!bus->priv->stopping) { /* else they are all the loop's to join */
            bus_helpers_take_locked(*bus->priv, &over);
            started = bus_helper_create_locked(bus, helper);
        }
    }
    util_list_each(over, bus_helper_join); /* what their threads end with may need the mutex */
    if (started < 0) {
        free(helper);
    }
    return started;
}

void bus_helpers_join(qor_bus_t *bus)
{
    util_list_each(bus->priv->helpers, bus_helper_join);
}

void bus_busy_begin(qor_bus_t *bus)
{
    __atomic_add_fetch(&bus->priv->busy, 1, __ATOMIC_SEQ_CST);
}

void bus_busy_end(qor_bus_t *bus)
{
    hal_scoped_lock lock(bus->priv->mutex);
    if (__atomic_sub_fetch(&bus->priv->busy, 1, __ATOMIC_SEQ_CST) == 0) {
        pthread_cond_broadcast(&bus->priv->rested);
    }
}
