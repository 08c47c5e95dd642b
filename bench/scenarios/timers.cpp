/* SPDX-License-Identifier: Apache-2.0 */
/* Timers of modules, and the timed queue that they wait in. */
#include <algorithm>
#include <deque>
#include <mutex>
#include <numeric>
#include <random>

#include "parties.hpp"
#include "scenarios.hpp"

namespace {

constexpr int32_t far_off = 100000; /* ms: nothing falls due during a run */
constexpr int64_t ns_per_ms = 1000000;

void *nothing(qor_context_t *, int32_t, void *)
{
    return nullptr;
}

/* Timers that wait beside what is measured, as many as a module's queue holds. */
struct Waiter : Party {
    static constexpr int timers = 50;

    bench::Random random;
};

void waiter_start(qor_context_t *self)
{
    for (int i = 0; i < Waiter::timers; i++) {
        const int64_t delay = far_off + party<Waiter>(self).random.below(far_off);
        check(qor_context_timerx(self, nothing, nullptr, static_cast<int32_t>(delay)) >= 0,
              "a timer was refused");
    }
}

/* Runs the work of a scenario in a task, when all modules are up. */
struct Worker : Party {
    bench::Measurement *m;
    void (*work)(qor_context_t *self, bench::Measurement &m);
};

void *work_on(qor_context_t *self, int32_t, void *)
{
    Worker &own = party<Worker>(self);
    own.work(self, *own.m);
    leave();
    return nullptr;
}

void worker_start(qor_context_t *self)
{
    qor_context_runx(self, work_on, nullptr);
}

/* Runs it on a bus where so many timers wait. */
void run_beside(int timers, bench::Measurement &m,
                void (*work)(qor_context_t *self, bench::Measurement &m))
{
    std::deque<Waiter> waiters(static_cast<size_t>(timers / Waiter::timers));
    std::vector<Party *> parties;
    for (Waiter &waiter : waiters) {
        waiter.start = waiter_start;
        parties.push_back(&waiter);
    }
    Worker worker;
    worker.m = &m;
    worker.work = work;
    worker.last = true;
    worker.start = worker_start;
    parties.push_back(&worker);
    run_bus(parties, 1, m.workers);
}

void churn(qor_context_t *self, bench::Measurement &m)
{
    bench::Random random;
    int64_t count = 0;
    m.begin();
    do {
        const int64_t delay = far_off + random.below(far_off);
        const int32_t session =
            qor_context_timerx(self, nothing, nullptr, static_cast<int32_t>(delay));
        check(qor_context_timer_cancel(self, session) == 0, "a timer was not cancelled");
        count++;
    } while (!m.over());
    m.end(count);
}

/* A timed queue of so many nodes, whose ids are in no order. */
class TimeQue {
public:
    explicit TimeQue(int nodes) : nodes_(nodes)
    {
        std::vector<size_t> ids(static_cast<size_t>(nodes));
        std::iota(ids.begin(), ids.end(), size_t(0));
        std::shuffle(ids.begin(), ids.end(), std::mt19937_64(1));
        int32_t delay = far_off;
        for (size_t id : ids) {
            qor_time_que_enque(que_, qor_time_que_node_create(id, delay++, body));
        }
    }

    ~TimeQue() { qor_time_que_destroy(que_); }

    TimeQue(const TimeQue &) = delete;
    TimeQue &operator=(const TimeQue &) = delete;

    /* Takes one out, which then waits at another place. */
    void move_one()
    {
        const size_t id = static_cast<size_t>(random_.below(nodes_));
        qor_time_que_node_t *node = qor_time_que_remove(que_, id);
        check(node, "a node was not found");
        qor_time_que_node_update(node, id, far_off + static_cast<int32_t>(random_.below(nodes_)));
        check(qor_time_que_enque(que_, node) == 0, "a node was refused");
    }

private:
    static constexpr int32_t body = 64; /* bytes */

    const int nodes_;
    bench::Random random_;
    qor_time_que_t *que_ = qor_time_que_create(UINT32_MAX, nullptr);
};

void move_nodes(qor_context_t *, bench::Measurement &m)
{
    TimeQue que(m.size);
    int64_t count = 0;
    m.begin();
    do {
        que.move_one();
        count++;
    } while (!m.over());
    m.end(count);
}

/* So many timers are armed at any time; one that has fallen due is armed anew. */
struct Clock {
    static constexpr int modules = 4, chains = 25; /* of each module */
    static constexpr int64_t in_all = 1000;

