/* SPDX-License-Identifier: Apache-2.0 */
/* Draining and quitting a bus while an init is under way on a thread that is no worker. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "thread_call.hpp"

namespace {

/* One worker, which has nothing to do while a helper runs an init on behalf of the test's thread:
 * the task of that init has come and gone. */
class StartsByHelper : public testing::Test {
protected:
    StartsByHelper()
    {
        asked.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        asked.init = [this](qor_context_t *) {
            drained = qor_bus_drain(bus.load()->get(), 0);
            return inside.pass() ? 0 : -1;
        };
        blocker.init = [this](qor_context_t *) { return before.pass() ? 0 : -1; };
    }

    void begin(RunningBus &running)
    {
        bus = &running;
        ASSERT_TRUE(before.await(1));
        answer = ThreadCall([this] { return qor_context_x_req(blocker.context(), 0, nullptr, 0); });
        ASSERT_TRUE(inside.await(1));
    }

    void let_worker_go(RunningBus &running)
    {
        before.open();
        ASSERT_TRUE(await([&] { return blocker.started(); }));
        ASSERT_TRUE(await([&] { return qor_que_count(running.get()->que) == 0; }));
    }

    Output out;
    std::atomic<RunningBus *> bus{nullptr};
    std::atomic<int32_t> drained{1};
    Door before, inside;
    Module asked{"asked"}, blocker{"blocker"};
    ThreadCall answer; /* last: it uses the others */
};

} // namespace

TEST_F(StartsByHelper, AHelperMayNotDrain)
{
    RunningBus running({&asked, &blocker}, 1, 1);
    begin(running);

    EXPECT_EQ(drained, -1);
    EXPECT_EQ(out.count("a task of the bus would wait for itself."), 1);
    let_worker_go(running);
    inside.open();
    EXPECT_EQ(answer.get(), 0);
}

TEST_F(StartsByHelper, DrainWaitsForAnInitOnAHelper)
{
    RunningBus running({&asked, &blocker}, 1, 1);
    begin(running);
    let_worker_go(running);

    EXPECT_EQ(qor_bus_drain(running.get(), 100), -1);
    ThreadCall drain([&] { return qor_bus_drain(running.get(), -1); });
    EXPECT_FALSE(drain.returned(50));
    inside.open();

    EXPECT_EQ(drain.get(), 0);
    EXPECT_TRUE(asked.started());
    EXPECT_EQ(answer.get(), 0);
}

TEST_F(StartsByHelper, TheLoopWaitsForAHelper)
{
    RunningBus running({&asked, &blocker}, 1, 1);
    begin(running);
    let_worker_go(running);
    qor_bus_quit(running.get());
    EXPECT_EQ(answer.get(), -1); /* quit lets it go at once */

    ThreadCall end([&] { return running.quit(); });
    EXPECT_FALSE(end.returned(50));
    inside.open();

    EXPECT_EQ(end.get(), 0);
    EXPECT_TRUE(asked.started());
}
