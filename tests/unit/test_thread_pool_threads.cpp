/* SPDX-License-Identifier: Apache-2.0 */
/* What a pool's threads cost, and what becomes of them. */
#include "qor_thread_pool.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

#include "await.hpp"
#include "hal_thread.hpp"
#include "pool.hpp"
#include "thread.hpp"

namespace {

/* Milliseconds of processor time that the process has used. */
int64_t processor_time()
{
    struct timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<int64_t>(used.tv_sec) * 1000 + used.tv_nsec / 1000000;
}

/* Of an idle process in two seconds. What instruments or emulates it works beside the test. */
#ifdef QOR_TESTS_INSTRUMENTED
constexpr int64_t next_to_nothing = 400;
#else
constexpr int64_t next_to_nothing = 20;
#endif

size_t own_stack_size()
{
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    return size;
}

size_t default_stack_size()
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    return size;
}

void end_thread()
{
    pthread_exit(nullptr);
}

/* The handle of a resident thread that has begun to work. */
pthread_t resident(const Pool &pool, int32_t number)
{
    hal_scoped_lock lock(pool->que->mutex);
    return pool->threads[number].tid;
}

} // namespace

TEST(ThreadPoolThreads, AStackThatIsTooSmallBecomesTheSmallest)
{
    Output out;
    Job job;
    std::atomic<size_t> size{0};
    job.body = [&] { size = own_stack_size(); };
    qor_thread_pool_t *pool =
        qor_thread_pool_create(1, 1, unbounded, /* stack */ 1024, no_priority, stays_long);
    qor_context_task_t task = job.task();

    qor_thread_pool_post(pool, &task);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_GE(size, hal_thread_stack_min());
    EXPECT_LT(size, default_stack_size());
    EXPECT_EQ(pool->thread_stack_size, 1024); /* what was asked */
    EXPECT_EQ(out.printed(), "");
    qor_thread_pool_destroy(pool);
}

TEST(ThreadPoolThreads, ACancelledThreadGoesOnWaiting)
{
    Job job;
    Pool pool(1, 1);
    job.post(pool);
    ASSERT_TRUE(job.await_recycled(1));

    pthread_cancel(resident(pool, 0));

    job.post(pool);
    EXPECT_TRUE(job.await_recycled(2));
    EXPECT_EQ(pool.thread_num(), 1);
}

TEST(ThreadPoolThreads, ACancelledThreadGoesOnWithItsTask)
{
    Job job;
    Pool pool(1, 1);
    Hold hold(job);
    job.post(pool);
    job.post(pool);
    ASSERT_TRUE(job.await_started(1));

    pthread_cancel(resident(pool, 0)); /* it sleeps again and again */
    hold.release();

    EXPECT_TRUE(job.await_recycled(2));
    qor_thread_pool_quit(pool.get());
    EXPECT_EQ(job.finished, 2);
    EXPECT_EQ(pool.thread_num(), 0);
}

TEST(ThreadPoolThreads, ATaskThatEndsItsThreadIsReleased)
{
    Job last, job;
    Pool pool(1, 1);
    last.body = end_thread;

    last.post(pool);
    job.post(pool);

    EXPECT_TRUE(last.await_recycled(1));
    EXPECT_TRUE(job.await_recycled(1)); /* by the thread in its place */
    EXPECT_EQ(pool.thread_num(), 1);
    qor_thread_pool_quit(pool.get());
    EXPECT_EQ(last.recycled, 1);
    EXPECT_EQ(last.finished, 0);
    EXPECT_EQ(pool.thread_num(), 0);
}

TEST(ThreadPoolThreads, TheThreadInItsPlaceHasItsName)
{
    static std::string name;
    name.clear();
    Job last, job;
    Pool pool(1, 1);
    last.body = end_thread;
    last.post(pool);
    qor_context_task_t task = job.task();
    qor_context_task_set_recycle(&task, [](void *arg) {
        char idle[16] = "";
        prctl(PR_GET_NAME, idle);
        name = idle;
        static_cast<Job *>(arg)->recycled++;
    });

    qor_thread_pool_post(pool.get(), &task);

    ASSERT_TRUE(job.await_recycled(1));
    EXPECT_EQ(name, "qor_thread:0");
}

