/* SPDX-License-Identifier: Apache-2.0 */
/* What contexts tell the recorder, with the numbers that it knows them by. Reached through
 * trace_functions alone, where each function is described. */
#ifndef TRACE_CONTEXT_HPP
#define TRACE_CONTEXT_HPP

#include "qor_hal.h"
#include "qor_types.h"
#include "trace.hpp"

/* The number of a context; 0 for one that is not attached to a bus. */
uint32_t trace_who(const qor_context_t *context);

void trace_context_note(const qor_context_t *publisher, const qor_context_t *context, uint32_t what,
                        int32_t session, int32_t arg);
int32_t trace_context_handle_message(const qor_context_t *publisher, qor_context_t *context,
                                     qor_context_msg_t *msg, trace_kind kind);
void *trace_context_execute(const qor_context_t *context, qor_context_task_t *task);
trace_begun trace_context_begin(uint32_t class_, const qor_context_t *context, uint32_t what,
                                int32_t session, int32_t arg);
void trace_context_end(const trace_begun &begun, int32_t result);
void trace_context_named(list_head *link);

#endif /* TRACE_CONTEXT_HPP */
