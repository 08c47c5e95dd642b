/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_impl_context.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_context_module.h"

namespace {

int runs;

int32_t console_count(qor_context_t *)
{
    runs++;
    return 0;
}

class ImplContextFaults : public testing::Test {
protected:
    ImplContextFaults() : context(qor_context_create(&qor_impl_context_class, &module)) {}
    ~ImplContextFaults() override { qor_context_destroy(context); }

    qor_context_module_t module = {"gauge", 0,       0,       0,       0,       0,
                                   nullptr, nullptr, nullptr, nullptr, nullptr, console_count,
                                   nullptr};
    qor_context_t *context;
    Output out;
};

} // namespace

TEST_F(ImplContextFaults, CreateWithoutMemoryPrintsALineAndAnEmptyOne)
{
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_create(&qor_impl_context_class, &module), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_create",
                                      "malloc \"qor_impl_context_t\" failed.\n"));
}

TEST_F(ImplContextFaults, CreateMakesOneAllocation)
{
    fault_arm(FAULT_ALLOC, -1);

    qor_context_destroy(qor_context_create(&qor_impl_context_class, &module));

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}

TEST_F(ImplContextFaults, StartWithoutConsoleMakesNoThread)
{
    module.console = nullptr;
    fault_arm(FAULT_THREAD, -1);

    EXPECT_EQ(qor_context_start(context), 0);

    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
}

TEST_F(ImplContextFaults, RefusedPriorityIsReportedAndMakesNoThread)
{
    runs = 0;
    fault_arm(FAULT_SCHED, 0);
    fault_arm(FAULT_THREAD, -1);

    EXPECT_EQ(qor_context_start(context), -1);

    EXPECT_EQ(fault_fired(FAULT_SCHED), 1);
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
    EXPECT_EQ(qor_context_resource_get(context), nullptr);
    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_start",
                                      "set thread priority failed."));
    qor_context_stop(context);
    EXPECT_EQ(runs, 0);
}

TEST_F(ImplContextFaults, MissingAttributeIsReportedLikeARefusedPriority)
{
    fault_arm(FAULT_ATTR, 0);
    fault_arm(FAULT_THREAD, -1);

    EXPECT_EQ(qor_context_start(context), -1);

    EXPECT_EQ(fault_fired(FAULT_ATTR), 1);
    EXPECT_EQ(fault_calls(FAULT_THREAD), 0);
    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_start",
                                      "set thread priority failed."));
}

TEST_F(ImplContextFaults, UncreatedConsoleIsNotReported)
{
    runs = 0;
    fault_arm(FAULT_THREAD, 0);

    EXPECT_EQ(qor_context_start(context), 0);

    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(qor_context_resource_get(context), nullptr);
    qor_context_stop(context);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(out.printed(), "");
}

struct PriorityCase {
    const char *name;
    int32_t asked;
    int given;
};

class ImplContextPriority : public ImplContextFaults,
                            public testing::WithParamInterface<PriorityCase> {};

TEST_P(ImplContextPriority, IsClampedTo1Through99)
{
    module.priority = GetParam().asked;

    ASSERT_EQ(qor_context_start(context), 0);
    qor_context_stop(context);

    EXPECT_EQ(fault_sched_priority(), GetParam().given);
}

INSTANTIATE_TEST_SUITE_P(
    All, ImplContextPriority,
    testing::Values(PriorityCase{"Nothing", 0, 1}, PriorityCase{"Negative", -20, 1},
                    PriorityCase{"Lowest", 1, 1}, PriorityCase{"Within", 50, 50},
                    PriorityCase{"Highest", 99, 99}, PriorityCase{"JustAbove", 100, 99},
                    PriorityCase{"FarAbove", 150, 99}),
    case_name<PriorityCase>);
