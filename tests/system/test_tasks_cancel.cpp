/* SPDX-License-Identifier: Apache-2.0 */
/* Cancelling a module's tasks while others run. */
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "tasks_fixture.hpp"

TEST_F(OneWorker, ACancelledTimerNeverFallsDue)
{
    Alarm cancelled, later;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1)); /* however late the cancel is, the timer cannot be run yet */
    const int32_t session = qor_context_timer(module.context(), Alarm::ring, &cancelled, 40);
    ASSERT_GT(session, 0);

    EXPECT_EQ(qor_context_timer_cancel(module.context(), session), 0);

    ASSERT_GT(qor_context_timer(module.context(), Alarm::ring, &later, 60), 0);
    crowd.door.open();
    ASSERT_TRUE(await([&] { return later.rang != 0; }));
    EXPECT_EQ(cancelled.rang, 0);
}

TEST_F(Tasks, ACancelledTaskIsReleasedAndNeverRuns)
{
    recycled = 0;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    ASSERT_EQ(post(
                  "t", 5000, 0,
                  [](void *) -> void * {
                      ADD_FAILURE() << "a cancelled task runs";
                      return nullptr;
                  },
                  count_recycle),
              0);

    EXPECT_EQ(qor_context_timer_cancel(module.context(), 5000), 0);

    EXPECT_EQ(recycled, 1);
    crowd.door.open();
    bus->end();
    EXPECT_EQ(recycled, 1);
}

TEST_F(Tasks, ATaskThatRunsCannotBeCancelled)
{
    const int32_t session = qor_context_run(module.context(), Crowd::visit, &crowd);
    ASSERT_TRUE(crowd.door.await(1));

    EXPECT_EQ(qor_context_timer_cancel(module.context(), session), -1);

    EXPECT_EQ(out.count("cancel a timer failed, source:worker, session=" + std::to_string(session)),
              1);
    crowd.door.open();
}
