/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers: when their runs are due, who ends them, and what they are refused for. */
#include "qor_periodic.h"

#include <pthread.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "beat.hpp"
#include "case_name.hpp"
#include "door.hpp"
#include "falling_due.hpp"
#include "journal.hpp"
#include "leak.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_que.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"
#include "thread.hpp"
#include "time_que_length.hpp"

namespace {

constexpr int32_t never = 3600000; /* ms: a period that no test waits for */
constexpr int64_t generous = 30000;

std::string refusal(const std::string &text)
{
    return err_line("qor_periodic", "qor_context_every", text);
}

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

void await_time(int64_t when)
{
    EXPECT_TRUE(await([when] { return util_timestamp() >= when; }));
}

/* A module on a bus with two workers. */
class Periodic : public testing::Test {
protected:
    Periodic()
    {
        EXPECT_TRUE(bus.up());
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        out.clear();
    }

    qor_context_t *self() { return module.context(); }
    qor_context_t *wrapper() { return &module.core()->base; }
    int waiting() { return length_of(bus.get()->time_que); }

    /* When the one timer that waits is due. */
    int64_t due()
    {
        int64_t when = -1;
        EXPECT_TRUE(await([&] {
            qor_time_que_t *timers = bus.get()->time_que;
            qor_time_que_lock(timers);
            if (!list_empty(&timers->head)) {
                when = reinterpret_cast<qor_time_que_node_t *>(timers->head.next)->when;
            }
            qor_time_que_unlock(timers);
            return when >= 0;
        }));
        return when;
    }

    /* Keeps every worker at a door. */
    void occupy(Door &at, int workers)
    {
        for (int i = 0; i < workers; i++) {
            qor_bus_run(
                bus.get(),
                [](void *arg) -> void * {
                    static_cast<Door *>(arg)->pass();
                    return nullptr;
                },
                &at, nullptr);
        }
        ASSERT_TRUE(at.await(workers));
    }

    /* Every run began at a point of the grid that starts with the call, or behind it. */
    static void expect_on_grid(const Beat &beat, int32_t period)
    {
        int64_t point = 0;
        for (const Beat::Run &run : beat.runs()) {
            point += int64_t{period} * (1 + int64_t{run.missed});
            EXPECT_GE(run.begun, beat.before + point);
            EXPECT_LE(run.begun, beat.after + point + generous);
        }
    }

    Output out;
    Door door; /* what a run waits for; goes after the bus */
    Module module{"beating"};
    Beat beat;
    Beat others[40]; /* more than one to a slot of the bus's table */
    RunningBus bus{{&module}, 8, 2};
};

} // namespace

TEST_F(Periodic, RunsAreDueOnAGridThatStartsWithTheCall)
{
    ASSERT_GE(beat.arm(self(), 20), 0);

    ASSERT_TRUE(beat.await_runs(6));

    bus.quit();
    expect_on_grid(beat, 20);
    EXPECT_EQ(beat.most_inside, 1);
}

/* The first run begins three tenths of a period late and takes two tenths more. */
TEST_F(Periodic, ARunThatBeginsLateAndTakesLongMovesNoOther)
{
    Door work;
    occupy(work, 2);
    beat.body = [] { await_time(util_timestamp() + 40); };
    ASSERT_GE(beat.arm(self(), 200), 0);
    const int64_t start = due() - 200;
    await_time(start + 260);

    work.open();
    ASSERT_TRUE(beat.await_runs(1));

    EXPECT_EQ((due() - start) % 200, 0);
    EXPECT_GE(start, beat.before);
    EXPECT_LE(start, beat.after);
}

TEST_F(Periodic, TheRunGetsItsContextItsSessionAndItsArgument)
{
    const int32_t session = beat.arm(self(), 1);
    ASSERT_TRUE(beat.await_runs(1));

    EXPECT_EQ(beat.self, self());
    EXPECT_EQ(beat.given, session);
    EXPECT_EQ(beat.recycles, 0);
}

TEST_F(Periodic, ARunThatTakesFivePeriodsIsNotBesideItselfAndPointsAreMissed)
{
    beat.body = [&] { await_time(beat.runs().back().begun + 5 * 20); };
    ASSERT_GE(beat.arm(self(), 20), 0);

    ASSERT_TRUE(beat.await_runs(3));

    bus.quit();
    const std::vector<Beat::Run> runs = beat.runs();
    EXPECT_GE(runs[1].missed, 4u);
    EXPECT_GE(runs[2].missed, 4u);
    EXPECT_EQ(beat.most_inside, 1);
    expect_on_grid(beat, 20);
}

