/* SPDX-License-Identifier: Apache-2.0 */
/* The pool's scenarios, for whatever a task is posted with. */
#ifndef BENCH_POOL_HPP
#define BENCH_POOL_HPP

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <time.h>

#include "measure.hpp"

namespace bench {

/** How long a handler goes on that has posted a task, in nanoseconds. */
constexpr int64_t computing = 3000000;

/** Counts the tasks that are left and wakes the poster with the last. */
class Countdown {
public:
    void start(int64_t count) { left_.store(count, std::memory_order_relaxed); }

    void count_down()
    {
        if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            const std::lock_guard<std::mutex> lock(mutex_);
            done_.notify_one();
        }
    }

    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return left_.load(std::memory_order_acquire) == 0; });
    }

private:
    std::atomic<int64_t> left_{0};
    std::mutex mutex_;
    std::condition_variable done_;
};

/** Posts batches of tasks that only count down, and waits for the last of each. */
template <typename Post> void tasks(Measurement &m, Post post)
{
    constexpr int64_t batch = 10000;
    Countdown countdown;
    int64_t count = 0;
    m.begin();
    do {
        countdown.start(batch);
        for (int64_t i = 0; i < batch; i++) {
            post(countdown);
        }
        countdown.wait();
        count += batch;
    } while (!m.over());
    m.end(count);
}

/** Measures from the post of a task to its start. */
class WakeUp {
public:
    explicit WakeUp(Measurement &m) : m_(m) {}

    void started()
    {
        m_.latency.add(now_ns() - posted_);
        countdown_.count_down();
    }

    template <typename Post> void once(Post post)
    {
        countdown_.start(1);
        posted_ = now_ns();
        post(*this);
        countdown_.wait();
    }

private:
    Measurement &m_;
    Countdown countdown_;
    int64_t posted_ = 0;
};

/** Posts one task at a time to a pool that has had nothing to do for 200 us. */
template <typename Post> void wake_ups(Measurement &m, Post post)
{
    WakeUp wake_up(m);
    int64_t count = 0;
    m.begin();
    do {
        const timespec pause = {0, 200000};
        nanosleep(&pause, nullptr);
        wake_up.once(post);
        count++;
    } while (!m.over());
    m.end(count);
}

} // namespace bench

#endif /* BENCH_POOL_HPP */
