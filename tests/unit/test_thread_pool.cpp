/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_thread_pool.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "case_name.hpp"
#include "hal_sync.hpp"
#include "output.hpp"
#include "pool.hpp"
#include "qor_context_task.h"
#include "sleeper.hpp"
#include "thread.hpp"

namespace {

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

struct Setting {
    const char *name;
    int32_t min, max, tasks, stack, priority;
    const char *text;
};

class RefusedSettings : public testing::TestWithParam<Setting> {};

} // namespace

TEST_P(RefusedSettings, AreReportedAndLeaveTheRecord)
{
    Output out;
    const Setting &setting = GetParam();
    qor_thread_pool_t pool;
    memset(&pool, 0x5a, sizeof(pool));
    const qor_thread_pool_t before = pool;

    EXPECT_EQ(qor_thread_pool_init(&pool, setting.min, setting.max, setting.tasks, setting.stack,
                                   setting.priority, 1000),
              -1);

    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_init", setting.text));
    EXPECT_EQ(memcmp(&pool, &before, sizeof(pool)), 0);

    EXPECT_EQ(qor_thread_pool_create(setting.min, setting.max, setting.tasks, setting.stack,
                                     setting.priority, 1000),
              nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    ThreadPool, RefusedSettings,
    testing::Values(
        Setting{"Priority100", 1, 2, 1, stack_size, 100,
                "priority range is [0-100), if set valie \"<0\" mean not work, if \">=100\" is "
                "invalid. your set: 100"},
        Setting{"StackZero", 1, 2, 1, 0, -1,
                "thread_stack_size must be integer multiple of 1024. your set: 0"},
        Setting{"StackNegative", 1, 2, 1, -1024, -1,
                "thread_stack_size must be integer multiple of 1024. your set: -1024"},
        Setting{"StackNotAMultiple", 1, 2, 1, 1000, -1,
                "thread_stack_size must be integer multiple of 1024. your set: 1000"},
        Setting{"MaximumBelowMinimum", 3, 2, 1, stack_size, -1,
                "thread_count_max must be bigger than thread_count_min. your set: 3, 2"}),
    case_name<Setting>);

TEST(ThreadPool, InitChecksItsSettingsInOrder)
{
    Output out;
    qor_thread_pool_t pool;

    EXPECT_EQ(qor_thread_pool_init(nullptr, 3, 2, 1, 1000, 200, 0), -1);
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_init", "!(_this) == true."));
    out.clear();
    EXPECT_EQ(qor_thread_pool_init(&pool, 3, 2, 1, 1000, 200, 0), -1);
    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_init",
                        "priority range is [0-100), if set valie \"<0\" mean not work, if "
                        "\">=100\" is invalid. your set: 200"));
    out.clear();
    EXPECT_EQ(qor_thread_pool_init(&pool, 3, 2, 1, 1000, 99, 0), -1);
    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_init",
                        "thread_stack_size must be integer multiple of 1024. your set: 1000"));
    out.clear();
    EXPECT_EQ(qor_thread_pool_init(&pool, 3, 2, 1, 1024, 99, 0), -1);
    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_init", "thread_count_max must be bigger than "
                                                "thread_count_min. your set: 3, 2"));
}

TEST(ThreadPool, ANegativeNumberOfResidentThreadsFails)
{
    Output out;

    EXPECT_EQ(qor_thread_pool_create(-1, 2, 1, stack_size, -1, 0), nullptr);
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_init", "malloc threads failed."));
}

TEST(ThreadPool, InitStoresItsSettings)
{
    Output out;
    qor_thread_pool_t pool;
    memset(&pool, 0x5a, sizeof(pool));

    ASSERT_EQ(qor_thread_pool_init(&pool, 2, 2, 7, 16384, -1, 1234), 0);

    EXPECT_EQ(pool.que->max_count, 7u);
    EXPECT_EQ(reinterpret_cast<void *>(pool.que->recycle),
              reinterpret_cast<void *>(qor_context_task_uninit));
    EXPECT_EQ(pool.quitting, 0);
    EXPECT_EQ(pool.keep_alive_time, 1234);
    EXPECT_EQ(pool.thread_count_min, 2);
    EXPECT_EQ(pool.thread_count_max, 2);
    EXPECT_EQ(pool.thread_num, 2);
    EXPECT_EQ(pool.priority, -1);
    EXPECT_EQ(pool.thread_stack_size, 16384);
    for (int32_t i = 0; i < 2; i++) {
        EXPECT_EQ(pool.threads[i].pool, &pool);
        EXPECT_EQ(pool.threads[i].wait_time, -1);
        EXPECT_EQ(pool.threads[i].identity, i);
        EXPECT_EQ(pool.threads[i].resident, 1);
    }
    qor_thread_pool_uninit(&pool);
    EXPECT_EQ(out.printed(), "");
}

