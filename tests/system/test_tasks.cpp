/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks and timers of modules on a running bus. */
#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "qor_hal.h"
#include "running_bus.hpp"

namespace {

/* Gives a task that would come too early, or not at all, the time to come. */
void grace()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

/* Tasks that stand at a door, and how many did at once. */
struct Crowd {
    Door door;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};

    static void *visit(void *arg)
    {
        Crowd *self = static_cast<Crowd *>(arg);
        const int now = ++self->inside;
        int most = self->most;
        while (now > most && !self->most.compare_exchange_weak(most, now)) {
        }
        self->door.pass();
        self->inside--;
        self->done++;
        return nullptr;
    }

    static void *visitx(qor_context_t *, int32_t, void *arg) { return visit(arg); }
};

class Tasks : public testing::Test {
protected:
    explicit Tasks(int32_t refcount = 1, uint32_t workers = 8) : workers_(workers)
    {
        module.descriptor.refcount = refcount;
    }

    void SetUp() override
    {
        bus = std::make_unique<RunningBus>(std::vector<Module *>{&module}, 1, workers_);
        ASSERT_TRUE(bus->up());
    }

    int32_t post(const char *name, int32_t session, int32_t delay, qor_context_run_t run,
                 qor_context_recycle_t recycle)
    {
        qor_context_task_t task = {};
        qor_context_task_init(&task, module.context(), name, session, run, this);
        task.delay = delay;
        task.recycle = recycle;
        return qor_context_handler_post(module.context(), &task);
    }

    Output out;
    Journal journal;
    Crowd crowd;
    Module module{"worker"};
    std::unique_ptr<RunningBus> bus;

private:
    uint32_t workers_;
};

/* On one worker, tasks neither overtake each other nor start while the test holds it. */
class OneWorker : public Tasks {
protected:
    OneWorker() : Tasks(1, 1) {}
};

} // namespace

/* ---- runs ---- */

TEST_F(Tasks, ARunIsGivenItsArgument)
{
    std::atomic<void *> given{nullptr};
    static std::atomic<void *> *to;
    to = &given;

    EXPECT_GT(qor_context_run(
                  module.context(),
                  [](void *arg) -> void * {
                      to->store(arg);
                      return nullptr;
                  },
                  this),
              0);

    EXPECT_TRUE(await([&] { return given == this; }));
}

TEST_F(Tasks, ARunxIsGivenTheModulesContextAndItsSession)
{
    struct Given {
        std::atomic<qor_context_t *> context{nullptr};
        std::atomic<int32_t> session{-1};
    } given;

    const int32_t session = qor_context_x_runx(
        module.context(),
        [](qor_context_t *context, int32_t ss, void *arg) -> void * {
            static_cast<Given *>(arg)->session = ss;
            static_cast<Given *>(arg)->context = context;
            return nullptr;
        },
        &given);

    ASSERT_TRUE(await([&] { return given.context != nullptr; }));
    EXPECT_EQ(given.context, module.context());
    EXPECT_EQ(given.session, session);
}

TEST_F(Tasks, TheThreadHasTheTasksNameWhileItRuns)
{
    static Journal *log;
    log = &journal;

    qor_context_run_name(
        module.context(), "long name that is cut",
        [](void *) -> void * {
            char name[16];
            prctl(PR_GET_NAME, name);
            log->add(name);
            return nullptr;
        },
        nullptr);

    ASSERT_TRUE(journal.await(1));
    EXPECT_EQ(journal.text(), "long name that ");
}

/* ---- how many at once ---- */

TEST_F(Tasks, RunOneAtATime)
{
    std::vector<std::thread> posters;
    std::atomic<int> posted{0};
    crowd.door.open();
    for (int i = 0; i < 4; i++) {
        posters.emplace_back([&] {
            for (int n = 0; n < 250; n++) {
                EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
                posted++;
                if (n % 5 == 4) { /* no more than the queue takes */
                    EXPECT_TRUE(await([&] { return posted - crowd.done < 10; }));
                }
            }
        });
    }
    for (std::thread &poster : posters) {
        poster.join();
    }

    EXPECT_TRUE(await([&] { return crowd.done == 1000; }));
    EXPECT_EQ(crowd.most, 1);
}

