/* SPDX-License-Identifier: Apache-2.0 */
/* A loop run that has had its worker for long. */
#include <gtest/gtest.h>

#include "await.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "qor_context_task.h"
#include "qor_que_priv.hpp"
#include "still_bus.hpp"
#include "taking_tasks.hpp"
#include "thread_record.hpp"

namespace {

constexpr int64_t turn = 5; /* ms that a run may go on while others wait */

/* On a bus that the test drives in place of a worker. */
class CoreContextTurn : public testing::Test {
protected:
    CoreContextTurn()
    {
        bus.run_all();
        EXPECT_TRUE(module.started());
        EXPECT_EQ(thread_record_set(&record), 0);
    }
    ~CoreContextTurn() override { thread_record_set(nullptr); }

    /* Those of one millisecond would not run in the order of their posts. */
    void post(const std::function<void()> &body)
    {
        last_for(0);
        bodies.push_back(body);
        const auto run = [](qor_context_t *, int32_t number, void *all) -> void * {
            (*static_cast<std::vector<std::function<void()>> *>(
                all))[static_cast<size_t>(number)]();
            return nullptr;
        };
        const int32_t number = static_cast<int32_t>(bodies.size()) - 1;
        EXPECT_GE(qor_context_x_runx_s(module.context(), number, run, &bodies), 0);
    }

    /* Lasts longer than so many milliseconds. */
    static void last_for(int64_t ms)
    {
        const int64_t since = util_timestamp();
        EXPECT_TRUE(await([&] { return util_timestamp() > since + ms; }));
    }

    /* Runs the first task as a worker does, which has its node. */
    void *run_first()
    {
        qor_context_task_t *first = bus.take();
        record.running = qor_que_node_type(first);
        qor_context_task_excute(first);
        return record.running;
    }

    Output output;
    Journal journal;
    Module module{"module"};
    std::vector<std::function<void()>> bodies;
    StillBus bus{{&module}};
    thread_record record = {};
};

} // namespace

TEST_F(CoreContextTurn, ItLetsOthersGoFirst)
{
    post([this] { journal.add("first"); });
    post([] { last_for(turn); });
    post([this] { journal.add("third"); });
    qor_bus_run(
        bus.get(),
        [](void *text) -> void * { return static_cast<Journal *>(text)->add("other"), text; },
        &journal, nullptr);

    EXPECT_EQ(run_first(), nullptr); /* which has been queued again */

    EXPECT_EQ(journal.text(), "first");
    thread_record_set(nullptr);
    bus.run_all();
    EXPECT_EQ(journal.text(), "first other third");
}

TEST_F(CoreContextTurn, WhereTheQueueOfTheBusHasJustEndedItGoesOn)
{
    post([this] { journal.add("first"); });
    post([this] {
        last_for(turn);
        que_quit_begin(bus.get()->que); /* as the bus's quit begins */
    });
    post([this] { journal.add("third"); });
    qor_bus_run(
        bus.get(), [](void *arg) { return arg; }, nullptr, nullptr);

    EXPECT_EQ(run_first(), nullptr); /* which has not been taken back, and is freed */

    EXPECT_EQ(journal.text(), "first third");
}
