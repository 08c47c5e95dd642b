/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_thread_pool.h"

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "fault.h"
#include "hal_sync.hpp"
#include "output.hpp"
#include "qor_context_task.h"

namespace {

constexpr int32_t stack_size = 64 * 1024;

std::string pool_line(const std::string &function, const std::string &text)
{
    return err_line("qor_thread_pool", function, text);
}

std::string warning(const std::string &text)
{
    return "[qor_thread_pool][wrn][qor_thread_pool_post]:" + text + "\n";
}

qor_thread_pool_t *create(int32_t min, int32_t max, int32_t priority = -1)
{
    return qor_thread_pool_create(min, max, -1, stack_size, priority, 60000);
}

std::atomic<int> recycled;

void *do_nothing(void *arg)
{
    return arg;
}

void *end_thread(void *)
{
    pthread_exit(nullptr);
}

int32_t thread_num(qor_thread_pool_t *pool)
{
    hal_scoped_lock lock(pool->que->mutex);
    return pool->thread_num;
}

int32_t post(qor_thread_pool_t *pool, qor_context_run_t run = do_nothing)
{
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "task", 0, run, nullptr);
    qor_context_task_set_recycle(&task, [](void *) { recycled++; });
    return qor_thread_pool_post(pool, &task);
}

} // namespace

TEST(ThreadPoolFaults, CreateWithoutMemoryForThePoolIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(create(1, 1), nullptr);

    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_create", "malloc \"_this\" failed."));
}

TEST(ThreadPoolFaults, CreateWithoutMemoryForTheQueueIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(create(1, 1), nullptr);

    EXPECT_EQ(out.printed(), err_line("qor_que", "qor_que_create", "!(_this) == true.") +
                                 pool_line("qor_thread_pool_init", "create que failed."));
}

TEST(ThreadPoolFaults, InitReturnsMinusOneWithoutMemory)
{
    for (int failure = 0; failure < 3; failure++) { /* queue, private block, threads */
        Output out;
        qor_thread_pool_t pool;
        fault_arm(FAULT_ALLOC, failure);

        EXPECT_EQ(qor_thread_pool_init(&pool, 1, 1, -1, 128 * 1024, -1, 60000), -1);

        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        EXPECT_EQ(fault_live(), 0);
    }
    fault_arm(FAULT_ALLOC, -1);
}

TEST(ThreadPoolFaults, CreateReportsWhicheverAllocationFailsAndKeepsNothing)
{
    int failures = 0;
    for (;; failures++) {
        Output out;
        fault_arm(FAULT_ALLOC, failures);
        qor_thread_pool_t *pool = create(2, 2);
        const bool fired = fault_fired(FAULT_ALLOC) == 1;
        fault_arm(FAULT_ALLOC, -1);
        if (!fired) {
            qor_thread_pool_destroy(pool);
            break;
        }
        EXPECT_EQ(pool, nullptr);
        EXPECT_EQ(out.count("failed."), 1) << out.text();
    }
    EXPECT_GE(failures, 4); /* pool, queue, private block, threads */
}

TEST(ThreadPoolFaults, InitWithoutMemoryForTheThreadsIsReported)
{
    /* the last allocation of init */
    fault_arm(FAULT_ALLOC, -1);
    qor_thread_pool_t pool;
    ASSERT_EQ(qor_thread_pool_init(&pool, 1, 1, -1, stack_size, -1, 0), 0);
    const int allocations = fault_calls(FAULT_ALLOC);
    qor_thread_pool_uninit(&pool);
    Output out;
    fault_arm(FAULT_ALLOC, allocations - 1);

    EXPECT_EQ(qor_thread_pool_init(&pool, 1, 1, -1, stack_size, -1, 0), -1);

    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_init", "malloc threads failed."));
}

TEST(ThreadPoolFaults, AResidentThreadThatIsNotCreatedStaysCounted)
{
    Output out;
    recycled = 0;
    fault_arm(FAULT_THREAD, 1);

    qor_thread_pool_t *pool = create(3, 3);

    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(pool->thread_num, 3);
    EXPECT_EQ(out.printed(), "");
    EXPECT_EQ(post(pool), 0);
    qor_thread_pool_destroy(pool); /* waits for the other two only */
    EXPECT_EQ(recycled, 1);
}

TEST(ThreadPoolFaults, ATemporaryThreadThatIsNotCreatedStaysCounted)
{
    Output out;
    recycled = 0;
    qor_thread_pool_t *pool = create(0, 1);
    ASSERT_NE(pool, nullptr);
    fault_arm(FAULT_THREAD, 0);

    EXPECT_EQ(post(pool), 0);

    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(pool->thread_num, 1);
    EXPECT_EQ(out.printed(), "");
    EXPECT_EQ(post(pool), 0); /* no other takes its place */
    EXPECT_EQ(pool->thread_num, 1);
    qor_thread_pool_destroy(pool);
    EXPECT_EQ(recycled, 2);
}

TEST(ThreadPoolFaults, ATemporaryThreadWithoutMemoryIsReportedAndTakenBack)
{
    Output out;
    recycled = 0;
    qor_thread_pool_t *pool = create(0, 1);
    ASSERT_NE(pool, nullptr);
    fault_arm(FAULT_ALLOC, 1); /* after the task's node */

    EXPECT_EQ(post(pool), 0);

    EXPECT_EQ(out.printed(), warning("malloc qor_thread_pool_thread_t failed."));
    EXPECT_EQ(pool->thread_num, 0);
    EXPECT_EQ(qor_que_count(pool->que), 1);
    qor_thread_pool_destroy(pool);
    EXPECT_EQ(recycled, 1);
}

