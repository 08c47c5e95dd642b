/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks: of the thread pool, and of a handler that goes on computing. */
#include "parties.hpp"
#include "pool.hpp"
#include "scenarios.hpp"

namespace {

constexpr int32_t topic = 0;

/* A pool, and a task for it. */
class Pool {
public:
    explicit Pool(int workers)
        : pool_(qor_thread_pool_create(workers, workers, -1, 64 * 1024, -1, 0))
    {
        check(pool_, "no pool");
    }

    ~Pool() { qor_thread_pool_destroy(pool_); }

    Pool(const Pool &) = delete;
    Pool &operator=(const Pool &) = delete;

    void post(qor_context_run_t run, void *arg)
    {
        qor_context_task_t task = {};
        qor_context_task_init(&task, nullptr, "bench", 0, run, arg);
        check(qor_thread_pool_post(pool_, &task) == 0, "a task was refused");
    }

private:
    qor_thread_pool_t *pool_;
};

/* Asked, it posts a task and computes. It is asked again when both are over. */
struct Computer : Party {
    bench::Measurement *m;
    Party *asker;
    std::atomic<int> left{2};
    int64_t posted = 0; /* ns */
    int64_t rounds = 0;
};

struct Asker : Party {
    Computer *computer;
};

void round_over(Computer &computer)
{
    if (computer.left.fetch_sub(1) > 1) {
        return;
    }
    computer.rounds++;
    computer.left = 2;
    if (!computer.m->over()) {
        ask(computer.asker->context, topic, 0);
        return;
    }
    computer.m->end(computer.rounds);
    leave();
}

void *posted_task(qor_context_t *self, int32_t, void *)
{
    Computer &own = party<Computer>(self);
    own.m->latency.add(bench::now_ns() - own.posted);
    round_over(own);
    return nullptr;
}

int32_t computer_handle(qor_context_t *self, qor_context_msg_t *)
{
    party<Computer>(self).posted = bench::now_ns();
    check(qor_context_runx(self, posted_task, nullptr) >= 0, "a task was refused");
    bench::compute_for(bench::computing);
    return 0;
}

void asker_start(qor_context_t *self)
{
    party<Asker>(self).computer->m->begin();
    ask(self, topic, 0);
}

int32_t asker_handle(qor_context_t *self, qor_context_msg_t *)
{
    round_over(*party<Asker>(self).computer);
    return 0;
}

} // namespace

void pool(bench::Measurement &m)
{
    Pool pool(m.workers);
    bench::tasks(m, [&pool](bench::Countdown &countdown) {
        pool.post(
            [](void *arg) -> void * {
                static_cast<bench::Countdown *>(arg)->count_down();
                return nullptr;
            },
            &countdown);
    });
}

void pool_wake_up(bench::Measurement &m)
{
    Pool pool(m.workers);
    bench::wake_ups(m, [&pool](bench::WakeUp &wake_up) {
        pool.post(
            [](void *arg) -> void * {
                static_cast<bench::WakeUp *>(arg)->started();
                return nullptr;
            },
            &wake_up);
    });
}

void task_in_handler(bench::Measurement &m)
{
    Asker asker;
    Computer computer;
    computer.m = &m;
    computer.asker = &asker;
    computer.subscribes = topic;
    computer.handle = computer_handle;
    asker.computer = &computer;
    asker.last = true;
    asker.start = asker_start;
    asker.handle = asker_handle;
    run_bus({&computer, &asker}, 1, m.workers);
}
