/* SPDX-License-Identifier: Apache-2.0 */
/* Timers of modules and of the bus. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "journal.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_hal.h"
#include "tasks_fixture.hpp"

TEST_F(Tasks, ATimerFallsDueAfterItsDelay)
{
    Alarm alarm;

    EXPECT_GT(qor_context_timer(module.context(), Alarm::ring, &alarm, 50), 0);

    ASSERT_TRUE(await([&] { return alarm.rang != 0; }));
    EXPECT_GE(alarm.rang - alarm.posted, 50);
}

TEST_F(Tasks, ATimerWithoutDelayRunsAtOnce)
{
    Alarm now, overdue;

    qor_context_timer(module.context(), Alarm::ring, &now, 0);
    qor_context_x_timer(module.context(), Alarm::ring, &overdue, -1000);

    EXPECT_TRUE(await([&] { return now.rang != 0 && overdue.rang != 0; }));
}

TEST_F(OneWorker, TimersFallDueInOrderOfTheirTimeNotOfTheirPosting)
{
    static Journal *log;
    log = &journal;
    const auto note = [](void *arg) -> void * {
        log->add(static_cast<const char *>(arg));
        return nullptr;
    };
    static char late[] = "late", early[] = "early", between[] = "between";

    /* Their order is only known when posting them took less time than lies between them. */
    for (bool in_time = false; !in_time;) {
        journal.clear();
        const int64_t begun = util_timestamp();
        qor_context_x_timer(module.context(), note, late, 90);
        qor_context_x_timer(module.context(), note, early, 30);
        qor_context_x_timer(module.context(), note, between, 60);
        in_time = util_timestamp() - begun < 30;
        ASSERT_TRUE(journal.await(3));
    }

    EXPECT_EQ(journal.text(), "early between late");
}

TEST_F(Tasks, ATimerMayArmItselfAgain)
{
    static std::atomic<int> rounds;
    rounds = 0;
    struct Again {
        static void *tick(qor_context_t *context, int32_t, void *arg)
        {
            if (++rounds < 10) {
                EXPECT_GT(qor_context_timerx(context, tick, arg, 2), 0);
            }
            return nullptr;
        }
    };

    EXPECT_GT(qor_context_timerx(module.context(), Again::tick, nullptr, 2), 0);

    EXPECT_TRUE(await([] { return rounds == 10; }));
}

TEST_F(Tasks, AModulesTimerIsRecycledOnce)
{
    recycled = 0;

    EXPECT_EQ(post("t", 5000, 10, nothing, count_recycle), 0);

    EXPECT_TRUE(await([] { return recycled == 1; }));
    bus->end();
    EXPECT_EQ(recycled, 1);
}

TEST_F(Tasks, ATimerOfTheBusIsRecycledTwice)
{
    recycled = 0;
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "t", 5000, nothing, nullptr);
    task.delay = 10;
    task.recycle = count_recycle;

    EXPECT_EQ(qor_bus_timer_post(bus->get(), &task), 0);

    EXPECT_TRUE(await([] { return recycled == 2; }));
    bus->end();
    EXPECT_EQ(recycled, 2);
}
