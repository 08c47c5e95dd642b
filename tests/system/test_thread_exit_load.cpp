/* SPDX-License-Identifier: Apache-2.0 */
/* Workers that end under load, several at once, and while the bus quits. */
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "thread.hpp"
#include "thread_exit_fixture.hpp"

TEST(ThreadExitUnderLoad, LosesNoTask)
{
    constexpr int posters = 3;
    constexpr int posts = 400;
    Output out;
    Module modules[posters] = {Module("one"), Module("two"), Module("all")};
    modules[1].descriptor.refcount = 2;
    modules[2].descriptor.refcount = -1;
    Ledger ledger;
    std::atomic<int> left{0};
    RunningBus bus({&modules[0], &modules[1], &modules[2]}, 1, 4);
    ASSERT_TRUE(bus.up());
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    const long before = threads();

    std::vector<Thread> posting;
    std::atomic<long> taken{0};
    for (int number = 0; number < posters; number++) {
        posting.emplace_back([&, number] {
            qor_context_t *context = modules[number].context();
            std::minstd_rand random(static_cast<unsigned>(number + 1));
            for (int i = 0; i < posts; i++) {
                std::function<void()> body;
                if (random() % 4 == 0) {
                    body = [&left] { leave(left); };
                }
                int32_t session = -1;
                qor_context_session(context, &session);
                const int32_t delay = static_cast<int32_t>(random() % 3);
                const int32_t async = static_cast<int32_t>(random() % 2);
                taken += random() % 8 == 0 ? ledger.run(bus.get(), body) >= 0
                                           : ledger.post(context, session, delay, async, body) >= 0;
            }
        });
    }
    for (Thread &thread : posting) {
        thread.join();
    }

    EXPECT_EQ(taken, posters * posts);
    EXPECT_TRUE(await([&] { return ledger.sums().ran == taken; }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_GT(left, posts / 4);
    EXPECT_EQ(watches(), 0);
    EXPECT_TRUE(await([&] { return threads() == before; }));
    for (const Module &module : modules) {
        EXPECT_EQ(module.core()->refcount, 0);
    }
    bus.end();
    EXPECT_EQ(ledger.errors(), "");
}

/* Every request is answered: by its handler, or for it. */
TEST(ThreadExitUnderLoad, LosesNoRequest)
{
    constexpr int requests = 400;
    Output out; /* of handlers that failed */
    Module asker("asker"), server("server");
    std::atomic<int> left{0}, handled{0}, answered{0}, refused{0};
    server.descriptor.refcount = 3;
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        if (handled++ % 5 == 0) {
            leave(left);
        }
        return 0;
    };
    asker.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        refused += msg->ret < 0;
        answered++;
        return 0;
    };
    RunningBus bus({&asker, &server}, 1, 3);
    ASSERT_TRUE(bus.up());

    for (int i = 0; i < requests; i++) {
        ASSERT_GE(qor_context_req(asker.context(), 0, nullptr, 0), 0);
    }

    EXPECT_TRUE(await([&] { return answered == requests; }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(handled, requests);
    EXPECT_EQ(left, requests / 5);
    EXPECT_EQ(refused, left);
}

/* The quit comes while threads leave, and is asked for by one that does. */
TEST(ThreadExitUnderLoad, TheBusEndsWhileItsWorkersLeave)
{
    for (int round = 0; round < 40; round++) {
        Output out;
        Module module("leaver");
        module.descriptor.refcount = -1;
        Ledger ledger;
        std::atomic<int> left{0};
        RunningBus bus({&module}, 1, 3);
        ASSERT_TRUE(bus.up());
        for (int i = 0; i < 12; i++) {
            int32_t session = -1;
            qor_context_session(module.context(), &session);
            ledger.post(module.context(), session, i % 2, i % 3 == 0, [&, i, round] {
                if (i == round % 12) {
                    qor_bus_quit(bus.get());
                }
                leave(left);
            });
        }
        if (round % 2) {
            EXPECT_TRUE(await([&] { return left > 0; }));
            EXPECT_EQ(bus.quit(), 0);
        } else {
            EXPECT_EQ(bus.returned(), 0); /* one of the tasks has asked for it */
        }
        bus.end();
        EXPECT_EQ(ledger.errors(), "");
    }
}

TEST(ThreadExitUnderLoad, TheBusEndsWhileAnInitLeaves)
{
    for (int round = 0; round < 20; round++) {
        Output out;
        std::atomic<int> left{0};
        Module asked("asked"), asker("asker");
        qor_bus_t *on = nullptr;
        Door known;
        asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        asked.init = [&](qor_context_t *) -> int32_t {
            qor_bus_quit(on);
            leave(left);
        };
        asker.reg = [&](qor_context_t *) { EXPECT_TRUE(known.pass()); };
        asker.init = [&](qor_context_t *c) {
            return round % 2 ? qor_context_x_req(c, 0, nullptr, 0) : 0; /* by a helper, or not */
        };
        RunningBus bus({&asked, &asker}, 1, 1);
        on = bus.get();
        known.open();

        EXPECT_EQ(bus.returned(), 0);
        EXPECT_EQ(left, 1);
        bus.end();
    }
}
