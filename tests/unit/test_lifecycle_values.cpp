/* SPDX-License-Identifier: Apache-2.0 */
/* The values of a lifecycle, and where it begins. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"

TEST_F(Lifecycle, TheValuesAreInOrder)
{
    EXPECT_EQ(INIT, 0);
    EXPECT_EQ(CREATE, 1);
    EXPECT_EQ(START, 2);
    EXPECT_EQ(RESUME, 3);
    EXPECT_EQ(PAUSE, 4);
    EXPECT_EQ(STOP, 5);
    EXPECT_EQ(DESTROY, 6);
}

TEST_F(Lifecycle, BeginsInInit)
{
    EXPECT_EQ(core->lifecycle, INIT);
}
