/* SPDX-License-Identifier: Apache-2.0 */
/* A start that does not wait for itself always happens, however few workers there are and whatever
 * they wait for. */
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "still_bus.hpp"
#include "thread.hpp"
#include "thread_call.hpp"

namespace {

/* Modules that each wait in their init until the one before has started. The newest init is begun
 * first, so all of them wait at once for the very last. */
class Chain {
public:
    explicit Chain(int length)
    {
        for (int i = 0; i < length; i++) {
            modules_.push_back(std::make_unique<Module>("link" + std::to_string(i)));
            Module &module = *modules_.back();
            module.reg = [i](qor_context_t *c) { qor_context_subscribe(c, i, nullptr); };
            if (i > 0) {
                module.init = [i](qor_context_t *c) {
                    return qor_context_x_req(c, i - 1, nullptr, 0) < 0 ? -1 : 0;
                };
            }
        }
    }

    std::vector<Module *> modules() const
    {
        std::vector<Module *> all;
        for (const auto &module : modules_) {
            all.push_back(module.get());
        }
        return all;
    }

    bool started() const
    {
        for (const auto &module : modules_) {
            if (!module->started()) {
                return false;
            }
        }
        return true;
    }

private:
    std::vector<std::unique_ptr<Module>> modules_;
};

} // namespace

class Starts : public testing::TestWithParam<uint32_t> {};

TEST_P(Starts, AChainOfTwentyInitsComesUp)
{
    Chain chain(20);
    RunningBus bus(chain.modules(), 20, GetParam());

    EXPECT_TRUE(await([&] { return chain.started(); }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}

/* The first phase keeps a topic busy that a module of the second listens on: listener tasks reach
 * its registration before its init has got a worker. */
TEST_P(Starts, AFloodedListenerComesUp)
{
    enum { FLOODED };
    Module source("source");
    Module sink("sink");
    Module listener("listener", 0);
    std::atomic<bool> over{false};
    source.init = [&](qor_context_t *c) {
        return qor_context_runx(
            c,
            [](qor_context_t *self, int32_t, void *arg) -> void * {
                for (int i = 0; i < 20; i++) {
                    qor_context_req(self, FLOODED, nullptr, 0);
                }
                if (!static_cast<std::atomic<bool> *>(arg)->load()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    qor_context_timerx(
                        self,
                        [](qor_context_t *again, int32_t, void *) -> void * {
                            qor_context_req(again, FLOODED, nullptr, 0);
                            return nullptr;
                        },
                        nullptr, 1);
                }
                return nullptr;
            },
            &over);
    };
    sink.reg = [](qor_context_t *c) { qor_context_subscribe(c, FLOODED, nullptr); };
    std::atomic<int> heard{0};
    listener.reg = [&](qor_context_t *c) {
        qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                           QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
        qor_context_listen(c, FLOODED, &before);
        for (int i = 0; i < 40; i++) { /* more than there are workers */
            qor_context_req(c, FLOODED, nullptr, 0);
        }
    };
    listener.handle = [&](qor_context_t *, qor_context_msg_t *) {
        heard++;
        return 0;
    };
    RunningBus bus({&source, &sink, &listener}, 1, GetParam());

    EXPECT_TRUE(await([&] { return listener.started() && heard >= 40; }));
    over = true;
}

TEST_P(Starts, AThreadOfTheApplicationMayWait)
{
    Module asked("asked");
    Module blocker("blocker");
    Door door;
    blocker.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 1, nullptr); };
    /* Newest first: this init is the one that the workers begin. */
    blocker.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    RunningBus bus({&asked, &blocker}, 2, 1);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(qor_context_x_req(blocker.context(), 1, nullptr, 0), 0);

    EXPECT_TRUE(asked.started());
    EXPECT_FALSE(blocker.started());
    door.open();
    EXPECT_TRUE(await([&] { return blocker.started(); }));
}

TEST_P(Starts, AConsoleMayWait)
{
    const int workers = static_cast<int>(GetParam());
    struct Speaker : Module {
        Speaker(Door &at, int count) : Module("speaker"), door(at), blockers(count)
        {
            descriptor.console = [](qor_context_t *c) -> int32_t {
                Speaker &self = static_cast<Speaker &>(Module::of(c));
                EXPECT_TRUE(self.door.await(self.blockers));
                self.answer = qor_context_x_req(c, 0, nullptr, 0);
                return 0;
            };
        }
        Door &door;
        const int blockers;
        std::atomic<int32_t> answer{1};
    };
    Door door;
    Module asked("asked");
    std::vector<std::unique_ptr<Module>> blockers; /* one for each worker */
    Speaker speaker(door, workers);
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    std::vector<Module *> modules = {&asked};
    for (int i = 0; i < workers; i++) {
        blockers.push_back(std::make_unique<Module>("blocker" + std::to_string(i)));
        blockers.back()->init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
        modules.push_back(blockers.back().get());
    }
    modules.push_back(&speaker); /* its init is begun first, those of the blockers next */
    RunningBus bus(modules, 1, GetParam());

    EXPECT_TRUE(await([&] { return speaker.answer == 0; }));
    EXPECT_TRUE(asked.started());
    EXPECT_FALSE(blockers[0]->started());
    door.open();
    EXPECT_TRUE(bus.up());
}

TEST_P(Starts, WaitersAreToldOfAFailedInit)
{
    Output out;
    Module asked("asked");
    Module asker("asker");
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    Sleeper waiting;
    asked.init = [&](qor_context_t *) {
        EXPECT_TRUE(await([&] { return waiting.sleeps(); }));
        return -1;
    };
    std::atomic<int32_t> answer{1};
    asker.init = [&](qor_context_t *c) {
        waiting.here();
        answer = qor_context_x_req(c, 0, nullptr, 0);
        return 0;
    };
    RunningBus bus({&asked, &asker}, 1, GetParam());

    EXPECT_TRUE(await([&] { return asker.started(); }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(answer, -1);
    EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(out.count("RESUME failed."), 1);
    EXPECT_EQ(out.count("resume failed. context = asked"), 1);
    EXPECT_EQ(out.count("context init failed."), 1);
}

TEST_P(Starts, AnInitThatManyWaitForIsBegunOnce)
{
    Module asked("asked");
    Module blocker("blocker");
    Door door;
    std::atomic<int> inits{0};
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asked.init = [&](qor_context_t *) {
        inits++;
        return 0;
    };
    blocker.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    RunningBus bus({&asked, &blocker}, 1, GetParam());
    ASSERT_TRUE(door.await(1));
    std::vector<ThreadCall> answers;

    for (int i = 0; i < 8; i++) {
        answers.emplace_back([&] { return qor_context_x_req(blocker.context(), 0, nullptr, 0); });
    }

    for (ThreadCall &answer : answers) {
        EXPECT_EQ(answer.get(), 0);
    }
    door.open();
    EXPECT_TRUE(bus.up());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(inits, 1);
}

INSTANTIATE_TEST_SUITE_P(Workers, Starts, testing::Values(1, 2, 5),
                         testing::PrintToStringParamName());

TEST(StartsOfOneWorker, AChainOfTwentyInitsComesUpOnSmallStacks)
{
    Chain chain(20);
    StillBus bus(chain.modules(), 20);
    qor_bus_thread_num_set(bus.get(), 1);
    qor_bus_thread_stack_size_set(bus.get(), 64 * 1024);
    Thread loop([&] { qor_bus_loop(bus.get()); });

    EXPECT_TRUE(await([&] { return chain.started(); }));

    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    qor_bus_quit(bus.get());
    loop.join();
}