TEST(ThreadPoolFaults, ATemporaryThreadWhosePriorityIsRefusedIsReportedAndTakenBack)
{
    Output out;
    qor_thread_pool_t *pool = create(0, 1, /* priority */ 10);
    ASSERT_NE(pool, nullptr);
    fault_arm(FAULT_SCHED, 0);

    EXPECT_EQ(post(pool), 0);

    EXPECT_EQ(out.printed(),
              pool_line("qor_thread_pool_create_thread", "set thread priority failed.") +
                  warning("create new thread failed."));
    EXPECT_EQ(pool->thread_num, 0);
    qor_thread_pool_destroy(pool);
}

TEST(ThreadPoolFaults, AStackSizeThatTheSystemRefusesBecomesTheSmallest)
{
    Output out;
    recycled = 0;
    fault_arm(FAULT_STACK, 0);

    qor_thread_pool_t *pool = create(1, 1);

    EXPECT_EQ(fault_fired(FAULT_STACK), 1);
    EXPECT_EQ(fault_calls(FAULT_STACK), 2);
    EXPECT_EQ(post(pool), 0);
    EXPECT_TRUE(await([] { return recycled == 1; }));
    EXPECT_EQ(out.printed(), "");
    qor_thread_pool_destroy(pool);
}

TEST(ThreadPoolFaults, AThreadWhoseStackIsRefusedIsReportedAndStaysCounted)
{
    Output out;
    recycled = 0;
    const int locks = fault_locks();
    fault_arm_from(FAULT_STACK, 0);

    qor_thread_pool_t *pool = create(1, 2);

    ASSERT_NE(pool, nullptr);
    const std::string refused =
        pool_line("qor_thread_pool_create_thread", "set thread stack size failed.");
    EXPECT_EQ(out.printed(),
              refused + pool_line("qor_thread_pool_init", "create thread failed. index = 0"));
    EXPECT_EQ(pool->thread_num, 1);
    out.clear();
    for (int i = 0; i < 3; i++) { /* the third asks for a temporary one */
        EXPECT_EQ(post(pool), 0);
    }
    EXPECT_EQ(out.printed(), refused + warning("create new thread failed."));
    EXPECT_EQ(pool->thread_num, 1);
    qor_thread_pool_destroy(pool);
    EXPECT_EQ(recycled, 3);
    EXPECT_EQ(fault_locks(), locks);
    fault_arm(FAULT_STACK, -1);
}

TEST(ThreadPoolFaults, AThreadWithoutAttributeIsReportedAndStaysCounted)
{
    Output out;
    fault_arm(FAULT_ATTR, -1);
    qor_que_destroy(qor_que_create(1, nullptr));
    fault_arm(FAULT_ATTR, fault_calls(FAULT_ATTR)); /* behind those of the pool's queue */

    qor_thread_pool_t *pool = create(1, 1);

    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(out.printed(), pool_line("qor_thread_pool_init", "create thread failed. index = 0"));
    EXPECT_EQ(pool->thread_num, 1);
    qor_thread_pool_destroy(pool);
}

TEST(ThreadPoolFaults, AThreadThatATaskHasEndedCostsNoMemory)
{
    recycled = 0;
    fault_arm(FAULT_ALLOC, -1);
    const int locks = fault_locks();
    qor_thread_pool_t *pool = create(1, 2);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(post(pool, end_thread), 0);
    }
    EXPECT_TRUE(await([] { return recycled == 20; }));

    qor_thread_pool_destroy(pool);

    EXPECT_EQ(fault_live(), 0);
    /* A thread that has started another in its place gives the attribute back as it ends. */
    EXPECT_TRUE(await([&] { return fault_locks() == locks; }));
}

/* Without the thread that the system does not create, or whose attribute cannot be had. */
TEST(ThreadPoolFaults, AThreadThatCannotBeReplacedIsTakenBack)
{
    for (fault_kind kind : {FAULT_THREAD, FAULT_ATTR, FAULT_STACK}) {
        for (int32_t residents : {0, 1}) {
            Output out;
            recycled = 0;
            const int locks = fault_locks();
            qor_thread_pool_t *pool = create(residents, 1);
            EXPECT_EQ(post(pool), 0);
            EXPECT_TRUE(await([] { return recycled == 1; }));
            fault_arm_from(kind, 0);

            EXPECT_EQ(post(pool, end_thread), 0);

            EXPECT_TRUE(await([&] { return thread_num(pool) == 0; }));
            EXPECT_EQ(recycled, 2);
            const std::string refused =
                kind == FAULT_STACK
                    ? pool_line("qor_thread_pool_create_thread", "set thread stack size failed.")
                    : "";
            EXPECT_EQ(out.printed(),
                      refused + "[qor_thread_pool][wrn][qor_thread_pool_replace_thread]:create new "
                                "thread failed.\n");
            fault_arm(kind, -1);
            EXPECT_EQ(post(pool), 0); /* adds a temporary one */
            EXPECT_TRUE(await([] { return recycled == 3; }));
            qor_thread_pool_destroy(pool); /* waits for no thread that is not there */
            EXPECT_EQ(fault_locks(), locks);
        }
    }
}

TEST(ThreadPoolFaults, PostWithoutMemoryLeavesTheArgument)
{
    Output out;
    recycled = 0;
    qor_thread_pool_t *pool = create(1, 1);
    ASSERT_NE(pool, nullptr);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(post(pool), -1);

    EXPECT_EQ(out.printed(),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed.") +
                  pool_line("qor_thread_pool_post", "create qor_que_node_t failed."));
    qor_thread_pool_destroy(pool);
    EXPECT_EQ(recycled, 0);
}
