/* SPDX-License-Identifier: Apache-2.0 */
/* Inspection allocates nothing, and counts what others could not have. */
#include "deferring.hpp"
#include "fault.h"
#include "inspection.hpp"
#include "qor_topic_core.h"
#include "still_bus.hpp"

namespace {

void *nothing(void *)
{
    return nullptr;
}

class InspectFaults : public Deferring {
protected:
    ~InspectFaults() override { fault_arm(FAULT_ALLOC, -1); }
};

} // namespace

TEST_F(InspectFaults, NothingIsAllocated)
{
    be_up();
    deferred();
    fault_arm_from(FAULT_ALLOC, 0);
    int lines = 0;

    const int32_t seen = qor_bus_inspect(
        bus->get(), [](void *, int32_t, const void *) { return 0; }, nullptr);
    const int32_t dumped = qor_bus_dump(
        bus->get(), [](void *count, const char *) { ++*static_cast<int *>(count); }, &lines);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    fault_arm(FAULT_ALLOC, -1);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(dumped, 0);
    EXPECT_GE(lines, 9);
}

TEST_F(InspectFaults, AllocationsThatFailAreCounted)
{
    StillBus still(StillBus::bare);
    const uint32_t before = Inspection(still.get()).bus.allocations_failed;
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_bus_run(still.get(), nothing, nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_run(still.get(), nothing, nullptr, nullptr), 0);
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_que_create(1, nullptr), nullptr);
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_topic_core_create(1), nullptr);
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(Inspection(still.get()).bus.allocations_failed - before, 3u);
    EXPECT_EQ(Inspection(still.get()).bus.posts_refused, 0u);
}

TEST_F(InspectFaults, ABusWithoutATimerQueueIsSeen)
{
    int nth = 0;
    qor_bus_t *made = nullptr;
    do { /* until it is the timer queue's allocation that fails */
        if (made) {
            qor_bus_close(made);
        }
        fault_arm(FAULT_ALLOC, nth++);
        qor_context_module_t *none[] = {nullptr};
        made = qor_bus_create(none, 1);
    } while ((!made || made->time_que) && nth < 30);
    fault_arm(FAULT_ALLOC, -1);
    ASSERT_TRUE(made && !made->time_que);

    const qor_info_bus_t seen = Inspection(made).bus;

    EXPECT_EQ(seen.timers, 0u);
    EXPECT_EQ(seen.next_timer_ms, INT32_MAX);
    EXPECT_EQ(seen.queued, 1u);
    qor_bus_close(made);
}

TEST_F(InspectFaults, ATaskWithoutMemoryIsRefused)
{
    be_up();
    const auto look = [this] { return Inspection(bus->get()).context("server"); };
    ASSERT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    qor_context_task_t task = {};
    qor_context_task_init(&task, server.context(), nullptr, 1, nothing, nullptr);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_handler_post(server.context(), &task), -1);

    fault_arm(FAULT_ALLOC, -1);
    EXPECT_EQ(look().refused, 1u);
    EXPECT_EQ(look().tasks, 0u);
}
