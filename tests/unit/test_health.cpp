/* SPDX-License-Identifier: Apache-2.0 */
/* Whether a bus is well, and the limits it is judged by. */
#include <gtest/gtest.h>

#include <climits>

#include "explaining.hpp"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_start.h"
#include "still_bus.hpp"

namespace {

std::string said(const char *function, const char *text)
{
    return err_line("qor_health", function, text);
}

class Health : public Explaining {
protected:
    Health()
    {
        serve(alpha, 0);
        alpha.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
                door.pass();
            }
            return 0;
        };
    }

    /* A handler of alpha's that does not return, for so long. Gives its session. */
    int32_t stuck(uint64_t ms)
    {
        const int waiting = door.waiting();
        const int32_t session = qor_context_req(beta.context(), 0, nullptr, 0);
        EXPECT_TRUE(door.await(waiting + 1));
        told_time += ms;
        return session;
    }

    static void *stop(void *at)
    {
        static_cast<Door *>(at)->pass();
        return nullptr;
    }

    Module alpha{"alpha"};
    Module beta{"beta"};
    Module gamma{"gamma"};
    Module delta{"delta"};
};

TEST_F(Health, AnIdleBusIsWell)
{
    run_up({&alpha, &beta});

    const qor_health_t found = health();

    EXPECT_EQ(judged, 0);
    EXPECT_EQ(found.size, sizeof(found));
    EXPECT_EQ(found.workers, 2u);
    EXPECT_EQ(found.busy, 0u);
    EXPECT_EQ(found.over, 0u);
    EXPECT_EQ(found.circles, 0u);
    EXPECT_EQ(found.oldest_ms, 0);
    EXPECT_EQ(found.oldest_session, 0);
    EXPECT_STREQ(found.oldest, "");
    EXPECT_EQ(found.queue_ms, 0);
    EXPECT_EQ(found.timer_ms, 0);
}

TEST_F(Health, AHandlerIsOverAfterItsLimit)
{
    run_up({&alpha, &beta});
    const int32_t session = stuck(1000);

    const qor_health_t at = health(1000);

    EXPECT_EQ(judged, 0);
    EXPECT_EQ(at.busy, 1u);
    EXPECT_EQ(at.over, 0u);
    EXPECT_EQ(at.oldest_ms, 1000);
    EXPECT_EQ(at.oldest_session, session);
    EXPECT_STREQ(at.oldest, "alpha");

    told_time += 1;
    EXPECT_EQ(health(1000).over, 1u);
    EXPECT_EQ(judged, 1);
    EXPECT_EQ(health(2000).over, 0u);
    EXPECT_EQ(judged, 0);
    end();
}

TEST_F(Health, AModuleMayHaveALimitOfItsOwn)
{
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "alpha", 5000), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    stuck(5000);

    EXPECT_EQ(health(1000).over, 0u);
    EXPECT_EQ(judged, 0);
    told_time += 1;
    EXPECT_EQ(health(1000).over, 1u);
    EXPECT_EQ(health(60000).over, 1u);
    EXPECT_EQ(judged, 1);
    end();
}

TEST_F(Health, ALimitCanBeTakenBackAndCountsForItsModuleOnly)
{
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "alpha", 5000), 0);
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "alpha", 0), 0);
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "beta", 5000), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    stuck(1001);

    EXPECT_EQ(health(1000).over, 1u);
    end();
}

TEST_F(Health, WhatALongHandlerCallsIsJudgedByItself)
{
    serve(gamma, 2);
    gamma.handle = [](qor_context_t *c, qor_context_msg_t *) {
        told_time += 3000;
        return qor_context_x_req(c, 0, nullptr, 0);
    };
    make({&alpha, &beta, &gamma});
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "gamma", 10000), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    const int32_t session = qor_context_req(beta.context(), 2, nullptr, 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(health(1000).over, 0u);
    told_time += 1001;
    const qor_health_t found = health(1000);

    EXPECT_EQ(found.over, 1u);
    EXPECT_EQ(found.oldest_ms, 4001);
    EXPECT_EQ(found.oldest_session, session);
    EXPECT_STREQ(found.oldest, "gamma");
    end();
}

