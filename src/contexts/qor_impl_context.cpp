/* SPDX-License-Identifier: Apache-2.0 */
/* System context: the module's callbacks without anything in between, and its console thread. */
#include "qor_impl_context.h"

#include "hal_thread.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_core_context_priv.hpp"
#include "qor_diag.hpp"
#include "qor_impl_context_priv.hpp"
#include "qor_util.hpp"
#include "trace.hpp"

#include <string.h>

namespace {

constexpr char file_tag[] = "qor_impl_context";

constexpr int64_t console_stack_unit = 65536;
constexpr int32_t console_priority_min = 1;
constexpr int32_t console_priority_max = 99;

/* A thread's handle as a context's resource, and back. It is a number on one libc and a pointer on
 * another, and never zero for a thread: NULL stands for "no console". */
static_assert(sizeof(hal_thread_t) <= sizeof(void *), "a resource holds a thread's handle");

void *console_resource(hal_thread_t thread)
{
    void *resource = nullptr;
    memcpy(&resource, &thread, sizeof(thread));
    return resource;
}

hal_thread_t console_thread(void *resource)
{
    hal_thread_t thread;
    memcpy(&thread, &resource, sizeof(thread));
    return thread;
}

/* In 64 bits, because rounding up the largest sizes would overflow 32. */
size_t console_stack_size(const qor_context_module_t *module)
{
    const int64_t units = (module->stack_size + console_stack_unit - 1) / console_stack_unit;
    return static_cast<size_t>((units > 1 ? units : 1) * console_stack_unit);
}

int32_t console_attr_init(hal_thread_attr_t *attr, const qor_context_module_t *module)
{
    if (pthread_attr_init(attr) != 0) {
        return -1;
    }
    (void)hal_thread_attr_setstacksize(attr, console_stack_size(module)); /* else the default */
    if (hal_thread_attr_setpriority(attr, impl_console_priority(module)) != 0) {
        pthread_attr_destroy(attr);
        return -1;
    }
    return 0;
}

/* The entry of the console thread. */
void *qor_impl_context_console(void *arg)
{
    /* Deliberate: a console cannot be cancelled, neither by accident nor on purpose: one that ended
     * inside a queue or while it prints would take the lock along.
     * Test: ImplContextConsole.ThatIsCancelledGoesOn. */
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    qor_context_t *_this = static_cast<qor_context_t *>(arg);
    hal_thread_name_set(_this->module->name);
    const intptr_t result = _this->module->console(_this);
    return reinterpret_cast<void *>(result);
}

/* The line is one that logs know, though the constructor takes all that is not NULL. */
qor_context_t *qor_impl_context_constructor(qor_impl_context_t *_this, qor_context_module_t *module)
{
    qor_context_t *base = qor_context_constructor(&_this->base, &qor_impl_context_class, module);
    if (!base) {
        QOR_ERR_SPACED("\"qor_context_constructor\" called failed.");
    }
    return base;
}

qor_context_t *qor_impl_context_create(qor_context_module_t *module)
{
    QOR_CHECK(module, nullptr);
    qor_impl_context_t *_this = util_zalloc<qor_impl_context_t>();
    if (!_this) {
        QOR_ERR_SPACED("malloc \"qor_impl_context_t\" failed.");
        return nullptr;
    }
    return qor_impl_context_constructor(_this, module);
}

void qor_impl_context_destroy(qor_context_t *_this)
{
    QOR_CHECK_VOID(_this);
    qor_context_destructor(_this);
    free(_this); /* the base is the first field of the record */
}

/* Deliberate: in all of the following a callback that the module lacks is reported, not skipped; a
 * built-in module without uninit prints that line when it is taken down.
 * Test: ImplContextCallback.MissingIsReported. */

void qor_impl_context_register(qor_context_t *_this)
{
    QOR_CHECK_VOID(_this);
    QOR_CHECK_VOID(_this->module->reg);
    _this->module->reg(_this);
}

void qor_impl_context_unregister(qor_context_t *_this)
{
    QOR_CHECK_VOID(_this);
    QOR_CHECK_VOID(_this->module->unreg);
    _this->module->unreg(_this);
}

int32_t qor_impl_context_start(qor_context_t *_this)
{
    QOR_CHECK(_this, -1);
    if (!_this->module->console) {
        return 0;
    }
    hal_thread_attr_t attr;
    if (console_attr_init(&attr, _this->module) != 0) {
        QOR_ERR("set thread priority failed.");
        return -1;
    }
    /* Deliberate: a console that cannot be created is not reported and start succeeds; the context
     * then has none, and stop waits for none.
     * Test: ImplContextFaults.UncreatedConsoleIsNotReported. */
    hal_thread_t thread;
    const bool created = pthread_create(&thread, &attr, qor_impl_context_console, _this) == 0;
    qor_context_resource_set(_this, created ? console_resource(thread) : nullptr);
    pthread_attr_destroy(&attr);
    return 0;
}

/* Does not ask the console to end: a module makes its console return before it is stopped. */
void qor_impl_context_stop(qor_context_t *_this)
{
    void *resource = qor_context_resource_get(_this);
    if (!resource || !_this->module->console) {
        return;
    }
    {
        trace_span waits(0, user_context_attached(_this),
                         trace_what(trace_wait, trace_waits_console), 0, -1);
        pthread_join(console_thread(resource), nullptr);
    }
    qor_context_resource_set(_this, nullptr); /* a second stop must not join again */
}

int32_t qor_impl_context_init(qor_context_t *_this)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(_this->module->init, -1);
    return _this->module->init(_this, _this->module->arg);
}

