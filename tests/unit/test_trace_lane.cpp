/* SPDX-License-Identifier: Apache-2.0 */
/* A thread's lane where there is none, or no recording any more. */
#include "trace_lane.hpp"

#include <gtest/gtest.h>

#include "hal_sync.hpp"
#include "qor_inspect.h"
#include "recording.hpp"
#include "still_bus.hpp"

namespace {

constexpr trace_note task_begins = {trace_what(trace_start, trace_runs), 7, -1, trace_from_any,
                                    nullptr};
constexpr trace_note task_ends = {trace_what(trace_end, trace_runs), 7, 0, trace_from_any, nullptr};

const trace_lane *lane_mine()
{
    hal_scoped_lock lock(trace_mutex);
    return trace_lane_mine_locked();
}

class TraceLane : public testing::Test {
protected:
    void start() { ASSERT_EQ(qor_trace_start(bus.get(), &memory.config), 0); }

    StillBus bus{StillBus::bare};
    RecordedMemory memory{QOR_TRACE_ALL};
};

} // namespace

TEST_F(TraceLane, WithoutARecordingNothingIsNoted)
{
    start();
    qor_trace_mark(1, 0);
    qor_trace_stop();
    const std::string before = memory.recording().told({event_mark, event_start, event_end});

    trace_lane_note({trace_what(trace_marked), 2, 0, trace_from_any, nullptr});
    const trace_begun begun = trace_lane_begin(task_begins, QOR_TRACE_TASKS);
    trace_lane_end(begun, task_ends);
    trace_lane_name(bus.get(), 1, {"late", 0, 0, 1, 0});

    EXPECT_EQ(begun.recording, 0u);
    EXPECT_EQ(memory.recording().told({event_mark, event_start, event_end}), before);
    EXPECT_NE(memory.recording().name(1), "late");
    qor_info_thread_t thread = {};
    EXPECT_EQ(trace_thread_read(bus.get(), 0, thread), 0u);
}

TEST_F(TraceLane, AnotherBusHasNone)
{
    StillBus other(StillBus::bare);
    start();
    qor_trace_mark(1, 0);

    trace_lane_name(other.get(), 1, {"other", 0, 0, 1, 0});

    qor_info_thread_t thread = {};
    EXPECT_EQ(trace_thread_read(other.get(), 0, thread), 0u);
    EXPECT_EQ(trace_thread_read(bus.get(), 0, thread), 1u);
    EXPECT_NE(memory.recording().name(1), "other");
}

TEST_F(TraceLane, IsAThreadsOnceItHasNotedSomething)
{
    start();
    EXPECT_EQ(lane_mine(), nullptr);

    qor_trace_mark(1, 0);

    EXPECT_NE(lane_mine(), nullptr);
    qor_trace_stop();
    RecordedMemory next(QOR_TRACE_ALL);
    ASSERT_EQ(qor_trace_start(bus.get(), &next.config), 0);
    EXPECT_EQ(lane_mine(), nullptr);
}

TEST_F(TraceLane, WhatAnEarlierRecordingHasBegunDoesNotEndInTheNext)
{
    start();
    const trace_begun begun = trace_lane_begin(task_begins, QOR_TRACE_TASKS);
    qor_trace_stop();
    RecordedMemory next(QOR_TRACE_ALL);
    ASSERT_EQ(qor_trace_start(bus.get(), &next.config), 0);

    trace_lane_end(begun, task_ends);

    EXPECT_EQ(next.recording().told({event_end}), "");
    const trace_begun again = trace_lane_begin(task_begins, QOR_TRACE_TASKS);
    trace_lane_end(again, task_ends);
    EXPECT_EQ(next.recording().told({event_start, event_end}), "start/6 - s7 -1\nend/6 - s7 0\n");
}

TEST_F(TraceLane, OneThatIsWrittenAllTheTimeIsInsideNothing)
{
    trace_lane lane = {};
    lane.tid = 5;
    lane.depth = 1;
    trace_lane copy = {};
    trace_lane_copy_locked(lane, copy);
    EXPECT_EQ(copy.depth, 1u);

    lane.changes = 1; /* a change is under way, and stays so */
    trace_lane_copy_locked(lane, copy);

    EXPECT_EQ(copy.tid, 5u);
    EXPECT_EQ(copy.depth, 0u);
}
