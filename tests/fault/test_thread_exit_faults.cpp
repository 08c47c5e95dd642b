/* SPDX-License-Identifier: Apache-2.0 */
/* Tasks that end their thread where something is missing: the thread that would take the place, or
 * what a thread has to give back. */
#include <pthread.h>

#include <atomic>

#include <gtest/gtest.h>

#include "door.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "taking_tasks.hpp"
#include "thread.hpp"

namespace {

const char *const no_successor =
    "[qor_bus][err][qor_bus_task_loop]:a task has ended a worker, and no other could be made.\n";

/* Waits at a door and then ends its thread. */
void *leave_behind(void *door)
{
    static_cast<Door *>(door)->pass();
    pthread_exit(nullptr);
}

void *count(void *runs)
{
    (*static_cast<std::atomic<int> *>(runs))++;
    return nullptr;
}

/* A drain without limit on a thread of its own. */
class Drain {
public:
    explicit Drain(qor_bus_t *bus)
        : thread_([this, bus] {
              sleeper_.here();
              result_ = qor_bus_drain(bus, -1);
          })
    {
    }

    bool waits() const
    {
        return await([this] { return sleeper_.sleeps(); });
    }

    /* Waits for its end; gives its result. */
    int32_t result(const Where &where = Where::here())
    {
        thread_.join(where);
        return result_;
    }

private:
    Sleeper sleeper_;
    int32_t result_ = -2;
    Thread thread_; /* last: it uses the others */
};

} // namespace

TEST(ThreadExitFaults, ADrainEndsThoughAWorkerIsNotReplaced)
{
    Output out;
    RunningBus looping(RunningBus::by_start, /* workers */ 2);
    drop_start_up(looping.get());
    Door door;
    looping.start();
    ASSERT_EQ(qor_bus_run(looping.get(), leave_behind, &door, nullptr), 0);
    ASSERT_TRUE(door.await(1));
    Drain drain(looping.get());
    ASSERT_TRUE(drain.waits());
    fault_arm_from(FAULT_THREAD, 0);

    door.open();

    EXPECT_EQ(drain.result(), 0);
    looping.quit();
    EXPECT_EQ(out.printed(), no_successor);
    fault_arm(FAULT_THREAD, -1);
}

TEST(ThreadExitFaults, TheOtherWorkersGoOnWithoutASuccessor)
{
    Output out;
    RunningBus looping(RunningBus::by_start, /* workers */ 2);
    drop_start_up(looping.get());
    Door open;
    open.open();
    std::atomic<int> runs{0};
    looping.start();
    ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    fault_arm_from(FAULT_THREAD, 0);

    ASSERT_EQ(qor_bus_run(looping.get(), leave_behind, &open, nullptr), 0);
    EXPECT_TRUE(out.await("no other could be made."));
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(qor_bus_run(looping.get(), count, &runs, nullptr), 0);
    }

    EXPECT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    EXPECT_EQ(runs, 100);
    EXPECT_EQ(looping.quit(), 0);
    fault_arm(FAULT_THREAD, -1);
}

/* The last worker has gone: what is queued waits until the bus ends, and is recycled then. */
TEST(ThreadExitFaults, WithoutTheLastWorkerTasksWaitForTheEnd)
{
    Output out;
    static std::atomic<int> releases;
    releases = 0;
    RunningBus looping(RunningBus::by_start, /* workers */ 1);
    drop_start_up(looping.get());
    Door open;
    open.open();
    std::atomic<int> runs{0};
    looping.start();
    ASSERT_EQ(qor_bus_drain(looping.get(), 60000), 0);
    fault_arm_from(FAULT_THREAD, 0);

    ASSERT_EQ(qor_bus_run(looping.get(), leave_behind, &open, nullptr), 0);
    EXPECT_TRUE(out.await("no other could be made."));
    ASSERT_EQ(qor_bus_run(looping.get(), count, &runs, [](void *) { releases++; }), 0);

    EXPECT_EQ(qor_bus_drain(looping.get(), 0), -1);
    EXPECT_EQ(looping.quit(), 0);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(releases, 1);
    fault_arm(FAULT_THREAD, -1);
}

namespace {

/* A module that hears or filters a topic, and whose handler leaves at a type of message. */
struct ThreadExitEpoch : testing::TestWithParam<int32_t> {
    bool hears() const { return GetParam() <= QOR_CONTEXT_MSG_LISTEN_AFTER; }
};

} // namespace

/* A registration that is removed later is freed: no dispatch stands on it for ever. */
TEST_P(ThreadExitEpoch, IsGivenBack)
{
    Output out;
    Module asker("asker"), leaver("leaver");
    std::atomic<int> left{0};
    leaver.reg = [this](qor_context_t *c) {
        qor_context_t *wrapper = static_cast<qor_context_t *>(qor_context_pub_data_get(c));
        qor_context_subscribe(c, 0, nullptr);
        if (hears()) {
            qor_context_handler_listen(wrapper, 0, nullptr);
        } else {
            qor_context_handler_filter(wrapper, 0, nullptr);
        }
    };
    leaver.handle = [&](qor_context_t *, qor_context_msg_t *msg) -> int32_t {
        if (msg->type == GetParam()) {
            left++;
            pthread_exit(nullptr);
        }
        return 0;
    };
    RunningBus bus({&asker, &leaver}, 1, 2);
    ASSERT_TRUE(bus.up());
    qor_context_t *beside = static_cast<qor_context_t *>(qor_context_pub_data_get(asker.context()));
    for (int i = 1; i <= 3; i++) {
        /* A registration that comes and goes closes the topic's epoch. */
        qor_context_handler_listen(beside, 0, nullptr);
        qor_context_handler_unlisten(beside, 0);
        qor_context_x_runx(
            asker.context(),
            [](qor_context_t *c, int32_t, void *) -> void * {
                qor_context_x_req(c, 0, nullptr, 0);
                return nullptr;
            },
            nullptr);
        ASSERT_TRUE(await([&] { return left == i; }));
    }
    ASSERT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    qor_context_t *wrapper =
        static_cast<qor_context_t *>(qor_context_pub_data_get(leaver.context()));
    fault_arm(FAULT_ALLOC, -1);

    if (hears()) {
        qor_context_handler_unlisten(wrapper, 0);
    } else {
        qor_context_handler_unfilter(wrapper, 0);
    }

    EXPECT_EQ(fault_live(), -1);
}

INSTANTIATE_TEST_SUITE_P(At, ThreadExitEpoch,
                         testing::Values(QOR_CONTEXT_MSG_LISTEN_BEFORE,
                                         QOR_CONTEXT_MSG_LISTEN_AFTER,
                                         QOR_CONTEXT_MSG_FILTER_BEFORE,
                                         QOR_CONTEXT_MSG_FILTER_AFTER),
                         testing::PrintToStringParamName());
