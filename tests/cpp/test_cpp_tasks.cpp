/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks and timers of functions with captures, and when the captures are released. */
#include "application.hpp"

#include <cmath>
#include <limits>
#include <memory>

namespace {

class CppTasks : public testing::Test {
protected:
    Counted counted() { return Counted(alive); }

    /* Waits until nothing that was captured is alive. */
    bool released()
    {
        return await([this] { return alive == 0; });
    }

    Output out;
    std::atomic<int> alive{0};
    std::atomic<int> runs{0};
    Sender module;
    UpBus bus{{module}};
};

struct alignas(64) Wide {
    char bytes[64];
};

} // namespace

TEST_F(CppTasks, ATaskRunsOnceAndReleasesItsCaptures)
{
    EXPECT_GE(module.run([this, held = counted()] { runs++; }), 0);

    EXPECT_TRUE(released());
    EXPECT_EQ(runs, 1);
}

TEST_F(CppTasks, CapturesMayBeMoveOnly)
{
    std::atomic<int> seen{0};

    EXPECT_GE(module.run([value = std::make_unique<int>(5), &seen] { seen = *value; }), 0);

    EXPECT_TRUE(await([&] { return seen == 5; }));
}

TEST_F(CppTasks, CapturesMayBeOverAligned)
{
    std::atomic<uintptr_t> at{1};
    const Wide wide = {};

    EXPECT_GE(
        module.run([wide, &at, held = counted()] { at = reinterpret_cast<uintptr_t>(&wide); }), 0);

    EXPECT_TRUE(released());
    EXPECT_EQ(at % alignof(Wide), 0u);
}

TEST_F(CppTasks, SmallCapturesGoWithTheArgument)
{
    int32_t number = 42;
    static std::atomic<int32_t> got;
    got = 0;

    EXPECT_GE(module.run([number] { got = number; }), 0);

    EXPECT_TRUE(await([] { return got == 42; }));
}

TEST_F(CppTasks, AFunctionIsTakenToo)
{
    static std::atomic<int> called;
    called = 0;
    void (*const function)() = [] { called++; };

    EXPECT_GE(module.run(function), 0);

    EXPECT_TRUE(await([] { return called == 1; }));
}

TEST_F(CppTasks, ATimerComesAfterItsTimeRoundedUp)
{
    const auto before = util_timestamp();
    std::atomic<int64_t> at{0};

    EXPECT_GE(module.after(20100us, [&at, held = counted()] { at = util_timestamp(); }), 0);

    EXPECT_TRUE(released());
    EXPECT_GE(at - before, 21);
}

TEST_F(CppTasks, ACancelledTimerReleasesItsCaptures)
{
    const int32_t session = module.after(1h, [this, held = counted()] { runs++; });
    EXPECT_GE(session, 0);
    EXPECT_EQ(alive, 1);

    EXPECT_EQ(module.cancel(session), 0);

    EXPECT_EQ(alive, 0);
    EXPECT_EQ(module.cancel(session), -1);
    EXPECT_EQ(runs, 0);
}

TEST_F(CppTasks, WhatWaitsWhenTheBusEndsIsReleased)
{
    EXPECT_GE(module.after(1h, [this, held = counted()] { runs++; }), 0);
    EXPECT_GE(module.every(1h, [this, held = counted()] { runs++; }), 0);
    EXPECT_EQ(alive, 2);

    bus.end();

    EXPECT_EQ(alive, 0);
    EXPECT_EQ(runs, 0);
}

TEST_F(CppTasks, WhatTheEndedBusRefusesIsReleased)
{
    bus->quit();

    EXPECT_EQ(module.run([held = counted()] {}), -1);
    EXPECT_EQ(module.after(1ms, [held = counted()] {}), -1);
    EXPECT_EQ(module.every(1ms, [held = counted()] {}), -1);

    EXPECT_EQ(alive, 0);
}

TEST_F(CppTasks, APeriodicTimerGoesOnUntilItIsCancelled)
{
    const int32_t session = module.every(1ms, [this, held = counted()] { runs++; });
    EXPECT_GE(session, 0);
    EXPECT_TRUE(await([this] { return runs >= 3; }));

    EXPECT_EQ(module.cancel(session), 0);

    EXPECT_TRUE(released());
}

TEST_F(CppTasks, APeriodicTimerKeepsWhatItChanges)
{
    std::atomic<int> last{0};
    static std::atomic<int> seen;
    seen = 0;
    const int32_t small = module.every(1ms, [n = 0]() mutable { seen = ++n; });
    const int32_t large =
        module.every(1ms, [n = 0, &last, held = counted()]() mutable { last = ++n; });

    EXPECT_TRUE(await([&] { return last >= 3 && seen >= 3; }));

    EXPECT_EQ(module.cancel(small), 0);
    EXPECT_EQ(module.cancel(large), 0);
    EXPECT_TRUE(released());
}

