/* SPDX-License-Identifier: Apache-2.0 */
/* Contexts, registrations and buses that go away in the midst of traffic. */
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

constexpr int32_t topic = 2;
char payload[24];

/* Two modules that keep asking the topic, each from a thread of its own besides. */
class Fire : public testing::Test {
protected:
    Fire()
    {
        for (Module *client : {&left, &right}) {
            client->handle = [this](qor_context_t *context, qor_context_msg_t *msg) {
                if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
                    responses++;
                    under_way--;
                    ask(context);
                }
                return 0;
            };
        }
    }

    void ask(qor_context_t *context)
    {
        under_way++;
        if (qor_context_req_ret(context, topic, payload, sizeof(payload), 8) < 0) {
            under_way--;
        }
    }

    /* Begins to ask once the clients have started; until cease(). */
    void open_fire()
    {
        responses = under_way = 0;
        for (Module *client : {&left, &right}) {
            threads.emplace_back([this, client] {
                while (!ceased) {
                    if (under_way < 32) {
                        ask(client->context());
                    }
                    std::this_thread::yield();
                }
            });
        }
    }

    void cease()
    {
        ceased = true;
        for (Thread &thread : threads) {
            thread.join();
        }
        threads.clear();
        ceased = false;
    }

    static void join(qor_context_t *context)
    {
        qor_context_subscribe(context, topic, nullptr);
        qor_context_listen(context, topic, nullptr);
        qor_context_filter(context, topic, nullptr);
    }

    static void leave(qor_context_t *context)
    {
        qor_context_unsubscribe(context, topic);
        /* On the wrapper: the module's own call removes a subscription instead. */
        qor_context_handler_unlisten(&Module::of(context).core()->base, topic);
        qor_context_unfilter(context, topic);
    }

    Output out;
    std::atomic<int> responses{0};
    std::atomic<int> under_way{0}; /* requests without response yet */
    std::atomic<bool> ceased{false};
    std::vector<Thread> threads;
    Module left{"left"}, right{"right"};
};

} // namespace

TEST_F(Fire, AModuleFailsWhileItIsAsked)
{
    for (int round = 0; round < 15; round++) {
        Module failing("failing");
        Door door;
        failing.reg = join;
        failing.init = [&](qor_context_t *) {
            door.pass();
            return -1;
        };
        RunningBus bus({&left, &right, &failing});
        ASSERT_TRUE(await([&] { return left.started() && right.started(); }));
        ASSERT_TRUE(door.await(1));
        open_fire();

        door.open();

        EXPECT_TRUE(
            await([&] { return failing.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));
        cease();
    }
}

TEST_F(Fire, AModuleFailsWithRequestsTasksAndTimersUnderWay)
{
    static std::atomic<int> recycled;
    recycled = 0;
    for (int round = 1; round <= 10; round++) {
        Module server("server"), failing("failing");
        server.reg = join;
        failing.init = [&](qor_context_t *context) {
            if (!await([&] { return server.started(); })) {
                return -2;
            }
            for (int i = 0; i < 20; i++) {
                qor_context_req_ret(context, topic, payload, sizeof(payload), 8);
            }
            for (int i = 0; i < 70; i++) { /* more than its queue takes */
                qor_context_task_t task = {};
                qor_context_task_init(
                    &task, context, "t", 100000 + i, [](void *arg) { return arg; }, nullptr);
                task.async = i % 2;
                task.delay = i % 3; /* at once, or in 1 or 2 ms */
                task.recycle = [](void *) { recycled++; };
                EXPECT_EQ(qor_context_handler_post(context, &task), 0);
            }
            return -1;
        };
        RunningBus bus({&server, &failing});

        EXPECT_TRUE(
            await([&] { return failing.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));
        if (round % 2) { /* at times nothing is left by the end, at times something is */
            EXPECT_TRUE(await([&] { return recycled == 70 * round; }));
        }
        bus.end();

        EXPECT_EQ(recycled, 70 * round);
    }
}

TEST_F(Fire, AModuleJoinsAndLeavesWhileItsTopicIsAsked)
{
    Module steady("steady"), restless("restless");
    steady.reg = join;
    RunningBus bus({&left, &right, &steady, &restless});
    ASSERT_TRUE(bus.up());
    open_fire();

    for (int round = 0; round < 300; round++) {
        join(restless.context());
        std::this_thread::yield();
        leave(restless.context());
    }

    EXPECT_TRUE(await([&] { return responses > 100; }));
    cease();
}

TEST_F(Fire, AHandlerRemovesItsOwnRegistrationsWhileItsTopicIsAsked)
{
    Module steady("steady"), restless("restless");
    steady.reg = join;
    std::mutex one_at_a_time; /* or else joining would get ahead of leaving */
    restless.handle = [&](qor_context_t *context, qor_context_msg_t *) {
        std::lock_guard<std::mutex> lock(one_at_a_time);
        leave(context);
        join(context);
        return 0;
    };
    RunningBus bus({&left, &right, &steady, &restless});
    ASSERT_TRUE(bus.up());
    open_fire();
    join(restless.context());

    EXPECT_TRUE(await([&] { return responses > 500; }));
    cease();
}

TEST_F(Fire, TheBusEndsWhileItIsAsked)
{
    for (int round = 0; round < 15; round++) {
        Module server("server");
        server.reg = join;
        RunningBus bus({&left, &right, &server});
        ASSERT_TRUE(bus.up());
        open_fire();
        EXPECT_TRUE(await([&] { return responses > 20; }));

        EXPECT_EQ(bus.quit(), 0);

        cease(); /* requests of foreign threads go on until here, and are refused */
    }
}

TEST_F(Fire, TasksAreCancelledWhileTheyRun)
{
    Module worker("worker");
    worker.descriptor.refcount = 3;
    RunningBus bus({&worker});
    ASSERT_TRUE(bus.up());
    static std::atomic<int> finished;
    finished = 0;
    int cancelled = 0;

    for (int i = 0; i < 3000; i++) {
        const auto count = [](void *arg) -> void * {
            finished++;
            return arg;
        };
        const int32_t session = i % 2 ? qor_context_run(worker.context(), count, nullptr)
                                      : qor_context_timer(worker.context(), count, nullptr, 1);
        ASSERT_GE(session, 0);
        if (i % 3 == 0) {
            cancelled += qor_context_timer_cancel(worker.context(), session) == 0;
        }
        if (i % 16 == 15) {
            EXPECT_TRUE(await([&] { return finished + cancelled == i + 1; }));
        }
    }

    EXPECT_TRUE(await([&] { return finished + cancelled == 3000; }));
    bus.end();
    EXPECT_EQ(finished + cancelled, 3000);
}

TEST_F(Fire, TheLifecycleChangesWhileTheContextIsEntered)
{
    Module server("server");
    server.reg = join;
    RunningBus bus({&left, &right, &server});
    ASSERT_TRUE(bus.up());
    open_fire();

    for (int round = 0; round < 500; round++) {
        qor_core_context_lifecycle_change(server.core(), QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
        std::this_thread::yield();
    }
    qor_core_context_lifecycle_change(server.core(), QOR_USER_CONTEXT_LIFECYCLE_STOP);
    const int before = responses;

    EXPECT_TRUE(await([&] { return out.count("no one subscribe, source:left") > 0; }));
    qor_core_context_lifecycle_change(server.core(), QOR_USER_CONTEXT_LIFECYCLE_RESUME);
    EXPECT_TRUE(await([&] { return responses > before + 100; }));
    cease();
}
