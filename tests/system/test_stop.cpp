/* SPDX-License-Identifier: Apache-2.0 */
/* The end of a bus: where it may be asked for, what it waits for, what becomes of work in flight,
 * and in which order things are taken down. */
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

constexpr int32_t topic = 1;

/* A module with a console. The console is the test's. */
class Talker : public Module {
public:
    explicit Talker(const std::string &name, uint32_t pure = 1) : Module(name, pure)
    {
        descriptor.console = [](qor_context_t *context) {
            return static_cast<Talker &>(Module::of(context)).console();
        };
        unreg = [this](qor_context_t *) { leaving = true; };
    }

    std::function<int32_t()> console;
    std::atomic<bool> leaving{false}; /* its unreg has been called */
};

class Stop : public testing::Test {
protected:
    static void serve(Module &module)
    {
        module.reg = [](qor_context_t *context) {
            EXPECT_EQ(qor_context_subscribe(context, topic, nullptr), 0);
        };
    }

    /* Writes down each step of a module. */
    void trace(Module &module, const std::string &name)
    {
        module.reg = [this, name](qor_context_t *) { journal.add(name + ".reg"); };
        module.unreg = [this, name](qor_context_t *) { journal.add(name + ".unreg"); };
        module.uninit = [this, name](qor_context_t *) { journal.add(name + ".uninit"); };
    }

    Output out;
    Journal journal;
    Ledger ledger;
};

} // namespace

/* ---- close ---- */

TEST_F(Stop, AConsoleMayGoOnAskingAModuleThatIsTakenDown)
{
    Talker asker("asker");
    Module asked("asked", 0);
    std::atomic<int> requests{0};
    asker.console = [&] {
        while (!asker.leaving) {
            qor_context_req(asker.context(), topic, nullptr, 0);
            requests++;
            usleep(100);
        }
        return 0;
    };
    serve(asked);
    asked.unreg = [&](qor_context_t *) {
        const int before = requests;
        EXPECT_TRUE(await([&] { return requests > before + 2; }));
        EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_RESUME); /* was PAUSE */
    };
    RunningBus bus({&asker, &asked});
    ASSERT_TRUE(bus.up());

    bus.end();

    EXPECT_EQ(out.count("STOP failed"), 0);
    EXPECT_EQ(out.count("not ready to destroy"), 0);
}

TEST_F(Stop, AConsoleIsAwaitedWhateverTheModuleHasMadeOfItsLifecycle)
{
    Talker module("module");
    std::atomic<bool> ended{false};
    module.console = [&] {
        EXPECT_TRUE(await([&] { return module.leaving.load(); }));
        usleep(20000);
        ended = true;
        return 0;
    };
    module.uninit = [&](qor_context_t *) { EXPECT_TRUE(ended); };
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    bus.quit();
    qor_core_context_lifecycle_change(module.core(), QOR_USER_CONTEXT_LIFECYCLE_STOP);

    bus.end();

    EXPECT_TRUE(ended);
}

/* ---- drain ---- */

TEST_F(Stop, ADrainUnderWayLeavesBeforeTheBusIsFreed)
{
    for (int round = 0; round < 100; round++) {
        Module module("module");
        RunningBus bus({&module});
        ASSERT_TRUE(bus.up());
        Door door;
        ledger.run(bus.get(), [&] { door.pass(); });
        ASSERT_TRUE(door.await(1));
        qor_bus_t *const raw = bus.get();
        Sleeper sleepers[3];
        std::vector<std::thread> drains;
        for (Sleeper &sleeper : sleepers) {
            drains.emplace_back([&] {
                sleeper.here();
                EXPECT_EQ(qor_bus_drain(raw, -1), -1);
            });
        }
        const auto all_sleep = [&] {
            return sleepers[0].sleeps() && sleepers[1].sleeps() && sleepers[2].sleeps();
        };
        ASSERT_TRUE(await([&] { /* twice: at first one may wait for a lock of another's */
                                return all_sleep() && all_sleep();
        }));
        qor_bus_quit(bus.get());
        door.open();

        bus.end(); /* a drain that still looks at the bus is reported by the sanitizers */

        for (std::thread &drain : drains) {
            drain.join();
        }
    }
}