TEST_F(CppTasks, APeriodicTimerIsToldWhatItMissed)
{
    std::atomic<uint32_t> total{0};
    const int32_t session = module.every(1ms, [&](uint32_t missed) {
        if (runs++ == 0) {
            const int64_t until = util_timestamp() + 5;
            while (util_timestamp() < until) {
            }
        }
        total += missed;
    });

    EXPECT_TRUE(await([&] { return total >= 3; }));
    EXPECT_EQ(module.cancel(session), 0);
    bus.settle();
}

TEST_F(CppTasks, APeriodicTimerEndsItself)
{
    std::atomic<int32_t> session{-1};
    session = module.every(1ms, [&, held = counted()] {
        if (session >= 0 && runs++ == 0) {
            module.cancel(session);
        }
    });

    EXPECT_TRUE(released());
    EXPECT_EQ(runs, 1);
}

TEST_F(CppTasks, TimesOutOfRangeAreRefused)
{
    using days = std::chrono::duration<int64_t, std::ratio<86400>>;
    using seconds = std::chrono::duration<double>;
    out.clear();

    EXPECT_EQ(module.after(-1ns, [held = counted()] {}), -1);
    EXPECT_EQ(module.after(days(25), [held = counted()] {}), -1);
    EXPECT_EQ(module.after(days(INT64_MAX), [held = counted()] {}), -1);
    EXPECT_EQ(module.after(seconds(std::numeric_limits<double>::infinity()), [] {}), -1);
    EXPECT_EQ(module.after(seconds(std::nan("")), [] {}), -1);
    EXPECT_EQ(module.every(0ms, [held = counted()] {}), -1);

    EXPECT_EQ(out.count("[qor.hpp][err][sender]:time out of range\n"), 6);
    EXPECT_EQ(alive, 0);
}

TEST(CppTask, ANamedOneNamesItsThread)
{
    Output out;
    Sender module;
    std::atomic<bool> is_named{false};
    qor::result<qor::bus> bus = qor::bus::create({module}, 1);
    ASSERT_TRUE(bus);
    ASSERT_EQ(bus->start(), qor::failure::none);
    ASSERT_EQ(bus->wait_up(test_patience), 0);

    EXPECT_GE(module.after("some work", 1ms,
                           [&is_named] {
                               char name[16] = {};
                               prctl(PR_GET_NAME, name);
                               is_named = std::string(name) == "some work";
                           }),
              0);

    EXPECT_TRUE(await([&] { return is_named.load(); }));
}

TEST(CppTime, MillisecondsAreRoundedUpAndChecked)
{
    using qor::detail::milliseconds_of;
    static_assert(milliseconds_of(0ns) == 0);
    static_assert(milliseconds_of(1ns) == 1);
    static_assert(milliseconds_of(1000001ns) == 2);
    static_assert(milliseconds_of(std::chrono::milliseconds(INT32_MAX)) == INT32_MAX);
    static_assert(milliseconds_of(std::chrono::milliseconds(INT32_MAX) - 1ns) == INT32_MAX);
    static_assert(milliseconds_of(std::chrono::milliseconds(INT32_MAX) + 1ns) == -1);
    static_assert(milliseconds_of(std::chrono::hours(596)) == 596 * 3600 * 1000);
    static_assert(milliseconds_of(std::chrono::hours(597)) == -1);
    static_assert(milliseconds_of(-1ns) == -1);
    EXPECT_EQ(milliseconds_of(std::chrono::duration<float>(0.0015F)), 2);
}

#if defined(__cpp_exceptions)
namespace {

/* Throws on its way to the heap. */
struct Thrower {
    Counted held;
    int moves_left;

    Thrower(std::atomic<int> &alive, int moves) : held(alive), moves_left(moves) {}
    Thrower(Thrower &&other) : held(std::move(other.held)), moves_left(other.moves_left - 1)
    {
        if (moves_left < 0) {
            throw std::runtime_error("moved too often");
        }
    }
    void operator()() const {}
};

} // namespace

TEST_F(CppTasks, WhatCapturesThrowOnTheirWayGoesToTheCaller)
{
    for (int moves = 0; moves < 2; moves++) {
        EXPECT_THROW(module.run(Thrower(alive, moves)), std::runtime_error) << moves;
        EXPECT_EQ(alive, 0);
    }
}
#endif
