/* SPDX-License-Identifier: Apache-2.0 */
/* What leaves a function of the application's: exceptions, where there are any, and the end of its
 * thread. */
#include "application.hpp"

#include <pthread.h>

namespace {

using work = qor::topic<0, int32_t>;
using echo = qor::topic<1, int32_t, int32_t>;

/* Does with a request what the test gives it. */
class Worker : public qor::module<Worker, work, echo> {
public:
    Worker() : module("worker") {}

    int32_t handle(const qor::request<work> &) { return body(); }
    int32_t handle(const qor::request<echo> &in, int32_t &out)
    {
        out = *in;
        return 0;
    }

    std::function<int32_t()> body = [] { return 0; };
};

class CppExceptions : public testing::Test {
protected:
    Output out;
    Worker worker;
    Sender sender;
    UpBus bus{{worker, sender}};
};

} // namespace

TEST_F(CppExceptions, AHandlerMayEndItsThread)
{
    std::atomic<int32_t> ret{0};
    worker.body = []() -> int32_t {
        pthread_exit(nullptr);
        return 0;
    };

    EXPECT_GE(sender.ask<work>(1, 60s, [&](const qor::answer<work> &given) { ret = given.ret; }),
              0);

    EXPECT_TRUE(await([&] { return ret == -1; }));
    worker.body = [] { return 0; };
    EXPECT_EQ(sender.call<work>(1), 0); /* it goes on */
    EXPECT_EQ(out.count("exception"), 0);
}

TEST_F(CppExceptions, ATaskMayEndItsThread)
{
    std::atomic<int> alive{0}, after{0};

    EXPECT_GE(sender.run([held = Counted(alive)] { pthread_exit(nullptr); }), 0);

    EXPECT_TRUE(await([&] { return alive == 0; }));
    EXPECT_GE(sender.run([&] { after++; }), 0);
    EXPECT_TRUE(await([&] { return after == 1; }));
    EXPECT_EQ(out.count("exception"), 0);
}

TEST_F(CppExceptions, APeriodicTimerThatEndsItsThreadGoesOn)
{
    std::atomic<int> runs{0};

    const int32_t session = sender.every(1ms, [&] {
        if (runs++ == 0) {
            pthread_exit(nullptr);
        }
    });

    EXPECT_TRUE(await([&] { return runs >= 3; }));
    EXPECT_EQ(sender.cancel(session), 0);
    bus.settle();
}

#if defined(__cpp_exceptions)

namespace {

/* Leaves no trace but its destructor. */
struct Unwound {
    std::atomic<int> &seen;
    ~Unwound() { seen++; }
};

} // namespace

TEST_F(CppExceptions, TheEndOfAThreadUnwindsWhatItHas)
{
    std::atomic<int> seen{0};
    EXPECT_GE(sender.run([&] {
        const Unwound unwound{seen};
        pthread_exit(nullptr);
    }),
              0);

    EXPECT_TRUE(await([&] { return seen == 1; }));
}

TEST_F(CppExceptions, OneOfAHandlerIsAResultAndALine)
{
    worker.body = []() -> int32_t { throw std::runtime_error("too much work"); };

    EXPECT_EQ(sender.call<work>(1), -1);

    EXPECT_EQ(out.count("[qor.hpp][err][worker]:exception in handler, topic 0: too much work\n"),
              1);
}

TEST_F(CppExceptions, OneThatIsNoStdExceptionToo)
{
    worker.body = []() -> int32_t { throw 5; };

    EXPECT_EQ(sender.call<work>(1), -1);

    EXPECT_EQ(
        out.count("[qor.hpp][err][worker]:exception in handler, topic 0: not a std::exception\n"),
        1);
}

TEST_F(CppExceptions, TheAskerOfAThrowingHandlerIsAnswered)
{
    std::atomic<int32_t> ret{0};
    worker.body = []() -> int32_t { throw std::runtime_error("too much work"); };

    EXPECT_GE(sender.ask<work>(1, 60s, [&](const qor::answer<work> &given) { ret = given.ret; }),
              0);

    EXPECT_TRUE(await([&] { return ret == -1; }));
}

TEST_F(CppExceptions, OneOfATaskIsALine)
{
    std::atomic<int> alive{0};

    EXPECT_GE(sender.run([held = Counted(alive)] { throw std::runtime_error("no task"); }), 0);

    EXPECT_TRUE(await([&] { return alive == 0; }));
    EXPECT_EQ(out.count("[qor.hpp][err][sender]:exception in task: no task\n"), 1);
}

TEST_F(CppExceptions, OneOfAPeriodicTimerIsALineAndTheTimerGoesOn)
{
    std::atomic<int> runs{0};

    const int32_t session = sender.every(1ms, [&] {
        if (runs++ == 0) {
            throw std::runtime_error("no run");
        }
    });

    EXPECT_TRUE(await([&] { return runs >= 3; }));
    EXPECT_EQ(sender.cancel(session), 0);
    EXPECT_EQ(out.count("[qor.hpp][err][sender]:exception in periodic timer: no run\n"), 1);
    bus.settle();
}

TEST_F(CppExceptions, OneOfAContinuationIsALineAndReleasesItsCaptures)
{
    std::atomic<int> alive{0};

    EXPECT_GE(sender.ask<echo>(1, 60s,
                               [held = Counted(alive)](const qor::answer<echo> &) {
                                   throw std::runtime_error("no answer");
                               }),
              0);

    EXPECT_TRUE(await([&] { return alive == 0; }));
    EXPECT_EQ(out.count("[qor.hpp][err][sender]:exception in continuation, topic 1: no answer\n"),
              1);
}

namespace {

/* Throws where it is told to. */
class Throwing : public qor::module<Throwing> {
public:
    explicit Throwing(const char *where) : module("throwing"), where_(where) {}
    void reg() const { may_throw("reg"); }
    int32_t init() const
    {
        may_throw("init");
        return 0;
    }
    void unreg() const { may_throw("unreg"); }
    void uninit() const { may_throw("uninit"); }
    int32_t console() const
    {
        may_throw("console");
        return 0;
    }

private:
    void may_throw(const char *here) const
    {
        if (std::string(here) == where_) {
            throw std::runtime_error(std::string("thrown by ") + here);
        }
    }

    std::string where_;
};

class CppThrowing : public testing::TestWithParam<const char *> {};

} // namespace

TEST_P(CppThrowing, ACallbackThatThrowsIsALine)
{
    const std::string where = GetParam();
    Output out;
    Throwing module(GetParam());
    {
        UpBus bus({module});
        EXPECT_EQ(bus.up(), where == "init" ? 1 : 0);
    }

    EXPECT_EQ(
        out.count("[qor.hpp][err][throwing]:exception in " + where + ": thrown by " + where + "\n"),
        1);
}

INSTANTIATE_TEST_SUITE_P(Each, CppThrowing,
                         testing::Values("reg", "init", "unreg", "uninit", "console"),
                         [](const auto &instance) { return std::string(instance.param); });

#endif
