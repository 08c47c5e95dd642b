/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_monitor_module.h"

#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_hal.h"
#include "qor_time_que.h"
#include "running_bus.hpp"
#include "system_module.hpp"

namespace {

const char warning[] = "[qor_monitor_module][wrn][qor_monitor_module_console]:MONITOR: ";

/* The moments of the warnings that begin like that. */
std::vector<int64_t> warnings(const Output &out, const std::string &beginning)
{
    const std::string all = out.printed();
    std::vector<int64_t> moments;
    for (size_t at = 0; (at = all.find(warning + beginning, at)) != std::string::npos; at++) {
        const std::string stamp = ", timestamp = ";
        const std::string line = all.substr(at, all.find('\n', at) - at);
        const size_t number = line.rfind(stamp) + stamp.size();
        moments.push_back(std::stoll(line.substr(number)));
        EXPECT_EQ(line.find_first_not_of("0123456789", number), std::string::npos) << line;
    }
    return moments;
}

/* The module in a context of the test's; its console runs where a test runs it. */
class MonitorModule : public SystemModule {
protected:
    MonitorModule() : SystemModule(qor_monitor_module)
    {
        EXPECT_EQ(qor_monitor_module.init(own.get(), nullptr), 0);
        que = static_cast<qor_time_que_t *>(qor_context_priv_data_get(own.get()));
        std::strcpy(report.name, "fetch");
        qor_context_msg_fill(&msg, 1, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    }

    ~MonitorModule() override { qor_time_que_destroy(que); }

    int32_t send(int32_t session, int32_t state)
    {
        report.session = session;
        report.state = state;
        return qor_monitor_module.handle_message(own.get(), &msg);
    }

    int32_t start(int32_t session) { return send(session, QOR_SYS_MONITOR_TASK_START); }
    int32_t over(int32_t session) { return send(session, QOR_SYS_MONITOR_TASK_OVER); }

    /* Watches a task that has been running for five seconds. */
    void enque_due(int32_t session, const char *name)
    {
        qor_time_que_node_t *node = qor_time_que_node_create(session, 0, sizeof(report));
        qor_sys_monitor_task_t due = {};
        due.session = session;
        std::strncpy(due.name, name, sizeof(due.name) - 1);
        std::memcpy(qor_time_que_node_body(node), &due, sizeof(due));
        qor_time_que_enque(que, node);
    }

    std::future<int32_t> console()
    {
        return std::async(std::launch::async,
                          [this] { return qor_monitor_module.console(own.get()); });
    }

    qor_time_que_t *que;
    qor_sys_monitor_task_t report = {};
};

} // namespace

TEST_F(MonitorModule, DescribesASystemModuleWithAConsoleOfHighestPriority)
{
    expect_plain_descriptor("qor_monitor_module");
    EXPECT_EQ(qor_monitor_module.priority, 99);
    EXPECT_EQ(qor_monitor_module.stack_size, 4096);
    EXPECT_NE(qor_monitor_module.console, nullptr);
}

TEST_F(MonitorModule, RegSubscribesItsTopic)
{
    qor_monitor_module.reg(own.get());

    EXPECT_EQ(own.slots, "subscribe");
    EXPECT_EQ(own.topic, QOR_SYS_MONITOR_TASK);
    EXPECT_EQ(own.attr, nullptr);
}

TEST_F(MonitorModule, UnregUnsubscribesItsTopic)
{
    qor_monitor_module.unreg(own.get());

    EXPECT_EQ(own.slots, "unsubscribe");
    EXPECT_EQ(own.topic, QOR_SYS_MONITOR_TASK);
}

TEST_F(MonitorModule, InitMakesAQueueWithoutLimitAndRecycle)
{
    ASSERT_NE(que, nullptr);
    EXPECT_EQ(que->max_count, UINT32_MAX);
    EXPECT_EQ(que->count, 0);
    EXPECT_EQ(que->recycle, nullptr);
}

TEST_F(MonitorModule, AStartReportIsWatchedForFiveSeconds)
{
    const int64_t before = util_timestamp();

    EXPECT_EQ(start(7), 0);

    const int64_t after = util_timestamp();
    qor_time_que_node_t *node = qor_time_que_remove(que, 7);
    ASSERT_NE(node, nullptr);
    EXPECT_GE(node->when, before + 5000);
    EXPECT_LE(node->when, after + 5000);
    EXPECT_EQ(std::memcmp(qor_time_que_node_body(node), &report, sizeof(report)), 0);
    qor_time_que_node_destroy(node, nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MonitorModule, AnOverReportEndsTheWatch)
{
    ASSERT_EQ(start(7), 0);
    ASSERT_EQ(start(8), 0);

    EXPECT_EQ(over(7), 0);

    EXPECT_EQ(que->count, 1);
    EXPECT_EQ(qor_time_que_remove(que, 7), nullptr);
}

TEST_F(MonitorModule, AnyStateButStartIsOver)
{
    ASSERT_EQ(start(7), 0);

    EXPECT_EQ(send(7, 22), 0);

    EXPECT_EQ(que->count, 0);
}

TEST_F(MonitorModule, AnOverReportOfAnUnknownSessionDoesNothing)
{
    ASSERT_EQ(start(7), 0);

    EXPECT_EQ(over(8), 0);

    EXPECT_EQ(que->count, 1);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MonitorModule, OneOverReportEndsTwoWatchesOfASession)
{
    ASSERT_EQ(start(7), 0);
    ASSERT_EQ(start(7), 0);
    ASSERT_EQ(start(7), 0);

    EXPECT_EQ(over(7), 0);
    EXPECT_EQ(que->count, 1);

    EXPECT_EQ(over(7), 0);
    EXPECT_EQ(que->count, 0);
}

TEST_F(MonitorModule, AWatchThatWasTakenOutSecondServesALaterTask)
{
    ASSERT_EQ(start(7), 0);
    ASSERT_EQ(start(7), 0);
    ASSERT_EQ(over(7), 0);
    std::strcpy(report.name, "later");
    const int64_t before = util_timestamp();

    ASSERT_EQ(start(9), 0);

    qor_time_que_node_t *node = qor_time_que_remove(que, 9);
    ASSERT_NE(node, nullptr);
    EXPECT_GE(node->when, before + 5000);
    EXPECT_EQ(std::memcmp(qor_time_que_node_body(node), &report, sizeof(report)), 0);
    qor_time_que_node_destroy(node, nullptr);
}

TEST_F(MonitorModule, TheReportNeedNotBeAligned)
{
    char buffer[sizeof(report) + 1];
    report.session = 7;
    std::memcpy(buffer + 1, &report, sizeof(report));
    msg.request.buf = buffer + 1;

    EXPECT_EQ(qor_monitor_module.handle_message(own.get(), &msg), 0);

    qor_time_que_node_t *node = qor_time_que_remove(que, 7);
    ASSERT_NE(node, nullptr);
    qor_time_que_node_destroy(node, nullptr);
}

TEST_F(MonitorModule, TheReportsSizeIsNotChecked)
{
    msg.request.size = 0;

    EXPECT_EQ(start(7), 0);

    EXPECT_EQ(que->count, 1);
}

TEST_F(MonitorModule, TheRequestFunctionDoesNotLookAtTheType)
{
    msg.type = QOR_CONTEXT_MSG_LISTEN_AFTER;

    EXPECT_EQ(qor_monitor_module_handle_request_message(own.get(), &msg), 0);

    EXPECT_EQ(que->count, 1);
}

class MonitorModuleRefused : public MonitorModule,
                             public testing::WithParamInterface<RefusedMessage> {};

TEST_P(MonitorModuleRefused, GivesAWarning)
{
    expect_refused(GetParam());

    EXPECT_EQ(que->count, 0);
}

INSTANTIATE_TEST_SUITE_P(All, MonitorModuleRefused,
                         testing::ValuesIn(refused_messages(QOR_SYS_MONITOR_TASK,
                                                            QOR_SYS_MNG_MODULE_REGISTER,
                                                            QOR_SYS_BUS_REGISTER)),
                         case_name<RefusedMessage>);

/* ---- console ---- */

TEST_F(MonitorModule, TheConsoleReturnsWhenTheQueueQuits)
{
    std::future<int32_t> running = console();

    qor_time_que_quit(que);

    EXPECT_EQ(running.get(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MonitorModule, AStartReportAfterTheQuitIsForgotten)
{
    qor_time_que_quit(que);

    EXPECT_EQ(start(7), 0);

    EXPECT_EQ(que->count, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(MonitorModule, ATaskThatIsDueIsNamedWithItsSessionAndTheTime)
{
    const int64_t before = util_timestamp();
    enque_due(41, "fetch");
    std::future<int32_t> running = console();

    ASSERT_TRUE(out.await(warning));
    qor_time_que_quit(que);
    running.get();

    const std::vector<int64_t> moments = warnings(out, "fetch, session = 41");
    ASSERT_FALSE(moments.empty());
    EXPECT_GE(moments[0], before);
    EXPECT_LE(moments[0], util_timestamp());
}

TEST_F(MonitorModule, AWarnedTaskIsWatchedForAnotherSecond)
{
    enque_due(41, "fetch");
    std::future<int32_t> running = console();
    ASSERT_TRUE(out.await(warning));

    qor_time_que_node_t *node = qor_time_que_remove(que, 41);
    const int64_t removed = util_timestamp();
    qor_time_que_quit(que);
    running.get();

    ASSERT_NE(node, nullptr);
    EXPECT_GE(node->when, warnings(out, "fetch, session = 41").back() + 1000);
    EXPECT_LE(node->when, removed + 1000);
    qor_time_que_node_destroy(node, nullptr);
}

TEST_F(MonitorModule, AnOverReportFindsATaskThatHasBeenNamed)
{
    enque_due(41, "fetch");
    std::future<int32_t> running = console();
    ASSERT_TRUE(out.await(warning));

    EXPECT_EQ(over(41), 0);

    EXPECT_EQ(que->count, 0);
    qor_time_que_quit(que);
    running.get();
}

TEST_F(MonitorModule, TheLongestNameFitsTheLine)
{
    enque_due(INT32_MAX, std::string(31, 'n').c_str());
    std::future<int32_t> running = console();

    EXPECT_TRUE(out.await(warning + std::string(31, 'n') + ", session = 2147483647, timestamp = "));
    qor_time_que_quit(que);
    running.get();
}

/* ---- on a bus ---- */

namespace {

/* A task that runs until the test lets it go. */
struct Work {
    int64_t posted = 0;
    Door door;

    void post(const Module &module, const char *name)
    {
        posted = util_timestamp();
        EXPECT_GE(qor_context_run_name(module.context(), name, run, this), 0);
    }

    static void *run(void *arg)
    {
        EXPECT_TRUE(static_cast<Work *>(arg)->door.pass());
        return nullptr;
    }
};

/* Lets the task end, and tells by when its end has been reported: another one follows it. */
int64_t release(Work &work, const Module &module)
{
    std::atomic<int64_t> next{0};
    work.door.open();
    EXPECT_GE(qor_context_run(
                  module.context(),
                  [](void *arg) -> void * {
                      *static_cast<std::atomic<int64_t> *>(arg) = util_timestamp();
                      return nullptr;
                  },
                  &next),
              0);
    EXPECT_TRUE(await([&] { return next != 0; }));
    return next;
}

/* The most warnings that a task can have had by then. */
size_t most_warnings(const Work &work, int64_t over)
{
    const int64_t first = work.posted + 5000;
    return over < first ? 0 : static_cast<size_t>(1 + (over - first) / 1000);
}

void sleep_until(int64_t moment)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(moment - util_timestamp()));
}

} // namespace

TEST(MonitorModuleOnABus, NamesATaskAfterFiveSixAndSevenSecondsAndAShorterOneNever)
{
    Output out;
    Module slow("slow");
    Module brisk("brisk");
    RunningBus bus({&slow, &brisk});
    ASSERT_TRUE(bus.up());
    Work tedious;
    Work shorter;
    tedious.post(slow, "tedious");
    shorter.post(brisk, "shorter");

    sleep_until(shorter.posted + 4500);
    const int64_t shorter_over = release(shorter, brisk);
    sleep_until(tedious.posted + 7500);
    EXPECT_TRUE(out.await(std::string(warning) + "tedious", 3));
    const int64_t tedious_over = release(tedious, slow);
    bus.end();

    const std::vector<int64_t> moments = warnings(out, "tedious, session = ");
    EXPECT_LE(moments.size(), most_warnings(tedious, tedious_over)); /* 3, unless it came late */
    for (size_t i = 0; i < moments.size(); i++) {
        EXPECT_GE(moments[i], tedious.posted + 5000 + 1000 * static_cast<int64_t>(i));
    }
    EXPECT_LE(warnings(out, "shorter").size(), most_warnings(shorter, shorter_over)); /* 0 */
}