    bench::Measurement &m;
    std::atomic<int64_t> armed{0}, fallen{0};
};

struct Chain {
    int64_t due = 0; /* ns */
};

struct Timed : Party {
    Clock *clock;
    bench::Random random;
    std::mutex mutex; /* guards random: a module's timers fall due beside each other */
    Chain chains[Clock::chains];
};

void *fell_due(qor_context_t *self, int32_t, void *arg);

void arm(qor_context_t *self, Chain &chain)
{
    Timed &own = party<Timed>(self);
    if (own.clock->armed.fetch_add(1) >= Clock::in_all) {
        return;
    }
    int64_t delay = 10;
    {
        const std::lock_guard<std::mutex> lock(own.mutex);
        delay += own.random.below(91);
    }
    chain.due = bench::now_ns() + delay * ns_per_ms;
    check(qor_context_timerx(self, fell_due, &chain, static_cast<int32_t>(delay)) >= 0,
          "a timer was refused");
}

void *fell_due(qor_context_t *self, int32_t, void *arg)
{
    Clock &clock = *party<Timed>(self).clock;
    Chain &chain = *static_cast<Chain *>(arg);
    clock.m.latency.add(bench::now_ns() - chain.due);
    if (clock.fallen.fetch_add(1) + 1 == Clock::in_all) {
        clock.m.end(Clock::in_all);
        leave();
        return nullptr;
    }
    arm(self, chain);
    return nullptr;
}

void timed_start(qor_context_t *self)
{
    for (Chain &chain : party<Timed>(self).chains) {
        arm(self, chain);
    }
}

/* Begins the measurement before the timers' modules come up, and has them and others on a bus. */
void run_timed(bench::Measurement &m, std::vector<Party *> parties)
{
    Clock clock{m};
    std::deque<Timed> timed(Clock::modules);
    for (Timed &one : timed) {
        one.clock = &clock;
        one.last = true;
        one.start = timed_start;
        parties.push_back(&one);
    }
    m.begin();
    run_bus(parties, 1, m.workers);
}

/* Keeps so many requests under way until the bus ends. */
struct Loader : Party {
    int requests;
};

void loader_start(qor_context_t *self)
{
    for (int i = 0; i < party<Loader>(self).requests; i++) {
        ask(self, 0, i);
    }
}

int32_t loader_handle(qor_context_t *self, qor_context_msg_t *)
{
    ask(self, 0, 0);
    return 0;
}

/* Computes in tasks of 100 us that post themselves again: through the module's queue, or as runs of
 * their own. Not for ever: where they keep the timers from running, that shall show as lateness. */
struct Busy : Party {
    bool own_runs;
    int64_t until; /* ns */
};

void *compute(qor_context_t *self, int32_t, void *)
{
    const Busy &own = party<Busy>(self);
    bench::compute_for(100000);
    if (bench::now_ns() < own.until) {
        own.own_runs ? qor_context_runx(self, compute, nullptr)
                     : qor_context_x_runx(self, compute, nullptr);
    }
    return nullptr;
}

void busy_start(qor_context_t *self)
{
    compute(self, 0, nullptr);
}

void timers_beside(bench::Measurement &m, bool own_runs)
{
    std::vector<Busy> busy(2);
    for (Busy &one : busy) {
        one.own_runs = own_runs;
        one.until = bench::now_ns() + 3000 * ns_per_ms;
        one.last = true;
        one.start = busy_start;
    }
    run_timed(m, {&busy[0], &busy[1]});
}

} // namespace

void timer_churn(bench::Measurement &m)
{
    run_beside(m.size, m, churn);
}

void time_que(bench::Measurement &m)
{
    move_nodes(nullptr, m);
}

void time_que_beside_timers(bench::Measurement &m)
{
    run_beside(10000, m, move_nodes);
}

void timer_lateness(bench::Measurement &m)
{
    Loader loader;
    loader.requests = m.size;
    loader.start = loader_start;
    loader.handle = loader_handle;
    Party answerer;
    answerer.subscribes = 0;
    answerer.handle = echo;
    run_timed(m, {&loader, &answerer});
}

void timers_beside_busy(bench::Measurement &m)
{
    timers_beside(m, false);
}

void timers_beside_runs(bench::Measurement &m)
{
    timers_beside(m, true);
}
