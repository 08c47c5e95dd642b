/* SPDX-License-Identifier: Apache-2.0 */
/* Session numbers, tasks and cancels by way of a delegate. */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "sched_delegate_fixture.hpp"

TEST_F(SchedDelegate, SessionDrawsFromTheBus)
{
    bus.get()->session = 40;
    int32_t session = -1;

    EXPECT_EQ(qor_context_session(p.get(), &session), 0);
    EXPECT_EQ(session, 40);
    EXPECT_EQ(qor_context_session(s.get(), &session), 0);
    EXPECT_EQ(session, 41);
}

TEST_F(SchedDelegate, PostWithoutDelayGoesToTheTaskQueue)
{
    qor_context_task_t now = note_task(p, 5, 0);
    qor_context_task_t overdue = note_task(p, 6, INT32_MIN);

    EXPECT_EQ(qor_context_handler_post(p.get(), &now), 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &overdue), 0);

    EXPECT_EQ(bus.get()->time_que->count, 0);
    EXPECT_EQ(bus.run_all(), 2);
    EXPECT_EQ(journal.text(), "ran 5 ran 6");
}

TEST_F(SchedDelegate, PostWithADelayOfOneGoesToTheTimerQueue)
{
    qor_context_task_t task = note_task(p, 5, 1);

    EXPECT_EQ(qor_context_handler_post(p.get(), &task), 0);

    EXPECT_EQ(bus.get()->time_que->count, 1);
    EXPECT_EQ(bus.run_all(), 0);
}

TEST_F(SchedDelegate, ARefusedPostSpeaksOfATimer)
{
    qor_context_task_t now = note_task(p, 5, 0);
    qor_context_task_t later = note_task(p, 6, 1000);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_context_handler_post(p.get(), &now), -1);
    EXPECT_EQ(qor_context_handler_post(p.get(), &later), -1);

    EXPECT_EQ(out.printed(),
              line("post", "create a timer failed, source:p, task:note, session=5") +
                  line("post", "create a timer failed, source:p, task:note, session=6"));
}

TEST_F(SchedDelegate, NullTaskIsReported)
{
    EXPECT_EQ(qor_context_handler_post(p.get(), nullptr), -1);

    EXPECT_EQ(out.printed(), line("post", "!(task) == true."));
}

TEST_F(SchedDelegate, CancelledTaskDoesNotRun)
{
    qor_context_task_t task = note_task(p, 5, 0);
    qor_context_handler_post(p.get(), &task);

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), 0);

    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, CancelOfATaskThatIsNotQueuedIsReported)
{
    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    EXPECT_EQ(out.printed(), line("cancel", "cancel a timer failed, source:p, session=5"));
    qor_context_task_t task = note_task(p, 5, 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), 0); /* the queue is still there */
    EXPECT_EQ(bus.run_all(), 1);
}

TEST_F(SchedDelegate, CancelDoesNotFindATimer)
{
    qor_context_task_t task = note_task(p, 5, 60000);
    qor_context_handler_post(p.get(), &task);

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    EXPECT_EQ(bus.get()->time_que->count, 1);
}

TEST_F(SchedDelegate, EveryOperationReportsAContextWithoutDelegate)
{
    qor_context_pub_data_set(p.get(), nullptr, nullptr);
    qor_context_msg_t msg = request();
    qor_context_task_t task = note_task(p, 5, 0);
    int32_t session = 0;

    EXPECT_EQ(qor_context_session(p.get(), &session), -1);
    EXPECT_EQ(qor_context_handler_publish(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_publishx(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), -1);
    EXPECT_EQ(qor_context_handler_cancel(p.get(), 5), -1);

    std::string lines;
    for (const char *function : {"session", "publish", "publishx", "syscallx", "post", "cancel"}) {
        lines += line(function, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), lines);
}
