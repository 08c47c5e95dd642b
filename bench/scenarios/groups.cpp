/* SPDX-License-Identifier: Apache-2.0 */
/* Many modules, each of which subscribes to a topic of its own. */
#include <deque>

#include "parties.hpp"
#include "scenarios.hpp"

namespace {

/* The modules of a group and what they share. Atomics cannot be moved, hence the deque. */
template <typename P> struct Group {
    std::deque<P> members;
    std::vector<Party *> parties;

    explicit Group(bench::Measurement &m)
    {
        for (int i = 0; i < m.size; i++) {
            members.emplace_back();
            members.back().m = &m;
            parties.push_back(&members.back());
        }
    }
};

/* A token goes round. The first member looks at the clock and stops it. */
struct RingMember : Party {
    bench::Measurement *m;
    int64_t rounds = 0; /* guarded by the token */
};

int32_t ring_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    RingMember &own = party<RingMember>(self);
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        return 0;
    }
    if (own.subscribes == 0) {
        if (own.rounds == 0) {
            own.m->begin();
        } else if (own.m->over()) {
            own.m->end(own.rounds * own.m->size);
            leave();
            return 0;
        }
        own.rounds++;
    }
    int64_t token = payload(msg->request.buf);
    qor_context_req(self, (own.subscribes + 1) % own.m->size, &token, sizeof(token));
    return 0;
}

void ring_start(qor_context_t *self)
{
    int64_t token = 0;
    qor_context_req(self, 0, &token, sizeof(token));
}

/* One asks all members and waits for all of their responses. */
struct Forker : Party {
    bench::Measurement *m;
    std::atomic<int> left;
    int64_t rounds = 0; /* the following are guarded by left: 0 for one thread only */
    int64_t forked = 0; /* when, in ns */
};

struct Answerer : Party {
    bench::Measurement *m;
};

void fork(qor_context_t *self, int64_t now)
{
    Forker &own = party<Forker>(self);
    own.left = own.m->size;
    own.forked = now;
    for (int i = 0; i < own.m->size; i++) {
        ask(self, i, i);
    }
}

void forker_start(qor_context_t *self)
{
    party<Forker>(self).m->begin();
    fork(self, bench::now_ns());
}

int32_t forker_handle(qor_context_t *self, qor_context_msg_t *)
{
    Forker &own = party<Forker>(self);
    if (own.left.fetch_sub(1) > 1) {
        return 0;
    }
    const int64_t now = bench::now_ns();
    own.m->latency.add(now - own.forked);
    own.rounds++;
    if (!own.m->over(now)) {
        fork(self, now);
        return 0;
    }
    own.m->end(own.rounds * own.m->size);
    leave();
    return 0;
}

/* Each asks the others in turn, and the next one when it has the response. */
struct Talker : Party {
    bench::Measurement *m;
    std::atomic<int> *talking;
    std::atomic<int64_t> *answered;
    int64_t own_answered = 0;
    int32_t next = 0;
};

constexpr int64_t to_begin = -1; /* the payload of the request that starts a talker */

void talk(qor_context_t *self, int64_t now)
{
    Talker &own = party<Talker>(self);
    own.next = (own.next + 1) % own.m->size;
    if (own.next == own.subscribes) {
        own.next = (own.next + 1) % own.m->size;
    }
    ask(self, own.next, now);
}

int32_t talker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    Talker &own = party<Talker>(self);
    if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
        if (payload(msg->request.buf) == to_begin) {
            talk(self, bench::now_ns());
        }
        return echo(self, msg);
    }
    const int64_t now = bench::now_ns();
    own.m->latency.add(now - payload(msg->response.buf));
    own.own_answered++;
    if (!own.m->over(now)) {
        talk(self, now);
        return 0;
    }
    own.answered->fetch_add(own.own_answered);
    if (own.talking->fetch_sub(1) == 1) {
        own.m->end(own.answered->load());
        leave();
    }
    return 0;
}

