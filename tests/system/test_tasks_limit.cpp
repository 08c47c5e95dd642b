/* SPDX-License-Identifier: Apache-2.0 */
/* The limit of a module's private queue, and tasks past it. */
#include <gtest/gtest.h>

#include "await.hpp"
#include "qor_context_module.h"
#include "tasks_fixture.hpp"

TEST_F(Tasks, FiftyWaitAndTheNextOneRunsAtOnce)
{
    Crowd hasty;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    for (int i = 0; i < 50; i++) {
        ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }
    grace();
    EXPECT_EQ(crowd.most, 1);

    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &hasty), 0);

    EXPECT_TRUE(hasty.door.await(1));
    EXPECT_EQ(crowd.inside, 1);
    hasty.door.open();
    crowd.door.open();
    EXPECT_TRUE(await([&] { return crowd.done == 51 && hasty.done == 1; }));
}
