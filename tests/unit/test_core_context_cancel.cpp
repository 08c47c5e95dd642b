/* SPDX-License-Identifier: Apache-2.0 */
/* Cancelling in the private queue of a user context. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "core_context_fixture.hpp"

namespace {

struct CancelCase {
    const char *name;
    int32_t (*cancel)(qor_context_t *, int32_t);
    const char *forwarded;
};

} // namespace

class CoreContextCancel : public CoreContext, public testing::WithParamInterface<CancelCase> {};

TEST_P(CoreContextCancel, TakesAWaitingTaskOutAndReleasesIt)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    ASSERT_EQ(post(task("b", 2, 60000)), 0);

    EXPECT_EQ(GetParam().cancel(inner, 1), 0);

    EXPECT_EQ(core->que->count, 1);
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(behind.cancelled, "");
}

TEST_P(CoreContextCancel, ForwardsWhatIsNotInTheQueue)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    behind.cancel_result = -4;

    EXPECT_EQ(GetParam().cancel(inner, 3), -4);

    EXPECT_EQ(behind.cancelled, GetParam().forwarded);
    EXPECT_EQ(core->que->count, 1);
    EXPECT_EQ(recycled, 0);
}

TEST_P(CoreContextCancel, LeavesARunThatFindsNothing)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    ASSERT_EQ(GetParam().cancel(inner, 1), 0);

    behind.run(0); /* the timer's */

    EXPECT_EQ(behind.happened, "");
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(recycled, 1);
}

INSTANTIATE_TEST_SUITE_P(
    All, CoreContextCancel,
    testing::Values(CancelCase{"Cancel", qor_context_handler_cancel, "cancel 3 "},
                    CancelCase{"Cancelx", qor_context_handler_cancelx, "cancelx 3 "},
                    CancelCase{"TimerCancel", qor_context_timer_cancel, "cancel 3 "},
                    CancelCase{"XTimerCancel", qor_context_x_timer_cancel, "cancelx 3 "}),
    case_name<CancelCase>);
