/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks per second of the pool: one thread posts batches of tasks that do next to nothing, and
 * waits for the last of each batch. */
#include <atomic>
#include <condition_variable>
#include <mutex>

#include <benchmark/benchmark.h>

#include "qor_context_task.h"
#include "qor_thread_pool.h"

namespace {

constexpr int batch = 100000;

/* Counts the tasks that are left and wakes the poster with the last. */
class Countdown {
public:
    void start(int count) { left_.store(count, std::memory_order_relaxed); }

    void count_down()
    {
        if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            std::lock_guard<std::mutex> lock(mutex_);
            done_.notify_one();
        }
    }

    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return left_.load(std::memory_order_acquire) == 0; });
    }

private:
    std::atomic<int> left_{0};
    std::mutex mutex_;
    std::condition_variable done_;
};

void *run(void *arg)
{
    static_cast<Countdown *>(arg)->count_down();
    return nullptr;
}

void post_and_run(benchmark::State &state)
{
    const int32_t workers = static_cast<int32_t>(state.range(0));
    qor_thread_pool_t *pool = qor_thread_pool_create(workers, workers, -1, 64 * 1024, -1, 0);
    Countdown countdown;
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "bench", 0, run, &countdown);
    for (auto _ : state) {
        countdown.start(batch);
        for (int i = 0; i < batch; i++) {
            if (qor_thread_pool_post(pool, &task) != 0) {
                state.SkipWithError("a task was refused");
                countdown.count_down();
            }
        }
        countdown.wait();
    }
    qor_thread_pool_destroy(pool);
    state.SetItemsProcessed(state.iterations() * batch);
}

} // namespace

BENCHMARK(post_and_run)
    ->Name("thread_pool/tasks")
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
