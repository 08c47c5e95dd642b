/* SPDX-License-Identifier: Apache-2.0 */
/* Lifecycle of a user context: who may enter it when, and who waits for what. */
#include "bus_sight.hpp"
#include "hal_sync.hpp"
#include "qor_bus_priv.hpp"
#include "qor_core_context.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_core_context";

/* Whether a wait for a start is one that the application wants refused. */
bool wait_is_refused(const qor_bus_t *bus, trace_awaited what)
{
    const bus_sight *sight = what == trace_waits_start ? sight_of(bus) : nullptr;
    return sight && sight->closes_circle && sight->closes_circle(bus);
}

/* Sleeps until reached() holds, which the caller tests again under the lock, or the bus quits;
 * false at once when the wait is refused. */
template <typename R>
bool lifecycle_await(qor_core_context_t *core, qor_bus_t *bus, trace_awaited what, R reached)
{
    trace_span inside(QOR_TRACE_CHANGES, &core->base, trace_what(trace_wait, what), 0, -1);
    if (wait_is_refused(bus, what)) { /* after the recorder knows of it, see closes_circle() */
        return false;
    }
    bus_waiter waiter(bus, core->mutex, core->cond);
    bus_stuck_begin(bus);
    {
        hal_scoped_lock lock(core->mutex);
        while (!reached() && !bus_stopping(bus)) {
            pthread_cond_wait(&core->cond, &core->mutex);
        }
    }
    bus_stuck_end(bus);
    return true;
}

void lifecycle_note(const qor_core_context_t *core, int32_t to)
{
    trace_tell(QOR_TRACE_CHANGES, &core->base, trace_what(trace_lifecycle), core->lifecycle, to);
}

/* The caller holds the mutex. */
void lifecycle_store(qor_core_context_t *core, int32_t lifecycle)
{
    lifecycle_note(core, lifecycle);
    hal_store(core->lifecycle, lifecycle);
    pthread_cond_broadcast(&core->cond);
}

/* Rises with every publish that is never left again, and wraps. */
void active_refcount_add(qor_core_context_t *core, int32_t count)
{
    __atomic_fetch_add(&core->active_refcount, count, __ATOMIC_RELAXED);
}

} // namespace

int32_t qor_core_context_lifecycle_change(qor_core_context_t *_this, int32_t lifecycle)
{
    QOR_CHECK(_this, -1);
    {
        hal_scoped_lock lock(_this->mutex);
        const int32_t from = _this->lifecycle;
        /* Deliberate: RESUME is accepted from anywhere, DESTROY included, and anything from PAUSE.
         * Test: Lifecycle.ResumeIsAcceptedFromAnywhere. */
        if (lifecycle == QOR_USER_CONTEXT_LIFECYCLE_RESUME ||
            static_cast<uint32_t>(from) <= static_cast<uint32_t>(lifecycle) ||
            from == QOR_USER_CONTEXT_LIFECYCLE_PAUSE) {
            lifecycle_store(_this, lifecycle);
            return 0;
        }
    }
    QOR_ERR("lifecycle change logical not correct.");
    return -1;
}