TEST_F(Stop, ADrainByARecycleIsRefusedOnTheLoopThreadToo)
{
    struct Timed {
        qor_bus_t *bus;
        std::atomic<int> refused, recycles;
    };
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Timed timed = {bus.get(), {0}, {0}};
    qor_context_task_t timer = {};
    qor_context_task_init(
        &timer, nullptr, nullptr, 1, [](void *) -> void * { return nullptr; }, &timed);
    timer.delay = 1;
    timer.recycle = [](void *arg) {
        Timed &self = *static_cast<Timed *>(arg);
        self.refused += qor_bus_drain(self.bus, 30000) < 0;
        self.recycles++;
    };
    const auto begun = std::chrono::steady_clock::now();

    ASSERT_EQ(qor_bus_timer_post(bus.get(), &timer), 0);

    EXPECT_TRUE(await([&] { return timed.recycles == 2; })); /* the loop's, and the worker's */
    EXPECT_EQ(timed.refused, 2);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(30));
    EXPECT_EQ(out.count("a task of the bus would wait for itself."), 2);
}

/* ---- quit: where it may come from ---- */

namespace {

/* A place of the bus's at which a module does something. */
struct Place {
    const char *name;
    /* Makes the module, which is up unless the place is before that, call do_it there once. */
    void (*arrange)(Module &, qor_bus_t *, std::function<void()> &);
};

void call(void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
}

void *run(void *arg)
{
    call(arg);
    return nullptr;
}

/* Has a request handled whose passage calls do_it at the message type that is given. */
template <int32_t type> void at_message(Module &module, qor_bus_t *, std::function<void()> &do_it)
{
    module.handle = [&do_it](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == type) {
            do_it();
        }
        return 0;
    };
    qor_context_subscribe(module.context(), topic, nullptr);
    qor_context_filter(module.context(), topic, nullptr);
    qor_context_listen(module.context(), topic, nullptr);
    (void)qor_context_req(module.context(), topic, nullptr, 0); /* fails if a filter quits before */
}

const Place all_places[] = {
    {"Task",
     [](Module &m, qor_bus_t *, std::function<void()> &do_it) {
         EXPECT_GE(qor_context_run(m.context(), run, &do_it), 0);
     }},
    {"AsyncTask",
     [](Module &m, qor_bus_t *, std::function<void()> &do_it) {
         qor_context_task_t task = {};
         qor_context_task_init(&task, nullptr, nullptr, 1, run, &do_it);
         task.async = 1;
         EXPECT_GE(qor_context_handler_post(m.context(), &task), 0);
     }},
    {"TaskOfTheBus",
     [](Module &, qor_bus_t *bus, std::function<void()> &do_it) {
         EXPECT_EQ(qor_bus_run(bus, run, &do_it, nullptr), 0);
     }},
    {"Timer",
     [](Module &m, qor_bus_t *, std::function<void()> &do_it) {
         EXPECT_GE(qor_context_timer(m.context(), run, &do_it, 2), 0);
     }},
    {"TimerOfTheBus",
     [](Module &, qor_bus_t *bus, std::function<void()> &do_it) {
         qor_context_task_t task = {};
         qor_context_task_init(&task, nullptr, nullptr, 1, run, &do_it);
         task.delay = 2;
         EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
     }},
    {"RecycleOnTheLoopThread",
     [](Module &, qor_bus_t *bus, std::function<void()> &do_it) {
         qor_context_task_t task = {};
         qor_context_task_init(
             &task, nullptr, nullptr, 1, [](void *) -> void * { return nullptr; }, &do_it);
         task.delay = 2;
         task.recycle = call;
         EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
     }},
    {"RequestHandler", at_message<QOR_CONTEXT_MSG_REQUEST>},
    {"ResponseHandler", at_message<QOR_CONTEXT_MSG_RESPONSE>},
    {"FilterBefore", at_message<QOR_CONTEXT_MSG_FILTER_BEFORE>},
    {"FilterAfter", at_message<QOR_CONTEXT_MSG_FILTER_AFTER>},
    {"ListenerBefore", at_message<QOR_CONTEXT_MSG_LISTEN_BEFORE>},
    {"ListenerAfter", at_message<QOR_CONTEXT_MSG_LISTEN_AFTER>},
    {"SignalThread",
     [](Module &, qor_bus_t *, std::function<void()> &do_it) {
         sigset_t set, before;
         sigemptyset(&set);
         sigaddset(&set, SIGTERM);
         pthread_sigmask(SIG_BLOCK, &set, &before);
         std::thread waiting([&] {
             int signal = 0;
             EXPECT_EQ(sigwait(&set, &signal), 0);
             do_it();
         });
         EXPECT_EQ(pthread_kill(waiting.native_handle(), SIGTERM), 0);
         waiting.join();
         pthread_sigmask(SIG_SETMASK, &before, nullptr);
     }},
};

