/* SPDX-License-Identifier: Apache-2.0 */
/* Workers are named after their tasks; the kernel is asked when the name changes. */
#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_hal.h"
#include "qor_thread_pool.h"
#include "running_bus.hpp"
#include "thread.hpp"

#ifdef __has_feature
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QOR_TESTS_PRCTL_READS /* the sanitizer's reads the name itself */
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define QOR_TESTS_PRCTL_READS
#endif

namespace {

std::string name_now()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

class ThreadNames : public testing::Test {
protected:
    /* Runs a task of that name on the one worker, with a change to make; gives the thread's name
     * before the change. The worker goes on to it from another task, without a wait in between. */
    std::string inside(const char *name, void (*change)() = nullptr)
    {
        struct Task {
            void (*change)();
            std::string name;
            std::atomic<bool> over;
        } task = {change, "", {false}};
        EXPECT_GE(qor_context_run_name(
                      module.context(), name,
                      [](void *arg) -> void * {
                          Task *own = static_cast<Task *>(arg);
                          own->name = name_now();
                          if (own->change) {
                              own->change();
                          }
                          own->over = true;
                          return nullptr;
                      },
                      &task),
                  0);
        EXPECT_TRUE(await([&] { return task.over.load(); }));
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0); /* it waits, as "context" */
        return task.name;
    }

    Module module{"module"};
    RunningBus bus{{&module}, 1, 1};
};

} // namespace

TEST_F(ThreadNames, ATaskHasItsName)
{
    ASSERT_TRUE(bus.up());

    EXPECT_EQ(inside("first"), "first");
    EXPECT_EQ(inside("second, of which fifteen characters are kept"), "second, of whic");
    EXPECT_EQ(inside("first"), "first");
}

TEST_F(ThreadNames, ANameThatATaskSetsIsSeen)
{
    ASSERT_TRUE(bus.up());

    inside("first", [] { hal_thread_name_set("of its own"); });

    EXPECT_EQ(inside("first"), "first");
}

/* Asking the kernel would cost as much as setting the name. */
TEST_F(ThreadNames, ANameSetBehindTheLibrarysBackStaysUntilAnotherComes)
{
    static std::string same, other;
    same = other = "";
    ASSERT_TRUE(bus.up());

    inside("first", [] {
        prctl(PR_SET_NAME, "hidden");
        hal_thread_name_set("first");
        same = name_now();
        hal_thread_name_set("second");
        other = name_now();
    });

    EXPECT_EQ(same, "hidden");
    EXPECT_EQ(other, "second");
}

#ifndef QOR_TESTS_PRCTL_READS
TEST_F(ThreadNames, NoNameIsTheKernelsToRefuse)
{
    ASSERT_TRUE(bus.up());
    EXPECT_EQ(inside("a task", [] { EXPECT_EQ(hal_thread_name_set(nullptr), -1); }), "a task");
    EXPECT_EQ(inside("another"), "another");
}
#endif

TEST(ThreadNamesOfOthers, AreAlwaysSet)
{
    Thread([] {
        hal_thread_name_set("first");
        prctl(PR_SET_NAME, "hidden");
        hal_thread_name_set("first");
        EXPECT_EQ(name_now(), "first");
    }).join();
}

TEST(ThreadNamesOfAPool, ComeBackBeforeTheRecycleAndBeforeAWait)
{
    static std::string inside, recycling, then;
    static std::atomic<int> over;
    over = 0;
    qor_thread_pool_t *pool = qor_thread_pool_create(1, 1, 10, 0x10000, -1, 0);
    ASSERT_NE(pool, nullptr);
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, nullptr, "first", 1,
        [](void *) -> void * {
            inside = name_now();
            return nullptr;
        },
        nullptr);
    task.recycle = [](void *) {
        recycling = name_now();
        over = 1;
    };
    ASSERT_EQ(qor_thread_pool_post(pool, &task), 0);
    ASSERT_TRUE(await([] { return over == 1; }));

    EXPECT_EQ(inside, "first");
    EXPECT_EQ(recycling, "qor_thread:0");
    qor_thread_pool_destroy(pool);
}