int32_t qor_core_context_lifecycle_start(qor_core_context_t *_this)
{
    QOR_CHECK(_this, -1);
    /* Deliberate: joined by "and", the two reads let everything pass but a change in between; what
     * decides is the test under the lock. Test: Lifecycle.StartIsDecidedUnderTheLock. */
    /* NOLINTNEXTLINE(misc-redundant-expression) */
    const bool early = (hal_load(_this->lifecycle) < QOR_USER_CONTEXT_LIFECYCLE_CREATE) &&
                       (hal_load(_this->lifecycle) > QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    if (!early) {
        hal_scoped_lock lock(_this->mutex);
        if (_this->lifecycle <= QOR_USER_CONTEXT_LIFECYCLE_CREATE) {
            lifecycle_store(_this, QOR_USER_CONTEXT_LIFECYCLE_START);
            return 0;
        }
    }
    QOR_ERR("lifecycle already START or not CREATE yet. START failed.");
    return -1;
}

int32_t qor_core_context_lifecycle_stop(qor_core_context_t *_this)
{
    QOR_CHECK(_this, -1);
    qor_bus_t *bus = sched_delegate_bus(&_this->base);
    const auto paused = [_this] { return _this->lifecycle == QOR_USER_CONTEXT_LIFECYCLE_PAUSE; };
    if (hal_load(_this->lifecycle) > QOR_USER_CONTEXT_LIFECYCLE_PAUSE) {
        QOR_ERR("lifecycle already STOP. STOP failed.");
        return -1;
    }
    for (;;) {
        {
            hal_scoped_lock lock(_this->mutex);
            if (paused()) {
                lifecycle_store(_this, QOR_USER_CONTEXT_LIFECYCLE_STOP);
                return 0;
            }
        }
        if (bus_stopping(bus)) {
            QOR_ERR("lifecycle already STOP. STOP failed.");
            return -1;
        }
        (void)lifecycle_await(_this, bus, trace_waits_pause, paused);
    }
}

int32_t qor_core_context_lifecycle_resume(qor_core_context_t *_this)
{
    QOR_CHECK(_this, -1);
    if (hal_load(_this->lifecycle) == QOR_USER_CONTEXT_LIFECYCLE_RESUME) {
        active_refcount_add(_this, 1);
        return 0;
    }
    qor_bus_t *bus = sched_delegate_bus(&_this->base);
    const auto started = [_this] { return _this->lifecycle > QOR_USER_CONTEXT_LIFECYCLE_CREATE; };
    const auto disturbed = [&] { return started() || _this->priv->init == user_init_offered; };
    if (hal_load(_this->lifecycle) > QOR_USER_CONTEXT_LIFECYCLE_PAUSE) {
        QOR_ERR("lifecycle already STOP or not START yet. RESUME failed.");
        return -1;
    }
    for (;;) {
        {
            hal_scoped_lock lock(_this->mutex);
            if (started() && _this->lifecycle <= QOR_USER_CONTEXT_LIFECYCLE_PAUSE) {
                /* Deliberate: no broadcast. This is done for each delivery, and who waits here
                 * waits for other changes. Test: Lifecycle.ResumeMakesNoBroadcast. */
                if (_this->lifecycle != QOR_USER_CONTEXT_LIFECYCLE_RESUME) {
                    lifecycle_note(_this, QOR_USER_CONTEXT_LIFECYCLE_RESUME);
                }
                hal_store(_this->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_RESUME);
                active_refcount_add(_this, 1);
                return 0;
            }
            if (started() || bus_stopping(bus)) {
                break;
            }
        }
        if (!user_init_help(_this, bus) &&
            !lifecycle_await(_this, bus, trace_waits_start, disturbed)) {
            break;
        }
    }
    QOR_ERR("lifecycle already STOP or DESTROY. RESUME failed.");
    return -1;
}

int32_t qor_core_context_lifecycle_pause(qor_core_context_t *_this)
{
    QOR_CHECK(_this, -1);
    const auto refused = [](int32_t lifecycle) {
        return lifecycle > QOR_USER_CONTEXT_LIFECYCLE_PAUSE ||
               lifecycle < QOR_USER_CONTEXT_LIFECYCLE_RESUME;
    };
    if (!refused(hal_load(_this->lifecycle))) {
        hal_scoped_lock lock(_this->mutex);
        if (!refused(_this->lifecycle)) {
            /* Deliberate: the lifecycle stays RESUME however often the context is left; only the
             * application sets PAUSE, and a stop waits for that.
             * Test: Lifecycle.PauseNeverReachesPause. */
            active_refcount_add(_this, -1);
            pthread_cond_broadcast(&_this->cond);
            return 0;
        }
    }
    QOR_ERR("lifecycle already STOP or not RESUME yet. PAUSE failed.");
    return -1;
}