TEST_F(Periodic, PointsThatPassWithoutAFreeWorkerAreMissed)
{
    Door work;
    occupy(work, 2);
    ASSERT_GE(beat.arm(self(), 5), 0);
    await_time(beat.after + 8 * 5);
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));
    EXPECT_EQ(beat.begun, 0);

    work.open();
    ASSERT_TRUE(beat.await_runs(2));

    bus.quit();
    EXPECT_GE(beat.runs()[0].missed, 7u);
    expect_on_grid(beat, 5);
}

TEST_F(Periodic, AGivenContextMayBeTheWrapper)
{
    ASSERT_GE(beat.arm(wrapper(), 1), 0);

    ASSERT_TRUE(beat.await_runs(1));

    EXPECT_EQ(beat.self, wrapper());
}

/* A task of the module holds its only place, and others wait behind it. */
TEST_F(Periodic, ARunWaitsInNoQueueOfItsModule)
{
    for (int i = 0; i < 50; i++) {
        qor_context_x_run(
            self(),
            [](void *arg) -> void * {
                static_cast<Door *>(arg)->pass();
                return nullptr;
            },
            &door);
    }
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(beat.arm(self(), 1), 0);

    EXPECT_TRUE(beat.await_runs(3));

    EXPECT_EQ(door.waiting(), 1);
    door.open();
}

TEST_F(Periodic, TheThreadHasTheNameOfATaskThatCallsTheFunction)
{
    std::string name;
    beat.body = [&] {
        name = thread_name();
        qor_context_timer_cancel(beat.self, beat.given);
    };
    ASSERT_GE(beat.arm(self(), 1), 0);

    ASSERT_TRUE(beat.await_recycle());

    char task[32];
    hal_snprintf(task, sizeof(task), "task:%p", reinterpret_cast<const void *>(&Beat::run));
    EXPECT_EQ(name, std::string(task).substr(0, 15));
}

/* How a timer may be cancelled. */
struct CancelCase {
    const char *name;
    int32_t (*cancel)(const Module &module, qor_bus_t *bus, int32_t session);
};

class PeriodicCancel : public Periodic, public testing::WithParamInterface<CancelCase> {
protected:
    int32_t cancel(int32_t session) { return GetParam().cancel(module, bus.get(), session); }
};

TEST_P(PeriodicCancel, BetweenTwoRunsRecyclesAtOnce)
{
    const int32_t session = beat.arm(self(), never);

    EXPECT_EQ(cancel(session), 0);

    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(waiting(), 0);
    EXPECT_LT(cancel(session), 0);
    EXPECT_EQ(beat.recycles, 1);
}

TEST_P(PeriodicCancel, OfAQueuedRunRecyclesAtOnce)
{
    Door work;
    occupy(work, 2);
    const int32_t session = beat.arm(self(), 1);
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));

    EXPECT_EQ(cancel(session), 0);

    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(qor_que_count(bus.get()->que), 0);
    work.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.begun, 0);
}

TEST_P(PeriodicCancel, InsideTheRunRecyclesAfterIt)
{
    int32_t result = -2, inside = -1;
    beat.body = [&] {
        result = cancel(beat.given);
        await_time(util_timestamp() + 5); /* more points pass */
        inside = beat.recycles;
    };
    ASSERT_GE(beat.arm(self(), 1), 0);

    ASSERT_TRUE(beat.await_recycle());

    EXPECT_EQ(result, 0);
    EXPECT_EQ(inside, 0);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(waiting(), 0);
    EXPECT_EQ(beat.begun, 1);
    EXPECT_EQ(beat.recycles, 1);
}

TEST_P(PeriodicCancel, DuringARunFromAnotherThreadRecyclesAfterIt)
{
    beat.body = [&] { door.pass(); };
    const int32_t session = beat.arm(self(), 1);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(cancel(session), 0);

    EXPECT_EQ(beat.recycles, 0);
    EXPECT_LT(cancel(session), 0);
    door.open();
    ASSERT_TRUE(beat.await_recycle());
    EXPECT_EQ(beat.over, 1);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(waiting(), 0);
    EXPECT_EQ(beat.begun, 1);
    EXPECT_EQ(beat.recycles, 1);
}

/* A task in the module's queue has the number too; it would be taken first. */
TEST_P(PeriodicCancel, LooksForAPeriodicTimerFirst)
{
    Beat &task = others[0];
    const int32_t session = beat.arm(self(), never);
    const auto recycled = [](void *arg) { Beat::recycle(arg); };
    qor_context_task_t same = {};
    qor_context_task_init(
        &same, self(), nullptr, session, [](void *arg) { return arg; }, &task);
    same.recycle = recycled;
    same.delay = never;
    ASSERT_EQ(qor_context_handler_post(self(), &same), 0);

    EXPECT_EQ(cancel(session), 0);

    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(task.recycles, 0);
}

