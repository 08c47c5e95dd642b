/* SPDX-License-Identifier: Apache-2.0 */
/* Who begins the init of a user context. Its task waits in the task queue like any other; but when
 * all workers wait for its start, no worker comes to it. So whoever waits has it begun. */
#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_core_context_priv.hpp"
#include "thread_record.hpp"

namespace {

/* Claims an init that is on offer. */
bool init_take(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->mutex);
    if (core->priv->init != user_init_offered) {
        return false;
    }
    hal_store(core->priv->init, user_init_begun);
    return true;
}

/* An init on the thread that waits for it. Without a record of its own, the thread is meanwhile one
 * of the bus's: for drain, and when the init ends it. */
struct init_here {
    qor_bus_t *bus;
    thread_record *before; /* a pool's, or NULL */
    thread_record record;
};

void init_here_left(void *arg)
{
    init_here *here = static_cast<init_here *>(arg);
    if (thread_record_get() == &here->record) {
        thread_record_leave(here->record);
        thread_record_set(here->before);
    }
    bus_busy_end(here->bus);
}

void init_run_here(qor_core_context_t *core, qor_bus_t *bus)
{
    init_here here = {};
    here.bus = bus;
    here.record.bus = bus;
    here.before = thread_record_get();
    if (!here.before || !here.before->bus) {
        thread_record_set(&here.record);
    }
    pthread_cleanup_push(init_here_left, &here);
    qor_context_task_excute(&core->priv->init_task);
    pthread_cleanup_pop(1);
}

} // namespace

void user_init_offer(qor_core_context_t *core, const qor_context_task_t *task)
{
    hal_scoped_lock lock(core->mutex);
    core->priv->init_task = *task;
    hal_store(core->priv->init, user_init_offered);
    pthread_cond_broadcast(&core->cond);
}

bool user_init_claim(qor_core_context_t *core)
{
    hal_scoped_lock lock(core->mutex);
    const bool claimed = core->priv->init != user_init_begun;
    hal_store(core->priv->init, user_init_begun);
    return claimed;
}

bool user_init_help(qor_core_context_t *core, qor_bus_t *bus)
{
    if (!bus || bus_stopping(bus) || hal_load(core->priv->init) != user_init_offered) {
        return false;
    }
    bus_busy_begin(bus); /* first: drain must not find its task begun and nobody at work */
    if (!init_take(core)) {
        bus_busy_end(bus);
        return false;
    }
    if (bus_helper_start(bus, &core->priv->init_task) == 0) {
        return true;
    }
    if (bus_stopping(bus)) {
        bus_busy_end(bus);
        return false;
    }
    init_run_here(core, bus);
    return true;
}
