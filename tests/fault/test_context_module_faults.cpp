/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_module.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "recording_context.hpp"

namespace {

constexpr qor_context_topic_t some_topic = 12;
constexpr int32_t own_session = 70;

void *run(void *)
{
    return nullptr;
}
void *runx(qor_context_t *, int32_t, void *)
{
    return nullptr;
}

TEST(ContextModuleFaults, NoRequestRunOrTimerAllocates)
{
    RecordingContext recording;
    qor_context_t *context = recording.get();
    char bytes[64] = {};

    fault_arm(FAULT_ALLOC, 0);
    qor_context_req_ret(context, some_topic, bytes, 64, 64);
    qor_context_req_ret_s(context, own_session, some_topic, bytes, 64, 64);
    qor_context_x_req_ret(context, some_topic, bytes, 64, bytes, 64);
    qor_context_x_req_ret_s(context, own_session, some_topic, bytes, 64, bytes, 64);
    qor_context_sys_req_ret(context, some_topic, bytes, 64, 64);
    qor_context_sysx_req_ret(context, some_topic, bytes, 64, bytes, 64);
    qor_context_run(context, run, nullptr);
    qor_context_runx_name(context, "name", runx, nullptr);
    qor_context_x_timer_s(context, own_session, run, nullptr, 5);
    qor_context_x_timerx_full(context, "name", own_session, runx, nullptr, 5);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    EXPECT_EQ(recording.slots, "session publish publish session publishx publishx session syscall "
                               "session syscall session post session post post post");

    qor_context_task_t *task = qor_context_task_create(context, "name", own_session, run, nullptr);
    EXPECT_EQ(task, nullptr); /* the fault was still to come: the count is a live one */
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}

} // namespace
