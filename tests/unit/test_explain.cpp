/* SPDX-License-Identifier: Apache-2.0 */
/* What a bus is at, line by line. */
#include <gtest/gtest.h>

#include "contract_fixture.hpp"
#include "explaining.hpp"
#include "leak.hpp"
#include "qor_context_module.h"
#include "qor_deferred.h"
#include "qor_sched_delegate.h"
#include "qor_start.h"
#include "still_bus.hpp"

namespace {

const char idle[] = "bus: workers 2, idle 2, quitting 0, queued 0\n";

class Explain : public Explaining {
protected:
    Explain()
    {
        serve(alpha, 0);
        serve(beta, 1);
    }

    Module alpha{"alpha"};
    Module beta{"beta"};
    Module gamma{"gamma"};
    Module lone{"lone"};
    Module deep{"deep"};
};

std::string said(const char *function, const char *text)
{
    return err_line("qor_health", function, text);
}

TEST_F(Explain, WhatIsMissingIsSaid)
{
    make({});
    qor_trace_stop();

    EXPECT_EQ(qor_bus_explain(
                  nullptr, [](void *, const char *) {}, nullptr),
              -1);
    EXPECT_EQ(qor_bus_explain(bus->get(), nullptr, nullptr), -1);
    EXPECT_EQ(explain().circles, -1);
    EXPECT_EQ(output.printed(), said("qor_bus_explain", "!(bus) == true.") +
                                    said("qor_bus_explain", "!(text) == true.") +
                                    said("qor_bus_explain", "nothing is recorded."));
}

TEST_F(Explain, ARecordingOfAnotherBusOrWithoutStacksIsNone)
{
    StillBus other(StillBus::bare);
    make({});

    EXPECT_EQ(Explanation(other.get()).circles, -1);
    EXPECT_EQ(explain().circles, 0);
    qor_trace_mask_set(QOR_TRACE_ALL & ~QOR_TRACE_STACKS);
    EXPECT_EQ(explain().circles, -1);
    EXPECT_EQ(output.count("nothing is recorded."), 2);
}

TEST_F(Explain, AnIdleBusIsOneLine)
{
    run_up({&alpha});

    const Explanation seen = explain();

    EXPECT_EQ(seen.circles, 0);
    EXPECT_EQ(plain(seen.lines), idle);
}

TEST_F(Explain, TwoInitsThatCallEachOtherAreACircle)
{
    call(alpha, {1});
    call(beta, {0});
    run({&alpha, &beta}, 1); /* the newest init is begun first, the other by a helper */
    ASSERT_TRUE(await([&] { return explain().circles == 1; }));
    told_time += 500;

    EXPECT_EQ(plain(explain().lines),
              "bus: workers 1, idle 0, quitting 0, queued 1\n"
              "thread A: worker, depth 2 > beta init 9, session 0, topic -1, ms 500 > alpha waits "
              "21, session 0, topic -1, ms 500, waits for the start of alpha, held up by thread B\n"
              "thread B: alpha, depth 2 > alpha init 9, session 0, topic -1, ms 500 > beta waits "
              "21, session 0, topic -1, ms 500, waits for the start of beta, held up by thread A\n"
              "circle of 2: alpha (thread B) beta (thread A)\n");
}

TEST_F(Explain, AnInitThatCallsItselfIsACircle)
{
    call(alpha, {0});
    run({&alpha}, 1);
    ASSERT_TRUE(await([&] { return explain().circles == 1; }));

    EXPECT_EQ(plain(explain().lines),
              "bus: workers 1, idle 0, quitting 0, queued 0\n"
              "thread A: worker, depth 2 > alpha init 9, session 0, topic -1, ms 0 > alpha waits "
              "21, session 0, topic -1, ms 0, waits for the start of alpha, held up by thread A\n"
              "circle of 1: alpha (thread A)\n");
}

TEST_F(Explain, ARegThatWaitsForAStartOfItsPhaseIsACircle)
{
    beta.reg = [](qor_context_t *c) { qor_context_x_req(c, 0, nullptr, 0); };
    run({&alpha, &beta}, 1);
    ASSERT_TRUE(await([&] { return explain().circles == 1; }));

    EXPECT_EQ(plain(explain().lines),
              "bus: workers 1, idle 0, quitting 0, queued 0\n"
              "thread A: worker, depth 2 > beta reg 10, session 0, topic -1, ms 0 > alpha waits "
              "21, session 0, topic -1, ms 0, waits for the start of alpha, held up by thread A\n"
              "circle of 1: alpha (thread A)\n");
}

TEST_F(Explain, AThreadThatWaitsBesideACircleIsInNone)
{
    call(alpha, {0});
    call(gamma, {0});
    run({&alpha, &gamma});
    ASSERT_TRUE(explained("> gamma init 9, session 0, topic -1, ms 0 > alpha waits 21"));
    ASSERT_TRUE(explained("> alpha init 9, session 0, topic -1, ms 0 > alpha waits 21"));

    const Explanation seen = explain();

    EXPECT_EQ(seen.circles, 1);
    EXPECT_EQ(seen.line("circle of ").substr(0, 19), "circle of 1: alpha ");
}

TEST_F(Explain, AWaitForASlowInitIsNoCircle)
{
    alpha.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    call(beta, {0});
    run({&alpha, &beta});
    ASSERT_TRUE(explained("waits for the start of alpha, held up by thread"));

    EXPECT_EQ(explain().circles, 0);
    end();
}

TEST_F(Explain, AWaitForAContextThatNobodyInitsIsNoCircle)
{
    run_up({&alpha}, 1);
    qor_context_t *wrapper = nullptr;
    {
        const PrescribedLeak lone_one; /* nobody takes down what nobody has brought up */
        wrapper = qor_core_context_class.create(&lone.descriptor);
    }
    ASSERT_NE(wrapper, nullptr);
    qor_sched_delegate_create(bus->get(), QOR_BUS_ROLE_USER, wrapper);
    Thread waits([&] { qor_context_resume(wrapper); });

    ASSERT_TRUE(explained("waits for the start of lone, held up by thread 0\n"));

    EXPECT_EQ(explain().circles, 0);
    qor_core_context_lifecycle_change(qor_core_context_type(wrapper),
                                      QOR_USER_CONTEXT_LIFECYCLE_START);
    waits.join();
    end();
}

TEST_F(Explain, ACircleIsNoneOnceTheBusQuits)
{
    call(alpha, {0});
    run({&alpha}, 1);
    ASSERT_TRUE(await([&] { return explain().circles == 1; }));

    bus->quit();

    EXPECT_EQ(explain().circles, 0);
}

TEST_F(Explain, AHandlerIsShownWithWhatItCallsAndWhatWaitsForIt)
{
    beta.handle = [this](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    alpha.handle = [](qor_context_t *c, qor_context_msg_t *msg) {
        return msg->type == QOR_CONTEXT_MSG_REQUEST ? qor_context_x_req_s(c, 77, 1, nullptr, 0) : 0;
    };
    run_up({&alpha, &beta});
    const int32_t session = qor_context_req(beta.context(), 0, nullptr, 0);
    ASSERT_TRUE(door.await(1));
    qor_context_req(beta.context(), 0, nullptr, 0);
    told_time += 40;

    EXPECT_EQ(plain(explain().lines),
              "bus: workers 2, idle 1, quitting 0, queued 0\n"
              "context alpha: RESUME, runs 1, slots 1, queued 1\n"
              "thread A: worker, depth 2 > alpha request 0, session " +
                  std::to_string(session) +
                  ", topic 0, ms 40 > beta call 7, session 77, topic 1, ms 40\n");
    end();
}

TEST_F(Explain, TasksAndTheFirstOfTheBusAreShown)
{
    run_up({&alpha}, 1);
    const auto stop = [](void *at) -> void * {
        static_cast<Door *>(at)->pass();
        return nullptr;
    };
    qor_bus_run(bus->get(), stop, &door, nullptr);
    ASSERT_TRUE(door.await(1));
    qor_context_run(alpha.context(), stop, &door);
    qor_context_timer(alpha.context(), stop, &door, 60000);
    told_time += 9;

    const std::string lines = plain(explain().lines);

    EXPECT_EQ(lines.substr(0, lines.find("thread")),
              "bus: workers 1, idle 0, quitting 0, queued 1\n"
              "context alpha: START, runs 1, slots 1, queued 2\n");
    EXPECT_NE(lines.find("thread A: worker, depth 1 > - task 6, session "), std::string::npos)
        << lines;
    EXPECT_NE(lines.find(", topic -1, ms 9\n"), std::string::npos) << lines;
    end();
}

TEST_F(Explain, AModuleThatOnlyWaitsForATimerIsShown)
{
    run_up({&alpha, &beta});

    ASSERT_GE(qor_context_timer(
                  alpha.context(), [](void *arg) { return arg; }, nullptr, 3600000),
              0);

    EXPECT_EQ(plain(explain().lines),
              std::string(idle) + "context alpha: START, runs 0, slots 1, queued 1\n");
}

TEST_F(Explain, AnOpenRequestHasNoThreadButAnAge)
{
    uint64_t token = 0;
    alpha.handle = [&token](qor_context_t *c, qor_context_msg_t *msg) {
        return qor_context_defer(c, msg, -1, &token);
    };
    run_up({&alpha, &beta});
    const int32_t session = qor_context_req_ret(beta.context(), 0, nullptr, 0, 4);
    ASSERT_TRUE(await([&] { return !explain().line("request ").empty(); }));
    ASSERT_TRUE(await([&] { return plain(explain().lines).find("thread") == std::string::npos; }));

    const std::string line = explain().line("request ");

    const std::string beginning =
        "request " + std::to_string(session) + ": open at alpha, topic 0, ms ";
    EXPECT_EQ(line.substr(0, beginning.size()), beginning);
    EXPECT_EQ(line.find_first_not_of("0123456789", beginning.size()), std::string::npos) << line;
    EXPECT_EQ(qor_deferred_complete(token, 0, nullptr, 0), 0);
    end();
}

TEST_F(Explain, WaitsThatATimeEndsAreNamed)
{
    alpha.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    make({&alpha}, 1);
    Thread waits_up([this] { qor_bus_wait_up(bus->get(), 60000, nullptr); });
    Thread drains([this] { qor_bus_drain(bus->get(), 60000); });
    bus->start();

    EXPECT_TRUE(explained(" > - waits 26, session 0, topic -1, ms 0\n"));
    EXPECT_TRUE(explained(" > - waits 23, session 0, topic -1, ms 0\n"));
    EXPECT_EQ(explain().circles, 0);

    door.open();
    waits_up.join();
    drains.join();
}

TEST_F(Explain, APosterThatWaitsForRoomIsNamed)
{
    alpha.handle = [this](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    make({&alpha, &beta}, 2);
    const qor_contract_t contract = strict_terms(1, QOR_OVERFLOW_BLOCK, 60000);
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "alpha", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    qor_context_req(beta.context(), 0, nullptr, 0);
    ASSERT_TRUE(door.await(1));
    qor_context_req(beta.context(), 0, nullptr, 0);
    int32_t third = 0;
    Thread poster([&] { third = qor_context_req(beta.context(), 0, nullptr, 0); });

    EXPECT_TRUE(explained(" > alpha waits 25, session "));
    EXPECT_EQ(explain().circles, 0);

    door.open();
    poster.join();
    EXPECT_GE(third, 0);
    end();
}

TEST_F(Explain, TheLoopThatWaitsForAWorkerIsNamed)
{
    run_up({&alpha}, 1);
    const auto stop = [](void *at) -> void * {
        static_cast<Door *>(at)->pass();
        return nullptr;
    };
    qor_bus_run(bus->get(), stop, &door, nullptr);
    ASSERT_TRUE(door.await(1));

    qor_bus_quit(bus->get());

    EXPECT_TRUE(explained("bus: workers 1, idle 0, quitting 1, "));
    EXPECT_TRUE(explained(" > - waits 27, session 0, topic -1, ms 0\n"));
    end();
}

TEST_F(Explain, AConsoleThatDoesNotEndIsNamed)
{
    static Door *console_door;
    console_door = &door;
    alpha.descriptor.console = [](qor_context_t *) {
        console_door->pass();
        return 0;
    };
    run_up({&alpha}, 1);
    bus->quit();
    ASSERT_TRUE(door.await(1));
    Thread stops([this] { qor_context_stop(alpha.context()); });

    EXPECT_TRUE(explained(" > alpha waits 28, session 0, topic -1, ms 0\n"));

    door.open();
    stops.join();
}

TEST_F(Explain, WhatADeepThreadWaitsForIsKnown)
{
    beta.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    alpha.handle = [](qor_context_t *c, qor_context_msg_t *msg) {
        int32_t left;
        memcpy(&left, msg->request.buf, sizeof(left));
        left--;
        return left > 0 ? qor_context_x_req(c, 0, &left, sizeof(left))
                        : qor_context_x_req(c, 1, nullptr, 0);
    };
    run({&alpha, &beta});
    ASSERT_TRUE(door.await(1));
    ASSERT_TRUE(await([this] { return alpha.started(); }));
    int32_t calls = 7;
    qor_context_req(alpha.context(), 0, &calls, sizeof(calls));

    ASSERT_TRUE(explained(", topic 0, ms 0, waits for the start of beta, held up by thread"));

    door.open();
    EXPECT_TRUE(bus->up());
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(plain(explain().lines), idle);
}

TEST_F(Explain, ACircleThroughADeepThreadIsFound)
{
    serve(deep, 2);
    deep.handle = [](qor_context_t *c, qor_context_msg_t *msg) {
        int32_t left;
        memcpy(&left, msg->request.buf, sizeof(left));
        left--;
        return left > 0 ? qor_context_x_req(c, 2, &left, sizeof(left))
                        : qor_context_x_req(c, 0, nullptr, 0);
    };
    alpha.init = [](qor_context_t *c) {
        int32_t calls = 6;
        return qor_context_x_req(c, 2, &calls, sizeof(calls));
    };
    run({&deep, &alpha});

    EXPECT_TRUE(await([&] { return explain().circles == 1; }));
}

TEST_F(Explain, ThreadsWithoutALaneAreCounted)
{
    memory.config.lanes = 1;
    const auto stops = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    alpha.init = stops;
    beta.init = stops;
    run({&alpha, &beta}, 2);
    ASSERT_TRUE(door.await(2));

    EXPECT_NE(explain().line("threads without a lane, not shown: 1"), "");
    end();
}

TEST_F(Explain, TheTextMayCallTheBus)
{
    run_up({&alpha});
    int32_t inner = -1;
    struct Both {
        qor_bus_t *bus;
        int32_t *inner;
    } both = {bus->get(), &inner};

    const int32_t circles = qor_bus_explain(
        bus->get(),
        [](void *arg, const char *) {
            const Both &to = *static_cast<Both *>(arg);
            *to.inner = Explanation(to.bus).circles;
        },
        &both);

    EXPECT_EQ(circles, 0);
    EXPECT_EQ(inner, 0);
}

TEST_F(Explain, ATextThatEndsItsThreadLeavesTheBus)
{
    run_up({&alpha});
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *of) -> void * {
                      qor_bus_explain(
                          static_cast<qor_bus_t *>(of),
                          [](void *, const char *) { pthread_exit(nullptr); }, nullptr);
                      return nullptr;
                  },
                  bus->get()),
              0);
    pthread_join(thread, nullptr);

