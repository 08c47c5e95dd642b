/* SPDX-License-Identifier: Apache-2.0 */
/* Closing a bus: what is taken down, in which order, and what is refused meanwhile. */
#include "qor_bus.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "actor.hpp"
#include "await.hpp"
#include "bus_fixture.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_core_context.h"
#include "qor_main.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

TEST(BusClose, FreesABusThatNeverLooped)
{
    Output out;
    qor_bus_t *bus = qor_bus_create(no_modules, 3);

    qor_bus_close(bus); /* the leak checker sees what stays */

    EXPECT_EQ(out.printed(), "");
}

TEST(BusClose, RecyclesWhatWasPostedToABusThatNeverLooped)
{
    Job job, timed;
    qor_bus_t *bus = qor_bus_create(no_modules, 3);
    qor_context_task_t timer = timed.task(1, 1);
    qor_bus_run(bus, Job::run, &job, Job::recycle);
    qor_bus_timer_post(bus, &timer);

    qor_bus_close(bus);

    EXPECT_EQ(job.journal.text(), "recycle");
    EXPECT_EQ(timed.journal.text(), "recycle");
}

TEST_F(BusLoop, CloseWhileTheLoopRunsChangesNothing)
{
    qor_bus_run(bus, Job::run, &other, nullptr);
    ASSERT_TRUE(await([&] { return other.runs == 1; }));

    qor_bus_close(bus);

    EXPECT_EQ(out.printed(), line("close", "the loop is running."));
    EXPECT_EQ(qor_bus_quitting(bus), 0);
    qor_bus_run(bus, Job::run, &job, nullptr);
    EXPECT_TRUE(await([&] { return job.runs == 1; }));
}

namespace {

/* A module of the first phase that writes down what becomes of it. */
class NotingModule : public Module {
public:
    NotingModule(const std::string &name, Journal &journal) : Module(name)
    {
        reg = [=, &journal](qor_context_t *) { journal.add(name + ":reg"); };
        unreg = [=, &journal](qor_context_t *) { journal.add(name + ":unreg"); };
        init = [=, &journal](qor_context_t *) {
            journal.add(name + ":init");
            return 0;
        };
        uninit = [=, &journal](qor_context_t *) { journal.add(name + ":uninit"); };
    }
};
} // namespace

TEST(BusClose, TakesModulesDownInTheReverseOrderOfTheirStart)
{
    Output out;
    Journal journal;
    NotingModule a("a", journal), b("b", journal);
    {
        RunningBus looping(RunningBus::by_start, /* workers */ 1, {&a, &b});
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
        EXPECT_EQ(journal.text(), "a:reg b:reg b:init a:init");
        looping.quit();
        journal.clear();
        out.clear();
    }

    EXPECT_EQ(journal.text(), "a:unreg a:uninit b:unreg b:uninit");
    EXPECT_EQ(out.printed(), "");
    EXPECT_TRUE(list_empty(&context_head));
}

TEST(BusClose, FreesModulesThatFailedToComeUp)
{
    Output out;
    Journal journal;
    NotingModule a("a", journal), b("b", journal);
    b.init = [](qor_context_t *) { return -1; };
    {
        RunningBus looping(RunningBus::by_start, /* workers */ 1, {&a, &b});
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
        looping.quit();
        journal.clear();
    }

    EXPECT_EQ(journal.text(), "a:unreg a:uninit");
}

TEST(BusClose, RefusesWhatModulesPostOnTheWayDown)
{
    Output out;
    Journal journal;
    NotingModule a("a", journal);
    a.unreg = [&](qor_context_t *context) {
        const int32_t posted = qor_context_run(
            context, [](void *) -> void * { return nullptr; }, nullptr);
        journal.add(std::to_string(posted));
    };
    {
        RunningBus looping(RunningBus::by_start, /* workers */ 1, {&a});
        looping.start();
        ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    }

    EXPECT_EQ(journal.text(), "a:reg a:init -1 a:uninit");
}

TEST(BusClose, QuitsABusThatNobodyHasAskedToEnd)
{
    Output out;
    Journal journal;
    NotingModule a("a", journal);
    a.unreg = [&](qor_context_t *context) {
        const int32_t posted = qor_context_run(
            context, [](void *) -> void * { return nullptr; }, nullptr);
        journal.add(std::to_string(posted));
    };
    StillBus bus({&a});
    bus.run_all(); /* start-up */

    bus.close();

    EXPECT_EQ(journal.text(), "a:reg a:init -1 a:uninit");
}

TEST(BusQuit, LetsADeliveryGoThatWaitsForAStart)
{
    Output out;
    Journal journal;
    StillBus pumped{StillBus::bare};
    NotingModule module("slow", journal);
    Actor p(journal, "p");
    p.attach(pumped.get(), QOR_BUS_ROLE_USER);
    qor_context_t *slow = qor_context_create(&qor_core_context_class, &module.descriptor);
    qor_sched_delegate_create(pumped.get(), QOR_BUS_ROLE_USER, slow);
    qor_context_subscribe(slow, 0, nullptr);
    Sleeper sleeper;
    Thread delivering([&] {
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 1, 0, nullptr, 0);
        sleeper.here();
        EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    qor_bus_quit(pumped.get());
    delivering.join();

    EXPECT_EQ(out.count("lifecycle already STOP or DESTROY. RESUME failed."), 1);
    EXPECT_EQ(qor_core_context_type(slow)->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    qor_core_context_lifecycle_change(qor_core_context_type(slow),
                                      QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_context_destroy(slow);
}

TEST(BusQuit, LetsAStopGoThatWaitsForAPause)
{
    Output out;
    Journal journal;
    StillBus pumped{StillBus::bare};
    NotingModule module("busy", journal);
    qor_context_t *busy = qor_context_create(&qor_core_context_class, &module.descriptor);
    qor_core_context_t *core = qor_core_context_type(busy);
    qor_sched_delegate_create(pumped.get(), QOR_BUS_ROLE_USER, busy);
    qor_context_init(busy);
    qor_context_start(busy);
    Sleeper sleeper;
    Thread stopping([&] {
        sleeper.here();
        EXPECT_EQ(qor_core_context_lifecycle_stop(core), -1);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    qor_bus_quit(pumped.get());
    stopping.join();

    EXPECT_EQ(out.printed(), err_line("qor_core_context", "qor_core_context_lifecycle_stop",
                                      "lifecycle already STOP. STOP failed."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_START);
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_context_destroy(busy);
}
