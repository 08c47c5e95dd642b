/* SPDX-License-Identifier: Apache-2.0 */
/* Each allocation on the way fails once, the library's and the interface's own: captures are
 * released once, and a continuation is called just if its request was accepted. */
#include "application.hpp"

#include <cstdlib>
#include <new>

#include "fault.h"

namespace {

std::atomic<int> news_left{-1}; /* until one fails; negative: none does */
std::atomic<int> news_failed{0};

#ifdef QOR_TESTS_INSTRUMENTED
constexpr bool has_own = false; /* a sanitizer has these functions */
#else
constexpr bool has_own = true;

bool new_fails()
{
    if (news_left < 0 || news_left-- != 0) {
        return false;
    }
    news_failed++;
    return true;
}
#endif

} // namespace

#ifndef QOR_TESTS_INSTRUMENTED

/* What the interface allocates by: it never throws for want of memory. */
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return new_fails() ? nullptr : std::malloc(size ? size : 1);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return new_fails() ? nullptr : std::malloc(size ? size : 1);
}

void *operator new(std::size_t size, std::align_val_t align, const std::nothrow_t &) noexcept
{
    const std::size_t step = static_cast<std::size_t>(align);
    return new_fails() ? nullptr : std::aligned_alloc(step, (size + step - 1) / step * step);
}

void *operator new(std::size_t size)
{
    void *memory = std::malloc(size ? size : 1);
    if (!memory) {
        std::abort();
    }
    return memory;
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
#endif

namespace {

using twice = qor::topic<0, int32_t, int32_t>;
using silent = qor::topic<1, qor::tailed<int32_t>>;
using nobody = qor::topic<2, int32_t, int32_t>;

class Server : public qor::module<Server, twice, silent> {
public:
    Server() : module("server") {}

    void handle(const qor::request<twice> &in, int32_t &out) { out = 2 * *in; }
    int32_t handle(const qor::request<silent> &in) { return in.defer(1h) ? 0 : -1; }
};

struct alignas(64) Wide {
    char bytes[64];
};

class CppFaults : public testing::Test {
protected:
    ~CppFaults() override { fault_arm(FAULT_ALLOC, -1); }

    /* Begins something that is to end, with each allocation failing once. Every time it is refused
     * and not called, or accepted and called as often as it is to be; and all is released. */
    template <typename F> void sweep(F begin, int calls_when_accepted = 1)
    {
        int refusals = 0;
        for (const bool own : {false, has_own}) {
            for (int failing = 0;; failing++) {
                calls = 0;
                news_failed = 0;
                bus.settle();
                fault_arm(FAULT_ALLOC, own ? -1 : failing);
                news_left = own ? failing : -1;
                const int32_t session = begin();
                ASSERT_TRUE(await([this] { return alive == 0; })) << own << " " << failing;
                EXPECT_EQ(calls, session < 0 ? 0 : calls_when_accepted) << own << " " << failing;
                refusals += session < 0;
                bus.settle();
                const int fired = own ? news_failed.load() : fault_fired(FAULT_ALLOC);
                fault_arm(FAULT_ALLOC, -1);
                news_left = -1;
                if (fired == 0) {
                    EXPECT_GE(session, 0);
                    break;
                }
            }
        }
        EXPECT_GT(refusals, 0); /* else nothing of it has failed */
    }

    Output out;
    std::atomic<int> alive{0}, calls{0};
    Server server;
    Sender sender;
    UpBus bus{{server, sender}};
};

} // namespace

TEST_F(CppFaults, OfATask)
{
    sweep([this] { return sender.run([this, held = Counted(alive)] { calls++; }); });
}

TEST_F(CppFaults, OfATaskWithOverAlignedCaptures)
{
    const Wide wide = {"as it was"};
    sweep([this, &wide] {
        return sender.run([this, wide, held = Counted(alive)] { calls += wide.bytes[0] == 'a'; });
    });
}

TEST_F(CppFaults, OfATimer)
{
    sweep([this] { return sender.after(1ms, [this, held = Counted(alive)] { calls++; }); });
}

TEST_F(CppFaults, OfATimerThatIsCancelled)
{
    sweep(
        [this] {
            const int32_t session = sender.after(1h, [this, held = Counted(alive)] { calls++; });
            if (session >= 0) {
                EXPECT_EQ(sender.cancel(session), 0);
            }
            return session;
        },
        0);
}

TEST_F(CppFaults, OfAPeriodicTimer)
{
    sweep(
        [this] {
            const int32_t session = sender.every(1h, [this, held = Counted(alive)] { calls++; });
            if (session >= 0) {
                EXPECT_EQ(sender.cancel(session), 0);
            }
            return session;
        },
        0);
}

TEST_F(CppFaults, OfARequestThatIsAnswered)
{
    sweep([this] {
        return sender.ask<twice>(
            1, 20ms, [this, held = Counted(alive)](const qor::answer<twice> &) { calls++; });
    });
}

TEST_F(CppFaults, OfARequestThatIsRefused)
{
    sweep([this] {
        return sender.ask<nobody>(
            1, 20ms, [this, held = Counted(alive)](const qor::answer<nobody> &) { calls++; });
    });
}

TEST_F(CppFaults, OfABus)
{
    bus.end();
    int failures = 0;
    for (const bool own : {false, has_own}) {
        for (int failing = 0;; failing++) {
            Sender module;
            news_failed = 0;
            fault_arm(FAULT_ALLOC, own ? -1 : failing);
            news_left = own ? failing : -1;
            {
                const qor::result<qor::bus> made = qor::bus::create({module}, 2);
                const int fired = own ? news_failed.load() : fault_fired(FAULT_ALLOC);
                news_left = -1;
                failures += !made;
                if (fired == 0) {
                    EXPECT_TRUE(made);
                    break;
                }
            }
            fault_arm(FAULT_ALLOC, -1);
        }
    }
    EXPECT_GT(failures, 0);
}

namespace {

/* Requests that no response ends wait for the bus's end. */
class CppFaultsAtTheEnd : public testing::TestWithParam<int> {
protected:
    ~CppFaultsAtTheEnd() override { fault_arm(FAULT_ALLOC, -1); }
    Output out;
    std::atomic<int> alive{0}, calls{0};
};

} // namespace

TEST_P(CppFaultsAtTheEnd, OfRequestsThatWait)
{
    const std::string longer(1000, 'x');
    int begun = 0;
    {
        Server server;
        Sender sender;
        UpBus bus({server, sender});
        bus.settle();
        fault_arm(FAULT_ALLOC, GetParam());
        for (int i = 0; i < 3; i++) {
            begun += sender.ask<silent>({i, qor::bytes_of(longer.data(), longer.size())}, 1h,
                                        [this, held = Counted(alive)](const qor::answer<silent> &) {
                                            calls++;
                                        }) >= 0;
        }
        fault_arm(FAULT_ALLOC, -1);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(calls, begun);
}

INSTANTIATE_TEST_SUITE_P(Failing, CppFaultsAtTheEnd, testing::Range(-1, 18));

TEST(CppFaultsOfAThread, ABusThatGetsNoneSaysSo)
{
    Output out;
    Sender module;
    qor::result<qor::bus> bus = qor::bus::create({module}, 1);
    ASSERT_TRUE(bus);
    fault_arm_from(FAULT_THREAD, 0); /* of the library: the loop's own thread is the program's */

    EXPECT_EQ(bus->start(), qor::failure::none);

    EXPECT_EQ(bus->join(), -1);
    fault_arm(FAULT_THREAD, -1);
    EXPECT_EQ(out.count("no worker started."), 1);
}
