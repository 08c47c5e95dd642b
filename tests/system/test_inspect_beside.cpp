/* SPDX-License-Identifier: Apache-2.0 */
/* Inspections beside a bus that is hard at work: each record is of one moment, no count runs
 * backwards, and registrations come and go under the walk. */
#include <map>
#include <utility>

#include "contract_fixture.hpp"
#include "inspection.hpp"
#include "qor_deferred.h"
#include "qor_topic_core.h"

namespace {

/* Compares counts with those of the inspection before. */
class Forwards {
public:
    void look(const Inspection &seen)
    {
        grows("bus queued_max", seen.bus.queued_max);
        grows("bus lines", seen.bus.lines);
        grows("bus posts_refused", seen.bus.posts_refused);
        EXPECT_LE(seen.bus.queued, seen.bus.queued_max);
        EXPECT_LE(seen.bus.idle, seen.bus.workers);
        for (const qor_info_context_t &one : seen.contexts) {
            look(one);
        }
        for (const qor_info_topic_t &one : seen.topics) {
            const std::string of = std::to_string(one.role) + "/" + std::to_string(one.topic);
            grows(of + " requests", one.requests);
            grows(of + " unserved", one.unserved);
            EXPECT_LE(one.unserved, one.requests);
            EXPECT_EQ(one.subscribers > 0, one.subscriber[0] != '\0');
        }
    }

private:
    void look(const qor_info_context_t &one)
    {
        const std::string of = one.name;
        grows(of + " requests", one.requests);
        grows(of + " responses", one.responses);
        grows(of + " tasks", one.tasks);
        grows(of + " bypassed", one.bypassed);
        grows(of + " refused", one.refused);
        grows(of + " failed", one.failed);
        grows(of + " queued_max", one.queued_max);
        grows(of + " accepted", one.ledger.accepted);
        grows(of + " run", one.ledger.run);
        EXPECT_LE(one.queued, one.queued_max);
        EXPECT_LE(one.delayed, one.queued);
        EXPECT_EQ(one.ledger.accepted, accounted(one.ledger));
        if (one.strict) {
            EXPECT_LE(one.ledger.running, one.limit);
            EXPECT_LE(one.runs, one.runs_max);
            /* One moment: what waits is what is queued. */
            EXPECT_EQ(one.ledger.waiting + one.ledger.delayed, one.queued);
        }
    }

    void grows(const std::string &what, uint64_t now)
    {
        uint64_t &before = counts_[what];
        EXPECT_GE(now, before) << what;
        before = now;
    }

    std::map<std::string, uint64_t> counts_;
};

class InspectBeside : public Contract {
protected:
    enum { ROUNDS = 400, REQUESTS = 3000 };

    /* Calls a function again and again on a thread of its own. */
    template <typename F> void hammer(F function)
    {
        threads.emplace_back([this, function] {
            while (!over) {
                function();
            }
        });
    }

    void hammer_all()
    {
        hammer([this] { ask(); });
        hammer([this] {
            int32_t number = 0;
            qor_context_x_req(client.context(), TOPIC, &number, sizeof(number));
        });
        hammer([this] {
            qor_context_task_t task = {};
            qor_context_task_init(
                &task, server.context(), nullptr, 5, [](void *arg) { return arg; }, nullptr);
            task.delay = 1;
            qor_context_handler_post(server.context(), &task);
            qor_context_handler_cancel(server.context(), 5);
        });
        hammer([this] {
            qor_context_subscribe(server.context(), TOPIC, nullptr);
            qor_context_listen(client.context(), TOPIC, nullptr);
            qor_context_filter(server.context(), TOPIC + 1, nullptr);
            qor_context_unsubscribe(server.context(), TOPIC);
            qor_topic_core_unlisten(qor_bus_topic_core_get(bus->get(), QOR_BUS_ROLE_USER),
                                    &client.core()->base, TOPIC);
            qor_context_unfilter(server.context(), TOPIC + 1);
        });
    }

    /* At least so often, and until so many requests have been published meanwhile. */
    void inspect_for(int rounds, uint32_t requests)
    {
        Forwards forwards;
        ASSERT_TRUE(await([&] {
            for (int i = 0; i < 20; i++) {
                forwards.look(Inspection(bus->get()));
            }
            rounds -= 20;
            return rounds <= 0 && Inspection(bus->get()).topic(TOPIC).requests >= requests;
        }));
    }

    void TearDown() override
    {
        over = true;
        threads.clear();
        end();
    }

    std::atomic<bool> over{false};
    std::vector<Thread> threads;
};

} // namespace

TEST_F(InspectBeside, NoCountRunsBackwards)
{
    bus.reset(new RunningBus(RunningBus::by_start, 3, {&server, &client}, TOPICS));
    bus->start();
    ASSERT_TRUE(bus->up());
    hammer_all();

    inspect_for(ROUNDS, REQUESTS);
}

TEST_F(InspectBeside, NorWithAStrictContract)
{
    running_with(strict_terms(20, QOR_OVERFLOW_DROP_OLDEST), 3);
    hammer_all();

    inspect_for(ROUNDS, REQUESTS);
}

TEST_F(InspectBeside, FromSeveralThreadsUntilTheBusIsClosed)
{
    running_with(strict_terms(20), 3);
    std::vector<Thread> inspectors;
    for (int i = 0; i < 3; i++) {
        inspectors.emplace_back([this] { inspect_for(100, 0); });
    }
    hammer_all();
    over = true; /* each has its last round */
    threads.clear();
    bus->quit();

    inspectors.clear();
    EXPECT_EQ(Inspection(bus->get()).bus.quitting, 1u);
}

TEST_F(InspectBeside, OpenRequestsComeAndGo)
{
    std::mutex mutex;
    std::vector<uint64_t> tokens;
    server.handle = [&](qor_context_t *self, qor_context_msg_t *msg) {
        uint64_t token = 0;
        const int32_t result = qor_context_defer(self, msg, 60000, &token);
        if (result == 0) {
            std::lock_guard<std::mutex> lock(mutex);
            tokens.push_back(token);
        }
        return result;
    };
    running_with(terms([](qor_contract_t &c) { c.open_max = 12; }), 3);
    hammer([this] { ask(); });
    hammer([&] {
        std::vector<uint64_t> taken;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (tokens.size() > 6) { /* some are always open */
                taken.swap(tokens);
            }
        }
        for (uint64_t token : taken) {
            qor_deferred_complete(token, 0, nullptr, 0);
        }
    });

    ASSERT_TRUE(await([this] { return !Inspection(bus->get()).requests.empty(); }));
    size_t most = 0;
    for (int i = 0; i < ROUNDS; i++) {
        const Inspection seen(bus->get());
        EXPECT_LE(seen.context("server").ledger.open, 12u);
        for (const qor_info_request_t &request : seen.requests) {
            EXPECT_STREQ(request.name, "server");
            EXPECT_EQ(request.topic, TOPIC);
            EXPECT_GE(request.age_ms, 0);
        }
        most = std::max(most, seen.requests.size());
    }
    EXPECT_GT(most, 0u);
    over = true;
    threads.clear();
    end();
}
