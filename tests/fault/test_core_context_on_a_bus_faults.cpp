/* SPDX-License-Identifier: Apache-2.0 */
/* User contexts on a bus, with allocations that fail. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_task.h"
#include "qor_sched_delegate.h"
#include "recording.hpp"

namespace {

/* A user context that is attached to a bus whose loop never runs. */
class CoreContextOnABusFaults : public testing::Test {
protected:
    CoreContextOnABusFaults() : bus(qor_bus_create(modules, 1))
    {
        wrapper = qor_context_create(&qor_core_context_class, &module.descriptor);
        core = qor_core_context_type(wrapper);
        qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, wrapper);
        recycled = 0;
    }

    ~CoreContextOnABusFaults() override
    {
        fault_arm(FAULT_ALLOC, -1);
        qor_context_uninit(wrapper);
        qor_context_destroy(wrapper);
        qor_bus_close(bus);
    }

    int32_t post(int32_t session, int32_t delay)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, core->context, "t", session, [](void *arg) { return arg; }, nullptr);
        task.delay = delay;
        task.recycle = [](void *) { recycled++; };
        return qor_context_handler_post(core->context, &task);
    }

    static int recycled;
    Module module{"gauge"};
    qor_context_module_t *modules[1] = {nullptr};
    qor_bus_t *bus;
    qor_context_t *wrapper;
    qor_core_context_t *core;
    Output out;
};

int CoreContextOnABusFaults::recycled;

} // namespace

TEST_F(CoreContextOnABusFaults, ATaskWhoseRunCannotBeScheduledIsRefused)
{
    for (int32_t delay : {0, 60000}) {
        fault_arm(FAULT_ALLOC, 1); /* the task's own node is there */

        EXPECT_EQ(post(7, delay), -1) << delay;

        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        EXPECT_EQ(core->que->count, 0);
        EXPECT_EQ(core->refcount, 0);
        EXPECT_EQ(recycled, 0);
    }
}

TEST_F(CoreContextOnABusFaults, ATaskPastTheQueueWhoseRunCannotBeHadIsRefused)
{
    for (int32_t session = 1; session <= 50; session++) {
        ASSERT_EQ(post(session, 0), 0);
    }
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(post(51, 0), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(core->que->count, 50);
    EXPECT_EQ(recycled, 0);
}

TEST_F(CoreContextOnABusFaults, ATaskWithoutMemoryIsNotRecordedAsDropped)
{
    RecordedMemory memory(QOR_TRACE_ALL);
    ASSERT_EQ(qor_trace_start(bus, &memory.config), 0);
    qor_trace_mark(1, 0); /* gives this thread a lane */
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(post(7, 0), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(memory.recording().told({event_drop}), "");
}
