/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a user context that is attached to a bus. */
#include "qor_core_context.h"

#include <atomic>
#include <utility>

#include <gtest/gtest.h>

#include "await.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_task.h"
#include "qor_que.h"
#include "qor_sched_delegate.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

qor_context_cls_t &cls = qor_core_context_class;

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

TEST_F(CoreContextOnABus, NorPastAFullQueue)
{
    to_recycle = 50;
    for (int32_t session = 0; session < to_recycle; session++) {
        ASSERT_EQ(post(session), 0);
    }
    qor_bus_quit(bus);

    EXPECT_EQ(post(60), -1);
    EXPECT_EQ(post(61, 60000), -1);

    EXPECT_EQ(core->que->count, 50);
    EXPECT_EQ(out.count("create a timer failed, source:gauge, task:"), 2);
}

TEST_F(CoreContextOnABus, ATaskTakenBeforeTheBusRefusesItsRunIsNoError)
{
    Sleeper sleeper;
    int32_t posted = -1;
    qor_que_lock(bus->que); /* holds the posting thread up between the queues */
    Thread posting([&] {
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

/* Only a run that a worker has from the bus can give way to others. */
TEST_F(CoreContextOnABus, ALoopThatIsCalledByHandGoesOnPastItsTurn)
{
    struct Chain {
        qor_context_t *inner;
        int left;

        static void *next(void *arg)
        {
            Chain &self = *static_cast<Chain *>(arg);
            if (--self.left > 0) {
                EXPECT_GE(qor_context_run(self.inner, next, arg), 0);
            }
            return nullptr;
        }
    } chain = {inner, 200};
    ASSERT_GE(qor_context_run(inner, Chain::next, &chain), 0);
    EXPECT_GT(qor_que_count(bus->que), 0);

    EXPECT_EQ(cls.loop(wrapper), 0);

    EXPECT_EQ(chain.left, 0);
}

TEST_F(CoreContextOnABus, NorDoesOneThatAnotherTaskCalls)
{
    RunningBus running({&module}, 1, 1);
    ASSERT_TRUE(running.up());
    struct Chain {
        qor_context_t *context;
        std::atomic<int> left;

        static void *next(void *arg)
        {
            Chain &self = *static_cast<Chain *>(arg);
            if (--self.left > 0) {
                EXPECT_GE(qor_context_run(self.context, next, arg), 0);
            }
            return nullptr;
        }
        static void *loop(void *arg)
        {
            Chain &self = *static_cast<Chain *>(arg);
            EXPECT_GE(qor_context_run(self.context, next, arg), 0);
            EXPECT_EQ(cls.loop(&qor_core_context_type(static_cast<qor_context_t *>(
                                                          qor_context_pub_data_get(self.context)))
                                    ->base),
                      0);
            EXPECT_EQ(self.left, 0);
            return nullptr;
        }
    } chain = {module.context(), {200}};
    ASSERT_EQ(qor_bus_run(running.get(), Chain::loop, &chain, nullptr), 0);

    EXPECT_EQ(qor_bus_drain(running.get(), 60000), 0);

    EXPECT_EQ(chain.left, 0);
}

TEST_F(CoreContextOnABus, WithoutATimerQueueTasksAreCancelledAllTheSame)
{
    qor_time_que_t *timers = std::exchange(bus->time_que, nullptr);
    ASSERT_EQ(post(7), 0);

    EXPECT_EQ(qor_context_timer_cancel(inner, 7), 0);

    bus->time_que = timers;
    to_recycle = 1;
}

TEST_F(CoreContextOnABus, WithoutATimerQueueAnInitMayFail)
{
    Module failing("failing");
    failing.init = [](qor_context_t *) { return -1; };
    StillBus still({&failing});
    qor_time_que_t *timers = std::exchange(still.get()->time_que, nullptr);

    still.run_all();

    still.get()->time_que = timers;
    EXPECT_EQ(out.count("context init failed."), 1);
}

TEST_F(CoreContextOnABus, AnAsynchronousTaskThatTheTaskQueueDoesNotTakeIsRecycled)
{
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, inner, "t", 7, [](void *arg) { return arg; }, nullptr);
    task.async = 1;
    task.recycle = [](void *) { recycled++; };
    ASSERT_EQ(qor_context_handler_post(inner, &task), 0);
    qor_que_quit(bus->que);

    EXPECT_EQ(cls.loop(wrapper), 0);

    EXPECT_EQ(core->que->count, 0);
    to_recycle = 1;
    EXPECT_EQ(recycled, 1);
}
