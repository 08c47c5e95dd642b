/* SPDX-License-Identifier: Apache-2.0 */
/* What cancel takes out of the task queue, and what it passes over. The tests run the bus's tasks
 * themselves. */
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"
#include "thread.hpp"

namespace {

class Cancel : public testing::Test {
protected:
    Cancel()
    {
        recycled = 0;
        ran = 0;
        served.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        served.handle = [this](qor_context_t *, qor_context_msg_t *) {
            handled++;
            return 0;
        };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *) {
            handled++;
            return 0;
        };
    }

    void bring_up()
    {
        bus.run_all();
        ASSERT_TRUE(served.started() && asker.started());
    }

    /* Session numbers in the task queue, in order. */
    std::vector<int32_t> queued()
    {
        std::vector<int32_t> sessions;
        const qor_que_t *que = bus.get()->que;
        for (list_head *link = que->head.next; link != &que->head; link = link->next) {
            qor_que_node_t *node = reinterpret_cast<qor_que_node_t *>(link); /* first field */
            sessions.push_back(static_cast<int32_t>(qor_que_node_id(node)));
        }
        return sessions;
    }

    /* A task of the application's, straight on the bus. */
    void post_plain(int32_t session)
    {
        qor_context_task_t task = plain(session);
        ASSERT_EQ(qor_bus_post(bus.get(), &task), 0);
    }

    static int32_t post(const Module &module, int32_t session, int32_t delay = 0, int32_t async = 0)
    {
        qor_context_task_t task = plain(session);
        task.delay = delay;
        task.async = async;
        return qor_context_handler_post(module.context(), &task);
    }

    /* Whoever cancels, by whichever way, finds nothing and leaves the queue as it is. */
    void expect_passed_over(int32_t session)
    {
        const std::vector<int32_t> before = queued();
        EXPECT_EQ(qor_bus_cancel(bus.get(), session), -1);
        EXPECT_EQ(qor_context_timer_cancel(asker.context(), session), -1);
        EXPECT_EQ(qor_context_timer_cancel(served.context(), session), -1);
        EXPECT_EQ(queued(), before);
    }

    static qor_context_task_t plain(int32_t session)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, nullptr, "plain", session,
            [](void *) -> void * {
                ran++;
                return nullptr;
            },
            nullptr);
        task.recycle = [](void *) { recycled++; };
        return task;
    }

    static int recycled;
    static int ran;
    int handled = 0;
    Output out;
    Module served{"served"}, asker{"asker"};
    StillBus bus{{&served, &asker}, 1};
};

int Cancel::recycled;
int Cancel::ran;

} // namespace

TEST_F(Cancel, PassesOverTheStartUp)
{
    EXPECT_EQ(qor_bus_cancel(bus.get(), 0), -1);
    EXPECT_EQ(queued(), std::vector<int32_t>{0});

    bring_up();
}

TEST_F(Cancel, PassesOverInits)
{
    bus.run_next(); /* the start-up */
    const std::vector<int32_t> inits = queued();
    ASSERT_EQ(inits.size(), 2u);

    for (int32_t session : inits) {
        expect_passed_over(session);
    }

    bring_up();
}

TEST_F(Cancel, PassesOverALoopRun)
{
    bring_up();
    ASSERT_EQ(post(served, -1), 0);
    ASSERT_EQ(queued().size(), 1u);

    expect_passed_over(queued()[0]);

    bus.run_all();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(served.core()->refcount, 0);
}

TEST_F(Cancel, PassesOverTheRunOfAnAsynchronousTask)
{
    bring_up();
    ASSERT_EQ(post(served, -1, 0, 1), 0);
    bus.run_next(); /* hands it to a run of its own */
    ASSERT_EQ(queued().size(), 1u);

    expect_passed_over(queued()[0]);

    bus.run_all();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(recycled, 1);
}

TEST_F(Cancel, PassesOverTheRunThatATimerHasStarted)
{
    bring_up();
    const int32_t before = qor_que_count(bus.get()->que);
    ASSERT_EQ(post(served, -1, 1), 0);
    qor_bus_thread_num_set(bus.get(), 0); /* nobody takes the run */
    Thread loop([&] { qor_bus_loop(bus.get()); });
    EXPECT_TRUE(await([&] { return qor_que_count(bus.get()->que) == before + 1; }));

    expect_passed_over(queued()[0]);

    bus.run_all();
    EXPECT_EQ(ran, 1);
    qor_bus_quit(bus.get());
    loop.join();
    EXPECT_EQ(recycled, 1);
}

