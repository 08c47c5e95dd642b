/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context: posting, loop runs, reports, cancelling. */
#include "qor_core_context.h"

#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "case_name.hpp"
#include "core_context_fixture.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_que.h"
#include "qor_sched_delegate.h"
#include "sleeper.hpp"

namespace {

qor_context_cls_t &cls = qor_core_context_class;

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

} // namespace

/* ---- posting ---- */

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

    ASSERT_EQ(behind.posted.size(), 2u);
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

/* ---- running ---- */

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

/* ---- cancelling ---- */

namespace {

struct CancelCase {
    const char *name;
    int32_t (*cancel)(qor_context_t *, int32_t);
    const char *forwarded;
};

} // namespace

class CoreContextCancel : public CoreContext, public testing::WithParamInterface<CancelCase> {};

TEST_P(CoreContextCancel, TakesAWaitingTaskOutAndReleasesIt)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    ASSERT_EQ(post(task("b", 2, 60000)), 0);

    EXPECT_EQ(GetParam().cancel(inner, 1), 0);

    EXPECT_EQ(core->que->count, 1);
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(behind.cancelled, "");
}

TEST_P(CoreContextCancel, ForwardsWhatIsNotInTheQueue)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    behind.cancel_result = -4;

    EXPECT_EQ(GetParam().cancel(inner, 3), -4);

    EXPECT_EQ(behind.cancelled, GetParam().forwarded);
    EXPECT_EQ(core->que->count, 1);
    EXPECT_EQ(recycled, 0);
}

TEST_P(CoreContextCancel, LeavesARunThatFindsNothing)
{
    ASSERT_EQ(post(task("a", 1, 60000)), 0);
    ASSERT_EQ(GetParam().cancel(inner, 1), 0);

    behind.run(0); /* the timer's */

    EXPECT_EQ(behind.happened, "");
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(recycled, 1);
}

INSTANTIATE_TEST_SUITE_P(
    All, CoreContextCancel,
    testing::Values(CancelCase{"Cancel", qor_context_handler_cancel, "cancel 3 "},
                    CancelCase{"Cancelx", qor_context_handler_cancelx, "cancelx 3 "},
                    CancelCase{"TimerCancel", qor_context_timer_cancel, "cancel 3 "},
                    CancelCase{"XTimerCancel", qor_context_x_timer_cancel, "cancelx 3 "}),
    case_name<CancelCase>);

/* ---- attached to a bus ---- */

namespace {

/* A user context that is attached to a bus whose loop never runs. */
class CoreContextOnABus : public testing::Test {
protected:
    CoreContextOnABus() : bus(qor_bus_create(modules, 1))
    {
        wrapper = qor_context_create(&cls, &module.descriptor);
        core = qor_core_context_type(wrapper);
        inner = core->context;
        qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, wrapper);
        recycled = 0;
    }

    ~CoreContextOnABus() override
    {
        if (core->lifecycle != QOR_USER_CONTEXT_LIFECYCLE_DESTROY) {
            qor_context_uninit(wrapper);
            qor_context_destroy(wrapper);
        }
        qor_bus_close(bus);
        EXPECT_EQ(recycled, to_recycle);
    }

    int32_t post(int32_t session, int32_t delay = 0)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, inner, "t", session, [](void *arg) { return arg; }, nullptr);
        task.delay = delay;
        task.recycle = [](void *) { recycled++; };
        return qor_context_handler_post(inner, &task);
    }

    static int recycled;
    int to_recycle = 0; /* by the time that the bus is closed */
    Module module{"gauge"};
    qor_context_module_t *modules[1] = {nullptr};
    qor_bus_t *bus;
    qor_context_t *wrapper;
    qor_core_context_t *core;
    qor_context_t *inner;
    Output out;
};

int CoreContextOnABus::recycled;

} // namespace

TEST_F(CoreContextOnABus, XTimerCancelOfAnUnknownSessionFindsNoCancelx)
{
    EXPECT_EQ(qor_context_x_timer_cancel(inner, 5), -1);

    EXPECT_EQ(out.printed(), err_line("qor_context_handler", "qor_context_handler_cancelx",
                                      "!(handler->cancelx) == true."));
}