TEST(ThreadPool, AnUnboundedQueueIsAskedForWithMinusOne)
{
    Pool pool(0, 0, -1);

    EXPECT_EQ(pool->que->max_count, UINT32_MAX);
}

TEST(ThreadPool, NullArgumentsAreReported)
{
    Output out;
    Job job;
    Pool pool(0, 0);
    qor_context_task_t task = job.task();

    EXPECT_EQ(qor_thread_pool_post(nullptr, &task), -1);
    EXPECT_EQ(qor_thread_pool_post(nullptr, nullptr), -1);
    EXPECT_EQ(qor_thread_pool_post(pool.get(), nullptr), -1);
    qor_thread_pool_uninit(nullptr);
    qor_thread_pool_destroy(nullptr);

    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_post", "!(_this) == true.") +
                                 pool_line("qor_thread_pool_post", "!(_this) == true.") +
                                 pool_line("qor_thread_pool_post", "!(task) == true.") +
                                 pool_line("qor_thread_pool_uninit", "!(_this) == true.") +
                                 pool_line("qor_thread_pool_destroy", "!(_this) == true."));
}

TEST(ThreadPool, TasksRunOnceAndAreReleasedAfterwards)
{
    Job job;
    {
        Pool pool(2, 2);
        for (int i = 0; i < 100; i++) {
            ASSERT_EQ(job.post(pool), 0);
        }
        EXPECT_TRUE(job.await_recycled(100));
    }

    EXPECT_EQ(job.finished, 100);
    EXPECT_EQ(job.recycled, 100);
}

TEST(ThreadPool, TheReleaseFollowsTheRun)
{
    Job job;
    std::atomic<int> recycled_before{-1};
    Pool pool(1, 1);
    job.body = [&] { recycled_before = job.recycled.load(); };

    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_EQ(recycled_before, 0);
}

TEST(ThreadPool, ATaskWithoutRecycleRuns)
{
    Job job;
    Pool pool(1, 1);
    qor_context_task_t task = job.task();
    qor_context_task_set_recycle(&task, nullptr);

    EXPECT_EQ(qor_thread_pool_post(pool.get(), &task), 0);

    EXPECT_TRUE(await([&] { return job.finished == 1; }));
    EXPECT_EQ(job.recycled, 0);
}

TEST(ThreadPool, ThreadsAreNamedAfterTheTaskWhileItRuns)
{
    Job job;
    std::string during;
    job.body = [&] { during = thread_name(); };
    qor_context_task_t task = job.task("a long name of a task");
    struct Released {
        Job *job;
        std::string name;
    };
    static Released released;
    released = {&job, ""};
    qor_context_task_set_recycle(&task, [](void *) {
        released.name = thread_name();
        released.job->recycled++;
    });
    {
        Pool pool(1, 1);
        qor_thread_pool_post(pool.get(), &task);
        ASSERT_TRUE(job.await_recycled(1));
    }

    EXPECT_EQ(during, "a long name of "); /* the kernel keeps 15 characters */
    EXPECT_EQ(released.name, "qor_thread:0");
}

TEST(ThreadPool, IdleThreadsAreNumbered)
{
    Job job;
    std::mutex mutex;
    std::set<std::string> names;
    Pool pool(2, 3, unbounded);
    qor_context_task_t task = job.task();
    static std::function<void()> note;
    note = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        names.insert(thread_name());
    };
    qor_context_task_set_recycle(&task, [](void *arg) {
        note();
        static_cast<Job *>(arg)->recycled++;
    });
    Hold hold(job);
    for (int i = 0; i < 9; i++) {
        qor_thread_pool_post(pool.get(), &task);
    }
    EXPECT_TRUE(job.await_started(3)); /* two residents and a temporary one */
    hold.release();
    EXPECT_TRUE(job.await_recycled(9));

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(names, (std::set<std::string>{"qor_thread:0", "qor_thread:1", "qor_thread:2"}));
}