void qor_impl_context_uninit(qor_context_t *_this)
{
    QOR_CHECK_VOID(_this);
    QOR_CHECK_VOID(_this->module->uninit);
    _this->module->uninit(_this);
}

int32_t qor_impl_context_handle_message(qor_context_t *_this, qor_context_msg_t *msg)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(msg, -1);
    QOR_CHECK(_this->module->handle_message, -1);
    return _this->module->handle_message(_this, msg);
}

int32_t qor_impl_context_handle_task(qor_context_t *_this, qor_context_task_t *task)
{
    return qor_context_handler_post(_this, task);
}

} // namespace

qor_context_cls_t qor_impl_context_class = {
    /* name */ "qor_impl_context",
    /* id */ 0,
    /* node */ {nullptr, nullptr}, /* linked by the registry */
    /* 1 create */ qor_impl_context_create,
    /* 2 destroy */ qor_impl_context_destroy,
    /* 3 reg */ qor_impl_context_register,
    /* 4 unreg */ qor_impl_context_unregister,
    /* 5 start */ qor_impl_context_start,
    /* 6 stop */ qor_impl_context_stop,
    /* 7 resume */ nullptr, /* nothing to wait for before a delivery */
    /* 8 pause */ nullptr,
    /* 9 init */ qor_impl_context_init,
    /* 10 uninit */ qor_impl_context_uninit,
    /* 11 handle_message */ qor_impl_context_handle_message,
    /* 12 handle_task */ qor_impl_context_handle_task,
    /* 13 loop */ nullptr, /* no queue of its own */
};

int32_t impl_console_priority(const qor_context_module_t *module)
{
    if (module->priority < console_priority_min) {
        return console_priority_min;
    }
    return module->priority < console_priority_max ? module->priority : console_priority_max;
}

bool impl_console_stack_refused(const qor_context_module_t *module)
{
    hal_thread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return false;
    }
    const bool refused = hal_thread_attr_setstacksize(&attr, console_stack_size(module)) != 0;
    pthread_attr_destroy(&attr);
    return refused;
}

bool impl_console_missing(qor_context_t *context)
{
    return context->cls == &qor_impl_context_class && context->module->console &&
           !qor_context_resource_get(context);
}
