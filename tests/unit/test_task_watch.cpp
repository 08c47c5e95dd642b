/* SPDX-License-Identifier: Apache-2.0 */
/* The reports that tasks start and are over: whom they reach, and that they can be left out. */
#include "qor_sys.h"

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_impl_context.h"
#include "qor_main.h"
#include "qor_monitor_module.h"
#include "qor_sched_delegate.h"
#include "qor_time_que.h"
#include "running_bus.hpp"
#include "thread.hpp"
#include "time_que_length.hpp"

namespace {

qor_context_t *monitor_context()
{
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        qor_context_t *context = reinterpret_cast<qor_context_t *>(reinterpret_cast<char *>(link) -
                                                                   offsetof(qor_context_t, node));
        if (context->module == &qor_monitor_module) {
            return context;
        }
    }
    return nullptr;
}

class TaskWatch : public testing::Test {
protected:
    TaskWatch()
    {
        Another::reports = 0;
        bus.start();
        EXPECT_TRUE(bus.up());
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    }

    /* Runs a task of the module and gives what the monitor watched meanwhile. */
    int watched()
    {
        struct Look {
            std::atomic<int> length{-1};
        } look;
        EXPECT_GE(qor_context_run(
                      module.context(),
                      [](void *arg) -> void * {
                          qor_time_que_t *que = static_cast<qor_time_que_t *>(
                              qor_context_priv_data_get(monitor_context()));
                          static_cast<Look *>(arg)->length = static_cast<int>(length_of(que));
                          return nullptr;
                      },
                      &look),
                  0);
        EXPECT_TRUE(await([&] { return look.length >= 0; }));
        EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
        return look.length;
    }

    /* A system context that subscribes to the reports as well. */
    class Another {
    public:
        explicit Another(qor_bus_t *bus)
        {
            module.descriptor.handle_message = [](qor_context_t *, qor_context_msg_t *) {
                reports++;
                return 0;
            };
            context = qor_impl_context_class.create(&module.descriptor);
            qor_sched_delegate_create(bus, QOR_BUS_ROLE_SYS, context);
            qor_context_subscribe(context, QOR_SYS_MONITOR_TASK, nullptr);
        }

        void leave() { qor_context_unsubscribe(context, QOR_SYS_MONITOR_TASK); }

        static std::atomic<int> reports;
        Module module{"another"};
        qor_context_t *context;
    };

    Output out;
    Module module{"module"};
    RunningBus bus{RunningBus::by_start, 1, {&module}};
};

std::atomic<int> TaskWatch::Another::reports;

} // namespace

TEST_F(TaskWatch, ARunningTaskIsInTheMonitorsQueueUntilItIsOver)
{
    EXPECT_EQ(watched(), 1);
    EXPECT_EQ(
        length_of(static_cast<qor_time_que_t *>(qor_context_priv_data_get(monitor_context()))), 0);
}

TEST_F(TaskWatch, ReportsReachTheNewestSubscriberAndThenTheMonitorAgain)
{
    Another another(bus.get());
    EXPECT_EQ(watched(), 0);
    EXPECT_EQ(Another::reports, 2);

    another.leave();
    EXPECT_EQ(watched(), 1);
    EXPECT_EQ(Another::reports, 2);
    bus.end();
    qor_context_destroy(another.context);
}

/* The address of a registration that is gone may come back as somebody else's. */
TEST_F(TaskWatch, ReportsFollowRegistrationsThatComeAndGo)
{
    Another another(bus.get());
    for (int i = 0; i < 100; i++) {
        another.leave();
        ASSERT_EQ(watched(), 1);
        qor_context_subscribe(another.context, QOR_SYS_MONITOR_TASK, nullptr);
        ASSERT_EQ(watched(), 0);
        ASSERT_EQ(Another::reports, 2 * (i + 1));
    }
    bus.end();
    qor_context_destroy(another.context);
}

/* A report that is under way when that changes reaches the one or the other. */
TEST_F(TaskWatch, RegistrationsMayChangeWhileTasksAreReported)
{
    std::atomic<bool> goes_on{true};
    std::atomic<int> posted{0}, ran{0};
    Thread poster([&] {
        while (goes_on) {
            if (posted - ran < 20) {
                posted++;
                qor_context_run(
                    module.context(),
                    [](void *arg) -> void * {
                        (*static_cast<std::atomic<int> *>(arg))++;
                        return nullptr;
                    },
                    &ran);
            }
        }
    });
    Another another(bus.get());
    for (int i = 0; i < 300; i++) {
        ASSERT_TRUE(await([&, before = ran.load()] { return ran > before; }));
        another.leave();
        ASSERT_TRUE(await([&, before = ran.load()] { return ran > before; }));
        qor_context_subscribe(another.context, QOR_SYS_MONITOR_TASK, nullptr);
    }
    another.leave();
    goes_on = false;
    poster.join();
    ASSERT_TRUE(await([&] { return ran == posted; }));

    const int reports = Another::reports;
    EXPECT_GT(reports, 0);
    EXPECT_GE(watched(), 1); /* and what the other one was told the end of */
    EXPECT_EQ(Another::reports, reports);
    bus.end();
    qor_context_destroy(another.context);
}

