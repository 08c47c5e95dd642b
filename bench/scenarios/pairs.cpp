/* SPDX-License-Identifier: Apache-2.0 */
/* Two modules: requests with responses, requests one way, synchronous calls. */
#include <vector>

#include "parties.hpp"
#include "scenarios.hpp"

namespace {

constexpr int32_t topic = 0;

/* Keeps so many requests under way, each with the time it was sent at as its payload. */
struct Asker : Party {
    bench::Measurement *m;
    std::atomic<int64_t> answered{0};
    std::atomic<int> under_way;
};

void asker_start(qor_context_t *self)
{
    Asker &own = party<Asker>(self);
    own.m->begin();
    for (int i = 0; i < own.m->size; i++) {
        ask(self, topic, bench::now_ns());
    }
}

int32_t asker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    Asker &own = party<Asker>(self);
    const int64_t now = bench::now_ns();
    own.m->latency.add(now - payload(msg->response.buf));
    own.answered.fetch_add(1, std::memory_order_relaxed);
    if (!own.m->over(now)) {
        ask(self, topic, now);
    } else if (own.under_way.fetch_sub(1) == 1) {
        own.m->end(own.answered.load());
        leave();
    }
    return 0;
}

/* Sends so many requests in a task of its own, as fast as it can. */
struct Publisher : Party {
    bench::Measurement *m;
    std::atomic<int64_t> left;
};

void *publish(qor_context_t *self, int32_t, void *)
{
    Publisher &own = party<Publisher>(self);
    own.m->begin();
    for (int64_t i = 0; i < own.m->count; i++) {
        qor_context_req(self, topic, &i, sizeof(i));
    }
    return nullptr;
}

void publisher_start(qor_context_t *self)
{
    qor_context_runx(self, publish, nullptr);
}

struct Counter : Party {
    Publisher *publisher;
};

int32_t counter_handle(qor_context_t *self, qor_context_msg_t *)
{
    Publisher &publisher = *party<Counter>(self).publisher;
    if (publisher.left.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        publisher.m->end(publisher.m->count);
        leave();
    }
    return 0;
}

/* Calls in a task of its own. */
struct Caller : Party {
    bench::Measurement *m;
};

void *call_on(qor_context_t *self, int32_t, void *)
{
    bench::Measurement &m = *party<Caller>(self).m;
    constexpr int64_t between_looks = 64; /* at the clock */
    int64_t calls = 0;
    m.begin();
    do {
        for (int64_t i = 0; i < between_looks; i++) {
            int64_t answer = 0;
            qor_context_x_req_ret(self, topic, &i, sizeof(i), &answer, sizeof(answer));
        }
        calls += between_looks;
    } while (!m.over());
    m.end(calls);
    leave();
    return nullptr;
}

void caller_start(qor_context_t *self)
{
    qor_context_runx(self, call_on, nullptr);
}

} // namespace

void ping_pong(bench::Measurement &m)
{
    Asker asker;
    asker.m = &m;
    asker.under_way = m.size;
    asker.last = true;
    asker.start = asker_start;
    asker.handle = asker_handle;
    Party answerer;
    answerer.subscribes = topic;
    answerer.handle = echo;
    run_bus({&asker, &answerer}, 1, m.workers);
}

void count(bench::Measurement &m)
{
    Publisher publisher;
    publisher.m = &m;
    publisher.left = m.count;
    publisher.last = true;
    publisher.start = publisher_start;
    Counter counter;
    counter.publisher = &publisher;
    counter.subscribes = topic;
    counter.handle = counter_handle;
    run_bus({&publisher, &counter}, 1, m.workers);
}

void call(bench::Measurement &m)
{
    Caller caller;
    caller.m = &m;
    caller.last = true;
    caller.start = caller_start;
    Party answerer;
    answerer.subscribes = topic;
    answerer.handle = echo;
    std::vector<Party> filters(static_cast<size_t>(m.size));
    std::vector<Party *> parties = {&caller, &answerer};
    for (Party &filter : filters) {
        filter.filters = topic;
        parties.push_back(&filter);
    }
    run_bus(parties, 1, m.workers);
}