TEST(ThreadPool, ThreadsAreDetached)
{
    Job job;
    int state = -1;
    Pool pool(1, 1);
    job.body = [&] {
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
    };

    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
}

TEST(ThreadPool, ThreadsHaveTheStackThatWasAskedFor)
{
    Job job;
    size_t size = 0;
    Pool pool(1, 1);
    job.body = [&] {
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    };

    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_GE(size, size_t{stack_size} - 4096); /* less the guard page with some systems */
    EXPECT_LT(size, size_t{1024 * 1024});
}

TEST(ThreadPool, AStackThatTheSystemRefusesGivesTheDefaultOne)
{
    Job job;
    qor_thread_pool_t *pool = qor_thread_pool_create(1, 1, unbounded, 1024, no_priority, 0);
    ASSERT_NE(pool, nullptr);
    qor_context_task_t task = job.task();

    EXPECT_EQ(qor_thread_pool_post(pool, &task), 0);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_EQ(pool->thread_stack_size, 1024);
    qor_thread_pool_destroy(pool);
}

TEST(ThreadPool, ThreadsKnowTheirHandle)
{
    Job job;
    pthread_t self = {};
    Pool pool(1, 1);
    job.body = [&] { self = pthread_self(); };

    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    hal_scoped_lock lock(pool->que->mutex);
    EXPECT_TRUE(pthread_equal(pool->threads[0].tid, self));
}

TEST(ThreadPool, AThreadIsAddedWhenMoreThanTwoTasksWaitForEach)
{
    Job job;
    Pool pool(1, 2);
    Hold hold(job);
    ASSERT_EQ(job.post(pool), 0);
    ASSERT_TRUE(job.await_started(1)); /* nothing waits, the resident thread is busy */

    job.post(pool);
    job.post(pool);
    EXPECT_EQ(pool.thread_num(), 1);
    job.post(pool);
    EXPECT_EQ(pool.thread_num(), 2);
    EXPECT_TRUE(job.await_started(2));
    hold.release();
}

TEST(ThreadPool, OnePostAddsOneThreadAtTheMost)
{
    Job job;
    Pool pool(0, 3);
    Hold hold(job);

    job.post(pool);
    EXPECT_EQ(pool.thread_num(), 1);
    ASSERT_TRUE(job.await_started(1));
    job.post(pool);
    job.post(pool);
    EXPECT_EQ(pool.thread_num(), 1);
    job.post(pool);
    EXPECT_EQ(pool.thread_num(), 2);
    hold.release();
}

TEST(ThreadPool, NoThreadIsAddedFromTheMaximumOn)
{
    Job job;
    Pool pool(1, 1);
    Hold hold(job);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(job.post(pool), 0);
    }

    EXPECT_EQ(pool.thread_num(), 1);
    hold.release();
}

TEST(ThreadPool, WithoutThreadsTasksWaitUntilTheyAreDiscarded)
{
    Job job;
    {
        Pool pool(0, 0);
        EXPECT_EQ(job.post(pool), 0);
        EXPECT_EQ(pool.thread_num(), 0);
        EXPECT_EQ(qor_que_count(pool->que), 1);
    }

    EXPECT_EQ(job.started, 0);
    EXPECT_EQ(job.recycled, 1);
}

TEST(ThreadPool, WithoutResidentThreadsTheFirstTaskAddsATemporaryOne)
{
    Job job;
    Pool pool(0, 1);

    EXPECT_EQ(pool.thread_num(), 0);
    job.post(pool);
    EXPECT_TRUE(job.await_recycled(1));
}

TEST(ThreadPool, AFullQueueRejectsTheTaskAndLeavesItsArgument)
{
    Output out;
    Job job;
    Pool pool(0, 0, 2);
    ASSERT_EQ(job.post(pool), 0);
    ASSERT_EQ(job.post(pool), 0);

    EXPECT_EQ(job.post(pool), -1);

    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_post", "reject task. because task que is full."));
    EXPECT_EQ(job.recycled, 0);
    EXPECT_EQ(qor_que_count(pool->que), 2);
}

