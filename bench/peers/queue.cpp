/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with the blocking queue of concurrentqueue: between two threads, and as the queue
 * of a pool of threads. */
#include <thread>
#include <vector>

#include <concurrentqueue/blockingconcurrentqueue.h>

#include "pool.hpp"
#include "program.hpp"
#include "threads.hpp"

namespace {

using bench::Measurement;

class Link {
public:
    void send(bench::Side from, int64_t number) { to_[from == bench::asker].enqueue(number); }

    int64_t receive(bench::Side at)
    {
        int64_t number;
        to_[at == bench::answerer].wait_dequeue(number);
        return number;
    }

private:
    moodycamel::BlockingConcurrentQueue<int64_t> to_[2];
};

/* Threads that call a member function of whatever is queued; a NULL ends one of them. */
template <typename T, void (T::*run)()> class Pool {
public:
    explicit Pool(int workers)
    {
        for (int i = 0; i < workers; i++) {
            threads_.emplace_back([this] {
                for (T *task = take(); task; task = take()) {
                    (task->*run)();
                }
            });
        }
    }

    ~Pool()
    {
        for (size_t i = 0; i < threads_.size(); i++) {
            queue_.enqueue(nullptr);
        }
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }

    Pool(const Pool &) = delete;
    Pool &operator=(const Pool &) = delete;

    void post(T &task) { queue_.enqueue(&task); }

private:
    T *take()
    {
        T *task;
        queue_.wait_dequeue(task);
        return task;
    }

    moodycamel::BlockingConcurrentQueue<T *> queue_;
    std::vector<std::thread> threads_;
};

void pool(Measurement &m)
{
    Pool<bench::Countdown, &bench::Countdown::count_down> pool(m.workers);
    bench::tasks(m, [&pool](bench::Countdown &countdown) { pool.post(countdown); });
}

void pool_wake_up(Measurement &m)
{
    Pool<bench::WakeUp, &bench::WakeUp::started> pool(m.workers);
    bench::wake_ups(m, [&pool](bench::WakeUp &wake_up) { pool.post(wake_up); });
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "queue",
                          {
                              {"ping-pong", bench::ping_pong<Link>, 1, {2}},
                              {"pipeline", bench::ping_pong<Link>, 32, {2}},
                              {"count", bench::count<Link>, 0, {2}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                          });
}
