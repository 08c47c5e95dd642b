/* SPDX-License-Identifier: Apache-2.0 */
/* The loop and its workers: threads, names, stacks, order, priority. */
#include "qor_bus.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "await.hpp"
#include "bus_fixture.hpp"
#include "door.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"

namespace {

std::string own_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

/* When the timer of a session falls due; the bus does not loop yet. */
int64_t due_time(const qor_bus_t *bus, size_t session)
{
    const list_head &head = bus->time_que->head;
    for (list_head *link = head.next; link != &head; link = link->next) {
        const auto *node = reinterpret_cast<qor_time_que_node_t *>(link);
        if (node->id == session) {
            return node->when;
        }
    }
    return -1;
}

} // namespace

TEST_F(BusLoop, WorkerRunsATaskAndThenRecyclesItOnce)
{
    std::thread::id ran_on, recycled_on;
    static std::thread::id *recycled;
    recycled = &recycled_on;
    job.body = [&] { ran_on = std::this_thread::get_id(); };
    const auto release = [](void *arg) {
        *recycled = std::this_thread::get_id();
        Job::recycle(arg);
    };

    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, release), 0);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));
    looping.quit();

    EXPECT_EQ(job.journal.text(), "run recycle");
    EXPECT_EQ(ran_on, recycled_on);
    EXPECT_NE(ran_on, std::this_thread::get_id());
    EXPECT_EQ(looping.returned(), 0);
}

TEST_F(BusLoop, RunsAsManyTasksAtOnceAsThereAreWorkers)
{
    Door door;
    job.body = [&] { door.pass(); };
    for (int i = 0; i < 3; i++) {
        qor_bus_run(bus, Job::run, &job, nullptr);
    }

    EXPECT_TRUE(door.await(2));
    EXPECT_EQ(qor_que_count(bus->que), 1);
    door.open();
    EXPECT_TRUE(await([&] { return job.runs == 3; }));
}

TEST_F(BusLoop, ThreadsBearTheNameOfWhatTheyRun)
{
    std::string while_running;
    job.body = [&] { while_running = own_name(); };
    qor_context_task_t task = job.task(5);
    snprintf(task.name, sizeof(task.name), "a name of more than fifteen");
    EXPECT_TRUE(await([] { return threads_named("context") == 2; }));

    qor_bus_post(bus, &task);
    ASSERT_TRUE(await([&] { return job.recycles == 1; }));

    EXPECT_EQ(while_running, "a name of more ");
    EXPECT_TRUE(await([] { return threads_named("context") == 2; }));
}

TEST_F(BusLoop, TaskMayPostAnother)
{
    job.body = [&] { EXPECT_EQ(qor_bus_run(bus, Job::run, &other, nullptr), 0); };

    qor_bus_run(bus, Job::run, &job, nullptr);

    EXPECT_TRUE(await([&] { return other.runs == 1; }));
}

TEST_F(BusLoop, ATimerIsRecycledTwice)
{
    std::atomic<int64_t> ran_at{0};
    job.body = [&] { ran_at = now(); };
    qor_context_task_t task = job.task(5, 100);
    const int64_t posted_at = now();

    EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
    ASSERT_TRUE(await([&] { return job.runs == 1 && job.recycles == 2; }));
    looping.quit();

    EXPECT_GE(ran_at - posted_at, 99);
    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(job.recycles, 2);
}

TEST(BusLoopOrder, TasksAreTakenInTheOrderOfPosting)
{
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    Journal journal;
    std::vector<std::unique_ptr<Job>> jobs;
    drop_start_up(looping.get());
    for (int i = 0; i < 5; i++) {
        jobs.push_back(std::make_unique<Job>());
        jobs.back()->body = [&journal, i] { journal.add(std::to_string(i)); };
        qor_bus_run(looping.get(), Job::run, jobs.back().get(), nullptr);
    }

    looping.start();
    ASSERT_TRUE(await([&] { return jobs.back()->runs == 1; }));

    EXPECT_EQ(journal.text(), "0 1 2 3 4");
    looping.quit();
}

TEST(BusLoopOrder, TimersRunInTheOrderOfTheirDueTimes)
{
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    std::vector<std::unique_ptr<Job>> jobs;
    std::vector<int64_t> due; /* a pause between two posts may change the order */
    std::vector<int64_t> ran; /* the worker's, until it has ended */
    drop_start_up(looping.get());
    for (int32_t delay : {120, 40, 80}) {
        const size_t number = jobs.size();
        jobs.push_back(std::make_unique<Job>());
        jobs.back()->body = [&, number] { ran.push_back(due[number]); };
        qor_context_task_t task = jobs.back()->task(delay, delay);
        qor_bus_timer_post(looping.get(), &task);
        due.push_back(due_time(looping.get(), static_cast<size_t>(delay)));
        ASSERT_GT(due.back(), 0);
    }

    looping.start();
    for (const auto &job : jobs) {
        ASSERT_TRUE(await([&] { return job->runs == 1; }));
    }
    looping.quit();

    std::sort(due.begin(), due.end());
    EXPECT_EQ(ran, due);
}

