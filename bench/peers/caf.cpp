/* SPDX-License-Identifier: Apache-2.0 */
/* The scenarios with the actors of CAF: event-based, on its work-stealing scheduler. A handler's
 * result goes back to the sender as a message; listeners join a group. */
#include <atomic>
#include <chrono>
#include <future>
#include <vector>

#include <caf/all.hpp>

#include "program.hpp"

namespace {

using bench::Measurement;
using bench::now_ns;

using ask_atom = caf::atom_constant<caf::atom("ask")>;
using answer_atom = caf::atom_constant<caf::atom("answer")>;
using begin_atom = caf::atom_constant<caf::atom("begin")>;

using answered = caf::result<answer_atom, int64_t>;

/* A system that ends its actors when one of them has said so. */
class System {
public:
    explicit System(int workers) : system_(configure(config_, workers)) {}

    template <typename F> caf::actor spawn(F function) { return keep(system_.spawn(function)); }

    /* Ends this actor too. */
    caf::actor keep(caf::actor actor)
    {
        actors_.push_back(actor);
        return actor;
    }

    caf::actor_system &get() { return system_; }

    void leave() { over_.set_value(); }

    /* Sends the first message and waits until somebody leaves. */
    void run(const caf::actor &first)
    {
        caf::anon_send(first, begin_atom::value);
        over_.get_future().wait();
        for (const caf::actor &actor : actors_) {
            caf::anon_send_exit(actor, caf::exit_reason::user_shutdown);
        }
    }

private:
    static caf::actor_system_config &configure(caf::actor_system_config &config, int workers)
    {
        config.set("scheduler.max-threads", static_cast<size_t>(workers));
        return config;
    }

    caf::actor_system_config config_;
    caf::actor_system system_;
    std::vector<caf::actor> actors_;
    std::promise<void> over_;
};

caf::behavior echo()
{
    return {[](ask_atom, int64_t sent) -> answered { return {answer_atom::value, sent}; }};
}

/* Keeps m.size requests under way. */
caf::behavior asker(caf::event_based_actor *self, System &system, Measurement &m,
                    const caf::actor &answerer)
{
    return {[self, &m, answerer](begin_atom) {
                m.begin();
                for (int i = 0; i < m.size; i++) {
                    self->send(answerer, ask_atom::value, now_ns());
                }
            },
            [self, &system, &m, answerer, count = int64_t(0), left = m.size](answer_atom,
                                                                             int64_t sent) mutable {
                const int64_t now = now_ns();
                m.latency.add(now - sent);
                count++;
                if (!m.over(now)) {
                    self->send(answerer, ask_atom::value, now);
                } else if (--left == 0) {
                    m.end(count);
                    system.leave();
                }
            }};
}

void ping_pong(Measurement &m)
{
    System system(m.workers);
    const caf::actor answerer = system.spawn(echo);
    system.run(system.spawn(
        [&](caf::event_based_actor *self) { return asker(self, system, m, answerer); }));
}

void count(Measurement &m)
{
    System system(m.workers);
    const caf::actor counter = system.spawn([&]() -> caf::behavior {
        return {[&m, &system, left = m.count](int64_t) mutable {
            if (--left == 0) {
                m.end(m.count);
                system.leave();
            }
        }};
    });
    system.run(system.spawn([&](caf::event_based_actor *self) -> caf::behavior {
        return {[self, &m, counter](begin_atom) {
            m.begin();
            for (int64_t i = 0; i < m.count; i++) {
                self->send(counter, i);
            }
        }};
    }));
}

void ring(Measurement &m)
{
    System system(m.workers);
    std::vector<caf::actor> members;
    for (int i = 0; i < m.size; i++) {
        members.push_back(system.spawn([&, i](caf::event_based_actor *self) -> caf::behavior {
            return {[self, &m, &members](begin_atom) {
                        m.begin();
                        self->send(members[1], int64_t(1));
                    },
                    [self, &system, &m, &members, i](int64_t hops) {
                        if (i == 0 && m.over()) {
                            m.end(hops);
                            system.leave();
                            return;
                        }
                        const int next = (i + 1) % m.size;
                        self->send(members[static_cast<size_t>(next)], hops + 1);
                    }};
        }));
    }
    system.run(members[0]);
}

void fork_join(Measurement &m)
{
    System system(m.workers);
    std::vector<caf::actor> members;
    for (int i = 0; i < m.size; i++) {
        members.push_back(system.spawn(echo));
    }
    system.run(system.spawn([&](caf::event_based_actor *self) -> caf::behavior {
        const auto fork = [self, &members](int64_t now) {
            for (const caf::actor &member : members) {
                self->send(member, ask_atom::value, now);
            }
        };
        return {[&m, fork](begin_atom) {
                    m.begin();
                    fork(now_ns());
                },
                [&system, &m, fork, left = m.size, count = int64_t(0)](answer_atom,
                                                                       int64_t forked) mutable {
                    count++;
                    if (--left > 0) {
                        return;
                    }
                    left = m.size;
                    const int64_t now = now_ns();
                    m.latency.add(now - forked);
                    if (!m.over(now)) {
                        fork(now);
                        return;
                    }
                    m.end(count);
                    system.leave();
                }};
    }));
}

void many_to_many(Measurement &m)
{
    System system(m.workers);
    std::vector<caf::actor> members;
    std::atomic<int> talking{m.size};
    std::atomic<int64_t> count{0};
    for (int i = 0; i < m.size; i++) {
        members.push_back(system.spawn([&, i](caf::event_based_actor *self) -> caf::behavior {
            auto talk = [self, &m, &members, i, next = i](int64_t now) mutable {
                next = (next + 1) % m.size;
                if (next == i) {
                    next = (next + 1) % m.size;
                }
                self->send(members[static_cast<size_t>(next)], ask_atom::value, now);
            };
            return {[](ask_atom, int64_t sent) -> answered {
                        return {answer_atom::value, sent};
                    },
                    [&m, &system, &talking, &count, talk, own = int64_t(0)](answer_atom,
                                                                            int64_t sent) mutable {
                        const int64_t now = now_ns();
                        m.latency.add(now - sent);
                        own++;
                        if (!m.over(now)) {
                            talk(now);
                            return;
                        }
                        count += own;
                        if (--talking == 0) {
                            m.end(count);
                            system.leave();
                        }
                    },
                    [talk](begin_atom) mutable { talk(now_ns()); }};
        }));
    }
    system.run(system.spawn([&](caf::event_based_actor *self) -> caf::behavior {
        return {[self, &m, &members](begin_atom) {
            m.begin();
            for (const caf::actor &member : members) {
                self->send(member, begin_atom::value);
            }
        }};
    }));
}

/* What the announcer and its listeners share. The last of a round begins the next one. */
struct Announcement {
    Measurement &m;
    System &system;
    caf::group listeners;
    caf::actor answerer, announcer;
    std::atomic<int> left{0};
    int64_t rounds = 0, sent = 0; /* guarded by left: 0 for one thread only */

