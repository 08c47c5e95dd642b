/* SPDX-License-Identifier: Apache-2.0 */
/* Whether anything is recorded, and who does it. What hooks do where size counts more than time. */
#include "trace.hpp"

uint32_t trace_mask;
const trace_functions *trace_made;

trace_span::trace_span(uint32_t class_, const qor_context_t *context, uint32_t what,
                       int32_t session, int32_t arg)
{
    if (trace_on(class_ | QOR_TRACE_STACKS)) {
        begun_ = trace_recorder().begin(class_, context, what, session, arg);
    }
}

trace_span::~trace_span()
{
    if (begun_.recording) {
        trace_recorder().end(begun_, result_);
    }
}

void trace_tell(uint32_t class_, const qor_context_t *context, uint32_t what, int32_t session,
                int32_t arg)
{
    if (trace_on(class_)) {
        trace_recorder().note(nullptr, context, what, session, arg);
    }
}