/* A thread is over once, however much of what it is inside is. */
TEST_F(Health, WhatIsTooDeepToBeKeptIsNotJudged)
{
    serve(gamma, 2);
    gamma.handle = [](qor_context_t *c, qor_context_msg_t *msg) {
        int32_t left;
        memcpy(&left, msg->request.buf, sizeof(left));
        told_time += 2000;
        left--;
        return left > 0 ? qor_context_x_req(c, 2, &left, sizeof(left))
                        : qor_context_x_req(c, 0, nullptr, 0);
    };
    run_up({&alpha, &beta, &gamma});
    int32_t calls = 7;
    ASSERT_GE(qor_context_req(beta.context(), 2, &calls, sizeof(calls)), 0);
    ASSERT_TRUE(door.await(1));

    const qor_health_t found = health(1000);

    EXPECT_EQ(found.over, 1u);
    EXPECT_EQ(found.oldest_ms, 14000);
    EXPECT_STREQ(found.oldest, "gamma");
    EXPECT_EQ(health(13000).over, 1u); /* by the outermost alone */
    end();
}

TEST_F(Health, EveryWorkerStuckIsCounted)
{
    alpha.descriptor.refcount = 4;
    run_up({&alpha, &beta}, 3);
    stuck(0);
    stuck(0);
    stuck(2000);
    qor_context_req(beta.context(), 0, nullptr, 0);

    const qor_health_t found = health(1000);

    EXPECT_EQ(judged, 1);
    EXPECT_EQ(found.workers, 3u);
    EXPECT_EQ(found.busy, 3u);
    EXPECT_EQ(found.over, 3u);
    end();
}

TEST_F(Health, TheFirstTaskOfTheBusWaitsWhileAllWorkersAreBusy)
{
    run_up({&alpha, &beta}, 1);
    qor_bus_run(bus->get(), stop, &door, nullptr);
    ASSERT_TRUE(door.await(1));
    EXPECT_EQ(health().queue_ms, 0);
    const int64_t before = util_timestamp();
    qor_bus_run(bus->get(), stop, &door, nullptr);
    const int64_t after = util_timestamp();

    ASSERT_TRUE(await([this] { return health(200).queue_ms >= 200; }));
    EXPECT_EQ(judged, 1);
    const int64_t from = util_timestamp();
    const int32_t waited = health(60000).queue_ms;
    const int64_t to = util_timestamp();
    EXPECT_EQ(judged, 0);
    EXPECT_GE(waited, from - after - 1); /* it is noted to two milliseconds */
    EXPECT_LE(waited, to - before + 1);
    end();
}

TEST_F(Health, ATaskThatWasQueuedUnrecordedSaysNothing)
{
    run_up({&alpha, &beta}, 1);
    qor_bus_run(bus->get(), stop, &door, nullptr);
    ASSERT_TRUE(door.await(1));
    qor_trace_mask_set(0);
    qor_bus_run(bus->get(), stop, &door, nullptr);
    qor_trace_mask_set(QOR_TRACE_STACKS);
    const int64_t queued = util_timestamp();
    ASSERT_TRUE(await([queued] { return util_timestamp() > queued + 20; }));

    EXPECT_EQ(health().queue_ms, 0);
    end();
}

TEST_F(Health, ATimerIsLateWhileTheLoopIsHeldUp)
{
    make({}, 1); /* nobody loops */
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, 1, stop, &door);
    task.delay = 50;
    const int64_t before = util_timestamp();
    ASSERT_EQ(qor_bus_timer_post(bus->get(), &task), 0);
    const int64_t after = util_timestamp();

    ASSERT_TRUE(await([this] { return health(100).timer_ms >= 100; }));
    EXPECT_EQ(judged, 1);
    const int64_t from = util_timestamp();
    const int32_t late = health(60000).timer_ms;
    const int64_t to = util_timestamp();
    EXPECT_EQ(judged, 0);
    EXPECT_GE(late, from - after - 50);
    EXPECT_LE(late, to - before - 50);
}

TEST_F(Health, ATimerThatIsNotDueIsNotLate)
{
    make({}, 1);
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, 1, stop, &door);
    task.delay = 600000;
    ASSERT_EQ(qor_bus_timer_post(bus->get(), &task), 0);

    EXPECT_EQ(health().timer_ms, 0);
}

TEST_F(Health, ACircleIsNotWell)
{
    call(alpha, {0});
    run({&alpha}, 1);
    ASSERT_TRUE(await([this] { return health(INT_MAX).circles == 1; }));

    EXPECT_EQ(judged, 1);
    EXPECT_EQ(health(INT_MAX).over, 0u);
}

