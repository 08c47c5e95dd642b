/* SPDX-License-Identifier: Apache-2.0 */
/* How the operations of the class reach the lifecycle. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"

TEST_F(Lifecycle, ClassStartGivesTheModulesResultWhateverTheLifecycleSays)
{
    be(STOP);

    EXPECT_EQ(qor_context_start(wrapper), 0);

    EXPECT_EQ(core->lifecycle, STOP);
    EXPECT_EQ(out.printed(), start_line);
}

TEST_F(Lifecycle, ClassResumeAndPauseEnterAndLeave)
{
    be(START);

    EXPECT_EQ(qor_context_resume(wrapper), 0);
    EXPECT_EQ(core->active_refcount, 1);
    EXPECT_EQ(core->lifecycle, RESUME);

    EXPECT_EQ(qor_context_pause(wrapper), 0);
    EXPECT_EQ(core->active_refcount, 0);
}

TEST_F(Lifecycle, ClassStopWaitsForPause)
{
    be(START);
    ThreadCall stop([this] {
        qor_context_stop(wrapper);
        return 0;
    });
    EXPECT_TRUE(stop.waits());

    be(PAUSE);

    stop.get();
    EXPECT_EQ(core->lifecycle, STOP);
}
