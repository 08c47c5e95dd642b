/* SPDX-License-Identifier: Apache-2.0 */
/* Quitting a bus from every place there is, and what becomes of work in flight. */
#include <atomic>
#include <csignal>
#include <functional>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "running_bus.hpp"
#include "stop_fixture.hpp"
#include "thread.hpp"

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
         Thread waiting([&] {
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
    Thread ending([&] {
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