TEST(ThreadPool, ARejectedTaskAddsNoThread)
{
    Output out;
    Job job;
    Pool pool(0, 5, 0);

    EXPECT_EQ(job.post(pool), -1);
    EXPECT_EQ(pool.thread_num(), 0);
}

TEST(ThreadPool, TakenTasksMakeRoom)
{
    Job job;
    Pool pool(1, 1, 1);
    for (int i = 1; i <= 5; i++) {
        ASSERT_EQ(job.post(pool), 0);
        ASSERT_TRUE(job.await_recycled(i));
    }
}

TEST(ThreadPool, ATaskIsQueuedUnderItsSession)
{
    Job job;
    Pool pool(0, 0);
    job.post(pool);

    qor_que_node_t *node = qor_que_remove(pool->que, 5);

    ASSERT_NE(static_cast<void *>(node), static_cast<void *>(pool->que));
    qor_que_node_destroy(node, nullptr);
}

TEST(ThreadPool, ATemporaryThreadEndsAfterItsIdleTime)
{
    const int32_t keep_alive = 100;
    Job blocker, job;
    std::atomic<int64_t> last_work{0};
    Pool pool(1, 2, unbounded, keep_alive);
    job.body = [&] { last_work = util_timestamp(); };
    Hold hold(blocker);
    blocker.post(pool);
    ASSERT_TRUE(blocker.await_started(1)); /* by the resident thread */
    for (int i = 0; i < 3; i++) {
        job.post(pool);
    }
    ASSERT_TRUE(job.await_recycled(3)); /* by a temporary one */

    EXPECT_TRUE(await([&] { return pool.thread_num() == 1; }));
    EXPECT_GE(util_timestamp() - last_work, keep_alive);
    hold.release();
    EXPECT_TRUE(blocker.await_recycled(1));
    job.post(pool);
    EXPECT_TRUE(job.await_recycled(4)); /* the resident thread is still there */
    EXPECT_EQ(pool.thread_num(), 1);
}

TEST(ThreadPool, WorkRestartsTheIdleTime)
{
    const int32_t keep_alive = 200;
    Job job;
    std::atomic<int64_t> last_work{0};
    Pool pool(0, 1, unbounded, keep_alive);
    job.body = [&] { last_work = util_timestamp(); };
    const int64_t start = util_timestamp();
    for (int posted = 1; util_timestamp() - start < 2 * keep_alive; posted++) {
        job.post(pool);
        ASSERT_TRUE(job.await_recycled(posted));
        std::this_thread::sleep_for(std::chrono::milliseconds(keep_alive / 20));
    }

    EXPECT_TRUE(await([&] { return pool.thread_num() == 0; }));
    EXPECT_GE(util_timestamp() - last_work, keep_alive);
}

TEST(ThreadPool, ATemporaryThreadWithANegativeIdleTimeStays)
{
    Job job;
    Pool pool(0, 1, unbounded, /* keep_alive */ -1);
    job.post(pool);
    ASSERT_TRUE(job.await_recycled(1));

    std::this_thread::sleep_for(std::chrono::milliseconds(30)); /* in which it would end */

    EXPECT_EQ(pool.thread_num(), 1);
}

TEST(ThreadPool, APoolThatRanOutOfTemporaryThreadsAddsNewOnes)
{
    Job job;
    Pool pool(0, 1, unbounded, 0);
    for (int i = 1; i <= 20; i++) {
        ASSERT_EQ(job.post(pool), 0);
        ASSERT_TRUE(job.await_recycled(i));
        ASSERT_TRUE(await([&] { return pool.thread_num() == 0; }));
    }
}

TEST(ThreadPool, TasksMayPostTasks)
{
    Job second, first;
    Pool pool(1, 1);
    first.body = [&] { second.post(pool); };

    first.post(pool);

    EXPECT_TRUE(second.await_recycled(1));
}

TEST(ThreadPool, ARecycleMayPostTasks)
{
    static Job *second;
    static const Pool *into;
    Job job, other;
    Pool pool(1, 1);
    second = &other;
    into = &pool;
    qor_context_task_t task = job.task();
    qor_context_task_set_recycle(&task, [](void *) { second->post(*into); });

    qor_thread_pool_post(pool.get(), &task);

    EXPECT_TRUE(other.await_recycled(1));
}

