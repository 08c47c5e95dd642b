/* SPDX-License-Identifier: Apache-2.0 */
/* Destroying a bus without closing it. */
#include "qor_bus.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "journal.hpp"
#include "taking_tasks.hpp"
#include "thread.hpp"

namespace {

/* A bus that is destroyed, not closed. What that leaves is freed at the end of the test. */
class BusDestroy : public testing::Test {
protected:
    BusDestroy() { drop_start_up(bus); }
    ~BusDestroy() override
    {
        if (loop.joinable()) {
            qor_time_que_quit(time_que);
            loop.join();
        }
        qor_time_que_destroy(time_que);
        free(head);
    }

    /* Returns with both workers waiting. */
    void start()
    {
        qor_bus_thread_num_set(bus, 2);
        loop = Thread([this] {
            result = qor_bus_loop(bus);
            returned = true;
        });
        ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    }

    Job job, other;
    qor_bus_t *bus = qor_bus_create(no_modules, 2);
    qor_time_que_t *time_que = bus->time_que;
    list_head *head = bus->head;
    Thread loop;
    int32_t result = -2;
    std::atomic<bool> returned{false};
};

} // namespace

TEST_F(Bus, DestroyLeavesTheTimerQueue)
{
    qor_bus_t *destroyed = qor_bus_create(no_modules, 2);
    qor_time_que_t *time_que = destroyed->time_que;
    list_head *head = destroyed->head;
    qor_context_task_t timer = job.task(1, 60000);
    qor_bus_timer_post(destroyed, &timer);

    qor_bus_destroy(destroyed);

    EXPECT_EQ(job.recycles, 0);
    EXPECT_EQ(time_que->count, 1);
    EXPECT_EQ(time_que->quitting, 0);
    EXPECT_TRUE(list_empty(head));
    qor_time_que_destroy(time_que);
    free(head);
}

TEST_F(BusDestroy, RecyclesQueuedTasksInOrder)
{
    static Journal *order;
    Journal journal;
    order = &journal;
    for (intptr_t i = 1; i <= 3; i++) {
        qor_bus_run(bus, Job::run, reinterpret_cast<void *>(i),
                    [](void *arg) { order->add(std::to_string(reinterpret_cast<intptr_t>(arg))); });
    }

    qor_bus_destroy(bus);

    EXPECT_EQ(journal.text(), "1 2 3");
}

TEST_F(BusDestroy, EndsWaitingWorkersAndNotTheLoop)
{
    start();

    qor_bus_destroy(bus);

    EXPECT_TRUE(await([] { return threads_named("context") == 0; }));
    EXPECT_FALSE(returned);
    qor_time_que_quit(time_que);
    loop.join();
    EXPECT_EQ(result, 0);
}

TEST_F(BusDestroy, LetsTimersThatFallDueAfterwardsGo)
{
    start();
    qor_time_que_node_t *node = qor_time_que_node_create(1, 1, sizeof(qor_context_task_t));
    *static_cast<qor_context_task_t *>(qor_time_que_node_body(node)) = job.task(1, 1);

    qor_bus_destroy(bus);
    ASSERT_EQ(qor_time_que_enque(time_que, node), 0); /* else it might fall due too early */

    EXPECT_TRUE(await([&] { return job.recycles == 1; }));
    EXPECT_EQ(job.runs, 0);
}
