/* SPDX-License-Identifier: Apache-2.0 */
/* What contexts tell the recorder: events, deliveries, tasks, and their names. */
#include "trace_context.hpp"

#include <string.h>

#include "contract.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_sched_delegate_priv.hpp"
#include "trace_lane.hpp"

namespace {

uint32_t what_of(const qor_context_t *context, uint32_t what)
{
    return what | trace_who(context) << 16;
}

uint32_t from_of(const qor_context_t *publisher)
{
    return publisher ? trace_who(publisher) : trace_from_any;
}

/* The default name of a task is its function's address, which tells nothing elsewhere. */
const char *given_name(const qor_context_task_t *task)
{
    constexpr char by_default[] = "task:";
    const bool given = strncmp(task->name, by_default, sizeof(by_default) - 1) != 0;
    return given ? task->name : nullptr;
}

} // namespace

uint32_t trace_who(const qor_context_t *context)
{
    return context && sched_delegate_bus(context) ? delegate_of(context)->priv->number : 0;
}

void trace_context_note(const qor_context_t *publisher, const qor_context_t *context, uint32_t what,
                        int32_t session, int32_t arg)
{
    trace_lane_note({what_of(context, what), session, arg, from_of(publisher), nullptr});
}

int32_t trace_context_handle_message(const qor_context_t *publisher, qor_context_t *context,
                                     qor_context_msg_t *msg, trace_kind kind)
{
    const uint32_t what = what_of(context, trace_what(trace_start, kind));
    const bool asks = kind == trace_calls || kind == trace_system;
    const trace_begun begun = trace_lane_begin(
        {what, msg->session, msg->topic, asks ? from_of(publisher) : trace_from_any, nullptr},
        trace_class(kind));
    const int32_t ret = qor_context_handle_message(context, msg);
    trace_context_end(begun, ret);
    return ret;
}

void *trace_context_execute(const qor_context_t *context, qor_context_task_t *task)
{
    const uint32_t what = what_of(context, trace_what(trace_start, trace_runs));
    const trace_begun begun = trace_lane_begin(
        {what, task->session, -1, trace_from_any, given_name(task)}, QOR_TRACE_TASKS);
    void *result = qor_context_task_excute(task);
    trace_context_end(begun, 0);
    return result;
}

trace_begun trace_context_begin(uint32_t class_, const qor_context_t *context, uint32_t what,
                                int32_t session, int32_t arg)
{
    return trace_lane_begin({what_of(context, what), session, arg, trace_from_any, nullptr},
                            class_);
}

void trace_context_end(const trace_begun &begun, int32_t result)
{
    const bool waited = (begun.what & 0xff) == trace_wait;
    const uint32_t what = (begun.what & ~0xffu) | (waited ? trace_waited : trace_end);
    trace_lane_end(begun, {what, begun.session, result, trace_from_any, nullptr});
}

void trace_context_named(list_head *link)
{
    const qor_sched_delegate_t *delegate = delegate_at(link);
    const qor_context_module_t *module = delegate->context ? delegate->context->module : nullptr;
    if (!module) {
        return;
    }
    const contract *promise = delegate->priv->promise;
    const bool strict = promise && promise->terms.strict;
    trace_named named = {};
    named.name = module->name;
    named.role = delegate->role == QOR_BUS_ROLE_SYS ? 1 : 0;
    named.flags = (promise ? 4 : 0) + (strict ? 1 : 0);
    named.limit = module->refcount ? static_cast<uint32_t>(module->refcount) : 1;
    named.limit = strict ? promise->slots : named.limit;
    named.depth = promise ? promise->terms.depth : 0;
    trace_lane_name(delegate->bus, delegate->priv->number, named);
}
