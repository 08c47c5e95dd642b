/* SPDX-License-Identifier: Apache-2.0 */
/* How many tasks of a module run at once. */
#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "qor_context_module.h"
#include "tasks_fixture.hpp"
#include "thread.hpp"

TEST_F(Tasks, RunOneAtATime)
{
    std::vector<Thread> posters;
    std::atomic<int> posted{0};
    crowd.door.open();
    for (int i = 0; i < 4; i++) {
        posters.emplace_back([&] {
            for (int n = 0; n < 250; n++) {
                EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
                posted++;
                if (n % 5 == 4) { /* no more than the queue takes */
                    EXPECT_TRUE(await([&] { return posted - crowd.done < 10; }));
                }
            }
        });
    }
    for (Thread &poster : posters) {
        poster.join();
    }

    EXPECT_TRUE(await([&] { return crowd.done == 1000; }));
    EXPECT_EQ(crowd.most, 1);
}

class ThreeTasks : public Tasks {
protected:
    ThreeTasks() : Tasks(3) {}
};

TEST_F(ThreeTasks, RunAtOnceAndNotFour)
{
    for (int i = 0; i < 6; i++) {
        EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(3));
    grace();
    EXPECT_EQ(crowd.most, 3);

    crowd.door.open();
    EXPECT_TRUE(await([&] { return crowd.done == 6; }));
    EXPECT_EQ(crowd.most, 3);
}

class UnlimitedTasks : public Tasks {
protected:
    UnlimitedTasks() : Tasks(-1) {}
};

TEST_F(UnlimitedTasks, RunOnAllWorkers)
{
    for (int i = 0; i < 8; i++) {
        EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(8));
    crowd.door.open();
}

TEST_F(Tasks, AsyncOnesRunBesideEachOther)
{
    for (int i = 0; i < 5; i++) {
        EXPECT_GE(qor_context_runx(module.context(), Crowd::visitx, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(5));
    crowd.door.open();
}

TEST_F(Tasks, OneThatATimerStartsMayRunBesideTheOneThatHoldsTheSlot)
{
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));

    ASSERT_GE(qor_context_x_timer(module.context(), Crowd::visit, &crowd, 5), 0);

    EXPECT_TRUE(crowd.door.await(2));
    crowd.door.open();
}