TEST(ThreadPool, ThreadsThatCannotStartAreReportedAndStayCounted)
{
    Output out;
    Job job;
    qor_thread_pool_t *pool =
        qor_thread_pool_create(2, 3, unbounded, stack_size, /* priority */ 0, stays_long);
    ASSERT_NE(pool, nullptr);
    const std::string refused =
        pool_line("qor_thread_pool_create_thread", "set thread priority failed.");
    EXPECT_EQ(out.printed(),
              refused + pool_line("qor_thread_pool_init", "create thread failed. index = 0") +
                  refused + pool_line("qor_thread_pool_init", "create thread failed. index = 1"));
    EXPECT_EQ(pool->thread_num, 2);
    EXPECT_EQ(pool->threads[1].pool, nullptr); /* it never came to that */
    out.clear();

    /* Nor can a temporary one, which is taken back. */
    qor_context_task_t task = job.task();
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(qor_thread_pool_post(pool, &task), 0);
    }
    EXPECT_EQ(out.printed(),
              refused + "[qor_thread_pool][wrn][qor_thread_pool_post]:create new thread failed.\n");
    EXPECT_EQ(pool->thread_num, 2);
    out.clear();

    qor_thread_pool_destroy(pool); /* does not wait for threads that never were */

    EXPECT_EQ(job.recycled, 5);
    EXPECT_EQ(out.printed(), "");
}

TEST(ThreadPool, ThreadsThatCannotStartAreTakenBackFromManyPostersAtOnce)
{
    Output out; /* each attempt prints */
    Job job;
    Pool pool(0, 4, unbounded, stays_long, /* priority */ 0);
    std::vector<Thread> posters;
    for (int i = 0; i < 4; i++) {
        posters.emplace_back([&] {
            for (int n = 0; n < 100; n++) {
                EXPECT_EQ(job.post(pool), 0);
            }
        });
    }
    for (Thread &poster : posters) {
        poster.join();
    }

    EXPECT_EQ(pool.thread_num(), 0);
    EXPECT_EQ(qor_que_count(pool->que), 400);
    EXPECT_EQ(out.count("create new thread failed."), out.count("set thread priority failed."));
}

TEST(ThreadPool, APriorityThatTheSystemTakesLeavesThreadsWithTheirCreatorsScheduling)
{
    Job job;
    int policy = -1, own_policy = -2;
    sched_param param;
    pthread_getschedparam(pthread_self(), &own_policy, &param);
    Pool pool(1, 1, unbounded, stays_long, /* priority */ 99);
    job.body = [&] {
        sched_param of_thread;
        pthread_getschedparam(pthread_self(), &policy, &of_thread);
    };

    job.post(pool);

    EXPECT_TRUE(job.await_recycled(1));
    EXPECT_EQ(policy, own_policy);
}

TEST(ThreadPool, QuitRefusesFurtherTasks)
{
    Output out;
    Job job;
    Pool pool(1, 1);

    qor_thread_pool_quit(pool.get());

    EXPECT_EQ(job.post(pool), -1);
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_post", "!(!_this->quitting) == true."));
    EXPECT_EQ(job.recycled, 0);
    out.clear();
    EXPECT_EQ(qor_thread_pool_post(pool.get(), nullptr), -1); /* the task is looked at first */
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_post", "!(task) == true."));
}

TEST(ThreadPool, QuitWaitsForRunningTasksAndDiscardsTheOthers)
{
    Job running, waiting;
    Pool pool(2, 2);
    Hold hold(running);
    running.post(pool);
    running.post(pool);
    ASSERT_TRUE(running.await_started(2));
    for (int i = 0; i < 4; i++) {
        waiting.post(pool);
    }
    std::atomic<bool> quit_returned{false};
    Thread quitter([&] {
        qor_thread_pool_quit(pool.get());
        quit_returned = true;
    });

    EXPECT_TRUE(waiting.await_recycled(4)); /* while the running tasks still run */
    EXPECT_FALSE(quit_returned);
    hold.release();
    quitter.join();

    EXPECT_EQ(waiting.started, 0);
    EXPECT_EQ(running.recycled, 2);
    EXPECT_EQ(pool->thread_num, 0);
    EXPECT_EQ(pool->quitting, 1);
}

