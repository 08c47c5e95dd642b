/* SPDX-License-Identifier: Apache-2.0 */
/* The monitor's console: warnings about tasks that take long. */
#include "qor_monitor_module.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "monitor_module_fixture.hpp"
#include "qor_hal.h"
#include "qor_time_que.h"
#include "thread.hpp"

TEST_F(MonitorModule, TheConsoleReturnsWhenTheQueueQuits)
{
    Thread running = console();

    qor_time_que_quit(que);

    running.join();
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
    Thread running = console();

    ASSERT_TRUE(out.await(warning));
    qor_time_que_quit(que);
    running.join();

    const std::vector<int64_t> moments = warnings(out, "fetch, session = 41");
    ASSERT_FALSE(moments.empty());
    EXPECT_GE(moments[0], before);
    EXPECT_LE(moments[0], util_timestamp());
}

TEST_F(MonitorModule, AWarnedTaskIsWatchedForAnotherSecond)
{
    enque_due(41, "fetch");
    Thread running = console();
    ASSERT_TRUE(out.await(warning));

    qor_time_que_node_t *node = qor_time_que_remove(que, 41);
    const int64_t removed = util_timestamp();
    qor_time_que_quit(que);
    running.join();

    ASSERT_NE(node, nullptr);
    EXPECT_GE(node->when, warnings(out, "fetch, session = 41").back() + 1000);
    EXPECT_LE(node->when, removed + 1000);
    qor_time_que_node_destroy(node, nullptr);
}

TEST_F(MonitorModule, AnOverReportFindsATaskThatHasBeenNamed)
{
    enque_due(41, "fetch");
    Thread running = console();
    ASSERT_TRUE(out.await(warning));

    EXPECT_EQ(over(41), 0);

    EXPECT_EQ(que->count, 0);
    qor_time_que_quit(que);
    running.join();
}

TEST_F(MonitorModule, TheLongestNameFitsTheLine)
{
    enque_due(INT32_MAX, std::string(31, 'n').c_str());
    Thread running = console();

    EXPECT_TRUE(out.await(warning + std::string(31, 'n') + ", session = 2147483647, timestamp = "));
    qor_time_que_quit(que);
    running.join();
}