    end(); /* close waits for those inside */
}

/* What becomes of circles. */
class Circle : public Explain {};

TEST_F(Circle, ADeliveryThatClosesOneIsRefused)
{
    std::atomic<int> refused{0};
    const auto calls = [&refused](int32_t topic) {
        return [&refused, topic](qor_context_t *c) {
            refused += qor_context_x_req(c, topic, nullptr, 0) < 0;
            return 0;
        };
    };
    alpha.init = calls(1);
    beta.init = calls(0);
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    output.clear();
    bus->start();

    EXPECT_TRUE(bus->up());

    EXPECT_GE(refused, 1);
    EXPECT_EQ(output.count(err_line("qor_core_context", "qor_core_context_lifecycle_resume",
                                    "lifecycle already STOP or DESTROY. RESUME failed.")),
              refused);
    EXPECT_EQ(explain().circles, 0);
}

TEST_F(Circle, ACallOfItselfIsRefused)
{
    int32_t ret = 0;
    alpha.init = [&ret](qor_context_t *c) {
        ret = qor_context_x_req(c, 0, nullptr, 0);
        return 0;
    };
    make({&alpha}, 1);
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    bus->start();

    EXPECT_TRUE(bus->up());

    EXPECT_EQ(ret, -1);
}

TEST_F(Circle, ARegIsRefusedToo)
{
    int32_t ret = 0;
    beta.reg = [&ret](qor_context_t *c) { ret = qor_context_x_req(c, 0, nullptr, 0); };
    make({&alpha, &beta}, 1);
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    bus->start();

    EXPECT_TRUE(bus->up());

    EXPECT_EQ(ret, -1);
}

