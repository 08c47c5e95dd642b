/* SPDX-License-Identifier: Apache-2.0 */
/* Quitting a bus: what runs, what is queued, who waits. */
#include "qor_bus.h"

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "door.hpp"
#include "thread.hpp"

TEST_F(Bus, QuitBeforeTheLoopMakesItReturn)
{
    qor_bus_run(bus, Job::run, &job, Job::recycle);

    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_loop(bus), 0);

    EXPECT_EQ(job.journal.text(), "recycle");
}

TEST_F(Bus, QuitMayBeRepeated)
{
    EXPECT_EQ(qor_bus_quitting(bus), 0);
    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(qor_bus_quitting(bus), 1);
}

TEST_F(Bus, QuitOnlyAsks)
{
    qor_bus_run(bus, Job::run, &job, Job::recycle);

    qor_bus_quit(bus);

    EXPECT_EQ(job.journal.text(), ""); /* what is queued waits for the loop's end or for close */
}

TEST_F(BusLoop, QuitLetsARunningTaskFinish)
{
    Door door;
    job.body = [&] { door.pass(); };
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(qor_bus_quit(bus), 0);
    EXPECT_EQ(job.journal.text(), "run");
    door.open();
    looping.quit();

    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(job.journal.text(), "run recycle");
}

TEST_F(BusLoop, QuitRecyclesWhatIsQueuedOnce)
{
    Door door;
    Job blocking;
    blocking.body = [&] { door.pass(); };
    qor_bus_run(bus, Job::run, &blocking, nullptr);
    qor_bus_run(bus, Job::run, &blocking, nullptr);
    ASSERT_TRUE(door.await(2));
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    qor_context_task_t timer = other.task(1, 60000);
    qor_bus_timer_post(bus, &timer);

    qor_bus_quit(bus);
    door.open();
    looping.quit();

    EXPECT_EQ(looping.returned(), 0);
    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(other.journal.text(), "recycle");
}

TEST_F(BusLoop, QuitMayComeFromATask)
{
    job.body = [&] { EXPECT_EQ(qor_bus_quit(bus), 0); };

    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_EQ(looping.returned(), 0);
}

TEST_F(BusLoop, QuitMayComeFromManyThreadsAtOnce)
{
    std::vector<Thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] { EXPECT_EQ(qor_bus_quit(bus), 0); });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    EXPECT_EQ(looping.returned(), 0);
}

TEST_F(BusLoop, PostsThatMeetTheQuitAreEitherTakenOrRefused)
{
    std::atomic<int> accepted{0}, started{0};
    std::vector<Thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            qor_context_task_t timer = other.task(1, 1);
            timer.recycle = nullptr;
            for (int k = 0; k < 50000 && qor_bus_run(bus, Job::run, &job, Job::recycle) == 0; k++) {
                accepted++;
                started++;
                qor_bus_timer_post(bus, &timer);
            }
        });
    }
    ASSERT_TRUE(await([&] { return started > 50; }));
    looping.quit();
    for (Thread &thread : threads) {
        thread.join();
    }

    /* None of those accepted is lost or released twice. */
    EXPECT_EQ(job.recycles, accepted);
    EXPECT_LE(job.runs, accepted);
}