class StopFrom : public Stop, public testing::WithParamInterface<Place> {};

INSTANTIATE_TEST_SUITE_P(All, StopFrom, testing::ValuesIn(all_places),
                         [](const auto &test) { return test.param.name; });

} // namespace

TEST_P(StopFrom, QuitEndsTheLoop)
{
    std::function<void()> quit;
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    std::atomic<int> quits{0};
    quit = [&] {
        EXPECT_EQ(qor_bus_quit(bus.get()), 0);
        EXPECT_EQ(qor_bus_quit(bus.get()), 0); /* again does no harm */
        EXPECT_EQ(qor_bus_quitting(bus.get()), 1);
        quits++;
    };

    GetParam().arrange(module, bus.get(), quit);

    EXPECT_TRUE(await([&] { return quits > 0; }));
    EXPECT_EQ(bus.quit(), 0);
    bus.end();
    EXPECT_TRUE(list_empty(&context_head));
}

TEST_F(Stop, QuitMayComeFromAModulesRegAndInit)
{
    for (const bool in_reg : {true, false}) {
        Module module("module"), other("other"), later("later", 0);
        qor_bus_t *quitting = nullptr;
        std::atomic<bool> later_init{false};
        later.init = [&](qor_context_t *) {
            later_init = true;
            return 0;
        };
        const auto quit = [&] { EXPECT_EQ(qor_bus_quit(quitting), 0); };
        module.reg = [&](qor_context_t *) { in_reg ? quit() : void(); };
        module.init = [&](qor_context_t *) {
            in_reg ? void() : quit();
            return 0;
        };
        qor_context_module_t *table[] = {&module.descriptor, &other.descriptor, &later.descriptor,
                                         nullptr};
        quitting = qor_bus_create(table, 3);

        EXPECT_EQ(qor_bus_loop(quitting), 0);
        qor_bus_close(quitting);

        EXPECT_FALSE(later_init); /* its turn never came */
        EXPECT_TRUE(list_empty(&context_head));
        EXPECT_EQ(qor_bus_module.arg, nullptr);
        EXPECT_EQ(qor_mng_module.arg, nullptr);
    }
}

TEST_F(Stop, AfterQuitNothingIsTakenOrBegun)
{
    Module module("module");
    RunningBus bus({&module}, 3, 1);
    ASSERT_TRUE(bus.up());
    Door door;
    std::atomic<int> begun{0};
    ledger.run(bus.get(), [&] { door.pass(); });
    ASSERT_TRUE(door.await(1));
    for (int32_t i = 0; i < 5; i++) {
        ledger.run(bus.get(), [&] { begun++; });
        ledger.post(module.context(), 100 + i, 0, i % 2, [&] { begun++; });
        ledger.post(module.context(), 200 + i, 3600000, 0, [&] { begun++; });
        ledger.timer(bus.get(), 300 + i, 3600000, [&] { begun++; });
    }

    qor_bus_quit(bus.get());

    EXPECT_EQ(ledger.run(bus.get(), nullptr), -1);
    EXPECT_EQ(ledger.timer(bus.get(), 1, 1, nullptr), -1);
    EXPECT_EQ(ledger.post(module.context(), 1, 0, 1, nullptr), -1);
    EXPECT_EQ(qor_context_req(module.context(), topic, nullptr, 0), -1);
    door.open();
    bus.end();
    EXPECT_EQ(begun, 0);
    EXPECT_EQ(ledger.errors(), "");
    EXPECT_EQ(ledger.sums().ran, 1);
    EXPECT_EQ(ledger.sums().discarded, 20);
}

