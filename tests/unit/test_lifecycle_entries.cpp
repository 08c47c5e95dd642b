/* SPDX-License-Identifier: Apache-2.0 */
/* Entering and leaving a user context. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"

TEST_F(Lifecycle, PauseNeverReachesPause)
{
    be(START);
    ASSERT_EQ(qor_core_context_lifecycle_resume(core), 0);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);

    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(core->lifecycle, RESUME);
}

TEST_F(Lifecycle, PauseIsNotLimitedByTheCount)
{
    be(RESUME);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);

    EXPECT_EQ(core->active_refcount, -1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, TheCountWraps)
{
    be(START);
    core->active_refcount = INT32_MAX;

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);
    EXPECT_EQ(core->active_refcount, INT32_MIN);

    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);
    EXPECT_EQ(core->active_refcount, INT32_MAX);
}
