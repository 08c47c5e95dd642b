/* SPDX-License-Identifier: Apache-2.0 */
/* Loop runs of a user context, and what they report. */
#include "qor_core_context.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "core_context_fixture.hpp"
#include "qor_que.h"

namespace {

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

} // namespace

TEST_F(CoreContext, AnAsyncTaskIsHandedToARunOfItsOwn)
{
    ASSERT_EQ(post(task("apart", 7, 0, 1)), 0);

    behind.run(0);

    EXPECT_EQ(behind.happened, "");
    ASSERT_EQ(behind.posted.size(), 2u);
    const qor_context_task_t &apart = behind.posted[1];
    EXPECT_EQ(apart.fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(apart.context, wrapper);
    EXPECT_EQ(apart.session, 1001); /* a fresh one */
    EXPECT_EQ(behind.run(1), this);
    EXPECT_EQ(behind.happened, "start 7 over ");
    EXPECT_EQ(recycled, 1);
}

TEST_F(CoreContext, AnAsyncTaskThatTheBusRefusesIsReleased)
{
    ASSERT_EQ(post(task("apart", 7, 0, 1)), 0);
    behind.on_post = [] { return -1; };

    behind.run(0);

    EXPECT_EQ(behind.happened, "");
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(core->refcount, 0);
}

TEST_F(CoreContext, ReportsStartAndOverToTheMonitor)
{
    ASSERT_EQ(post(task("measure", 7)), 0);

    behind.run(0);

    EXPECT_EQ(behind.happened, "start 7 over ");
    ASSERT_EQ(behind.reports.size(), 2u);
    for (const qor_sys_monitor_task_t &report : behind.reports) {
        EXPECT_EQ(report.session, 7);
        EXPECT_STREQ(report.name, "measure");
    }
    EXPECT_EQ(behind.reports[0].state, QOR_SYS_MONITOR_TASK_START);
    EXPECT_EQ(behind.reports[1].state, QOR_SYS_MONITOR_TASK_OVER);
}

TEST_F(CoreContext, AReportCarriesAtMost31Characters)
{
    qor_context_task_t named = task("t", 7);
    std::memset(named.name, 'n', sizeof(named.name)); /* without terminator */
    named.name[31] = 'n';
    ASSERT_EQ(post(named), 0);

    behind.run(0);

    EXPECT_EQ(std::string(behind.reports.at(0).name, 32), std::string(31, 'n') + '\0');
}

TEST_F(CoreContext, AReportCarriesNothingFromBehindTheName)
{
    qor_context_task_t named = task("t", 7);
    std::memcpy(named.name, "ab\0cd", 5);
    ASSERT_EQ(post(named), 0);

    behind.run(0);

    EXPECT_EQ(std::string(behind.reports.at(0).name, 32), "ab" + std::string(30, '\0'));
}

TEST_F(CoreContext, TheRecycleFollowsTheOverReport)
{
    static Behind *trace;
    trace = &behind;
    qor_context_task_t traced = task("t", 7);
    traced.recycle = [](void *) { trace->happened += "recycle "; };
    ASSERT_EQ(post(traced), 0);

    behind.run(0);

    EXPECT_EQ(behind.happened, "start 7 over recycle ");
}

TEST_F(CoreContext, ATasksNameStaysOnTheThread)
{
    static std::string during;
    qor_context_task_t named = task("narrow", 7);
    named.fun.runx = [](qor_context_t *, int32_t, void *) -> void * {
        during = thread_name();
        return nullptr;
    };
    ASSERT_EQ(post(named), 0);
    const std::string before = thread_name();

    behind.run(0);

    EXPECT_EQ(during, "narrow");
    EXPECT_EQ(thread_name(), "narrow");
    prctl(PR_SET_NAME, before.c_str());
}
