/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks and timers posted to a bus. */
#include "qor_bus.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "bus_fixture.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "still_bus.hpp"

TEST_F(Bus, PostQueuesACopyUnderTheTasksSession)
{
    qor_context_task_t task = job.task(31);

    EXPECT_EQ(qor_bus_post(bus, &task), 0);
    memset(&task, 0, sizeof(task));

    const qor_que_node_t *node = reinterpret_cast<qor_que_node_t *>(bus->que->head.next);
    EXPECT_EQ(node->id, 31u);
    EXPECT_EQ(pumped.run_all(), 1);
    EXPECT_EQ(job.journal.text(), "run recycle");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, PostTakesNoNoteOfADelay)
{
    qor_context_task_t task = job.task(1, 60000);

    EXPECT_EQ(qor_bus_post(bus, &task), 0);

    EXPECT_EQ(pumped.run_all(), 1);
}

TEST_F(Bus, NullTaskIsReported)
{
    EXPECT_EQ(qor_bus_post(bus, nullptr), -1);
    EXPECT_EQ(qor_bus_timer_post(bus, nullptr), -1);

    EXPECT_EQ(out.printed(),
              line("post", "!(task) == true.") + line("timer_post", "!(task) == true."));
}

TEST_F(Bus, ARefusedPostLeavesTheArgumentAlone)
{
    qor_context_task_t task = job.task(1);
    qor_bus_quit(bus);

    EXPECT_EQ(qor_bus_post(bus, &task), -1);
    EXPECT_EQ(qor_bus_timer_post(bus, &task), -1);
    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, Job::recycle), -1);

    EXPECT_EQ(job.journal.text(), "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Bus, RunQueuesATaskUnderAFreshSession)
{
    bus->session = 60;

    EXPECT_EQ(qor_bus_run(bus, Job::run, &job, Job::recycle), 0);

    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 60);
    EXPECT_EQ(task->context, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(task->async, 0);
    EXPECT_EQ(task->delay, 0);
    char name[32];
    snprintf(name, sizeof(name), "task:%p", reinterpret_cast<void *>(Job::run));
    EXPECT_STREQ(task->name, name);
    qor_context_task_excute(task);
    StillBus::finish(task);
    EXPECT_EQ(job.journal.text(), "run recycle");
}

TEST_F(Bus, RunxQueuesATaskWithItsContext)
{
    bus->session = 61;
    Journal journal;
    Actor actor(journal, "a");
    static int32_t session;
    static qor_context_t *context;
    const auto runx = [](qor_context_t *its_context, int32_t its_session, void *) -> void * {
        context = its_context;
        session = its_session;
        return nullptr;
    };

    EXPECT_EQ(qor_bus_runx(bus, actor.get(), runx, &job, Job::recycle), 0);

    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 61);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(task->delay, 0);
    EXPECT_EQ(std::string(task->name).substr(0, 5), "task:");
    EXPECT_EQ(qor_bus_session(bus), 62);
    qor_context_task_excute(task);
    StillBus::finish(task);
    EXPECT_EQ(context, actor.get());
    EXPECT_EQ(session, 61);
    EXPECT_EQ(job.journal.text(), "recycle");
}

TEST_F(Bus, NullFunctionIsReported)
{
    Journal journal;
    Actor actor(journal, "a");

    EXPECT_EQ(qor_bus_run(bus, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_runx(bus, nullptr, nullptr, nullptr, nullptr), -1);

    EXPECT_EQ(out.printed(), line("run", "!(run) == true.") + line("runx", "!(runx) == true."));
    EXPECT_EQ(qor_bus_session(bus), 1); /* none was drawn */
}

TEST_F(Bus, RunxWithoutContextPostsAnEmptyTask)
{
    const auto runx = [](qor_context_t *, int32_t, void *) -> void * { return nullptr; };
    static int releases;
    const auto release = [](void *arg) { releases += arg ? 1 : 10; };
    releases = 0;

    EXPECT_EQ(qor_bus_runx(bus, nullptr, runx, &job, release), 0);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_taskx_init", "!(context) == true."));
    qor_context_task_t *task = pumped.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(task->fun.run, nullptr);
    EXPECT_EQ(task->session, 0);
    EXPECT_EQ(task->arg, nullptr);
    StillBus::finish(task);
    EXPECT_EQ(releases, 10); /* called, with the empty task's argument */
}

TEST_F(Bus, TimerPostQueuesACopyThatFallsDueLater)
{
    qor_context_task_t task = job.task(31, 60000);
    const int64_t before = now();

    EXPECT_EQ(qor_bus_timer_post(bus, &task), 0);
    memset(&task, 0, sizeof(task));

    EXPECT_EQ(qor_que_count(bus->que), 0);
    ASSERT_EQ(bus->time_que->count, 1);
    const qor_time_que_node_t *node =
        reinterpret_cast<qor_time_que_node_t *>(bus->time_que->head.next);
    EXPECT_EQ(node->id, 31u);
    EXPECT_GE(node->when, before + 60000 - 1);
    EXPECT_LE(node->when, now() + 60000);
}
