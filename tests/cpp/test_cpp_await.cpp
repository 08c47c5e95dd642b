/* SPDX-License-Identifier: Apache-2.0 */
/* Coroutines that wait for the end of a request. */
#include "application.hpp"

#if defined(__cpp_impl_coroutine)

#include <optional>

namespace {

using twice = qor::topic<0, int32_t, int32_t>;
using silent = qor::topic<1>;

class Server : public qor::module<Server, twice, silent> {
public:
    Server() : module("server") {}

    void handle(const qor::request<twice> &in, int32_t &out) { out = 2 * *in; }
    int32_t handle(const qor::request<silent> &in) { return in.defer(1h) ? 0 : -1; }
};

class CppAwait : public testing::Test {
protected:
    qor::flow double_twice(int32_t number)
    {
        const Counted held(alive);
        const qor::answer<twice> once = co_await qor::ask<twice>(sender, number, 60s);
        const qor::answer<twice> again = co_await qor::ask<twice>(sender, once.value, 60s);
        value = again.value;
        ends++;
    }

    qor::flow wait(std::chrono::milliseconds time)
    {
        const Counted held(alive);
        const qor::answer<silent> given = co_await qor::ask<silent>(sender, time);
        how = given.how;
        ends++;
    }

    /* Does something in the sender's turn, and waits for it. */
    template <typename F> void in_turn(F &&call)
    {
        std::atomic<bool> is_done{false};
        EXPECT_GE(sender.run([&] {
            call();
            is_done = true;
        }),
                  0);
        EXPECT_TRUE(await([&] { return is_done.load(); }));
    }

    Output out;
    std::atomic<int> alive{0}, ends{0};
    std::atomic<int32_t> value{0};
    std::atomic<qor::outcome> how{};
    Server server;
    Sender sender;
    UpBus bus{{server, sender}};
    qor::flow flow; /* goes first: what it waits for is the bus's */
};

} // namespace

TEST_F(CppAwait, AnAnswerIsAwaited)
{
    in_turn([&] { flow = double_twice(10); });

    EXPECT_TRUE(await([&] { return ends == 1 && alive == 0; }));
    EXPECT_EQ(value, 40);
    in_turn([&] { EXPECT_TRUE(flow.done()); });
}

TEST_F(CppAwait, ATimeOutIsAnAnswer)
{
    in_turn([&] { flow = wait(5ms); });

    EXPECT_TRUE(await([&] { return ends == 1; }));
    EXPECT_EQ(how, qor::outcome::timed_out);
    in_turn([&] { EXPECT_TRUE(flow.done()); });
}

TEST_F(CppAwait, DestroyingAWaitingOneCancels)
{
    in_turn([&] { flow = wait(1h); });
    EXPECT_EQ(alive, 1);

    in_turn([&] { qor::flow gone = std::move(flow); });

    EXPECT_EQ(alive, 0);
    EXPECT_EQ(ends, 0);
    in_turn([&] { EXPECT_TRUE(flow.done()); });
}

TEST_F(CppAwait, WhatCannotBeBegunIsRefusedWithoutAWait)
{
    bus->quit();

    flow = wait(1h);

    EXPECT_TRUE(flow.done());
    EXPECT_EQ(how, qor::outcome::refused);
    EXPECT_EQ(ends, 1);
}

TEST_F(CppAwait, TheEndOfTheBusEndsTheWait)
{
    in_turn([&] { flow = wait(1h); });

    bus.end();

    EXPECT_EQ(ends, 1);
    EXPECT_EQ(how, qor::outcome::quit);
    EXPECT_EQ(alive, 0);
}

TEST_F(CppAwait, ManyWaitAtOnce)
{
    std::vector<qor::flow> flows(20);

    in_turn([&] {
        for (qor::flow &each : flows) {
            each = double_twice(1);
        }
    });

    EXPECT_TRUE(await([&] { return ends == 20; }));
    EXPECT_TRUE(await([&] { return alive == 0; }));
    in_turn([&] { flows.clear(); });
}

#if defined(__cpp_exceptions)
TEST_F(CppAwait, AnExceptionIsALine)
{
    const auto throwing = [this]() -> qor::flow {
        const Counted held(alive);
        co_await qor::ask<twice>(sender, 1, 60s);
        throw std::runtime_error("no more");
    };
    in_turn([&] { flow = throwing(); });

    EXPECT_TRUE(await([&] { return alive == 0; }));
    in_turn([&] { EXPECT_TRUE(flow.done()); });
    EXPECT_EQ(out.count("[qor.hpp][err][flow]:exception in coroutine: no more\n"), 1);
}
#endif

#else

TEST(CppAwait, IsNotThereWithoutCoroutines)
{
    SUCCEED();
}

#endif
