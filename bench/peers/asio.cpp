/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with Asio of Boost: each party is a strand of one io_context, which so many threads
 * run; a message is a function that is posted to the receiver's strand. */
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/asio.hpp>

#include "pool.hpp"
#include "program.hpp"

namespace {

namespace asio = boost::asio;
using asio::post;
using bench::Measurement;
using bench::now_ns;
using Strand = asio::strand<asio::io_context::executor_type>;

/* A context that runs until somebody leaves. */
class Context {
public:
    explicit Context(int workers) : workers_(workers), io_(workers) {}

    asio::io_context &io() { return io_; }

    Strand strand() { return asio::make_strand(io_); }

    std::vector<Strand> strands(int count)
    {
        std::vector<Strand> made;
        for (int i = 0; i < count; i++) {
            made.push_back(strand());
        }
        return made;
    }

    void leave() { io_.stop(); }

    template <typename F> void run(const Strand &strand, F first)
    {
        const auto guard = asio::make_work_guard(io_);
        post(strand, first);
        std::vector<std::thread> threads;
        for (int i = 0; i < workers_; i++) {
            threads.emplace_back([this] { io_.run(); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

private:
    const int workers_;
    asio::io_context io_;
};

/* Keeps m.size requests under way, until the measurement is over or for good. */
struct Asker {
    Context &context;
    Measurement &m;
    bool measures;
    Strand own = context.strand(), answerer = context.strand();
    int64_t count = 0; /* own's */
    int left = m.size;

    void ask(int64_t sent)
    {
        post(answerer, [this, sent] { post(own, [this, sent] { answered(sent); }); });
    }

    void answered(int64_t sent)
    {
        const int64_t now = now_ns();
        if (!measures) {
            ask(now);
            return;
        }
        m.latency.add(now - sent);
        count++;
        if (!m.over(now)) {
            ask(now);
        } else if (--left == 0) {
            m.end(count);
            context.leave();
        }
    }

    void start()
    {
        for (int i = 0; i < m.size; i++) {
            ask(now_ns());
        }
    }
};

void ping_pong(Measurement &m)
{
    Context context(m.workers);
    Asker asker{context, m, true};
    context.run(asker.own, [&] {
        m.begin();
        asker.start();
    });
}

void count(Measurement &m)
{
    Context context(m.workers);
    const Strand publisher = context.strand(), counter = context.strand();
    int64_t left = m.count;
    const auto handle = [&] {
        if (--left == 0) {
            m.end(m.count);
            context.leave();
        }
    };
    context.run(publisher, [&] {
        m.begin();
        for (int64_t i = 0; i < m.count; i++) {
            post(counter, handle);
        }
    });
}

void ring(Measurement &m)
{
    Context context(m.workers);
    const std::vector<Strand> members = context.strands(m.size);
    std::function<void(int, int64_t)> receive = [&](int self, int64_t hops) {
        if (self == 0 && hops > 0 && m.over()) {
            m.end(hops);
            context.leave();
            return;
        }
        const int next = (self + 1) % m.size;
        post(members[static_cast<size_t>(next)],
             [&receive, next, hops] { receive(next, hops + 1); });
    };
    context.run(members[0], [&] {
        m.begin();
        receive(0, 0);
    });
}

struct Forker {
    Context &context;
    Measurement &m;
    std::vector<Strand> members = context.strands(m.size);
    Strand own = context.strand();
    int left = 0; /* own's, like the following */
    int64_t count = 0, forked = 0;

    void fork(int64_t now)
    {
        left = m.size;
        forked = now;
        for (const Strand &member : members) {
            post(member, [this] { post(own, [this] { answered(); }); });
        }
    }

    void answered()
    {
        count++;
        if (--left > 0) {
            return;
        }
        const int64_t now = now_ns();
        m.latency.add(now - forked);
        if (!m.over(now)) {
            fork(now);
            return;
        }
        m.end(count);
        context.leave();
    }
};

void fork_join(Measurement &m)
{
    Context context(m.workers);
    Forker forker{context, m};
    context.run(forker.own, [&] {
        m.begin();
        forker.fork(now_ns());
    });
}

/* Each of them asks the others in turn. */
struct Talkers {
    struct Own {
        int next;
        int64_t count = 0;
    };

    Context &context;
    Measurement &m;
    std::vector<Strand> members = context.strands(m.size);
    std::vector<Own> own{}; /* each guarded by its strand */
    std::atomic<int> talking{m.size};
    std::atomic<int64_t> count{0};

    const Strand &strand(int member) const { return members[static_cast<size_t>(member)]; }

    void talk(int self, int64_t now)
    {
        int &next = own[static_cast<size_t>(self)].next;
        next = (next + 1) % m.size;
        if (next == self) {
            next = (next + 1) % m.size;
        }
        post(strand(next),
             [this, self, now] { post(strand(self), [this, self, now] { answered(self, now); }); });
    }

    void answered(int self, int64_t sent)
    {
        const int64_t now = now_ns();
        m.latency.add(now - sent);
        own[static_cast<size_t>(self)].count++;
        if (!m.over(now)) {
            talk(self, now);
            return;
        }
        count += own[static_cast<size_t>(self)].count;
        if (--talking == 0) {
            m.end(count);
            context.leave();
        }
    }
};

void many_to_many(Measurement &m)
{
    Context context(m.workers);
    Talkers talkers{context, m};
    for (int i = 0; i < m.size; i++) {
        talkers.own.push_back({i});
    }
    context.run(context.strand(), [&] {
        m.begin();
        for (int i = 0; i < m.size; i++) {
            post(talkers.strand(i), [&talkers, i] { talkers.talk(i, now_ns()); });
        }
    });
}

/* The last of a round begins the next one. */
struct Announcer {
    Context &context;
    Measurement &m;
    std::vector<Strand> listeners = context.strands(m.size);
    Strand own = context.strand(), answerer = context.strand();
    std::atomic<int> left{0};
    int64_t rounds = 0, sent = 0; /* guarded by left: 0 for one thread only */

    void announce(int64_t now)
    {
        left = m.size + 1;
        sent = now;
        for (const Strand &listener : listeners) {
            post(listener, [this] { seen(); });
        }
        post(answerer, [this] { post(own, [this] { seen(); }); });
    }

    void seen()
    {
        if (left.fetch_sub(1) > 1) {
            return;
        }
        const int64_t now = now_ns();
        m.latency.add(now - sent);
        rounds++;
        if (!m.over(now)) {
            announce(now);
            return;
        }
        m.end(rounds);
        context.leave();
    }
};

void fan_out(Measurement &m)
{
    Context context(m.workers);
    Announcer announcer{context, m};
    context.run(announcer.own, [&] {
        m.begin();
        announcer.announce(now_ns());
    });
}

/* So many timers are armed at any time; one that has fallen due is armed anew. */
struct Timers {
    static constexpr int chains = 100;
    static constexpr int64_t in_all = 1000;

    Context &context;
    Measurement &m;
    Strand own = context.strand();
    std::deque<asio::steady_timer> timers{};
    bench::Random random{};
    int64_t fallen = 0;

    void arm(asio::steady_timer &timer)
    {
        const int64_t delay = 10 + random.below(91);
        const int64_t due = now_ns() + delay * 1000000;
        timer.expires_after(std::chrono::milliseconds(delay));
        timer.async_wait([this, &timer, due](const boost::system::error_code &error) {
            if (!error) {
                fell_due(timer, due);
            }
        });
    }

    void fell_due(asio::steady_timer &timer, int64_t due)
    {
        m.latency.add(now_ns() - due);
        fallen++;
        if (fallen <= in_all - chains) {
            arm(timer);
        } else if (fallen == in_all) {
            m.end(in_all);
            context.leave();
        }
    }

    void start()
    {
        m.begin();
        for (int i = 0; i < chains; i++) {
            arm(timers.emplace_back(own));
        }
    }
};

void timer_lateness(Measurement &m)
{
    Context context(m.workers);
    Timers timers{context, m};
    Asker load{context, m, false};
    context.run(timers.own, [&] {
        load.start(); /* of m.size requests, which may be none */
        timers.start();
    });
}

/* Two strands compute for 100 us again and again while the timers of a third fall due. */
void timers_beside_busy(Measurement &m)
{
    Context context(m.workers);
    Timers timers{context, m};
    const std::vector<Strand> busy = context.strands(2);
    std::function<void(size_t)> compute = [&](size_t self) {
        bench::compute_for(100000);
        post(busy[self], [&compute, self] { compute(self); });
    };
    context.run(timers.own, [&] {
        timers.start();
        post(busy[0], [&] { compute(0); });
        post(busy[1], [&] { compute(1); });
    });
}

/* Arms and cancels timers, in batches, while m.size others are armed. */
void timer_churn(Measurement &m)
{
    constexpr int batch = 64;
    asio::io_context io(1);
    bench::Random random;
    const auto ignored = [](const boost::system::error_code &) {};
    const auto arm = [&](asio::steady_timer &timer) {
        timer.expires_after(std::chrono::milliseconds(100000 + random.below(100000)));
        timer.async_wait(ignored);
    };
    std::deque<asio::steady_timer> armed, churned;
    for (int i = 0; i < m.size; i++) {
        arm(armed.emplace_back(io));
    }
    for (int i = 0; i < batch; i++) {
        churned.emplace_back(io);
    }
    int64_t count = 0;
    m.begin();
    do {
        for (asio::steady_timer &timer : churned) {
            arm(timer);
            timer.cancel();
        }
        io.poll(); /* the cancelled waits are told so */
        count += batch;
    } while (!m.over());
    m.end(count);
}

void pool(Measurement &m)
{
    asio::thread_pool pool(static_cast<size_t>(m.workers));
    bench::tasks(m, [&](bench::Countdown &countdown) {
        post(pool, [&countdown] { countdown.count_down(); });
    });
    pool.join();
}

void pool_wake_up(Measurement &m)
{
    asio::thread_pool pool(static_cast<size_t>(m.workers));
    bench::wake_ups(m,
                    [&](bench::WakeUp &wake_up) { post(pool, [&wake_up] { wake_up.started(); }); });
    pool.join();
}

/* Posts a task in a handler that goes on computing, again and again. */
void task_in_handler(Measurement &m)
{
    Context context(m.workers);
    const Strand own = context.strand(), other = context.strand();
    int64_t rounds = 0;
    std::function<void()> handle = [&] {
        const int64_t posted = now_ns();
        post(other, [&m, posted] { m.latency.add(now_ns() - posted); });
        bench::compute_for(bench::computing);
        rounds++;
        if (!m.over()) {
            post(own, [&handle] { handle(); });
            return;
        }
        post(other, [&] { /* behind the last of them */
                          m.end(rounds);
                          context.leave();
        });
    };
    context.run(own, [&] {
        m.begin();
        handle();
    });
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "asio",
                          {
                              {"ping-pong", ping_pong, 1, {1, 2, 4}},
                              {"pipeline", ping_pong, 32, {1, 2, 4}},
                              {"count", count, 0, {2, 4}},
                              {"ring-100", ring, 100, {2, 4}},
                              {"fork-join-60", fork_join, 60, {2, 4}},
                              {"many-to-many-60", many_to_many, 60, {2, 4}},
                              {"fan-out-1", fan_out, 1, {2, 4}},
                              {"fan-out-4", fan_out, 4, {2, 4}},
                              {"fan-out-16", fan_out, 16, {2, 4}},
                              {"timer-churn-0", timer_churn, 0, {1}},
                              {"timer-churn-10000", timer_churn, 10000, {1}},
                              {"timer-lateness-idle", timer_lateness, 0, {1}},
                              {"timer-lateness-loaded", timer_lateness, 32, {2}},
                              {"timers-beside-busy", timers_beside_busy, 2, {2}},
                              {"pool", pool, 0, {1, 2, 4}},
                              {"pool-wake-up", pool_wake_up, 0, {2}},
                              {"task-in-handler", task_in_handler, 0, {2}},
                          });
}