class ThreeTasks : public Tasks {
protected:
    ThreeTasks() : Tasks(3) {}
};

TEST_F(ThreeTasks, RunAtOnceAndNotFour)
{
    for (int i = 0; i < 6; i++) {
        EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(3));
    grace();
    EXPECT_EQ(crowd.most, 3);

    crowd.door.open();
    EXPECT_TRUE(await([&] { return crowd.done == 6; }));
    EXPECT_EQ(crowd.most, 3);
}

class UnlimitedTasks : public Tasks {
protected:
    UnlimitedTasks() : Tasks(-1) {}
};

TEST_F(UnlimitedTasks, RunOnAllWorkers)
{
    for (int i = 0; i < 8; i++) {
        EXPECT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(8));
    crowd.door.open();
}

TEST_F(Tasks, AsyncOnesRunBesideEachOther)
{
    for (int i = 0; i < 5; i++) {
        EXPECT_GE(qor_context_runx(module.context(), Crowd::visitx, &crowd), 0);
    }

    EXPECT_TRUE(crowd.door.await(5));
    crowd.door.open();
}

TEST_F(Tasks, OneThatATimerStartsMayRunBesideTheOneThatHoldsTheSlot)
{
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));

    ASSERT_GE(qor_context_x_timer(module.context(), Crowd::visit, &crowd, 5), 0);

    EXPECT_TRUE(crowd.door.await(2));
    crowd.door.open();
}

/* ---- the private queue's limit ---- */

TEST_F(Tasks, FiftyWaitAndTheNextOneRunsAtOnce)
{
    Crowd hasty;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    for (int i = 0; i < 50; i++) {
        ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    }
    grace();
    EXPECT_EQ(crowd.most, 1);

    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &hasty), 0);

    EXPECT_TRUE(hasty.door.await(1));
    EXPECT_EQ(crowd.inside, 1);
    hasty.door.open();
    crowd.door.open();
    EXPECT_TRUE(await([&] { return crowd.done == 51 && hasty.done == 1; }));
}

/* ---- timers ---- */

namespace {

struct Alarm {
    int64_t posted = util_timestamp();
    std::atomic<int64_t> rang{0};

    static void *ring(void *arg)
    {
        static_cast<Alarm *>(arg)->rang = util_timestamp();
        return nullptr;
    }
};

} // namespace

TEST_F(Tasks, ATimerFallsDueAfterItsDelay)
{
    Alarm alarm;

    EXPECT_GT(qor_context_timer(module.context(), Alarm::ring, &alarm, 50), 0);

    ASSERT_TRUE(await([&] { return alarm.rang != 0; }));
    EXPECT_GE(alarm.rang - alarm.posted, 50);
}

TEST_F(Tasks, ATimerWithoutDelayRunsAtOnce)
{
    Alarm now, overdue;

    qor_context_timer(module.context(), Alarm::ring, &now, 0);
    qor_context_x_timer(module.context(), Alarm::ring, &overdue, -1000);

    EXPECT_TRUE(await([&] { return now.rang != 0 && overdue.rang != 0; }));
}

TEST_F(OneWorker, TimersFallDueInOrderOfTheirTimeNotOfTheirPosting)
{
    static Journal *log;
    log = &journal;
    const auto note = [](void *arg) -> void * {
        log->add(static_cast<const char *>(arg));
        return nullptr;
    };
    static char late[] = "late", early[] = "early", between[] = "between";

    /* Their order is only known when posting them took less time than lies between them. */
    for (bool in_time = false; !in_time;) {
        journal.clear();
        const int64_t begun = util_timestamp();
        qor_context_x_timer(module.context(), note, late, 90);
        qor_context_x_timer(module.context(), note, early, 30);
        qor_context_x_timer(module.context(), note, between, 60);
        in_time = util_timestamp() - begun < 30;
        ASSERT_TRUE(journal.await(3));
    }

    EXPECT_EQ(journal.text(), "early between late");
}

