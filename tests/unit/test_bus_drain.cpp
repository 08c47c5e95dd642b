/* SPDX-License-Identifier: Apache-2.0 */
/* Waiting until a bus has nothing left to do. */
#include "qor_bus.h"

#include <atomic>
#include <cstdint>

#include <gtest/gtest.h>
#include <unistd.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "door.hpp"
#include "hal_sync.hpp"
#include "thread.hpp"

TEST_F(BusLoop, DrainWaitsForTasksAndForThoseThatTheyPost)
{
    other.body = [] { usleep(20000); };
    job.body = [&] { qor_bus_run(bus, Job::run, &other, nullptr); };
    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_EQ(qor_bus_drain(bus, 60000), 0);

    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(other.runs, 1);
}

TEST_F(BusLoop, DrainDoesNotWaitForATimerThatIsNotDue)
{
    qor_context_task_t timer = job.task(1, 60000);
    timer.recycle = nullptr;
    qor_bus_timer_post(bus, &timer);

    EXPECT_EQ(qor_bus_drain(bus, 60000), 0);

    EXPECT_EQ(job.runs, 0);
}

TEST_F(BusLoop, DrainEndsWithItsTime)
{
    Door door;
    job.body = [&] { door.pass(); };
    qor_bus_run(bus, Job::run, &job, nullptr);
    ASSERT_TRUE(door.await(1));
    const int64_t begun = now();

    EXPECT_EQ(qor_bus_drain(bus, 50), -1);

    EXPECT_GE(now() - begun, 49);
    EXPECT_EQ(job.runs, 0);
}

TEST_F(BusLoop, DrainOfATaskIsRefused)
{
    int32_t drained = 0;
    job.body = [&] { drained = qor_bus_drain(bus, -1); };
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));

    EXPECT_EQ(drained, -1);
    EXPECT_EQ(out.printed(), line("drain", "a task of the bus would wait for itself."));
}

TEST_F(BusLoop, DrainEndsWithQuit)
{
    Door door;
    job.body = [&] { door.pass(); };
    qor_bus_run(bus, Job::run, &job, nullptr);
    Thread draining([&] { EXPECT_EQ(qor_bus_drain(bus, -1), -1); });
    ASSERT_TRUE(door.await(1));

    qor_bus_quit(bus);
    draining.join();

    EXPECT_EQ(qor_bus_drain(bus, -1), -1);
}

/* What the quit throws away would look like done: here it has come as far as its first step, and
 * has woken nobody yet. */
TEST_F(BusLoop, DrainBesideAQuitThatHasBegunIsNone)
{
    ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    pthread_mutex_lock(&bus->que->mutex);
    hal_store(bus->que->quitting, 1);
    pthread_mutex_unlock(&bus->que->mutex);

    EXPECT_EQ(qor_bus_drain(bus, -1), -1);
}

TEST_F(Bus, DrainBeforeTheLoopHasSomethingToWaitFor)
{
    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_EQ(qor_bus_drain(bus, 0), -1);
    EXPECT_EQ(qor_bus_drain(bus, 20), -1);
}

TEST(BusDrain, MayBeATasksOfAnotherBus)
{
    RunningBus drained(RunningBus::by_start, 1);
    RunningBus bus(RunningBus::by_start, 1);
    drained.start();
    ASSERT_EQ(qor_bus_drain(drained.get(), 60000), 0); /* two buses must not start at once */
    bus.start();
    struct Drain {
        qor_bus_t *bus;
        std::atomic<int32_t> result;
    } drain = {drained.get(), {1}};

    ASSERT_EQ(qor_bus_run(
                  bus.get(),
                  [](void *arg) -> void * {
                      Drain &asked = *static_cast<Drain *>(arg);
                      asked.result = qor_bus_drain(asked.bus, 60000);
                      return nullptr;
                  },
                  &drain, nullptr),
              0);

    EXPECT_TRUE(await([&] { return drain.result <= 0; }));
    EXPECT_EQ(drain.result, 0);
}
