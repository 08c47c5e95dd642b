/* SPDX-License-Identifier: Apache-2.0 */
/* Thread pools for tests, and tasks that count what becomes of them. */
#ifndef QOR_TESTS_POOL_HPP
#define QOR_TESTS_POOL_HPP

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "await.hpp"
#include "hal_sync.hpp"
#include "output.hpp"
#include "qor_context_task.h"
#include "qor_thread_pool.h"

constexpr int32_t stack_size = 128 * 1024; /* the least that 64-bit ARM accepts */
constexpr int32_t unbounded = -1;
constexpr int32_t no_priority = -1;
constexpr int32_t stays_long = 60000;

/* A pool that is destroyed with the test. */
class Pool {
public:
    Pool(int32_t min, int32_t max, int32_t tasks = unbounded, int32_t keep_alive = stays_long,
         int32_t priority = no_priority)
        : pool_(qor_thread_pool_create(min, max, tasks, stack_size, priority, keep_alive))
    {
        EXPECT_NE(pool_, nullptr);
    }
    ~Pool() { qor_thread_pool_destroy(pool_); }

    qor_thread_pool_t *get() const { return pool_; }
    qor_thread_pool_t *operator->() const { return pool_; }

    int32_t thread_num() const
    {
        hal_scoped_lock lock(pool_->que->mutex);
        return pool_->thread_num;
    }

private:
    qor_thread_pool_t *pool_;
};

/* Counts the runs and releases of its tasks. Outlives the pool that it posts to. */
class Job {
public:
    qor_context_task_t task(const char *name = "job")
    {
        qor_context_task_t task = {};
        qor_context_task_init(&task, nullptr, name, 5, run, this);
        qor_context_task_set_recycle(&task, recycle);
        return task;
    }

    int32_t post(const Pool &pool, const char *name = "job")
    {
        qor_context_task_t copied = task(name);
        return qor_thread_pool_post(pool.get(), &copied);
    }

    bool await_started(int count, const Where &where = Where::here()) const
    {
        return await([this, count] { return started >= count; }, where);
    }
    bool await_recycled(int count, const Where &where = Where::here()) const
    {
        return await([this, count] { return recycled >= count; }, where);
    }

    std::atomic<int> started{0}, finished{0}, recycled{0};
    std::atomic<bool> held{false};
    std::function<void()> body = [] {};

private:
    static void *run(void *arg)
    {
        Job *job = static_cast<Job *>(arg);
        job->started++;
        while (job->held) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        job->body();
        job->finished++;
        return nullptr;
    }

    static void recycle(void *arg) { static_cast<Job *>(arg)->recycled++; }
};

/* Keeps the tasks of a job from finishing until release() or the end of the block. */
class Hold {
public:
    explicit Hold(Job &job) : job_(job) { job_.held = true; }
    ~Hold() { release(); }
    void release() { job_.held = false; }

private:
    Job &job_;
};

inline std::string pool_line(const std::string &function, const std::string &text)
{
    return err_line("qor_thread_pool", function, text);
}

#endif /* QOR_TESTS_POOL_HPP */