TEST_F(Stop, ADueTimerOfTheBusIsRecycledOnceMoreAndOneThatIsNotDueOnce)
{
    struct Timed {
        std::atomic<int> recycles{0};
    } due, waiting;
    Module module("module");
    RunningBus bus({&module}, 3, 1);
    ASSERT_TRUE(bus.up());
    Door door;
    ledger.run(bus.get(), [&] { door.pass(); });
    ASSERT_TRUE(door.await(1));
    const auto post = [&](Timed &timed, int32_t delay) {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, nullptr, nullptr, 1,
            [](void *) -> void * {
                ADD_FAILURE();
                return nullptr;
            },
            &timed);
        task.delay = delay;
        task.recycle = [](void *arg) { static_cast<Timed *>(arg)->recycles++; };
        EXPECT_EQ(qor_bus_timer_post(bus.get(), &task), 0);
    };
    post(due, 1);
    post(waiting, 3600000);
    ASSERT_TRUE(await([&] { return due.recycles == 1; })); /* its task is queued now */

    qor_bus_quit(bus.get());
    door.open();
    bus.quit();

    EXPECT_EQ(due.recycles, 2);
    EXPECT_EQ(waiting.recycles, 1);
}

TEST_F(Stop, TheLoopWaitsForATaskThatDoesNotReturnAndTheMonitorGoesOnNamingIt)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    static Door *released;
    Door door;
    released = &door;
    std::atomic<bool> returned{false};
    ASSERT_GE(qor_context_run_name(
                  module.context(), "stuck",
                  [](void *) -> void * {
                      released->pass();
                      return nullptr;
                  },
                  nullptr),
              0);
    ASSERT_TRUE(door.await(1));
    std::thread ending([&] {
        bus.quit();
        returned = true;
    });
    ASSERT_TRUE(await([&] { return qor_bus_quitting(bus.get()) == 1; }));

    /* Five seconds after its start, and every second from then on. */
    EXPECT_TRUE(await([&] { return out.count("MONITOR: stuck, session = ") >= 2; }));
    EXPECT_FALSE(returned);
    door.open();
    ending.join();
    bus.end();

    EXPECT_EQ(out.count("[err]"), 0);
}

TEST_F(Stop, AModuleThatKeepsPostingToItselfDoesNotKeepTheBusAlive)
{
    Module module("module");
    module.descriptor.refcount = 2;
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    std::function<void()> again;
    std::atomic<int> runs{0};
    again = [&] {
        runs++;
        ledger.post(module.context(), 7, 0, 0, again);
    };
    again();
    ASSERT_TRUE(await([&] { return runs > 100; }));

    EXPECT_EQ(bus.quit(), 0);
    bus.end();

    EXPECT_EQ(ledger.errors(), "");
}

/* ---- the checks ---- */

TEST_F(Stop, EachFunctionReportsANullBus)
{
    EXPECT_EQ(qor_bus_quit(nullptr), -1);
    EXPECT_EQ(qor_bus_quitting(nullptr), -1);
    EXPECT_EQ(qor_bus_drain(nullptr, 0), -1);
    qor_bus_close(nullptr);

    const std::string text = "!(_this) == true.";
    EXPECT_EQ(out.printed(), err_line("qor_bus", "qor_bus_quit", text) +
                                 err_line("qor_bus", "qor_bus_quitting", text) +
                                 err_line("qor_bus", "qor_bus_drain", text) +
                                 err_line("qor_bus", "qor_bus_close", text));
}

TEST_F(Stop, CloseByATaskIsRefusedEvenAfterQuit)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Door door;
    out.clear();

    ledger.run(bus.get(), [&] {
        qor_bus_close(bus.get());
        qor_bus_quit(bus.get());
        qor_bus_close(bus.get());
    });

    EXPECT_TRUE(await([&] { return qor_bus_quitting(bus.get()) == 1; }));
    EXPECT_EQ(bus.quit(), 0);
    const std::string line = err_line("qor_bus", "qor_bus_close", "the loop is running.");
    EXPECT_EQ(out.printed(), line + line);
}

/* ---- close: order and what is left ---- */

