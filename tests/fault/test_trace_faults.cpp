/* SPDX-License-Identifier: Apache-2.0 */
/* The recorder without memory for a thread's record, and the life of a bus that is recorded. */
#include "qor_trace.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "recording.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

TEST(TraceFaults, AThreadWithoutARecordOfItsOwnSharesALane)
{
    StillBus bus({});
    RecordedMemory memory;
    ASSERT_EQ(qor_trace_start(bus.get(), &memory.config), 0);
    Thread thread([] {
        fault_arm(FAULT_ALLOC, 0);
        qor_trace_mark(1, 0);
        EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
        qor_trace_mark(2, 0);
    });
    thread.join();
    fault_arm(FAULT_ALLOC, -1);
    qor_trace_stop();

    const Recording done = memory.recording();
    EXPECT_EQ(done.lanes_taken(), 1u); /* from the second mark on */
    ASSERT_EQ(done.events(0).size(), 1u);
    EXPECT_EQ(done.events(0)[0].session, 1);
    ASSERT_EQ(done.events(1).size(), 1u);
    EXPECT_EQ(done.events(1)[0].session, 2);
}

TEST(TraceFaults, AThreadsRecordGoesWithTheThread)
{
    StillBus bus({});
    RecordedMemory memory;
    ASSERT_EQ(qor_trace_start(bus.get(), &memory.config), 0);
    fault_arm(FAULT_ALLOC, -1);
    for (int i = 0; i < 3; i++) {
        Thread thread([] { qor_trace_mark(1, 0); });
        thread.join();
    }
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 3);
    EXPECT_EQ(fault_live(), 0);
    qor_trace_stop();
}

TEST(TraceFaults, RecordingTakesNoMemoryButThat)
{
    StillBus bus({});
    RecordedMemory memory;
    ASSERT_EQ(qor_trace_start(bus.get(), &memory.config), 0);
    qor_trace_mark(1, 0);
    fault_arm(FAULT_ALLOC, -1);
    for (uint32_t i = 0; i < 1000; i++) {
        qor_trace_mark(i, 0);
    }
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    qor_trace_stop();
}

} // namespace
