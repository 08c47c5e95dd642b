/* SPDX-License-Identifier: Apache-2.0 */
/* A callback that ends its thread, whatever kind it is: what the thread held is given back, and the
 * bus goes on. */
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "running_bus.hpp"
#include "thread_exit_fixture.hpp"

namespace {

constexpr int32_t far = 600000; /* ms */

/* An asker, and a module that serves, hears and filters a topic. Two workers. */
struct Scene {
    Scene()
    {
        leaver.reg = [](qor_context_t *c) {
            qor_context_subscribe(c, 0, nullptr);
            qor_context_listen(c, 0, nullptr);
            qor_context_filter(c, 0, nullptr);
        };
        leaver.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == leaves_at.load()) {
                leaves_at = -1;
                leave(left);
            }
            return 0;
        };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == leaves_at.load()) {
                leaves_at = -1;
                leave(left);
            }
            answers.add(std::to_string(msg->ret));
            return 0;
        };
        bus.start();
    }

    static void *run(void *scene) { leave(static_cast<Scene *>(scene)->left); }
    static void *runx(qor_context_t *, int32_t, void *scene) { return run(scene); }
    qor_context_t *context() const { return leaver.context(); }

    /* A request by a task of the asker's. */
    void ask(int32_t type)
    {
        leaves_at = type;
        qor_context_x_runx(
            asker.context(),
            [](qor_context_t *c, int32_t, void *) -> void * {
                qor_context_req(c, 0, nullptr, 0);
                return nullptr;
            },
            nullptr);
    }

    /* The same, and it is handled by that task itself. */
    void ask_in_line(int32_t type)
    {
        leaves_at = type;
        qor_context_x_runx(
            asker.context(),
            [](qor_context_t *c, int32_t, void *) -> void * {
                qor_context_x_req(c, 0, nullptr, 0);
                return nullptr;
            },
            nullptr);
    }

    void fill()
    {
        for (int i = 0; i < 50; i++) {
            qor_context_x_timerx(context(), runx, nullptr, far);
        }
    }

    std::atomic<int> left{0};
    std::atomic<int32_t> leaves_at{-1}; /* type of the message whose handler leaves */
    Journal answers;
    Output out;
    Module asker{"asker"}, leaver{"leaver"};
    RunningBus bus{RunningBus::by_start, 2, {&asker, &leaver}, 1};
};

struct Place {
    const char *name;
    std::function<void(Scene &)> lead;
    const char *answers; /* what the asker has been told in the end */
    int32_t stay = 0;    /* tasks that stay in the leaver's queue */
};

void PrintTo(const Place &place, std::ostream *to)
{
    *to << place.name;
}

const std::vector<Place> places = {
    {"InATask", [](Scene &s) { qor_context_x_runx(s.context(), Scene::runx, &s); }, ""},
    {"InAnAsynchronousTask", [](Scene &s) { qor_context_runx(s.context(), Scene::runx, &s); }, ""},
    {"InATimer", [](Scene &s) { qor_context_x_timerx(s.context(), Scene::runx, &s, 1); }, ""},
    {"InAnAsynchronousTimer", [](Scene &s) { qor_context_timerx(s.context(), Scene::runx, &s, 1); },
     ""},
    {"InATaskPastTheQueue",
     [](Scene &s) {
         s.fill();
         qor_context_x_runx(s.context(), Scene::runx, &s);
     },
     "", 50},
    {"InATimerPastTheQueue",
     [](Scene &s) {
         s.fill();
         qor_context_x_timerx(s.context(), Scene::runx, &s, 1);
     },
     "", 50},
    {"InATaskOfTheBus", [](Scene &s) { qor_bus_run(s.bus.get(), Scene::run, &s, nullptr); }, ""},
    {"InATimerOfTheBus",
     [](Scene &s) {
         qor_context_task_t task = {};
         qor_context_task_init(&task, nullptr, "timer", 1, Scene::run, &s);
         task.delay = 1;
         qor_bus_timer_post(s.bus.get(), &task);
     },
     ""},
    {"InAHandler", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_REQUEST); }, "-1"},
    {"InAHandlerPastTheQueue",
     [](Scene &s) {
         s.fill();
         s.ask(QOR_CONTEXT_MSG_REQUEST);
     },
     "-1", 50},
    {"InASynchronousHandler", [](Scene &s) { s.ask_in_line(QOR_CONTEXT_MSG_REQUEST); }, ""},
    {"InAResponse", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_RESPONSE); }, ""},
    {"InAListenerBefore", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_LISTEN_BEFORE); }, "0"},
    {"InAListenerAfter", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_LISTEN_AFTER); }, "0"},
    {"InAFilterBefore", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_FILTER_BEFORE); }, ""},
    {"InAFilterAfter", [](Scene &s) { s.ask(QOR_CONTEXT_MSG_FILTER_AFTER); }, "-1"},
    {"InASynchronousFilter", [](Scene &s) { s.ask_in_line(QOR_CONTEXT_MSG_FILTER_AFTER); }, ""},
};

class ThreadExitPlaces : public testing::TestWithParam<Place> {};

} // namespace

TEST_P(ThreadExitPlaces, LeaveNothingBehind)
{
    Scene scene;
    ASSERT_TRUE(scene.bus.up());
    ASSERT_EQ(qor_bus_drain(scene.bus.get(), 60000), 0);
    const long before = threads();

    GetParam().lead(scene);

    EXPECT_TRUE(await([&] { return scene.left == 1; }));
    EXPECT_EQ(qor_bus_drain(scene.bus.get(), 60000), 0);
    EXPECT_EQ(scene.answers.text(), GetParam().answers);
    EXPECT_EQ(watches(), 0);
    EXPECT_TRUE(await([&] { return threads() == before; }));
    for (const Module *module : {&scene.asker, &scene.leaver}) {
        const int32_t stay = module == &scene.leaver ? GetParam().stay : 0;
        EXPECT_EQ(module->core()->refcount, 0);
        EXPECT_EQ(length_of(module->core()->que), stay);
    }
    EXPECT_EQ(scene.out.count("[err]"), 0);

    /* All of it once more, on the thread that has taken the place or on the other. */
    scene.answers.clear();
    for (int i = 0; i < 4; i++) {
        scene.ask(-1);
    }
    EXPECT_TRUE(scene.answers.await(4));
    EXPECT_EQ(scene.answers.text(), "0 0 0 0");
    EXPECT_EQ(qor_bus_drain(scene.bus.get(), 60000), 0);
    EXPECT_EQ(scene.bus.quit(), 0);
}

INSTANTIATE_TEST_SUITE_P(All, ThreadExitPlaces, testing::ValuesIn(places), case_name<Place>);

TEST(ThreadExitOfAnInit, OnAHelperHasFailed)
{
    Output out;
    std::atomic<int> left{0};
    Module asked("asked"), asker("asker");
    std::atomic<int32_t> answer{1};
    asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    asked.init = [&](qor_context_t *) -> int32_t { leave(left); };
    asker.init = [&](qor_context_t *c) {
        answer = qor_context_x_req(c, 0, nullptr, 0);
        return 0;
    };
    RunningBus bus({&asked, &asker}, 1, 1);

    EXPECT_TRUE(await([&] { return asker.started(); }));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(answer, -1);
    EXPECT_EQ(asked.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(out.count("context init failed."), 1);
    bus.end();
    EXPECT_EQ(out.count("asked context("), 2); /* init start, init failed */
}