TEST_F(CoreContextOnABus, TimerCancelOfAnUnknownSessionReachesTheBus)
{
    EXPECT_EQ(qor_context_timer_cancel(inner, 5), -1);

    EXPECT_EQ(out.printed(), err_line("qor_sched_delegate", "qor_sched_delegate_cancel",
                                      "cancel a timer failed, source:gauge, session=5"));
}

TEST_F(CoreContextOnABus, AFiftyFirstTaskIsCancelledUnderItsOwnSession)
{
    for (int32_t session = 101; session <= 151; session++) {
        ASSERT_EQ(post(session), 0);
    }
    ASSERT_EQ(core->que->count, 50);

    EXPECT_EQ(qor_context_timer_cancel(inner, 151), 0);

    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(core->que->count, 50);
    to_recycle = 51;
}

TEST_F(CoreContextOnABus, ADelayedFiftyFirstTaskIsNotFoundByCancel)
{
    for (int32_t session = 101; session <= 150; session++) {
        ASSERT_EQ(post(session), 0);
    }
    ASSERT_EQ(post(151, 60000), 0);

    EXPECT_EQ(qor_context_timer_cancel(inner, 151), -1);

    EXPECT_EQ(recycled, 0);
    EXPECT_EQ(out.count("cancel a timer failed, source:gauge, session=151"), 1);
    to_recycle = 51;
}

TEST_F(CoreContextOnABus, CloseRecyclesWhateverWaitsAndWhereverItWaits)
{
    for (int32_t session = 101; session <= 150; session++) {
        ASSERT_EQ(post(session), 0);
    }
    ASSERT_EQ(post(151), 0);        /* in the bus's task queue */
    ASSERT_EQ(post(152, 60000), 0); /* in the bus's timer queue */

    to_recycle = 52;
}

TEST_F(CoreContextOnABus, NothingIsAcceptedOnceTheBusQuits)
{
    qor_bus_quit(bus);

    EXPECT_EQ(post(7), -1);
    EXPECT_EQ(post(8, 60000), -1);

    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(core->refcount, 0);
    EXPECT_EQ(out.count("create a timer failed, source:gauge, task:"), 2);
}

TEST_F(CoreContextOnABus, ATaskTakenBeforeTheBusRefusesItsRunIsNoError)
{
    Sleeper sleeper;
    int32_t posted = -1;
    qor_que_lock(bus->que); /* holds the posting thread up between the queues */
    std::thread posting([&] {
        sleeper.here();
        posted = post(7);
    });
    int32_t delay = 0;
    ASSERT_TRUE(
        await([&] { return sleeper.sleeps() && qor_time_que_next_delay(core->que, &delay) == 0; }));

    EXPECT_EQ(cls.loop(wrapper), 0); /* a run that is under way */
    __atomic_store_n(&bus->que->quitting, 1, __ATOMIC_RELEASE);
    qor_que_unlock(bus->que);
    posting.join();

    EXPECT_EQ(posted, 0);
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(out.count("create a timer failed"), 0);
    to_recycle = 1;
}

TEST_F(CoreContextOnABus, ALoopRunStopsOnceTheBusQuits)
{
    ASSERT_EQ(post(7), 0);
    qor_bus_quit(bus);

    EXPECT_EQ(cls.loop(wrapper), 0);

    EXPECT_EQ(core->que->count, 1);
    EXPECT_EQ(recycled, 0);
    to_recycle = 1;
}

TEST_F(CoreContextOnABus, ADestroyedContextStaysUntilTheBusIsClosed)
{
    ASSERT_EQ(post(7), 0);
    to_recycle = 1;
    qor_context_uninit(wrapper);

    qor_context_destroy(wrapper);

    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
    EXPECT_EQ(qor_context_resume(wrapper), -1);
    EXPECT_EQ(cls.loop(wrapper), 0); /* a run that was under way */
    EXPECT_STREQ(qor_context_module_name_get(inner), "gauge");
}
