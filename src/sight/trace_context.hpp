/* SPDX-License-Identifier: Apache-2.0 */
/* What contexts tell the recorder. Nothing here is called unless something is recorded. */
#ifndef TRACE_CONTEXT_HPP
#define TRACE_CONTEXT_HPP

#include "qor_context_task.h"
#include "qor_types.h"
#include "trace.hpp"

/* The number that recordings know a context by; 0 for one that is not attached to a bus. */
uint32_t trace_who(const qor_context_t *context);

/* Notes an event of a context's: what is trace_what() without who. */
void trace_event_of(const qor_context_t *context, uint32_t what, int32_t session, int32_t arg);

/* The same of what a publisher causes: from is told where it does not show. */
void trace_event_from(const qor_context_t *publisher, const qor_context_t *context, uint32_t what,
                      int32_t session, int32_t arg);

/* Has a message handled, as qor_context_handle_message() does. The publisher counts only when it
 * calls. */
int32_t trace_handle_message(const qor_context_t *publisher, qor_context_t *context,
                             qor_context_msg_t *msg, trace_kind kind);

/* Executes a task of a context's own. */
void *trace_execute(const qor_context_t *context, qor_context_task_t *task);

/* The calling thread is inside something of a context's, from construction to destruction. */
class trace_span {
public:
    trace_span(uint32_t class_, const qor_context_t *context, uint32_t what, int32_t session,
               int32_t arg)
        : begun_(trace_on(class_ | QOR_TRACE_STACKS) ? begin(class_, context, what, session, arg)
                                                     : 0)
    {
    }
    ~trace_span()
    {
        if (trace_built && begun_) {
            end();
        }
    }
    trace_span(const trace_span &) = delete;
    trace_span &operator=(const trace_span &) = delete;

    void result(int32_t result) { result_ = result; }

private:
    uint32_t begin(uint32_t class_, const qor_context_t *context, uint32_t what, int32_t session,
                   int32_t arg);
    void end();

    uint32_t what_;
    int32_t session_;
    int32_t result_ = 0;
    uint32_t begun_;
};

#endif /* TRACE_CONTEXT_HPP */