TEST_F(Stop, CloseTakesModulesDownInReverseOrderOfTheirStartWithTheConsolesEnd)
{
    Talker early("early"), late("late", 0);
    trace(early, "early");
    trace(late, "late");
    for (Talker *talker : {&early, &late}) {
        const std::string name = talker->descriptor.name;
        const auto unreg = talker->unreg;
        talker->unreg = [=](qor_context_t *context) {
            EXPECT_EQ(talker->lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
            unreg(context);
            talker->leaving = true;
        };
        talker->console = [this, talker, name] {
            EXPECT_TRUE(await([&] { return talker->leaving.load(); }));
            journal.add(name + ".console");
            return 0;
        };
        talker->uninit = [this, talker, name](qor_context_t *) {
            EXPECT_EQ(talker->lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_STOP);
            journal.add(name + ".uninit");
        };
    }
    RunningBus bus({&early, &late});
    ASSERT_TRUE(bus.up());
    bus.quit();
    journal.clear();
    out.clear();

    bus.end();

    EXPECT_EQ(journal.text(), "late.unreg late.console late.uninit "
                              "early.unreg early.console early.uninit");
    EXPECT_EQ(out.printed(), "");
    EXPECT_TRUE(list_empty(&context_head));
}

TEST_F(Stop, CloseFreesModulesOfAllFates)
{
    Module failing("failing"), stuck("stuck"), good("good"), never("never", 0);
    Door door;
    trace(failing, "failing");
    trace(never, "never");
    failing.init = [](qor_context_t *) { return -1; };
    stuck.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    /* One worker, and init tasks come in reverse order: the stuck module's begins when those of the
     * others are over, to the last step. */
    RunningBus bus({&stuck, &failing, &good, &never}, 3, 1);
    ASSERT_TRUE(door.await(1));
    EXPECT_TRUE(good.started());
    EXPECT_EQ(failing.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    qor_bus_quit(bus.get());
    door.open();
    bus.quit();
    EXPECT_EQ(journal.text(), "failing.reg failing.unreg failing.uninit never.reg");

    bus.end(); /* the leak checker sees what stays */

    EXPECT_EQ(journal.text(), "failing.reg failing.unreg failing.uninit never.reg "
                              "never.unreg never.uninit");

    EXPECT_TRUE(list_empty(&context_head));
    EXPECT_EQ(qor_bus_module.arg, nullptr);
    EXPECT_EQ(qor_mng_module.arg, nullptr);
}

TEST_F(Stop, ACleanRunPrintsNoErrorAndAnotherBusMayFollow)
{
    for (int round = 0; round < 3; round++) {
        Module module("module"), later("later", 0);
        serve(module);
        std::atomic<int> answered{0};
        later.handle = [&](qor_context_t *, qor_context_msg_t *) {
            answered++;
            return 0;
        };
        RunningBus bus({&module, &later});
        ASSERT_TRUE(bus.up());
        for (int i = 0; i < 20; i++) {
            EXPECT_GE(qor_context_req(later.context(), topic, nullptr, 0), 0);
        }

        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        EXPECT_EQ(answered, 20); /* requests, private queues and responses were awaited */
        bus.end();
    }
    EXPECT_EQ(out.count("[err]"), 0);
    EXPECT_EQ(out.count("[wrn]"), 0);
}

/* ---- drain: what it waits for ---- */

TEST_F(Stop, DrainWaitsForPrivateQueuesAndNotForTheirTimers)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    std::atomic<int> runs{0};
    for (int32_t i = 0; i < 40; i++) { /* one after the other, each a while */
        ledger.post(module.context(), i, 0, 0, [&] {
            usleep(500);
            runs++;
        });
    }
    ledger.post(module.context(), 99, 3600000, 0, nullptr);

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);

    EXPECT_EQ(runs, 40);
    EXPECT_EQ(qor_bus_drain(bus.get(), 0), 0); /* one look */
    bus.end();
    EXPECT_EQ(ledger.errors(), "");
}

TEST_F(Stop, DrainOfABusyBusLooksOnceAndWaitsAsLongAsItIsTold)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Door door;
    ledger.run(bus.get(), [&] { door.pass(); });
    ASSERT_TRUE(door.await(1));

    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(qor_bus_drain(bus.get(), 0), -1);
    EXPECT_EQ(qor_bus_drain(bus.get(), 40), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(39));

    door.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), -1), 0);
    qor_bus_quit(bus.get());
    EXPECT_EQ(qor_bus_drain(bus.get(), -1), -1);
}