TEST_F(Circle, AWaitThatClosesNoneIsNotRefused)
{
    int32_t ret = -1;
    beta.init = [&ret](qor_context_t *c) {
        ret = qor_context_x_req(c, 0, nullptr, 0);
        return 0;
    };
    alpha.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    bus->start();
    ASSERT_TRUE(explained("waits for the start of alpha, held up by thread"));
    door.open();

    EXPECT_TRUE(bus->up());

    EXPECT_EQ(ret, 0);
}

TEST_F(Circle, WaitTakesTheRefusalBack)
{
    call(alpha, {0});
    make({&alpha}, 1);
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_WAIT), 0);
    bus->start();

    EXPECT_TRUE(await([&] { return explain().circles == 1; }));
}

TEST_F(Circle, OneThatIsNotRecordedIsWaitedIn)
{
    call(alpha, {0});
    make({&alpha}, 1);
    ASSERT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), 0);
    std::atomic<bool> begun{false};
    alpha.init = [&begun](qor_context_t *c) {
        begun = true;
        return qor_context_x_req(c, 0, nullptr, 0);
    };
    qor_trace_mask_set(0);
    bus->start();
    ASSERT_TRUE(await([&] { return begun.load(); }));

    EXPECT_EQ(qor_bus_wait_up(bus->get(), 100, nullptr), -1);
    end();
}

TEST_F(Circle, WhatIsWrongIsSaid)
{
    const char function[] = "qor_bus_circle_set";
    make({});
    EXPECT_EQ(qor_bus_circle_set(nullptr, QOR_CIRCLE_WAIT), -1);
    EXPECT_EQ(qor_bus_circle_set(bus->get(), 2), -1);
    qor_trace_stop();
    EXPECT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_WAIT), 0);
    EXPECT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_REFUSE), -1);
    qor_bus_quit(bus->get());
    EXPECT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_WAIT), -1);
    EXPECT_EQ(
        output.printed(),
        said(function, "!(bus) == true.") +
            said(function, "!(policy == QOR_CIRCLE_WAIT || policy == QOR_CIRCLE_REFUSE) == true.") +
            said(function, "nothing is recorded.") +
            said(function, "loop: the bus loops already."));
}

} // namespace