    void send(int64_t now)
    {
        left = m.size + 1;
        sent = now;
        caf::anon_send(listeners, ask_atom::value, sent);
        caf::send_as(announcer, answerer, ask_atom::value, sent);
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
            send(now);
            return;
        }
        m.end(rounds);
        system.leave();
    }
};

void fan_out(Measurement &m)
{
    System system(m.workers);
    Announcement round = {m, system, system.get().groups().anonymous(), system.spawn(echo), {}};
    for (int i = 0; i < m.size; i++) { /* they have joined when the call returns */
        system.keep(system.get().spawn_in_group(
            round.listeners, [&round](caf::event_based_actor *) -> caf::behavior {
                return {[&round](ask_atom, int64_t) { round.seen(); }};
            }));
    }
    round.announcer = system.spawn([&]() -> caf::behavior {
        return {[&round](begin_atom) {
                    round.m.begin();
                    round.send(now_ns());
                },
                [&round](answer_atom, int64_t) { round.seen(); }};
    });
    system.run(round.announcer);
    round.announcer = nullptr;
}

constexpr int chains = 100;           /* timers that are armed at any time */
constexpr int64_t lateness_of = 1000; /* timers in all */

/* Arms the next timer when one has fallen due, and tells when all have. */
caf::behavior timed(caf::event_based_actor *self, System &system, Measurement &m)
{
    auto arm = [self, random = bench::Random()]() mutable {
        const int64_t delay = 10 + random.below(91);
        self->delayed_send(self, std::chrono::milliseconds(delay), now_ns() + delay * 1000000);
    };
    return {[&m, arm](begin_atom) mutable {
                m.begin();
                for (int i = 0; i < chains; i++) {
                    arm();
                }
            },
            [&system, &m, arm, fallen = int64_t(0)](int64_t due) mutable {
                m.latency.add(now_ns() - due);
                fallen++;
                if (fallen <= lateness_of - chains) {
                    arm();
                } else if (fallen == lateness_of) {
                    m.end(lateness_of);
                    system.leave();
                }
            }};
}

void timer_lateness(Measurement &m)
{
    System system(m.workers);
    if (m.size > 0) { /* requests that are under way meanwhile */
        const caf::actor answerer = system.spawn(echo);
        caf::anon_send(system.spawn([&](caf::event_based_actor *self) -> caf::behavior {
            return {[self, &m, answerer](begin_atom) {
                        for (int i = 0; i < m.size; i++) {
                            self->send(answerer, ask_atom::value, int64_t(0));
                        }
                    },
                    [self, answerer](answer_atom, int64_t) {
                        self->send(answerer, ask_atom::value, int64_t(0));
                    }};
        }),
                       begin_atom::value);
    }
    system.run(system.spawn([&](caf::event_based_actor *self) { return timed(self, system, m); }));
}

} // namespace

int main(int argc, char **argv)
{
    return bench::program(argc, argv, "caf",
                          {
                              {"ping-pong", ping_pong, 1, {2, 4}},
                              {"pipeline", ping_pong, 32, {2, 4}},
                              {"count", count, 0, {2, 4}},
                              {"ring-100", ring, 100, {2, 4}},
                              {"fork-join-60", fork_join, 60, {2, 4}},
                              {"many-to-many-60", many_to_many, 60, {2, 4}},
                              {"fan-out-1", fan_out, 1, {2, 4}},
                              {"fan-out-4", fan_out, 4, {2, 4}},
                              {"fan-out-16", fan_out, 16, {2, 4}},
                              {"timer-lateness-idle", timer_lateness, 0, {1}},
                              {"timer-lateness-loaded", timer_lateness, 32, {2}},
                          });
}