TEST(BusLoopWorkers, WithoutWorkersTasksOnlyGather)
{
    Job job;
    RunningBus looping(RunningBus::by_start, /* workers */ 0);
    qor_context_task_t timer = job.task(1, 1);
    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, Job::recycle);
    qor_bus_timer_post(looping.get(), &timer);

    /* Start-up, the task and the timer that has fallen due and was recycled for that. */
    EXPECT_TRUE(await([&] { return qor_que_count(looping.get()->que) == 3; }));
    EXPECT_TRUE(await([&] { return job.recycles == 1; }));
    looping.quit();

    EXPECT_EQ(looping.returned(), 0);
    EXPECT_EQ(job.runs, 0);
    EXPECT_EQ(job.recycles, 3);
}

TEST(BusLoopWorkers, ADueTimerIsQueuedWithoutItsDelayBeforeItIsRecycled)
{
    static qor_bus_t *bus;
    static std::atomic<int> recycles;
    static int32_t queued, delay; /* as the first recycle finds them */
    RunningBus looping(RunningBus::by_start, /* workers */ 0);
    bus = looping.get();
    recycles = 0;
    delay = -1;
    drop_start_up(bus);
    Job job;
    qor_context_task_t timer = job.task(1, 1);
    timer.recycle = [](void *) {
        if (recycles++ == 0) {
            qor_que_lock(bus->que); /* free: nothing is locked here */
            queued = qor_que_count(bus->que);
            if (queued == 1) {
                auto *node = reinterpret_cast<qor_que_node_t *>(bus->que->head.next);
                delay = static_cast<qor_context_task_t *>(qor_que_node_body(node))->delay;
            }
            qor_que_unlock(bus->que);
        }
    };
    qor_bus_timer_post(bus, &timer);

    looping.start();
    EXPECT_TRUE(await([] { return recycles == 1; }));
    looping.quit();

    EXPECT_EQ(queued, 1);
    EXPECT_EQ(delay, 0);
    EXPECT_EQ(recycles, 2);
}

TEST(BusLoopWorkers, HaveTheStackThatWasAsked)
{
    Job job;
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    size_t size = 0;
    drop_start_up(looping.get());
    qor_bus_thread_stack_size_set(looping.get(), 0x1000000 - 1); /* twice the usual default */
    job.body = [&] {
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    };

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    ASSERT_TRUE(await([&] { return job.runs == 1; }));
    looping.quit();

    EXPECT_GE(size, 0x1000000u); /* sanitizers add to it */
}

TEST(BusLoopWorkers, AStackSizeThatTheSystemRefusesIsLetPass)
{
    Output out;
    Job job;
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    drop_start_up(looping.get());
    qor_bus_thread_stack_size_set(looping.get(), 0);

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.quit();

    EXPECT_EQ(looping.returned(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(BusLoopWorkers, APriorityThatTheirPolicyRefusesIsLetPass)
{
    Output out;
    Job job;
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    drop_start_up(looping.get());
    qor_bus_priority_set(looping.get(), 10);

    looping.start();
    qor_bus_run(looping.get(), Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.quit();

    EXPECT_EQ(looping.returned(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(BusLoopWorkers, SettersThatComeTooLateDoNoHarm)
{
    Job job;
    RunningBus looping(RunningBus::by_start, /* workers */ 3);
    qor_bus_t *bus = looping.get();
    drop_start_up(bus);
    job.body = [&] {
        qor_bus_thread_num_set(bus, 50);
        qor_bus_priority_set(bus, 10);
        qor_bus_thread_stack_size_set(bus, 1);
    };
    qor_bus_run(bus, Job::run, &job, nullptr); /* runs while workers are still being started */

    looping.start();
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
    looping.quit();

    EXPECT_EQ(looping.returned(), 0);
}

/* glibc knows real-time priorities from 1 on. */
TEST(BusLoopWorkers, PriorityZeroKeepsTheLoopFromStarting)
{
    Output out;
    StillBus bus(StillBus::bare);
    qor_bus_priority_set(bus.get(), 0);

    EXPECT_EQ(qor_bus_loop(bus.get()), -1);

    EXPECT_EQ(out.printed(), line("loop", "set thread priority failed."));
}