TEST_F(Cancel, TakesTheFirstOtherTaskOfTheNumber)
{
    bring_up();
    ASSERT_EQ(post(served, -1), 0);
    const int32_t own = queued()[0];
    post_plain(own + 1000);
    post_plain(own);
    post_plain(own);

    EXPECT_EQ(qor_bus_cancel(bus.get(), own), 0);
    EXPECT_EQ(queued(), (std::vector<int32_t>{own, own + 1000, own}));
    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(qor_context_timer_cancel(asker.context(), own), 0);
    EXPECT_EQ(queued(), (std::vector<int32_t>{own, own + 1000}));
    expect_passed_over(own);

    bus.run_all();
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(recycled, 4);
}

TEST_F(Cancel, TakesATaskThatWentPastAFullQueue)
{
    bring_up();
    for (int32_t i = 0; i < 50; i++) {
        ASSERT_EQ(post(served, 100000 + i), 0);
    }
    ASSERT_EQ(post(served, 200000), 0);
    ASSERT_EQ(queued().size(), 2u);

    EXPECT_EQ(qor_context_timer_cancel(served.context(), 200000), 0);

    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(queued().size(), 1u);
    bus.run_all();
    EXPECT_EQ(ran, 50);
    EXPECT_EQ(recycled, 51);
}

/* The leak checker sees a message that stays. */
TEST_F(Cancel, TakesRequestsThatWentPastAFullQueue)
{
    bring_up();
    for (int32_t i = 0; i < 50; i++) {
        ASSERT_EQ(post(served, 100000 + i), 0);
    }
    const int32_t session = qor_context_req(asker.context(), 0, nullptr, 0);
    ASSERT_GE(session, 0);

    EXPECT_EQ(qor_context_timer_cancel(asker.context(), session), 0);

    bus.run_all();
    EXPECT_EQ(handled, 0);
}

TEST_F(Cancel, TakesAResponseThatWaits)
{
    bring_up();
    const int32_t session = qor_context_req(asker.context(), 0, nullptr, 0);
    bus.run_next();
    ASSERT_EQ(handled, 1); /* the request; its response waits in the asker's queue */

    EXPECT_EQ(qor_context_timer_cancel(asker.context(), session), 0);

    bus.run_all();
    EXPECT_EQ(handled, 1);
}

TEST_F(Cancel, TakesAResponseThatWentPastAFullQueue)
{
    bring_up();
    const int32_t session = qor_context_req(asker.context(), 0, nullptr, 0);
    for (int32_t i = 0; i < 50; i++) {
        ASSERT_EQ(post(asker, 100000 + i), 0);
    }
    bus.run_next();
    ASSERT_EQ(handled, 1);
    ASSERT_EQ(queued().back(), session);

    EXPECT_EQ(qor_context_timer_cancel(asker.context(), session), 0);

    bus.run_all();
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(ran, 50);
}

TEST_F(Cancel, TakesAListenersTask)
{
    bring_up();
    int heard = 0;
    served.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        heard += msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE;
        return 0;
    };
    qor_context_listen(served.context(), 0, nullptr);
    ASSERT_EQ(qor_context_x_req(asker.context(), 0, nullptr, 0), 0);
    const std::vector<int32_t> tasks = queued(); /* before the handler, and after it */
    ASSERT_EQ(tasks.size(), 2u);

    for (int32_t session : tasks) {
        EXPECT_EQ(qor_bus_cancel(bus.get(), session), 0);
    }

    bus.run_all();
    EXPECT_EQ(heard, 0);
}

TEST_F(Cancel, TakesASystemCall)
{
    bring_up();
    qor_context_t *wrapper =
        static_cast<qor_context_t *>(qor_context_pub_data_get(asker.context()));
    qor_sys_monitor_task_t report = {};
    const int32_t session =
        qor_context_sys_req(wrapper, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    ASSERT_GE(session, 0);
    ASSERT_EQ(queued(), std::vector<int32_t>{session});

    EXPECT_EQ(qor_bus_cancel(bus.get(), session), 0);

    EXPECT_EQ(queued().size(), 0u);
}

TEST_F(Cancel, LeavesRemoveAsItIs)
{
    qor_que_node_t *start_up = qor_que_remove(bus.get()->que, 0);

    EXPECT_EQ(static_cast<qor_context_task_t *>(qor_que_node_body(start_up))->session, 0);
    qor_que_node_destroy(start_up, nullptr);
}