TEST_F(Tasks, ATimerMayArmItselfAgain)
{
    static std::atomic<int> rounds;
    rounds = 0;
    struct Again {
        static void *tick(qor_context_t *context, int32_t, void *arg)
        {
            if (++rounds < 10) {
                EXPECT_GT(qor_context_timerx(context, tick, arg, 2), 0);
            }
            return nullptr;
        }
    };

    EXPECT_GT(qor_context_timerx(module.context(), Again::tick, nullptr, 2), 0);

    EXPECT_TRUE(await([] { return rounds == 10; }));
}

namespace {

std::atomic<int> recycled;

void count_recycle(void *)
{
    recycled++;
}

void *nothing(void *)
{
    return nullptr;
}

} // namespace

TEST_F(Tasks, AModulesTimerIsRecycledOnce)
{
    recycled = 0;

    EXPECT_EQ(post("t", 5000, 10, nothing, count_recycle), 0);

    EXPECT_TRUE(await([] { return recycled == 1; }));
    bus->end();
    EXPECT_EQ(recycled, 1);
}

TEST_F(Tasks, ATimerOfTheBusIsRecycledTwice)
{
    recycled = 0;
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "t", 5000, nothing, nullptr);
    task.delay = 10;
    task.recycle = count_recycle;

    EXPECT_EQ(qor_bus_timer_post(bus->get(), &task), 0);

    EXPECT_TRUE(await([] { return recycled == 2; }));
    bus->end();
    EXPECT_EQ(recycled, 2);
}

/* ---- cancelling ---- */

TEST_F(OneWorker, ACancelledTimerNeverFallsDue)
{
    Alarm cancelled, later;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1)); /* however late the cancel is, the timer cannot be run yet */
    const int32_t session = qor_context_timer(module.context(), Alarm::ring, &cancelled, 40);
    ASSERT_GT(session, 0);

    EXPECT_EQ(qor_context_timer_cancel(module.context(), session), 0);

    ASSERT_GT(qor_context_timer(module.context(), Alarm::ring, &later, 60), 0);
    crowd.door.open();
    ASSERT_TRUE(await([&] { return later.rang != 0; }));
    EXPECT_EQ(cancelled.rang, 0);
}

TEST_F(Tasks, ACancelledTaskIsReleasedAndNeverRuns)
{
    recycled = 0;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    ASSERT_EQ(post(
                  "t", 5000, 0,
                  [](void *) -> void * {
                      ADD_FAILURE() << "a cancelled task runs";
                      return nullptr;
                  },
                  count_recycle),
              0);

    EXPECT_EQ(qor_context_timer_cancel(module.context(), 5000), 0);

    EXPECT_EQ(recycled, 1);
    crowd.door.open();
    bus->end();
    EXPECT_EQ(recycled, 1);
}

TEST_F(Tasks, ATaskThatRunsCannotBeCancelled)
{
    const int32_t session = qor_context_run(module.context(), Crowd::visit, &crowd);
    ASSERT_TRUE(crowd.door.await(1));

    EXPECT_EQ(qor_context_timer_cancel(module.context(), session), -1);

    EXPECT_EQ(out.count("cancel a timer failed, source:worker, session=" + std::to_string(session)),
              1);
    crowd.door.open();
}

/* ---- the end ---- */

TEST_F(Tasks, WhatIsStillQueuedAtTheEndIsReleasedOnce)
{
    recycled = 0;
    ASSERT_GE(qor_context_run(module.context(), Crowd::visit, &crowd), 0);
    ASSERT_TRUE(crowd.door.await(1));
    for (int32_t i = 0; i < 45; i++) {
        ASSERT_EQ(post("t", 5000 + i, i % 2 ? 60000 : 0, nothing, count_recycle), 0);
    }
    qor_bus_quit(bus->get());
    crowd.door.open();

    bus->end();

    EXPECT_EQ(recycled, 45);
}

TEST_F(Tasks, AModuleThatKeepsPostingToItselfDoesNotHoldTheEndUp)
{
    static std::atomic<int> rounds;
    rounds = 0;
    struct Again {
        static void *run(qor_context_t *context, int32_t, void *arg)
        {
            rounds++;
            qor_context_x_runx(context, run, arg);
            return nullptr;
        }
    };
    ASSERT_GT(qor_context_x_runx(module.context(), Again::run, nullptr), 0);
    ASSERT_TRUE(await([] { return rounds > 100; }));

    EXPECT_EQ(bus->quit(), 0);
}