INSTANTIATE_TEST_SUITE_P(
    By, PeriodicCancel,
    testing::Values(CancelCase{"Module",
                               [](const Module &module, qor_bus_t *, int32_t session) {
                                   return qor_context_timer_cancel(module.context(), session);
                               }},
                    CancelCase{"ModulesSecondEntry",
                               [](const Module &module, qor_bus_t *, int32_t session) {
                                   return qor_context_x_timer_cancel(module.context(), session);
                               }},
                    CancelCase{"Wrapper",
                               [](const Module &module, qor_bus_t *, int32_t session) {
                                   return qor_context_timer_cancel(&module.core()->base, session);
                               }},
                    CancelCase{"Bus",
                               [](const Module &, qor_bus_t *bus, int32_t session) {
                                   return qor_bus_cancel(bus, session);
                               }}),
    case_name<CancelCase>);

TEST_F(Periodic, CancelEndsOneOfSeveral)
{
    for (Beat &other : others) {
        ASSERT_GE(other.arm(self(), 1), 0);
    }
    const int32_t session = beat.arm(self(), never);

    EXPECT_EQ(qor_context_timer_cancel(self(), session), 0);

    EXPECT_EQ(beat.recycles, 1);
    for (Beat &other : others) {
        EXPECT_TRUE(other.await_runs(3));
        EXPECT_EQ(other.recycles, 0);
    }
}

TEST_F(Periodic, QuitDuringARunLetsItEndAndRecycles)
{
    beat.body = [&] { door.pass(); };
    ASSERT_GE(beat.arm(self(), 1), 0);
    ASSERT_TRUE(door.await(1));
    qor_bus_quit(bus.get());
    EXPECT_EQ(beat.recycles, 0);

    door.open();
    EXPECT_EQ(bus.quit(), 0);

    EXPECT_EQ(beat.over, 1);
    EXPECT_EQ(beat.recycles, 1);
}

TEST_F(Periodic, QuitRecyclesWhatIsQueuedAndWhatWaits)
{
    Beat &late = others[0];
    Door work;
    occupy(work, 2);
    ASSERT_GE(beat.arm(self(), 1), 0);
    ASSERT_GE(late.arm(self(), never), 0);
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));

    qor_bus_quit(bus.get());
    work.open();
    bus.quit();

    EXPECT_EQ(beat.begun, 0);
    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(late.recycles, 1);
    bus.end();
    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(late.recycles, 1);
}

TEST_F(Periodic, CancelAfterTheQuitFindsNothing)
{
    const int32_t session = beat.arm(self(), never);
    bus.quit();
    EXPECT_EQ(beat.recycles, 1);

    EXPECT_EQ(qor_context_timer_cancel(self(), session), -1);

    EXPECT_EQ(beat.recycles, 1);
}

TEST_F(Periodic, CancelBetweenQuitAndTheEndOfTheLoopRecyclesOnce)
{
    Door work;
    occupy(work, 2);
    const int32_t session = beat.arm(self(), never);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_context_timer_cancel(self(), session), 0);

    EXPECT_EQ(beat.recycles, 1);
    work.open();
    bus.end();
    EXPECT_EQ(beat.recycles, 1);
}

TEST_F(Periodic, DrainDoesNotWaitForTheNextRun)
{
    ASSERT_GE(beat.arm(self(), never), 0);

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}

TEST_F(Periodic, DrainWaitsForARunThatIsUnderWay)
{
    beat.body = [&] {
        door.pass();
        qor_context_timer_cancel(beat.self, beat.given);
    };
    ASSERT_GE(beat.arm(self(), 1), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(qor_bus_drain(bus.get(), 20), -1);

    door.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.over, 1);
    EXPECT_EQ(beat.recycles, 1);
}

TEST_F(Periodic, DrainWaitsForARunThatIsQueued)
{
    Door work;
    beat.body = [&] { qor_context_timer_cancel(beat.self, beat.given); };
    occupy(work, 2);
    ASSERT_GE(beat.arm(self(), 1), 0);
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));

    work.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);

    EXPECT_EQ(beat.over, 1);
}

