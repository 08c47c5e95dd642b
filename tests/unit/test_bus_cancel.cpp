/* SPDX-License-Identifier: Apache-2.0 */
/* Cancelling what is queued on a bus. */
#include "qor_bus.h"

#include <gtest/gtest.h>

#include "bus_fixture.hpp"

TEST_F(Bus, CancelTakesAQueuedTaskOutAndRecyclesIt)
{
    qor_context_task_t task = job.task(8);
    qor_bus_post(bus, &task);

    EXPECT_EQ(qor_bus_cancel(bus, 8), 0);

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(qor_que_count(bus->que), 0);
    EXPECT_EQ(pumped.run_all(), 0);
}

TEST_F(Bus, CancelTakesTheFirstOfASession)
{
    Job second;
    for (Job *posted : {&job, &second}) {
        qor_context_task_t task = posted->task(8);
        qor_bus_post(bus, &task);
    }

    EXPECT_EQ(qor_bus_cancel(bus, 8), 0);
    pumped.run_all();

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(second.journal.text(), "run recycle");
}

TEST_F(Bus, CancelOfAnUnknownSessionLeavesTheBusAlone)
{
    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);
    qor_context_task_t task = job.task(9);
    qor_bus_post(bus, &task);
    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);

    EXPECT_EQ(pumped.run_all(), 1);
    EXPECT_EQ(qor_bus_cancel(bus, 9), -1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, CancelDoesNotFindATimer)
{
    qor_context_task_t task = job.task(8, 60000);
    qor_bus_timer_post(bus, &task);

    EXPECT_EQ(qor_bus_cancel(bus, 8), -1);

    EXPECT_EQ(bus->time_que->count, 1);
    EXPECT_EQ(job.journal.text(), "");
}
