/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with libuv: timers of a loop, work for its thread pool, and two threads with a loop
 * each that tell each other by async handles of what is in a locked queue. */
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <uv.h>

#include "pool.hpp"
#include "program.hpp"
#include "timers.hpp"

namespace {

using bench::Measurement;
using bench::now_ns;

class Loop {
public:
    class Timer {
    public:
        explicit Timer(Loop &loop)
        {
            uv_timer_init(loop.get(), &timer_);
            timer_.data = this;
        }

        Timer(const Timer &) = delete;
        Timer &operator=(const Timer &) = delete;

        void arm(int64_t ms, void (*function)(void *), void *arg)
        {
            function_ = function;
            arg_ = arg;
            uv_update_time(timer_.loop); /* else the delay counts from the loop's last look */
            uv_timer_start(&timer_, fire, static_cast<uint64_t>(ms), 0);
        }

        void cancel() { uv_timer_stop(&timer_); }

    private:
        static void fire(uv_timer_t *timer)
        {
            Timer &self = *static_cast<Timer *>(timer->data);
            self.function_(self.arg_);
        }

        uv_timer_t timer_;
        void (*function_)(void *) = nullptr;
        void *arg_ = nullptr;
    };

    Loop() { uv_loop_init(&loop_); }

    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    uv_loop_t *get() { return &loop_; }

    void run() { uv_run(&loop_, UV_RUN_DEFAULT); }

    void stop() { uv_stop(&loop_); }

private:
    uv_loop_t loop_;
};

/* A loop that is told of numbers. One call of an async handle may stand for several sends. */
class Inbox {
public:
    Inbox(void (*function)(void *, int64_t), void *arg) : function_(function), arg_(arg)
    {
        uv_async_init(loop.get(), &async_, arrived);
        async_.data = this;
    }

    void send(int64_t number)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            numbers_.push_back(number);
        }
        uv_async_send(&async_);
    }

    Loop loop;

private:
    static void arrived(uv_async_t *async)
    {
        Inbox &self = *static_cast<Inbox *>(async->data);
        std::deque<int64_t> numbers;
        {
            const std::lock_guard<std::mutex> lock(self.mutex_);
            numbers.swap(self.numbers_);
        }
        for (int64_t number : numbers) {
            self.function_(self.arg_, number);
        }
    }

    void (*function_)(void *, int64_t);
    void *arg_;
    uv_async_t async_;
    std::mutex mutex_;
    std::deque<int64_t> numbers_;
};

constexpr int64_t enough = -1;

struct Pair {
    Measurement &m;
    Inbox asker{answered, this}, answerer{asked, this};
    int64_t count = 0;
    int left = m.size;

    static void asked(void *arg, int64_t sent)
    {
        Pair &self = *static_cast<Pair *>(arg);
        if (sent == enough) {
            self.answerer.loop.stop();
        } else {
            self.asker.send(sent);
        }
    }

    static void answered(void *arg, int64_t sent)
    {
        Pair &self = *static_cast<Pair *>(arg);
        const int64_t now = now_ns();
        self.m.latency.add(now - sent);
        self.count++;
        if (!self.m.over(now)) {
            self.answerer.send(now);
        } else if (--self.left == 0) {
            self.m.end(self.count);
            self.answerer.send(enough);
            self.asker.loop.stop();
        }
    }
};

void ping_pong(Measurement &m)
{
    Pair pair{m};
    std::thread other([&] { pair.answerer.loop.run(); });
    m.begin();
    for (int i = 0; i < m.size; i++) {
        pair.answerer.send(now_ns());
    }
    pair.asker.loop.run();
    other.join();
}

struct Counter {
    Measurement &m;
    Inbox inbox{counted, this};
    int64_t left = m.count;

    static void counted(void *arg, int64_t)
    {
        Counter &self = *static_cast<Counter *>(arg);
        if (--self.left == 0) {
            self.m.end(self.m.count);
            self.inbox.loop.stop();
        }
    }
};

void count(Measurement &m)
{
    Counter counter{m};
    std::thread other([&] { counter.inbox.loop.run(); });
    m.begin();
    for (int64_t i = 0; i < m.count; i++) {
        counter.inbox.send(i);
    }
    other.join();
}

/* The pool is the process's: the environment says how many threads it has, once. */
void threads_set(int workers)
{
    static int threads = 0;
    if (threads != 0 && threads != workers) {
        std::fprintf(stderr, "bench_uv: one number of --workers a process\n");
        std::exit(1);
    }
    threads = workers;
    setenv("UV_THREADPOOL_SIZE", std::to_string(workers).c_str(), 1);
}

/* Work is queued on the loop's thread, which is told there that it is done. */
void pool(Measurement &m)
{
    constexpr int64_t batch = 10000;
    threads_set(m.workers);
    Loop loop;
    std::deque<uv_work_t> works(batch);
    int64_t count = 0;
    m.begin();
    do {
        for (uv_work_t &work : works) {
            uv_queue_work(
                loop.get(), &work, [](uv_work_t *) {}, nullptr);
        }
        loop.run(); /* until nothing is under way */
        count += batch;
    } while (!m.over());
    m.end(count);
}

void pool_wake_up(Measurement &m)
{
    threads_set(m.workers);
    Loop loop;
    uv_work_t work;
    bench::wake_ups(m, [&](bench::WakeUp &wake_up) {
        work.data = &wake_up;
        uv_queue_work(
            loop.get(), &work,
            [](uv_work_t *one) { static_cast<bench::WakeUp *>(one->data)->started(); }, nullptr);
        loop.run();
    });
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "uv",
                          {
                              {"ping-pong", ping_pong, 1, {2}},
                              {"pipeline", ping_pong, 32, {2}},
                              {"count", count, 0, {2}},
                              {"timer-churn-0", bench::timer_churn<Loop>, 0, {1}},
                              {"timer-churn-10000", bench::timer_churn<Loop>, 10000, {1}},
                              {"timer-lateness-idle", bench::timer_lateness<Loop>, 0, {1}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                          });
}