TEST_F(Periodic, ARunThatEndsItsThreadIsOverAndTheTimerGoesOn)
{
    std::atomic<int> left{0};
    beat.body = [&] {
        beat.inside--;
        left++;
        pthread_exit(nullptr);
    };
    const int32_t session = beat.arm(self(), 5);

    ASSERT_TRUE(await([&] { return left >= 4; }));
    EXPECT_EQ(qor_context_timer_cancel(self(), session), 0);
    ASSERT_TRUE(beat.await_recycle());

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.most_inside, 1);
    expect_on_grid(beat, 5);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Periodic, ARunThatCancelsAndEndsItsThreadIsRecycled)
{
    beat.body = [&] {
        qor_context_timer_cancel(beat.self, beat.given);
        pthread_exit(nullptr);
    };
    ASSERT_GE(beat.arm(self(), 1), 0);

    EXPECT_TRUE(beat.await_recycle());

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(beat.begun, 1);
    EXPECT_EQ(beat.recycles, 1);
}

/* What a caller may get wrong. */
struct RefusedCall {
    const char *name;
    bool self;
    qor_context_every_run_t run;
    int32_t period;
    const char *text;
};

class PeriodicRefuses : public Periodic, public testing::WithParamInterface<RefusedCall> {};

TEST_P(PeriodicRefuses, WithALineAndTheArgumentAlone)
{
    const RefusedCall &call = GetParam();
    const int32_t session = bus.get()->session;

    EXPECT_EQ(qor_context_every(call.self ? self() : nullptr, call.run, &beat, Beat::recycle,
                                call.period),
              -1);

    EXPECT_EQ(out.printed(), refusal(call.text));
    EXPECT_EQ(bus.get()->session, session);
    EXPECT_EQ(waiting(), 0);
    EXPECT_EQ(beat.recycles, 0);
}

INSTANTIATE_TEST_SUITE_P(
    All, PeriodicRefuses,
    testing::Values(RefusedCall{"NoContext", false, Beat::run, 1, "!(self) == true."},
                    RefusedCall{"NoFunction", true, nullptr, 1, "!(run) == true."},
                    RefusedCall{"NoPeriod", true, Beat::run, 0, "!(period_ms > 0) == true."},
                    RefusedCall{"ANegativePeriod", true, Beat::run, -1,
                                "!(period_ms > 0) == true."}),
    case_name<RefusedCall>);

TEST_F(Periodic, AfterTheQuitNoneIsArmed)
{
    bus.quit();

    EXPECT_EQ(beat.arm(self(), 1), -1);

    EXPECT_EQ(out.printed(), refusal("the bus has quit, or the init has failed, source: beating"));
    EXPECT_EQ(beat.recycles, 0);
}

TEST(PeriodicAlone, AContextThatIsNotOnABusIsRefused)
{
    Output out;
    Journal journal;
    Actor actor(journal, "lonely");
    Beat beat;

    EXPECT_EQ(beat.arm(actor.get(), 1), -1);

    EXPECT_EQ(out.printed(), refusal("not on a bus, source: lonely"));
    EXPECT_EQ(beat.recycles, 0);
}

TEST(PeriodicAlone, AModulesContextWithoutItsWrapperIsRefused)
{
    Output out;
    Module module("lonely");
    Beat beat;
    qor_context_t *wrapper = qor_context_create(&qor_core_context_class, &module.descriptor);
    qor_context_t *inner = qor_core_context_type(wrapper)->context;
    qor_context_pub_data_set(inner, nullptr, nullptr);

    EXPECT_EQ(beat.arm(inner, 1), -1);

    EXPECT_EQ(out.printed(), refusal("not on a bus, source: lonely"));
    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
}

TEST(PeriodicAlone, OneThatFallsDueOnceItsBusIsDestroyedEnds)
{
    Journal journal;
    Actor actor(journal, "actor");
    Beat beat;
    qor_context_module_t *none[] = {nullptr};
    qor_bus_t *bus = qor_bus_create(none, 4);
    drop_start_up(bus);
    qor_time_que_t *timers = bus->time_que;
    list_head *head = bus->head;
    {
        const PrescribedLeak delegate;
        actor.attach(bus, QOR_BUS_ROLE_USER);
    }
    qor_bus_thread_num_set(bus, 1);
    Thread loop([bus] { qor_bus_loop(bus); });
    ASSERT_EQ(qor_bus_drain(bus, 60000), 0);
    const int32_t session = beat.arm(actor.get(), never);

    qor_bus_destroy(bus);
    fall_due(timers, session);

    EXPECT_TRUE(beat.await_recycle());
    EXPECT_EQ(beat.begun, 0);
    qor_time_que_quit(timers);
    loop.join();
    qor_time_que_destroy(timers);
    free(head);
}

/* A context that is attached to a bus which has no module. */
class PeriodicOnABareBus : public testing::Test {
protected:
    PeriodicOnABareBus() { actor.attach(bus.get(), QOR_BUS_ROLE_SYS); }

