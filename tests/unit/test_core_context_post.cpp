/* SPDX-License-Identifier: Apache-2.0 */
/* Posting to the private queue of a user context. */
#include "qor_core_context.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "core_context_fixture.hpp"
#include "output.hpp"
#include "qor_que.h"

namespace {

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

} // namespace

TEST_F(CoreContext, APostedTaskIsCopiedIntoTheQueueUnderItsSession)
{
    const qor_context_task_t given = task("fetch", 41);

    EXPECT_EQ(post(given), 0);

    qor_time_que_node_t *node = qor_time_que_remove(core->que, 41);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(std::memcmp(qor_time_que_node_body(node), &given, sizeof(given)), 0);
    EXPECT_EQ(recycled, 0);
    qor_time_que_node_destroy(node, nullptr);
}

TEST_F(CoreContext, AMissingTaskIsReported)
{
    EXPECT_EQ(qor_context_handle_task(wrapper, nullptr), -1);

    EXPECT_EQ(out.printed(), line("qor_core_context_handle_task", "!(task) == true."));
}

TEST_F(CoreContext, AnImmediateTaskTakesASlotAndSchedulesALoopRun)
{
    EXPECT_EQ(post(task("t", 7)), 0);

    EXPECT_EQ(core->refcount, 1);
    ASSERT_EQ(behind.posted.size(), 1u);
    const qor_context_task_t &run = behind.posted[0];
    EXPECT_EQ(run.fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(run.context, wrapper);
    EXPECT_EQ(run.arg, wrapper);
    EXPECT_EQ(run.session, 1000); /* drawn for it: the task keeps its own */
    EXPECT_EQ(run.delay, 0);
    EXPECT_EQ(run.recycle, nullptr);
}

TEST_F(CoreContext, ANegativeDelayIsImmediate)
{
    EXPECT_EQ(post(task("t", 7, -5)), 0);

    EXPECT_EQ(core->refcount, 1);
    behind.run(0);
    EXPECT_EQ(behind.happened, "start 7 over ");
}

TEST_F(CoreContext, WithoutAFreeSlotNothingMoreIsScheduled)
{
    ASSERT_EQ(post(task("a", 1)), 0);

    EXPECT_EQ(post(task("b", 2)), 0);

    EXPECT_EQ(core->refcount, 1);
    EXPECT_EQ(behind.posted.size(), 1u);
}

TEST_F(CoreContext, OneLoopRunTakesAllThatIsDue)
{
    for (int32_t session = 1; session <= 4; session++) {
        ASSERT_EQ(post(task("t", session, -10 + session)), 0); /* due in this order */
    }

    behind.run(0);

    EXPECT_EQ(behind.happened, "start 1 over start 2 over start 3 over start 4 over ");
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(recycled, 4);
}

TEST_F(CoreContext, ALoopRunTakesTasksInOrderOfTheirDueTime)
{
    ASSERT_EQ(post(task("late", 1, -1000000)), 0);
    ASSERT_EQ(post(task("earlier", 2, -3000000)), 0);
    ASSERT_EQ(post(task("between", 3, -2000000)), 0);

    behind.run(0);

    EXPECT_EQ(behind.happened, "start 2 over start 3 over start 1 over ");
}

TEST_F(CoreContext, ATaskPostedByATaskIsTakenByTheSameRun)
{
    static CoreContext *self;
    self = this;
    qor_context_task_t first = task("a", 1);
    first.fun.runx = [](qor_context_t *, int32_t, void *) -> void * {
        EXPECT_EQ(self->post(self->task("b", 2)), 0);
        return nullptr;
    };
    ASSERT_EQ(post(first), 0);

    behind.run(0);

    EXPECT_EQ(behind.happened, "start over start 2 over ");
    EXPECT_EQ(behind.posted.size(), 1u);
}

TEST_F(CoreContext, ATaskAfterTheLastRunSchedulesANewOne)
{
    ASSERT_EQ(post(task("a", 1)), 0);
    behind.run(0);

    EXPECT_EQ(post(task("b", 2)), 0);

    ASSERT_EQ(behind.posted.size(), 2u);
    behind.run(1);
    EXPECT_EQ(behind.happened, "start 1 over start 2 over ");
}

class CoreContextOfThree : public CoreContext {
protected:
    CoreContextOfThree() : CoreContext(3) {}
};

TEST_F(CoreContextOfThree, SchedulesUpToThreeLoopRuns)
{
    for (int32_t session = 0; session < 5; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }

    EXPECT_EQ(behind.posted.size(), 3u);
    EXPECT_EQ(core->refcount, 3);
}

class CoreContextWithoutLimit : public CoreContext {
protected:
    CoreContextWithoutLimit() : CoreContext(-1) {}
};

TEST_F(CoreContextWithoutLimit, SchedulesALoopRunForEachTask)
{
    for (int32_t session = 0; session < 50; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }

    EXPECT_EQ(behind.posted.size(), 50u);
    EXPECT_EQ(core->refcount, 50);
}

TEST_F(CoreContext, ADelayedTaskArmsATimerAndTakesNoSlot)
{
    EXPECT_EQ(post(task("t", 7, 60000)), 0);

    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(core->que->count, 1);
    ASSERT_EQ(behind.posted.size(), 1u);
    const qor_context_task_t &timer = behind.posted[0];
    EXPECT_EQ(timer.delay, 60000);
    EXPECT_EQ(timer.arg, wrapper);
    EXPECT_EQ(timer.context, wrapper);
    EXPECT_EQ(timer.recycle, nullptr);
}

TEST_F(CoreContext, ALoopRunLeavesWhatIsNotDue)
{
    ASSERT_EQ(post(task("later", 1, 60000)), 0);
    ASSERT_EQ(post(task("now", 2)), 0);

    behind.run(1);

    EXPECT_EQ(behind.happened, "start 2 over ");
    EXPECT_EQ(core->que->count, 1);
}

TEST_F(CoreContext, ADelayedTaskIsReachedByItsOwnTimer)
{
    ASSERT_EQ(post(task("later", 1, 60000)), 0);
    loop();
    ASSERT_EQ(behind.posted.size(), 1u); /* a run that finds nothing due schedules nothing */
    EXPECT_EQ(behind.happened, "");
    qor_time_que_node_t *node = qor_time_que_remove(core->que, 1); /* let a minute pass */
    ASSERT_NE(node, nullptr);
    qor_time_que_node_update(node, 1, 0);
    ASSERT_EQ(qor_time_que_enque(core->que, node), 0);

    behind.run(0); /* the timer's */

    EXPECT_EQ(behind.happened, "start 1 over ");
}

TEST_F(CoreContext, ARunStartedByATimerGivesASlotBack)
{
    ASSERT_EQ(post(task("later", 1, 60000)), 0);
    ASSERT_EQ(post(task("now", 2)), 0);
    ASSERT_EQ(core->refcount, 1);

    behind.run(0); /* the timer's */

    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(post(task("second", 3)), 0);
    EXPECT_EQ(behind.posted.size(), 3u); /* beside the run that is scheduled already */
}

TEST_F(CoreContext, NoMoreSlotsAreGivenBackThanTaken)
{
    loop();
    loop();

    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(behind.posted.size(), 0u);
}

TEST_F(CoreContext, TheFiftyFirstTaskGoesStraightToTheBus)
{
    for (int32_t session = 1; session <= 50; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }
    ASSERT_EQ(behind.posted.size(), 1u);

    EXPECT_EQ(post(task("hasty", 51)), 0);

    EXPECT_EQ(core->que->count, 50);
    ASSERT_EQ(behind.posted.size(), 2u);
    const qor_context_task_t &direct = behind.posted[1];
    EXPECT_EQ(direct.session, 51);
    EXPECT_EQ(direct.fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(direct.context, wrapper);
    EXPECT_EQ(direct.delay, 0);
    EXPECT_EQ(behind.run(1), this);
    EXPECT_EQ(behind.happened, "start 51 over ");
    EXPECT_STREQ(behind.reports[0].name, "hasty");
    EXPECT_EQ(recycled, 1);
}

TEST_F(CoreContext, ADelayedFiftyFirstTaskGoesToTheBusAsATimer)
{
    for (int32_t session = 1; session <= 50; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }

    EXPECT_EQ(post(task("late", 51, 700)), 0);
    EXPECT_EQ(post(task("soon", 52, 1)), 0);

    ASSERT_EQ(behind.posted.size(), 3u);
    EXPECT_EQ(behind.posted[2].delay, 1);
    EXPECT_EQ(behind.posted[1].session, 51);
    EXPECT_EQ(behind.posted[1].delay, 700);
    EXPECT_EQ(core->que->count, 50);
}

TEST_F(CoreContext, DelayedTasksFillTheQueueAsWell)
{
    for (int32_t session = 1; session <= 50; session++) {
        ASSERT_EQ(post(task("t", session, 60000)), 0);
    }

    EXPECT_EQ(post(task("now", 51)), 0);

    EXPECT_EQ(behind.posted.back().session, 51);
    EXPECT_EQ(core->refcount, 0);
}

TEST_F(CoreContext, AQueueThatQuitsSendsTasksStraightToTheBus)
{
    qor_time_que_quit(core->que);

    EXPECT_EQ(post(task("now", 7)), 0);
    EXPECT_EQ(post(task("later", 8, 700)), 0);

    EXPECT_EQ(core->refcount, 0);
    ASSERT_EQ(behind.posted.size(), 2u);
    EXPECT_EQ(behind.posted[0].session, 7);
    EXPECT_EQ(behind.posted[0].delay, 0);
    EXPECT_EQ(behind.posted[1].session, 8);
    EXPECT_EQ(behind.posted[1].delay, 700);
    behind.run_all();
    EXPECT_EQ(behind.happened, "start 7 over start 8 over ");
    EXPECT_EQ(recycled, 2);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(CoreContext, ATaskThatTheBusRefusesStaysTheCallers)
{
    behind.on_post = [] { return -1; };

    EXPECT_EQ(post(task("t", 7)), -1);
    EXPECT_EQ(post(task("t", 8, 60000)), -1);

    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(recycled, 0);
}

TEST_F(CoreContext, AFiftyFirstTaskThatTheBusRefusesStaysTheCallers)
{
    for (int32_t session = 1; session <= 50; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }
    behind.on_post = [] { return -1; };

    EXPECT_EQ(post(task("t", 51)), -1);
    EXPECT_EQ(post(task("t", 52, 60000)), -1);

    EXPECT_EQ(core->que->count, 50);
    EXPECT_EQ(recycled, 0);
}

TEST_F(CoreContext, ATaskTakenBeforeTheRefusalCountsAsAccepted)
{
    behind.on_post = [this] {
        loop(); /* another run that is under way */
        return -1;
    };

    EXPECT_EQ(post(task("t", 7)), 0);

    EXPECT_EQ(behind.happened, "start 7 over ");
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(recycled, 1);
}

TEST_F(CoreContext, ARefusalLeavesATaskThatCameIntoTheNodesPlace)
{
    const auto queued = [this](const list_head *link) {
        const list_head *at = core->que->head.next;
        while (at != &core->que->head && at != link) {
            at = at->next;
        }
        return at == link;
    };
    for (const int32_t session : {8, 7}) { /* another session, and the same */
        int32_t next = 0;
        bool nested = false;
        behind.on_post = [&] {
            if (nested) {
                return 0;
            }
            nested = true;
            const list_head *taken = core->que->head.next;
            loop(); /* another run takes the node and frees it ... */
            do {    /* ... and its memory serves a later task, unless a checker holds it back */
                EXPECT_EQ(post(task("next", session)), 0);
                next++;
            } while (!queued(taken) && next < 40);
            return -1;
        };
        recycled = 0;

        EXPECT_EQ(post(task("t", 7)), 0) << session;

        EXPECT_EQ(core->que->count, next) << session;
        behind.run_all();
        EXPECT_EQ(recycled, 1 + next) << session;
    }
}
