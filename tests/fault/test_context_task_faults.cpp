/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_task.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"

namespace {

void *run_nothing(void *)
{
    return nullptr;
}

void *runx_nothing(qor_context_t *, int32_t, void *)
{
    return nullptr;
}

} // namespace

TEST(ContextTaskFaults, CreateWithoutMemoryIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_task_create(nullptr, "n", 1, run_nothing, nullptr), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_task_create", "!(_this) == true."));
}

TEST(ContextTaskFaults, TaskxCreateWithoutMemoryIsReported)
{
    Output out;
    int place;
    qor_context_t *context = reinterpret_cast<qor_context_t *>(&place); /* only handed through */
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_taskx_create(context, "n", 1, runx_nothing, nullptr), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_taskx_create", "!(_this) == true."));
}

TEST(ContextTaskFaults, TaskxCreateChecksTheContextBeforeItAllocates)
{
    Output out;
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(qor_context_taskx_create(nullptr, "n", 1, runx_nothing, nullptr), nullptr);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
}
