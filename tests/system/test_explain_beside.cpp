/* SPDX-License-Identifier: Apache-2.0 */
/* Threads that explain a bus and judge its health beside those that work on it, record it, copy the
 * recording and change what is recorded. */
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "explaining.hpp"
#include "qor_context_module.h"
#include "qor_context_msg.h"

namespace {

class ExplainBeside : public Explaining {
protected:
    ExplainBeside()
    {
        for (int i = 0; i < SERVERS; i++) {
            servers.push_back(std::make_unique<Module>("server" + std::to_string(i)));
            serve(*servers.back(), i);
            servers.back()->descriptor.refcount = 4;
            servers.back()->handle = [i](qor_context_t *c, qor_context_msg_t *msg) {
                return msg->type == QOR_CONTEXT_MSG_REQUEST && i > 0
                           ? qor_context_x_req(c, i - 1, nullptr, 0)
                           : 0;
            };
        }
    }

    std::vector<Module *> all() const
    {
        std::vector<Module *> modules;
        for (const auto &server : servers) {
            modules.push_back(server.get());
        }
        return modules;
    }

    /* Does it again and again on a thread of its own. */
    template <typename F> void beside(F what)
    {
        threads.emplace_back([this, what] {
            while (!over) {
                what();
            }
        });
    }

    void stop()
    {
        over = true;
        for (Thread &thread : threads) {
            thread.join();
        }
        threads.clear();
    }

    enum { SERVERS = 6, ROUNDS = 300, no_lines = QOR_TRACE_ALL & ~QOR_TRACE_LINES };
    std::vector<std::unique_ptr<Module>> servers;
    std::vector<Thread> threads;
    std::atomic<bool> over{false};
};

TEST_F(ExplainBeside, NothingIsSeenThatIsNotThere)
{
    make(all(), 4, no_lines);
    bus->start();
    ASSERT_TRUE(bus->up());
    std::atomic<int> explained{0};
    std::atomic<int> judgements{0};
    std::atomic<int> wrong{0};
    for (int i = 0; i < 3; i++) {
        beside([&] {
            wrong += explain().circles > 0;
            explained++;
        });
    }
    for (int i = 0; i < 2; i++) {
        beside([&] {
            qor_health_t found = {};
            found.size = sizeof(found);
            qor_bus_health(bus->get(), 1000, &found);
            wrong += found.circles > 0;
            judgements++;
        });
    }
    beside([&] {
        std::vector<char> copy(memory.size());
        qor_trace_snapshot(copy.data(), copy.size());
    });
    beside([&] {
        for (const int mask : {0, 0 + QOR_TRACE_STACKS, 0 + no_lines, 0 + QOR_TRACE_DEFAULT}) {
            told_time++;
            qor_trace_mask_set(static_cast<uint32_t>(mask));
        }
    });
    beside([&] { qor_context_req(servers[0]->context(), SERVERS - 1, nullptr, 0); });

    EXPECT_TRUE(await([&] { return explained > ROUNDS && judgements > ROUNDS; }));

    stop();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
}

/* Inits that wait for each other while they are looked at. */
TEST_F(ExplainBeside, CirclesComeAboutBesideThoseWhoLook)
{
    for (int round = 0; round < 20; round++) {
        for (int i = 0; i < SERVERS; i++) {
            call(*servers[static_cast<size_t>(i)], {(i + 1) % SERVERS});
        }
        over = false;
        make(all(), 4);
        std::atomic<int> most{0};
        beside([&] {
            const int32_t circles = explain().circles;
            most = circles > most ? circles : most.load();
        });
        beside([&] {
            qor_health_t found = {};
            found.size = sizeof(found);
            qor_bus_health(bus->get(), 1000, &found);
        });
        bus->start();
        EXPECT_TRUE(await([&] { return most > 0; }));
        bus->quit();
        stop();
        EXPECT_EQ(most, 1);
        bus.reset();
    }
}

/* Deliveries that close circles at once. */
TEST_F(ExplainBeside, RefusalsLeaveNoCircle)
{
    for (int round = 0; round < 20; round++) {
        for (int i = 0; i < SERVERS; i++) {
            call(*servers[static_cast<size_t>(i)], {(i + 1) % SERVERS, (i + 2) % SERVERS});
        }
        make(all(), SERVERS);
        ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
        bus->start();
        EXPECT_TRUE(bus->up());
        bus.reset();
    }
}

} // namespace