TEST(ThreadPoolThreads, TasksThatEndTheirThreadsAllRun)
{
    for (int32_t residents : {0, 1, 3}) {
        Job last;
        last.body = end_thread;
        {
            Pool pool(residents, 3);
            for (int i = 0; i < 100; i++) {
                ASSERT_EQ(last.post(pool), 0);
            }
            EXPECT_TRUE(last.await_recycled(100)) << residents;
        }
        EXPECT_EQ(last.recycled, 100);
        EXPECT_EQ(last.started, 100);
    }
}

TEST(ThreadPoolThreads, ARecycleThatEndsTheThreadIsCalledOnce)
{
    Job job, last;
    Pool pool(1, 1);
    qor_context_task_t task = last.task();
    qor_context_task_set_recycle(&task, [](void *arg) {
        static_cast<Job *>(arg)->recycled++;
        end_thread();
    });

    qor_thread_pool_post(pool.get(), &task);
    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_EQ(last.recycled, 1);
}

TEST(ThreadPoolThreads, ATemporaryThreadInThePlaceOfAnotherEndsAfterItsIdleTime)
{
    Job last;
    Pool pool(0, 1, unbounded, /* keep_alive */ 20);
    last.body = end_thread;

    last.post(pool);

    EXPECT_TRUE(last.await_recycled(1));
    EXPECT_TRUE(await([&] { return pool.thread_num() == 0; }));
}

TEST(ThreadPoolThreads, QuitDoesNotWaitForAThreadThatATaskHasEnded)
{
    for (int round = 0; round < 20; round++) {
        Job last, waiting;
        Pool pool(2, 2);
        Hold hold(last);
        last.body = end_thread;
        last.post(pool);
        last.post(pool);
        ASSERT_TRUE(last.await_started(2));
        waiting.post(pool);
        Thread quitter([&] { qor_thread_pool_quit(pool.get()); });
        EXPECT_TRUE(waiting.await_recycled(1)); /* it quits, and waits for the two */

        hold.release();

        quitter.join();
        EXPECT_EQ(last.recycled, 2);
        EXPECT_EQ(pool.thread_num(), 0);
    }
}

TEST(ThreadPoolThreads, ATaskMayQuitItsPoolAndEndItsThread)
{
    Job last;
    {
        Pool pool(1, 1);
        last.body = [&] {
            qor_thread_pool_quit(pool.get());
            end_thread();
        };
        last.post(pool);
        EXPECT_TRUE(last.await_recycled(1));
        EXPECT_TRUE(await([&] { return pool.thread_num() == 0; }));
    }
    EXPECT_EQ(last.recycled, 1);
}

/* A recycle runs while the thread still counts as one of the pool's, which cannot release it. */
TEST(ThreadPoolThreads, ARecycleAfterTheEndOfItsThreadCannotReleaseThePool)
{
    static const Pool *of;
    Output out;
    Job last;
    Pool pool(1, 1);
    of = &pool;
    last.body = end_thread;
    qor_context_task_t task = last.task();
    qor_context_task_set_recycle(&task, [](void *arg) {
        qor_thread_pool_destroy(of->get());
        static_cast<Job *>(arg)->recycled++;
    });

    qor_thread_pool_post(pool.get(), &task);

    EXPECT_TRUE(last.await_recycled(1));
    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_destroy", "a task of the pool cannot release it."));
}

TEST(ThreadPoolThreads, IdleTemporaryThreadsUseNoProcessor)
{
    Job job;
    Pool pool(0, 4);
    {
        Hold hold(job);
        for (int i = 0; i < 20; i++) {
            job.post(pool);
        }
        ASSERT_TRUE(job.await_started(4));
    }
    ASSERT_TRUE(job.await_recycled(20));
    const int64_t before = processor_time();

    std::this_thread::sleep_for(std::chrono::seconds(2)); /* the time that is measured */

    EXPECT_LE(processor_time() - before, next_to_nothing);
    EXPECT_EQ(pool.thread_num(), 4);
}
