/* SPDX-License-Identifier: Apache-2.0 */
/* Starting a user context. */
#include "qor_core_context.h"

#include <vector>

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"

TEST_F(Lifecycle, StartIsDecidedUnderTheLock)
{
    be(INIT); /* below CREATE, so an early test would have refused it */

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    EXPECT_EQ(core->lifecycle, START);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, OfManyStartsOneSucceeds)
{
    std::vector<ThreadCall> calls;
    for (int i = 0; i < 8; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_start, core));
    }
    int succeeded = 0;
    for (ThreadCall &call : calls) {
        succeeded += call.get() == 0;
    }

    EXPECT_EQ(succeeded, 1);
    EXPECT_EQ(out.count(start_text), 7);
    EXPECT_EQ(core->lifecycle, START);
}
