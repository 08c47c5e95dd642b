/* SPDX-License-Identifier: Apache-2.0 */
/* User contexts with allocations that fail. */
#include "qor_core_context.h"

#include <string>

#include <gtest/gtest.h>

#include "core_context_fixture.hpp"
#include "fault.h"
#include "module.hpp"
#include "output.hpp"

namespace {

const std::string failed_line = err_line("qor_core_context", "qor_core_context_create",
                                         "\"qor_core_context_constructor\" called failed.\n");

class CoreContextCreateFaults : public testing::Test {
protected:
    qor_context_t *create_with_failing(int number)
    {
        fault_arm(FAULT_ALLOC, number);
        qor_context_t *made = qor_core_context_class.create(&module.descriptor);
        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        fault_arm(FAULT_ALLOC, -1);
        return made;
    }

    Module module{"gauge"};
    Output out;
};

class CoreContextFaults : public CoreContext {
public:
    ~CoreContextFaults() override { fault_arm(FAULT_ALLOC, -1); }
};

} // namespace

TEST_F(CoreContextCreateFaults, WithoutMemoryPrintsALineAndAnEmptyOne)
{
    EXPECT_EQ(create_with_failing(0), nullptr);

    EXPECT_EQ(out.printed(), err_line("qor_core_context", "qor_core_context_create",
                                      "malloc for \"qor_core_context_t\" failed.\n"));
}

TEST_F(CoreContextCreateFaults, WithoutInnerContextNothingStays)
{
    EXPECT_EQ(create_with_failing(1), nullptr);

    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_create",
                                      "malloc \"qor_impl_context_t\" failed.\n") +
                                 err_line("qor_core_context", "qor_core_context_constructor",
                                          "create context failed.") +
                                 failed_line);
}

TEST_F(CoreContextCreateFaults, WithoutQueueNothingStays)
{
    EXPECT_EQ(create_with_failing(2), nullptr);

    EXPECT_EQ(out.printed(),
              err_line("qor_time_que", "qor_time_que_create", "!(_this) == true.") + failed_line);
}

TEST_F(CoreContextCreateFaults, ThreeAllocationsAreEnough)
{
    fault_arm(FAULT_ALLOC, -1);

    qor_context_t *wrapper = qor_core_context_class.create(&module.descriptor);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 3);
    qor_context_t *inner = qor_core_context_type(wrapper)->context;
    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
}

TEST_F(CoreContextFaults, ATaskWithoutNodeIsRefused)
{
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(post(task("t", 7)), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(recycled, 0);
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(behind.posted.size(), 0u);
    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_node_create",
                                      "malloc \"qor_time_que_node_t\" failed.") +
                                 err_line("qor_core_context", "qor_core_context_handle_task",
                                          "malloc \"que_node\" failed."));
}

TEST_F(CoreContextFaults, PostingATaskMakesOneAllocation)
{
    fault_arm(FAULT_ALLOC, -1);

    ASSERT_EQ(post(task("t", 7)), 0);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1); /* the bus's node for the loop run comes on top */
}

TEST_F(CoreContextFaults, RunningATaskMakesNone)
{
    ASSERT_EQ(post(task("t", 7)), 0);
    fault_arm(FAULT_ALLOC, -1);

    behind.run(0);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
}
