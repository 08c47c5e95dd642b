/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers of contexts: arming one, and its runs. */
#include "qor_periodic.h"

#include "bus_periodic.hpp"
#include "contract.hpp"
#include "qor_bus_priv.hpp"
#include "qor_context_module.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "thread_record.hpp"
#include "trace.hpp"
#include "user_run.hpp"

namespace {

constexpr char file_tag[] = "qor_periodic";

struct user_periodic {
    bus_periodic timer;
    qor_context_t *self;
    qor_context_every_run_t run;
};

void periodic_tell(user_periodic *periodic, int32_t state)
{
    qor_sys_monitor_task_t report = monitor_report(bus_periodic_task(&periodic->timer));
    monitor_tell(periodic->timer.context, report, state);
}

/* The contract of its module, or NULL. */
contract *periodic_promise(const user_periodic *periodic)
{
    return sched_delegate_contract(periodic->timer.context);
}

/* The run is over; the ledger counts it no more. */
void periodic_end(user_periodic *periodic)
{
    contract *promise = periodic_promise(periodic);
    periodic_tell(periodic, QOR_SYS_MONITOR_TASK_OVER);
    if (promise) {
        hal_scoped_lock lock(*promise->mutex);
        contract_task_over_locked(*promise, thread_record_get());
    }
}

/* The run has ended its thread, and the timer goes on. */
void periodic_left(void *timer)
{
    user_periodic *periodic = static_cast<user_periodic *>(timer);
    periodic_end(periodic);
    bus_periodic_over(&periodic->timer);
}

qor_core_context_t *periodic_core(void *timer)
{
    qor_context_t *context = static_cast<bus_periodic *>(timer)->context;
    return context->cls == &qor_core_context_class ? qor_core_context_type(context) : nullptr;
}

/* Whether the init of its module has failed: nothing is begun any more. */
bool periodic_is_closed(user_periodic *periodic)
{
    const qor_core_context_t *core = periodic_core(&periodic->timer);
    if (!core) {
        return false;
    }
    hal_scoped_lock lock(core->que->mutex);
    return core->priv->closed;
}

void periodic_call(user_periodic *periodic, uint32_t missed)
{
    const bus_periodic &timer = periodic->timer;
    trace_span inside(QOR_TRACE_TASKS, timer.context, trace_what(trace_start, trace_runs),
                      timer.session, -1);
    if (missed > 0 && trace_on(QOR_TRACE_TASKS)) {
        trace_recorder().note(nullptr, timer.context, trace_what(trace_missed), timer.session,
                              static_cast<int32_t>(missed));
    }
    periodic->run(periodic->self, timer.session, timer.arg, missed);
}

/* Runs what a worker has come to, unless the timer is to end. */
void periodic_run(user_periodic *periodic)
{
    uint32_t missed;
    if (bus_periodic_begin(&periodic->timer, &missed) && !periodic_is_closed(periodic)) {
        thread_scope inside(periodic_left, periodic);
        if (contract *promise = periodic_promise(periodic)) {
            contract_periodic_begun(*promise);
        }
        periodic_tell(periodic, QOR_SYS_MONITOR_TASK_START);
        periodic_call(periodic, missed);
        periodic_end(periodic);
    }
    bus_periodic_over(&periodic->timer);
}

/* The function of its task. */
void *periodic_task(qor_context_t *, int32_t, void *periodic)
{
    periodic_run(static_cast<user_periodic *>(periodic));
    return nullptr;
}

/* The run of a strict module has ended the thread: what its place in the queue has counted goes
 * after what the timer itself has. */
void periodic_turn_left(void *core)
{
    user_task_over(static_cast<qor_core_context_t *>(core));
}

void periodic_turn_run(qor_core_context_t *core, qor_time_que_node_t *node)
{
    user_periodic *periodic = reinterpret_cast<user_periodic *>(bus_periodic_of(node));
    thread_scope inside(periodic_turn_left, core);
    bus_thread_name_set(sched_delegate_bus(&core->base), bus_periodic_task(&periodic->timer)->name);
    periodic_run(periodic);
}

/* In a strict module the run waits in the queue. */
bool periodic_turn(bus_periodic *timer)
{
    qor_core_context_t *core = periodic_core(timer);
    return core->priv->promise->calls->periodic(core, bus_periodic_node(timer));
}

void periodic_over(bus_periodic *timer)
{
    user_task_over(periodic_core(timer));
}

constexpr periodic_calls calls = {
    /* has */ bus_periodic_has,
    /* cancel */ bus_periodic_cancel,
    /* end */ bus_periodics_end,
    /* due */ bus_periodic_due,
    /* run */ periodic_turn_run,
    /* left */ periodic_left,
    /* core */ periodic_core,
};

/* A timer with its task; NULL without memory, and a line. */
user_periodic *periodic_create(qor_bus_t *bus, qor_context_t *context, qor_context_every_run_t run)
{
    bus_periodic *timer = bus_periodic_create(bus, sizeof(user_periodic), &calls);
    if (!timer) {
        return nullptr;
    }
    user_periodic *periodic = reinterpret_cast<user_periodic *>(timer); /* first member */
    char name[sizeof(qor_context_task_t::name)]; /* as a task that calls run itself would have */
    hal_snprintf(name, sizeof(name), "task:%p", reinterpret_cast<const void *>(run));
    qor_context_taskx_init(bus_periodic_task(timer), context, name, timer->session, periodic_task,
                           periodic);
    timer->context = context;
    periodic->run = run;
    return periodic;
}

/* Arms it: false when the bus quits, or the context's init has failed. From then on it counts as
 * under way there. */
bool periodic_start(bus_periodic *timer)
{
    qor_core_context_t *core = periodic_core(timer);
    if (!core) {
        return bus_periodic_start(timer);
    }
    timer->over = periodic_over;
    timer->turn =
        core->priv->promise && core->priv->promise->terms.strict ? periodic_turn : nullptr;
    hal_scoped_lock lock(core->que->mutex);
    if (core->priv->closed || !bus_periodic_start(timer)) {
        return false;
    }
    core->priv->under_way++;
    return true;
}

} // namespace

int32_t qor_context_every(qor_context_t *self, qor_context_every_run_t run, void *arg,
                          qor_context_recycle_t recycle, int32_t period_ms)
{
    QOR_CHECK(self, -1);
    QOR_CHECK(run, -1);
    QOR_CHECK(period_ms > 0, -1);
    qor_context_t *context = user_context_attached(self);
    qor_bus_t *bus = context ? sched_delegate_bus(context) : nullptr;
    if (!bus) {
        QOR_ERR("not on a bus, source: %s", qor_context_module_name_get(self));
        return -1;
    }
    QOR_CHECK(bus->time_que, -1);
    user_periodic *periodic = periodic_create(bus, context, run);
    if (!periodic) {
        return -1;
    }
    periodic->self = self;
    periodic->timer.arg = arg;
    periodic->timer.recycle = recycle;
    periodic->timer.period = period_ms;
    const int32_t session = periodic->timer.session; /* once it is armed, it may be gone */
    if (!periodic_start(&periodic->timer)) {
        bus_periodic_destroy(&periodic->timer);
        QOR_ERR("the bus has quit, or the init has failed, source: %s",
                qor_context_module_name_get(self));
        return -1;
    }
    return session;
}
