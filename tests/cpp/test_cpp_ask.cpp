/* SPDX-License-Identifier: Apache-2.0 */
/* Requests with a continuation: called once, whatever comes, and its captures released once. */
#include "application.hpp"

#include <vector>

namespace {

using twice = qor::topic<0, int32_t, int32_t>;
using nobody = qor::topic<1, int32_t, int32_t>;
using silent = qor::topic<2, int32_t, int32_t>;
using crowded = qor::topic<3, int32_t>;

/* Answers, or defers for ever. */
class Server : public qor::module<Server, twice, silent> {
public:
    Server() : module("server") {}

    int32_t handle(const qor::request<twice> &in, int32_t &out)
    {
        out = 2 * *in;
        return *in < 0 ? *in : 0;
    }

    int32_t handle(const qor::request<silent> &in, int32_t &)
    {
        return in.defer(std::chrono::milliseconds(*in)) ? 0 : -1;
    }
};

/* Has one place, where what comes last is dropped. */
class Crowded : public qor::module<Crowded, crowded> {
public:
    Crowded() : module("crowded")
    {
        contract().depth = 1;
        contract().overflow = QOR_OVERFLOW_DROP_NEWEST;
    }

    int32_t handle(const qor::request<crowded> &)
    {
        inside++;
        return await([this] { return is_open.load(); }) ? 0 : -1;
    }

    std::atomic<int> inside{0};
    std::atomic<bool> is_open{false};
};

class CppAsk : public testing::Test {
protected:
    /* A continuation that counts its calls and keeps what it was called with. */
    template <typename Topic> auto noting()
    {
        return [this, held = Counted(alive)](const qor::answer<Topic> &given) {
            how = given.how;
            ret = given.ret;
            session = given.session;
            has_value = static_cast<bool>(given);
            if constexpr (!std::is_void_v<typename Topic::response_type>) {
                value = given.value;
            }
            thread = std::this_thread::get_id();
            calls++;
        };
    }

    /* Waits for the end of one request. */
    bool ended(const Where &where = Where::here())
    {
        return await([this] { return calls == 1 && alive == 0; }, where);
    }

    Output out;
    std::atomic<int> alive{0}, calls{0};
    std::atomic<qor::outcome> how{};
    std::atomic<int32_t> ret{0}, session{0}, value{0};
    std::atomic<bool> has_value{false};
    std::atomic<std::thread::id> thread{};
    Server server;
    Crowded full;
    Sender sender;
    UpBus bus{{server, full, sender}, 4};
};

} // namespace

TEST_F(CppAsk, AResponseComesWithItsValue)
{
    const int32_t asked = sender.ask<twice>(21, 60s, noting<twice>());
    EXPECT_GE(asked, 0);

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::response);
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(value, 42);
    EXPECT_EQ(session, asked);
    EXPECT_TRUE(has_value);
}

TEST_F(CppAsk, ANegativeResultHasNoValue)
{
    EXPECT_GE(sender.ask<twice>(-7, 60s, noting<twice>()), 0);

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::response);
    EXPECT_EQ(ret, -7);
    EXPECT_EQ(value, 0);
    EXPECT_FALSE(has_value);
}

TEST_F(CppAsk, WhatNobodyHandlesIsRefused)
{
    EXPECT_GE(sender.ask<nobody>(1, 1h, noting<nobody>()), 0);

    EXPECT_TRUE(ended()); /* long before an hour */
    EXPECT_EQ(how, qor::outcome::refused);
    EXPECT_EQ(ret, -1);
}

TEST_F(CppAsk, WhatFindsNoPlaceIsDropped)
{
    EXPECT_GE(sender.publish<crowded>(1), 0);
    ASSERT_TRUE(await([&] { return full.inside == 1; }));
    EXPECT_GE(sender.publish<crowded>(2), 0);

    EXPECT_GE(sender.ask<crowded>(3, 1h, noting<crowded>()), 0);

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::dropped);
    EXPECT_EQ(ret, -1);
    full.is_open = true;
}

TEST_F(CppAsk, WhatIsNotCompletedInTimeHasExpired)
{
    EXPECT_GE(sender.ask<silent>(1, 60s, noting<silent>()), 0);

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::expired);
}

TEST_F(CppAsk, WithoutAnAnswerItTimesOut)
{
    const int64_t before = util_timestamp();

    EXPECT_GE(sender.ask<silent>(3600000, 20ms, noting<silent>()), 0);

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::timed_out);
    EXPECT_GE(util_timestamp() - before, 20);
}

TEST_F(CppAsk, WhatComesAfterTheTimeOutIsThrownAway)
{
    EXPECT_GE(sender.ask<silent>(50, 1ms, noting<silent>()), 0);
    EXPECT_TRUE(ended());

    bus.settle(); /* the deferred request has expired, and its response has come */

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(how, qor::outcome::timed_out);
}

TEST_F(CppAsk, TheEndOfTheBusEndsIt)
{
    EXPECT_GE(sender.ask<silent>(3600000, 1h, noting<silent>()), 0);

    bus.end();

    EXPECT_TRUE(ended());
    EXPECT_EQ(how, qor::outcome::quit);
}

