/* SPDX-License-Identifier: Apache-2.0 */
/* Threads of the library that somebody cancels: none of them ends by it. */
#include <pthread.h>

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "thread_exit_fixture.hpp"

namespace {

/* The state that a thread has now. */
int cancel_state()
{
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state;
}

/* Runs a task on each worker at once, which stores its thread, and then one more on each. */
class Workers {
public:
    explicit Workers(uint32_t number) : number_(number) {}

    void store(qor_bus_t *bus)
    {
        for (uint32_t i = 0; i < number_; i++) {
            ASSERT_EQ(qor_bus_run(bus, note, this, nullptr), 0);
        }
        ASSERT_TRUE(door_.await(static_cast<int>(number_)));
    }

    void let_go() { door_.open(); }

    std::vector<pthread_t> threads;
    std::vector<int> states;

private:
    static void *note(void *arg)
    {
        Workers &self = *static_cast<Workers *>(arg);
        {
            std::lock_guard<std::mutex> lock(self.mutex_);
            self.threads.push_back(pthread_self());
            self.states.push_back(cancel_state());
        }
        self.door_.pass();
        pthread_testcancel();
        return nullptr;
    }

    const uint32_t number_;
    std::mutex mutex_;
    Door door_;
};

/* The caller of a loop: what it finds when the loop has returned, and how it ends. */
struct Caller {
    qor_bus_t *bus;
    int state; /* its own */
    std::atomic<int> result{1}, state_after{-1};
    std::atomic<bool> goes_on{false};

    static void *run(void *arg)
    {
        Caller &self = *static_cast<Caller *>(arg);
        pthread_setcancelstate(self.state, nullptr);
        self.result = qor_bus_loop(self.bus);
        self.state_after = cancel_state();
        pthread_testcancel();
        self.goes_on = true;
        return arg;
    }
};

} // namespace

TEST(ThreadCancel, WorkersGoOn)
{
    Module module("module");
    RunningBus bus({&module}, 1, 3);
    ASSERT_TRUE(bus.up());
    const long before = threads();
    for (int round = 0; round < 10; round++) {
        Workers workers(3);
        workers.store(bus.get());
        for (pthread_t thread : workers.threads) {
            EXPECT_EQ(pthread_cancel(thread), 0);
        }
        workers.let_go(); /* they wait for the next task with the cancel pending */
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        EXPECT_EQ(workers.states, std::vector<int>(3, PTHREAD_CANCEL_DISABLE));
    }
    EXPECT_EQ(threads(), before);
    EXPECT_EQ(bus.quit(), 0);
}

TEST(ThreadCancel, AWorkerThatHasTakenAnothersPlaceGoesOn)
{
    Module module("module");
    std::atomic<int> left{0};
    RunningBus bus({&module}, 1, 1);
    ASSERT_TRUE(bus.up());
    qor_bus_run(
        bus.get(), [](void *count) -> void * { leave(*static_cast<std::atomic<int> *>(count)); },
        &left, nullptr);
    Workers workers(1);

    workers.store(bus.get());
    EXPECT_EQ(pthread_cancel(workers.threads[0]), 0);
    workers.let_go();

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(workers.states, std::vector<int>{PTHREAD_CANCEL_DISABLE});
    EXPECT_EQ(left, 1);
    EXPECT_EQ(bus.quit(), 0);
}

TEST(ThreadCancel, AHelperGoesOn)
{
    Module asked("asked"), asker("asker");
    Door door;
    std::atomic<pthread_t> helper{};
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asked.init = [&](qor_context_t *) {
        helper = pthread_self();
        EXPECT_TRUE(door.pass());
        pthread_testcancel();
        return 0;
    };
    asker.init = [](qor_context_t *c) { return qor_context_x_req(c, 0, nullptr, 0); };
    RunningBus bus({&asked, &asker}, 1, 1);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(pthread_cancel(helper), 0);
    door.open();

    EXPECT_TRUE(bus.up());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(bus.quit(), 0);
}

TEST(ThreadCancel, AConsoleGoesOn)
{
    struct Speaker : Module {
        Speaker() : Module("speaker")
        {
            descriptor.console = [](qor_context_t *c) -> int32_t {
                Speaker &self = static_cast<Speaker &>(Module::of(c));
                self.console = pthread_self();
                EXPECT_TRUE(self.door.pass());
                pthread_testcancel();
                self.over = qor_context_x_req(c, 0, nullptr, 0) == 0;
                return 0;
            };
        }
        Door door;
        std::atomic<pthread_t> console{};
        std::atomic<bool> over{false};
    };
    Module asked("asked");
    Speaker speaker;
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    RunningBus bus({&asked, &speaker}, 1, 1);
    ASSERT_TRUE(speaker.door.await(1));

    EXPECT_EQ(pthread_cancel(speaker.console), 0);
    speaker.door.open();

    EXPECT_TRUE(await([&] { return speaker.over.load(); }));
    bus.end();
}

/* Its own state comes back, and what was pending acts then. */
TEST(ThreadCancel, TheLoopReturnsBeforeItsCallerIsCancelled)
{
    Module module("module");
    StillBus bus({&module}, 1);
    Caller caller = {bus.get(), PTHREAD_CANCEL_ENABLE};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, Caller::run, &caller), 0);
    ASSERT_TRUE(await([&] { return module.started(); }));

    EXPECT_EQ(pthread_cancel(thread), 0);
    EXPECT_GE(qor_context_x_timerx(
                  module.context(),
                  [](qor_context_t *, int32_t, void *on) -> void * {
                      qor_bus_quit(static_cast<qor_bus_t *>(on));
                      return nullptr;
                  },
                  bus.get(), 20),
              0); /* the loop still serves its timers */
    void *result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);

    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(caller.result, 0);
    EXPECT_EQ(caller.state_after, PTHREAD_CANCEL_ENABLE);
    EXPECT_FALSE(caller.goes_on);
}

TEST(ThreadCancel, TheLoopLeavesACallerThatCannotBeCancelledAsItIs)
{
    StillBus bus;
    Caller caller = {bus.get(), PTHREAD_CANCEL_DISABLE};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, Caller::run, &caller), 0);
    EXPECT_EQ(pthread_cancel(thread), 0);
    qor_bus_quit(bus.get());
    void *result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);

    EXPECT_EQ(result, &caller);
    EXPECT_EQ(caller.state_after, PTHREAD_CANCEL_DISABLE);
    EXPECT_TRUE(caller.goes_on);
}