TEST(ThreadPool, QuitDiscardsInOrderOnItsOwnThreadAndWithoutTheLock)
{
    static qor_que_t *que;
    static std::string order;
    Pool pool(0, 0);
    que = pool->que;
    order.clear();
    static pthread_t quitter;
    quitter = pthread_self();
    char words[][2] = {"a", "b", "c"};
    for (char *word : words) {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, nullptr, word, 0, [](void *arg) { return arg; }, word);
        qor_context_task_set_recycle(&task, [](void *arg) {
            order += static_cast<const char *>(arg);
            EXPECT_TRUE(pthread_equal(pthread_self(), quitter));
            ASSERT_EQ(pthread_mutex_trylock(&que->mutex), 0);
            pthread_mutex_unlock(&que->mutex);
        });
        ASSERT_EQ(qor_thread_pool_post(pool.get(), &task), 0);
    }

    qor_thread_pool_quit(pool.get());

    EXPECT_EQ(order, "abc");
}

TEST(ThreadPool, QuitAlsoEndsTemporaryThreads)
{
    Job job;
    Pool pool(0, 4);
    Hold hold(job);
    for (int i = 0; i < 20; i++) {
        job.post(pool);
    }
    ASSERT_TRUE(job.await_started(4));
    hold.release();

    qor_thread_pool_quit(pool.get());

    EXPECT_EQ(pool->thread_num, 0);
    EXPECT_EQ(job.recycled, 20);
}

TEST(ThreadPool, ASecondQuitReturnsAtOnce)
{
    Job job;
    Pool pool(1, 1);
    Hold hold(job);
    job.post(pool);
    ASSERT_TRUE(job.await_started(1));
    Thread first([&] { qor_thread_pool_quit(pool.get()); });
    ASSERT_TRUE(await([&] { return hal_load(pool->quitting) == 1; }));

    qor_thread_pool_quit(pool.get()); /* while the first still waits */

    EXPECT_EQ(job.finished, 0);
    hold.release();
    first.join();
}

TEST(ThreadPool, DestroyWaitsForTheQuitOfAnotherThread)
{
    Job job;
    Hold hold(job);
    qor_thread_pool_t *pool = qor_thread_pool_create(1, 1, unbounded, stack_size, -1, 0);
    ASSERT_NE(pool, nullptr);
    qor_context_task_t task = job.task();
    qor_thread_pool_post(pool, &task);
    ASSERT_TRUE(job.await_started(1));
    Thread first([&] { qor_thread_pool_quit(pool); });
    ASSERT_TRUE(await([&] { return hal_load(pool->quitting) == 1; }));
    Thread opener([&] { hold.release(); });

    qor_thread_pool_destroy(pool);

    EXPECT_EQ(job.recycled, 1);
    first.join();
    opener.join();
}

TEST(ThreadPool, DestroyWaitsForAQuitThatStillDiscards)
{
    static std::atomic<bool> discarding, done;
    discarding = done = false;
    qor_thread_pool_t *pool = qor_thread_pool_create(0, 0, unbounded, stack_size, no_priority, 0);
    ASSERT_NE(pool, nullptr);
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, nullptr, "task", 0, [](void *arg) { return arg; }, nullptr);
    qor_context_task_set_recycle(&task, [](void *) {
        discarding = true;
        EXPECT_TRUE(await([] { return done.load(); }));
    });
    EXPECT_EQ(qor_thread_pool_post(pool, &task), 0);
    Thread quitter([&] { qor_thread_pool_quit(pool); });
    EXPECT_TRUE(await([] { return discarding.load(); }));
    Sleeper sleeper;
    std::atomic<bool> destroyed{false};
    Thread destroyer([&] {
        sleeper.here();
        qor_thread_pool_destroy(pool);
        destroyed = true;
    });

    EXPECT_TRUE(await([&] { return sleeper.sleeps() || destroyed; }));
    EXPECT_FALSE(destroyed);

    done = true;
    quitter.join();
    destroyer.join();
}

TEST(ThreadPool, ManyThreadsMayQuitAtOnce)
{
    for (int round = 0; round < 50; round++) {
        Job job;
        Pool pool(2, 4);
        for (int i = 0; i < 10; i++) {
            job.post(pool);
        }
        std::vector<Thread> quitters;
        for (int i = 0; i < 4; i++) {
            quitters.emplace_back([&] { qor_thread_pool_quit(pool.get()); });
        }
        for (Thread &quitter : quitters) {
            quitter.join();
        }
        EXPECT_EQ(job.recycled, 10);
    }
}