TEST_F(TaskWatch, NobodyIsToldWhileTheMonitorIsUnsubscribed)
{
    qor_context_unsubscribe(monitor_context(), QOR_SYS_MONITOR_TASK);
    EXPECT_EQ(watched(), 0);
    qor_context_subscribe(monitor_context(), QOR_SYS_MONITOR_TASK, nullptr);

    EXPECT_EQ(watched(), 1);
}

/* By whoever built the monitor otherwise: only the module as it is may be served directly. */
TEST_F(TaskWatch, ReportsBecomeMessagesWhereTheMonitorIsNotAsItWasBuilt)
{
    qor_context_t *monitor = monitor_context();
    qor_context_cls_t other_class = qor_impl_context_class;
    monitor->cls = &other_class;
    EXPECT_EQ(watched(), 1);
    monitor->cls = &qor_impl_context_class;

    const qor_context_module_message_t handler = qor_monitor_module.handle_message;
    qor_monitor_module.handle_message = [](qor_context_t *, qor_context_msg_t *) {
        Another::reports++;
        return 0;
    };
    EXPECT_EQ(watched(), 0);
    EXPECT_EQ(Another::reports, 2);
    qor_monitor_module.handle_message = handler;
    EXPECT_EQ(watched(), 1);
}

TEST_F(TaskWatch, ReportsBecomeMessagesWhereTheMonitorsHandlerIsReplaced)
{
    const auto own = qor_monitor_module.handle_message;
    qor_monitor_module.handle_message = [](qor_context_t *, qor_context_msg_t *msg) {
        EXPECT_EQ(msg->topic, QOR_SYS_MONITOR_TASK);
        Another::reports++;
        return 0;
    };
    EXPECT_EQ(watched(), 0);
    EXPECT_EQ(Another::reports, 2);

    qor_monitor_module.handle_message = own;
    EXPECT_EQ(watched(), 1);
}

/* It is taken away and given back by tasks of the one worker, which makes all the reports. */
TEST_F(TaskWatch, ReportsBecomeMessagesWhereTheMonitorHasNoQueue)
{
    void *que = qor_context_priv_data_get(monitor_context());
    const auto set = [](void *data) -> void * {
        qor_context_priv_data_set(monitor_context(), data);
        return nullptr;
    };
    out.clear();

    EXPECT_GE(qor_context_x_run(module.context(), set, nullptr), 0);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(out.count("[qor_time_que][err][qor_time_que_remove_locked]"), 2); /* the message */

    EXPECT_GE(qor_context_x_run(module.context(), set, que), 0);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(watched(), 2); /* with the task whose end it has not seen */
}

TEST_F(TaskWatch, EachReportDrawsASessionWhicheverWayItGoes)
{
    const auto drawn = [this] {
        const int32_t before = qor_bus_session(bus.get());
        watched();
        return qor_bus_session(bus.get()) - before;
    };
    const int32_t directly = drawn();
    Another another(bus.get());
    EXPECT_EQ(drawn(), directly);
    another.leave();
    bus.end();
    qor_context_destroy(another.context);
}

namespace {

class WatchOff : public testing::Test {
protected:
    static std::string name_inside(const Module &module)
    {
        static char name[16];
        std::atomic<bool> over{false};
        EXPECT_GE(qor_context_run_name(
                      module.context(), "a task's name",
                      [](void *arg) -> void * {
                          prctl(PR_GET_NAME, name);
                          *static_cast<std::atomic<bool> *>(arg) = true;
                          return nullptr;
                      },
                      &over),
                  0);
        EXPECT_TRUE(await([&] { return over.load(); }));
        return name;
    }

    Output out;
    Module module{"module"};
    RunningBus bus{RunningBus::by_start, 1, {&module}};
};

} // namespace

TEST_F(WatchOff, ReportsNothingNamesNothingAndDrawsNoSessions)
{
    qor_bus_watch_set(bus.get(), 0);
    bus.start();
    ASSERT_TRUE(bus.up());
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    const int32_t before = qor_bus_session(bus.get());

    EXPECT_NE(name_inside(module), "a task's name");

    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(qor_bus_session(bus.get()) - before, 3); /* before, the task's, its run's */
    EXPECT_EQ(out.printed().find("err"), std::string::npos);
}

TEST_F(WatchOff, IsOnFromTheBeginningAndCanBeSetBack)
{
    qor_bus_watch_set(bus.get(), 0);
    qor_bus_watch_set(bus.get(), 7);
    bus.start();
    ASSERT_TRUE(bus.up());

    EXPECT_EQ(name_inside(module), "a task's name");
}

TEST_F(WatchOff, IsRefusedOnceTheLoopRuns)
{
    bus.start();
    ASSERT_TRUE(bus.up());
    out.clear();

    qor_bus_watch_set(bus.get(), 0);

    EXPECT_EQ(out.printed(), "[qor_bus][err][qor_bus_watch_set]:the loop runs already.\n");
    EXPECT_EQ(name_inside(module), "a task's name");
}

TEST_F(WatchOff, OfNoBusIsReported)
{
    qor_bus_watch_set(nullptr, 0);

    EXPECT_EQ(out.printed(), "[qor_bus][err][qor_bus_watch_set]:!(_this) == true.\n");
}