TEST_F(CppAsk, AfterTheEndNothingIsBegun)
{
    bus->quit();

    EXPECT_EQ(sender.ask<twice>(1, 60s, noting<twice>()), -1);

    EXPECT_EQ(alive, 0);
    EXPECT_EQ(calls, 0);
}

TEST_F(CppAsk, ACancelledOneIsReleasedUncalled)
{
    const int32_t asked = sender.ask<silent>(3600000, 1h, noting<silent>());
    EXPECT_GE(asked, 0);

    EXPECT_EQ(sender.cancel(asked), 0);

    EXPECT_EQ(alive, 0);
    EXPECT_EQ(sender.cancel(asked), -1);
    EXPECT_EQ(calls, 0);
}

TEST_F(CppAsk, TimesOutOfRangeAreRefused)
{
    out.clear();

    EXPECT_EQ(sender.ask<twice>(1, 0ms, noting<twice>()), -1);
    EXPECT_EQ(sender.ask<twice>(1, -1ms, noting<twice>()), -1);
    EXPECT_EQ(sender.ask<twice>(1, std::chrono::hours(1000), noting<twice>()), -1);

    EXPECT_EQ(out.count("[qor.hpp][err][sender]:time out of range\n"), 3);
    EXPECT_EQ(alive, 0);
}

TEST_F(CppAsk, InATurnOfItsModuleItIsNotCalledBeforeItHasReturned)
{
    std::atomic<int> early{0};
    for (int i = 0; i < 100; i++) {
        std::atomic<bool> has_returned{false}, is_over{false};
        EXPECT_GE(sender.run([&] {
            sender.ask<twice>(1, 60s, [&](const qor::answer<twice> &) {
                early += !has_returned;
                is_over = true;
            });
            const auto until =
                std::chrono::steady_clock::now() + 200us; /* for the answer to come */
            while (std::chrono::steady_clock::now() < until) {
            }
            has_returned = true;
        }),
                  0);
        ASSERT_TRUE(await([&] { return is_over.load(); }));
    }
    EXPECT_EQ(early, 0);
}

TEST_F(CppAsk, AContinuationMayAskAgain)
{
    std::atomic<int> left{100};
    struct Chain {
        Sender &sender;
        std::atomic<int> &left;
        void next() const
        {
            sender.ask<twice>(left, 60s, [chain = *this](const qor::answer<twice> &given) {
                if (given && --chain.left > 0) {
                    chain.next();
                }
            });
        }
    };

    Chain{sender, left}.next();

    EXPECT_TRUE(await([&] { return left == 0; }));
}

TEST_F(CppAsk, ManyAreKeptApart)
{
    std::atomic<int> right{0};
    for (int32_t i = 0; i < 40; i++) { /* of 50 that may be open */
        EXPECT_GE(sender.ask<twice>(i, 60s,
                                    [i, &right](const qor::answer<twice> &given) {
                                        right += given && given.value == 2 * i;
                                    }),
                  0);
    }

    EXPECT_TRUE(await([&] { return right == 40; }));
}

TEST_F(CppAsk, AFloodFromOtherThreadsEndsOnceEach)
{
    std::atomic<int> ends{0}, begun{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; i++) {
                begun += sender.ask<twice>(i, std::chrono::milliseconds(1 + i % 3),
                                           [&ends, held = Counted(alive)](
                                               const qor::answer<twice> &) { ends++; }) >= 0;
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }

    EXPECT_TRUE(await([&] { return alive == 0; }));
    EXPECT_EQ(ends, begun);
}

TEST(CppAskFlood, TheEndOfTheBusAmidItEndsEachOnce)
{
    Output out;
    for (int round = 0; round < 10; round++) {
        std::atomic<int> alive{0}, ends{0}, begun{0};
        Server server;
        Sender sender;
        {
            UpBus bus({server, sender});
            sender.every(1ms, [&] {
                for (int i = 0; i < 5; i++) {
                    begun += sender.ask<silent>(i, std::chrono::milliseconds(1 + i),
                                                [&ends, held = Counted(alive)](
                                                    const qor::answer<silent> &) { ends++; }) >= 0;
                }
            });
            await([&] { return begun > 5 * round; });
        }
        EXPECT_EQ(alive, 0);
        EXPECT_EQ(ends, begun);
    }
}

TEST(CppAskInit, TheEndOfTheModuleEndsIt)
{
    Output out;
    std::atomic<int> alive{0}, calls{0};
    std::atomic<qor::outcome> how{};
    Server server;
    Sender *self = nullptr;
    Sender failing([&]() -> int32_t {
        EXPECT_GE(self->ask<silent>(3600000, 1h,
                                    [&, held = Counted(alive)](const qor::answer<silent> &given) {
                                        how = given.how;
                                        calls++;
                                    }),
                  0);
        return -1;
    });
    self = &failing;
    UpBus bus({server, failing});

    EXPECT_EQ(bus.up(), 1);

    EXPECT_TRUE(await([&] { return alive == 0; }));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(how, qor::outcome::ended);
}
