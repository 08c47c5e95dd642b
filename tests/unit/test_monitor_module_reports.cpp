/* SPDX-License-Identifier: Apache-2.0 */
/* The monitor's descriptor, and the reports that it takes. */
#include "qor_monitor_module.h"

#include <cstring>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "monitor_module_fixture.hpp"
#include "qor_context_msg.h"
#include "qor_hal.h"
#include "qor_time_que.h"
#include "system_module.hpp"

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