TEST(ThreadPool, QuitFromATaskStopsThePoolWithoutWaiting)
{
    Job quitter, waiting;
    {
        Pool pool(1, 1);
        quitter.body = [&] {
            waiting.post(pool);
            qor_thread_pool_quit(pool.get());
            EXPECT_EQ(waiting.recycled, 1);
        };
        quitter.post(pool);
        EXPECT_TRUE(quitter.await_recycled(1));
        EXPECT_TRUE(await([&] { return pool.thread_num() == 0; }));
    }
    EXPECT_EQ(waiting.started, 0);
}

TEST(ThreadPool, DestroyAfterAQuitFromATaskWaitsForThatTask)
{
    Job quitter;
    {
        Pool pool(1, 1);
        std::atomic<bool> quit_returned{false};
        quitter.body = [&] {
            qor_thread_pool_quit(pool.get());
            quit_returned = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        };
        quitter.post(pool);
        EXPECT_TRUE(await([&] { return quit_returned.load(); }));
    }
    EXPECT_EQ(quitter.recycled, 1);
}

TEST(ThreadPool, ATaskCannotReleaseItsPool)
{
    Output out;
    Job job;
    {
        Pool pool(1, 1);
        job.body = [&] {
            qor_thread_pool_uninit(pool.get());
            qor_thread_pool_destroy(pool.get());
        };
        job.post(pool);
        EXPECT_TRUE(job.await_recycled(1));

        EXPECT_EQ(pool->quitting, 0);
        job.body = [] {};
        job.post(pool);
        EXPECT_TRUE(job.await_recycled(2)); /* it goes on as before */
    }
    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_uninit", "a task of the pool cannot release it.") +
                  pool_line("qor_thread_pool_destroy", "a task of the pool cannot release it."));
}

TEST(ThreadPool, ARecycleDuringQuitMayPostAndIsRefused)
{
    Output out;
    struct Poster {
        qor_thread_pool_t *pool;
        int32_t result;
    } poster = {qor_thread_pool_create(0, 0, unbounded, stack_size, -1, 0), 0};
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, nullptr, "poster", 0, [](void *arg) { return arg; }, &poster);
    qor_context_task_set_recycle(&task, [](void *arg) {
        Poster *self = static_cast<Poster *>(arg);
        qor_context_task_t again = {};
        qor_context_task_init(
            &again, nullptr, "again", 0, [](void *a) { return a; }, nullptr);
        self->result = qor_thread_pool_post(self->pool, &again);
    });
    qor_thread_pool_post(poster.pool, &task);

    qor_thread_pool_destroy(poster.pool);

    EXPECT_EQ(poster.result, -1);
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_post", "!(!_this->quitting) == true."));
}

TEST(ThreadPool, EveryAcceptedTaskIsReleasedOnceUnderLoad)
{
    Output out; /* rejections print */
    Job job;
    std::atomic<int> accepted{0};
    {
        Pool pool(1, 4, 16, /* keep_alive */ 1);
        std::vector<Thread> posters;
        for (int i = 0; i < 4; i++) {
            posters.emplace_back([&] {
                for (int n = 0; n < 500; n++) {
                    accepted += job.post(pool) == 0;
                }
            });
        }
        for (Thread &poster : posters) {
            poster.join();
        }
    }
    EXPECT_EQ(job.recycled, accepted);
    EXPECT_LE(job.finished, accepted);
    EXPECT_EQ(out.count("reject task. because task que is full."), 2000 - accepted);
}

TEST(ThreadPool, PostingWhileThePoolQuitsLosesNoTask)
{
    Output out;
    for (int round = 0; round < 30; round++) {
        Job job;
        int accepted = 0;
        Pool pool(0, 3);
        Thread poster([&] {
            while (job.post(pool) == 0) {
                accepted++;
                while (accepted - job.recycled > 1000) { /* memory has an end */
                    std::this_thread::yield();
                }
            }
        });
        await([&] { return job.started > 5; });

        qor_thread_pool_quit(pool.get());
        poster.join();

        EXPECT_TRUE(job.await_recycled(accepted));
        EXPECT_EQ(job.recycled, accepted);
    }
}
