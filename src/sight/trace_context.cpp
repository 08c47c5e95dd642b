/* SPDX-License-Identifier: Apache-2.0 */
/* What contexts tell the recorder: deliveries, tasks, and what a thread is inside. */
#include "trace_context.hpp"

#include <string.h>

#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_sched_delegate_priv.hpp"

namespace {

/* What ends what has been started so. */
uint32_t end_of(uint32_t what)
{
    const uint32_t type = (what & 0xff) == trace_wait ? trace_waited : trace_end;
    return (what & ~0xffu) | type;
}

uint32_t what_of(const qor_context_t *context, uint32_t what)
{
    return what | trace_who(context) << 16;
}

/* The default name of a task is its function's address, which tells nothing elsewhere. */
const char *given_name(const qor_context_task_t *task)
{
    constexpr char by_default[] = "task:";
    const bool given =
        task->name[0] && strncmp(task->name, by_default, sizeof(by_default) - 1) != 0;
    return given ? task->name : nullptr;
}

} // namespace

uint32_t trace_who(const qor_context_t *context)
{
    return context && sched_delegate_bus(context) ? delegate_of(context)->priv->number : 0;
}

void trace_event_of(const qor_context_t *context, uint32_t what, int32_t session, int32_t arg)
{
    trace_recorder()->note({what_of(context, what), session, arg, trace_from_any, nullptr});
}

void trace_event_from(const qor_context_t *publisher, const qor_context_t *context, uint32_t what,
                      int32_t session, int32_t arg)
{
    trace_recorder()->note({what_of(context, what), session, arg, trace_who(publisher), nullptr});
}

int32_t trace_handle_message(const qor_context_t *publisher, qor_context_t *context,
                             qor_context_msg_t *msg, trace_kind kind)
{
    const uint32_t what = what_of(context, trace_what(trace_start, kind));
    const int32_t session = msg->session; /* the message may be gone afterwards */
    const bool asks = kind == trace_calls || kind == trace_system;
    const uint32_t from = asks ? trace_who(publisher) : trace_from_any;
    const uint32_t begun = trace_recorder()->begin({what, session, msg->topic, from, nullptr},
                                                   trace_on(trace_class(kind)));
    const int32_t ret = qor_context_handle_message(context, msg);
    trace_recorder()->end(begun, {end_of(what), session, ret, trace_from_any, nullptr});
    return ret;
}

void *trace_execute(const qor_context_t *context, qor_context_task_t *task)
{
    const uint32_t what = what_of(context, trace_what(trace_start, trace_runs));
    const int32_t session = task->session;
    const uint32_t begun = trace_recorder()->begin(
        {what, session, -1, trace_from_any, given_name(task)}, trace_on(QOR_TRACE_TASKS));
    void *result = qor_context_task_excute(task);
    trace_recorder()->end(begun, {end_of(what), session, 0, trace_from_any, nullptr});
    return result;
}

uint32_t trace_span::begin(uint32_t class_, const qor_context_t *context, uint32_t what,
                           int32_t session, int32_t arg)
{
    what_ = what_of(context, what);
    session_ = session;
    return trace_recorder()->begin({what_, session, arg, trace_from_any, nullptr},
                                   trace_on(class_));
}

void trace_span::end()
{
    trace_recorder()->end(begun_, {end_of(what_), session_, result_, trace_from_any, nullptr});
}