struct Starter : Party {
    bench::Measurement *m;
};

void starter_start(qor_context_t *self)
{
    Starter &own = party<Starter>(self);
    own.m->begin();
    for (int i = 0; i < own.m->size; i++) {
        ask(self, i, to_begin);
    }
}

/* A request that all listeners see. The next one follows when they and the subscriber are done. */
struct Announcer : Party {
    bench::Measurement *m;
    std::atomic<int> left;
    int64_t rounds = 0; /* the following are guarded by left: 0 for one thread only */
    int64_t sent = 0;   /* when, in ns */
};

struct Listener : Party {
    bench::Measurement *m;
    Announcer *announcer;
};

void announce(Announcer &announcer, int64_t now)
{
    announcer.left = announcer.m->size + 1;
    announcer.sent = now;
    ask(announcer.context, 0, now);
}

void announced(Announcer &announcer)
{
    if (announcer.left.fetch_sub(1) > 1) {
        return;
    }
    const int64_t now = bench::now_ns();
    announcer.m->latency.add(now - announcer.sent);
    announcer.rounds++;
    if (!announcer.m->over(now)) {
        announce(announcer, now);
        return;
    }
    announcer.m->end(announcer.rounds);
    leave();
}

void announcer_start(qor_context_t *self)
{
    Announcer &own = party<Announcer>(self);
    own.m->begin();
    announce(own, bench::now_ns());
}

int32_t announcer_handle(qor_context_t *self, qor_context_msg_t *)
{
    announced(party<Announcer>(self));
    return 0;
}

int32_t listener_handle(qor_context_t *self, qor_context_msg_t *)
{
    announced(*party<Listener>(self).announcer);
    return 0;
}

} // namespace

void ring(bench::Measurement &m)
{
    Group<RingMember> group(m);
    for (int i = 0; i < m.size; i++) {
        group.members[static_cast<size_t>(i)].subscribes = i;
        group.members[static_cast<size_t>(i)].handle = ring_handle;
    }
    Party starter;
    starter.last = true;
    starter.start = ring_start;
    group.parties.push_back(&starter);
    run_bus(group.parties, m.size, m.workers);
}

void fork_join(bench::Measurement &m)
{
    Group<Answerer> group(m);
    for (int i = 0; i < m.size; i++) {
        group.members[static_cast<size_t>(i)].subscribes = i;
        group.members[static_cast<size_t>(i)].handle = echo;
    }
    Forker forker;
    forker.m = &m;
    forker.last = true;
    forker.start = forker_start;
    forker.handle = forker_handle;
    group.parties.push_back(&forker);
    run_bus(group.parties, m.size, m.workers);
}

void many_to_many(bench::Measurement &m)
{
    std::atomic<int> talking{m.size};
    std::atomic<int64_t> answered{0};
    Group<Talker> group(m);
    for (int i = 0; i < m.size; i++) {
        Talker &talker = group.members[static_cast<size_t>(i)];
        talker.subscribes = talker.next = i;
        talker.handle = talker_handle;
        talker.talking = &talking;
        talker.answered = &answered;
    }
    Starter starter;
    starter.m = &m;
    starter.last = true;
    starter.start = starter_start;
    group.parties.push_back(&starter);
    run_bus(group.parties, m.size, m.workers);
}

void fan_out(bench::Measurement &m)
{
    Announcer announcer;
    announcer.m = &m;
    announcer.last = true;
    announcer.start = announcer_start;
    announcer.handle = announcer_handle;
    Group<Listener> group(m);
    for (Listener &listener : group.members) {
        listener.listens = 0;
        listener.announcer = &announcer;
        listener.handle = listener_handle;
    }
    Party answerer;
    answerer.subscribes = 0;
    answerer.handle = echo;
    group.parties.push_back(&answerer);
    group.parties.push_back(&announcer);
    run_bus(group.parties, 1, m.workers);
}