TEST_F(Health, CirclesAreCountedOnce)
{
    serve(beta, 1);
    serve(gamma, 2);
    call(alpha, {1});
    call(beta, {2});
    call(gamma, {0});
    serve(delta, 3);
    call(delta, {3});
    run({&alpha, &beta, &gamma, &delta}, 4);

    ASSERT_TRUE(await([this] { return health().circles == 2; }));
    EXPECT_EQ(explain().circles, 2);
    EXPECT_EQ(health().circles, 2u);
}

TEST_F(Health, AnInitOnAHelperIsJudgedToo)
{
    alpha.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    call(beta, {0});
    run({&alpha, &beta}, 1); /* beta's init, the newest, is begun first; it needs alpha's */
    ASSERT_TRUE(door.await(1));
    ASSERT_TRUE(explained("waits for the start of alpha"));
    told_time += 1001;

    const qor_health_t found = health(1000);

    EXPECT_EQ(found.over, 2u);
    EXPECT_EQ(found.busy, 1u);
    EXPECT_EQ(found.circles, 0u);
    end();
}

TEST_F(Health, AThreadThatOnlyWaitsIsNotOver)
{
    alpha.init = [this](qor_context_t *) {
        door.pass();
        return 0;
    };
    make({&alpha}, 1);
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "alpha", 60000), 0);
    Thread waits([this] { qor_bus_wait_up(bus->get(), 60000, nullptr); });
    bus->start();
    ASSERT_TRUE(explained(" > - waits 26"));
    ASSERT_TRUE(door.await(1));
    told_time += 30000;

    EXPECT_EQ(health(1000).over, 0u);
    door.open();
    waits.join();
}

TEST_F(Health, WhatIsWrongIsSaidAndNothingFilled)
{
    const char function[] = "qor_bus_health";
    make({});
    qor_health_t found;
    memset(&found, 0x55, sizeof(found));
    const qor_health_t before = found;
    EXPECT_EQ(qor_bus_health(nullptr, 1, &found), -1);
    EXPECT_EQ(qor_bus_health(bus->get(), 0, &found), -1);
    EXPECT_EQ(qor_bus_health(bus->get(), -1, &found), -1);
    EXPECT_EQ(qor_bus_health(bus->get(), 1, nullptr), -1);
    EXPECT_EQ(qor_bus_health(bus->get(), 1, &found), -1);
    EXPECT_EQ(memcmp(&found, &before, sizeof(found)), 0);
    qor_trace_stop();
    health();
    EXPECT_EQ(judged, -1);
    EXPECT_EQ(output.printed(), said(function, "!(bus) == true.") +
                                    said(function, "!(limit_ms > 0) == true.") +
                                    said(function, "!(limit_ms > 0) == true.") +
                                    said(function, "!(health) == true.") +
                                    said(function, "!(health->size == sizeof(*health)) == true.") +
                                    said(function, "nothing is recorded."));
}

TEST_F(Health, ALimitThatCannotBeSetIsSaid)
{
    const char function[] = "qor_bus_limit_set";
    make({&alpha});
    EXPECT_EQ(qor_bus_limit_set(nullptr, "alpha", 1), -1);
    EXPECT_EQ(qor_bus_limit_set(bus->get(), nullptr, 1), -1);
    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alpha", -1), -1);
    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alph", 1), -1);
    bus->start();
    EXPECT_TRUE(bus->up());
    output.clear();
    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alpha", 1), -1);
    EXPECT_EQ(qor_bus_stalled_set(bus->get(), nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_stalled_set(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(output.printed(), said(function, "loop: the bus loops already.") +
                                    said("qor_bus_stalled_set", "loop: the bus loops already.") +
                                    said("qor_bus_stalled_set", "!(bus) == true."));
}

TEST_F(Health, AnUnknownModuleIsSaid)
{
    const char function[] = "qor_bus_limit_set";
    make({&alpha});
    output.clear();

    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alph", 1), -1);
    EXPECT_EQ(qor_bus_limit_set(bus->get(), "", 1), -1);

    EXPECT_EQ(output.printed(), said(function, "name: no module has it.") +
                                    said(function, "name: no module has it."));
}

} // namespace