    void next_session(int32_t session) { bus.get()->session = session; }

    Journal journal;
    Actor actor{journal, "actor"};
    Beat beat, second, third;
    StillBus bus{StillBus::bare};
};

TEST_F(PeriodicOnABareBus, CloseRecyclesAlthoughTheBusNeverLooped)
{
    ASSERT_GE(beat.arm(actor.get(), 1), 0);

    bus.close();

    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(beat.begun, 0);
}

TEST_F(PeriodicOnABareBus, RunsThatAreDueBeforeTheLoopBeginWithIt)
{
    beat.body = [&] { qor_bus_quit(bus.get()); };
    ASSERT_GE(beat.arm(actor.get(), 10), 0);
    await_time(beat.after + 30);

    EXPECT_EQ(qor_bus_loop(bus.get()), 0);

    EXPECT_EQ(beat.self, actor.get());
    ASSERT_EQ(beat.runs().size(), 1u);
    EXPECT_GE(beat.runs()[0].missed, 2u);
    EXPECT_EQ(beat.recycles, 1);
}

TEST_F(PeriodicOnABareBus, NoSessionOfATimerIsDrawn)
{
    next_session(100);
    ASSERT_EQ(beat.arm(actor.get(), never), 100);
    ASSERT_EQ(second.arm(actor.get(), never), 101);
    next_session(132); /* the same lowest bits as the first */
    ASSERT_EQ(third.arm(actor.get(), never), 132);
    next_session(99);

    EXPECT_EQ(qor_bus_session(bus.get()), 99);
    EXPECT_EQ(qor_bus_session(bus.get()), 102);
    next_session(132);
    EXPECT_EQ(qor_bus_session(bus.get()), 133);
    next_session(164);
    EXPECT_EQ(qor_bus_session(bus.get()), 164);
}

TEST_F(PeriodicOnABareBus, TheSessionIsKeptWhenNumbersBeginAnew)
{
    next_session(0);
    ASSERT_EQ(beat.arm(actor.get(), never), 0);
    next_session(INT32_MAX);
    ASSERT_EQ(second.arm(actor.get(), never), INT32_MAX);
    next_session(INT32_MAX - 1);

    EXPECT_EQ(qor_bus_session(bus.get()), INT32_MAX - 1);
    EXPECT_EQ(qor_bus_session(bus.get()), 1);

    EXPECT_EQ(qor_bus_cancel(bus.get(), 0), 0);
    EXPECT_EQ(qor_bus_cancel(bus.get(), INT32_MAX), 0);
    next_session(INT32_MAX);
    EXPECT_EQ(qor_bus_session(bus.get()), INT32_MAX);
    EXPECT_EQ(qor_bus_session(bus.get()), 0);
}

TEST_F(PeriodicOnABareBus, ATimerGetsNoSessionOfAnother)
{
    next_session(7);
    ASSERT_EQ(beat.arm(actor.get(), never), 7);
    next_session(7);

    EXPECT_EQ(second.arm(actor.get(), never), 8);
}

TEST_F(PeriodicOnABareBus, ALongPeriodIsDueInSixtyFourBits)
{
    ASSERT_GE(beat.arm(actor.get(), INT32_MAX), 0);

    qor_time_que_t *timers = bus.get()->time_que;
    const auto *node = reinterpret_cast<const qor_time_que_node_t *>(timers->head.next);
    EXPECT_GE(node->when, beat.before + INT32_MAX);
    EXPECT_LE(node->when, beat.after + INT32_MAX);
}

TEST_F(PeriodicOnABareBus, WithoutATimerQueueNoneIsArmed)
{
    Output out;
    qor_time_que_t *timers = std::exchange(bus.get()->time_que, nullptr);

    EXPECT_EQ(beat.arm(actor.get(), 1), -1);

    bus.get()->time_que = timers;
    EXPECT_EQ(out.printed(), refusal("!(bus->time_que) == true."));
    EXPECT_EQ(beat.recycles, 0);
}

/* Whoever takes a task out of the queue in place of the workers frees its node. */
TEST_F(PeriodicOnABareBus, ARunThatNoWorkerHasTakenEndsTheTimer)
{
    qor_bus_thread_num_set(bus.get(), 0);
    Thread loop([&] { qor_bus_loop(bus.get()); });
    const int32_t session = beat.arm(actor.get(), 1);
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));

    bus.run_next();

    EXPECT_EQ(beat.recycles, 1);
    EXPECT_EQ(beat.begun, 0);
    EXPECT_EQ(qor_bus_cancel(bus.get(), session), -1);
    qor_bus_quit(bus.get());
}
