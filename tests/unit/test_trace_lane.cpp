/* SPDX-License-Identifier: Apache-2.0 */
/* A thread's lane where there is none, or no recording any more. */
#include "trace_lane.hpp"

#include <gtest/gtest.h>

#include "hal_sync.hpp"
#include "output.hpp"
#include "qor_bus_priv.hpp"
#include "qor_inspect.h"
#include "qor_sched_delegate.h"
#include "recording.hpp"
#include "still_bus.hpp"
#include "thread.hpp"
#include "thread_call.hpp"
#include "trace_context.hpp"

namespace {

constexpr trace_note task_begins = {trace_what(trace_start, trace_runs), 7, -1, trace_from_any,
                                    nullptr};
constexpr trace_note task_ends = {trace_what(trace_end, trace_runs), 7, 0, trace_from_any, nullptr};

/* The start of something else in the same session. */
trace_note begins(trace_type type, uint32_t detail, uint32_t who = 0, int32_t session = 7)
{
    return {trace_what(type, detail, who), session, -1, trace_from_any, nullptr};
}

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

TEST_F(TraceLane, ThreadsThatShareOneAreInsideNobody)
{
    memory.config.lanes = 1;
    start();
    qor_trace_mark(1, 0); /* takes the only one */
    Thread([] {
        trace_lane_note({trace_what(trace_request, 0, 2), 7, 3, /* from */ 5, nullptr});
        trace_lane_note({trace_what(trace_request, 0, 2), 7, 3, /* from */ 0, nullptr});
    }).join();

    EXPECT_EQ(memory.recording().told({event_from, event_request}),
              "from 5 s7 3\nrequest 2 s7 3\nrequest 2 s7 3\n");
    EXPECT_EQ(memory.recording().lanes_lacking(), 1u);
}

TEST_F(TraceLane, IsLeftAsItIsWhenItsThreadOutlivesTheRecording)
{
    start();
    Thread([] {
        trace_lane_begin(task_begins, QOR_TRACE_TASKS);
        qor_trace_stop();
    }).join();

    EXPECT_EQ(memory.recording().depth(1), 1u);
}

TEST_F(TraceLane, IsLeftAsItIsWhenItsThreadOutlivesTheNextRecordingsStart)
{
    RecordedMemory next(QOR_TRACE_ALL);
    start();
    Thread([&] {
        trace_lane_begin(task_begins, QOR_TRACE_TASKS);
        qor_trace_stop();
        EXPECT_EQ(qor_trace_start(bus.get(), &next.config), 0);
    }).join();

    EXPECT_EQ(memory.recording().depth(1), 1u);
    EXPECT_EQ(next.recording().lanes_taken(), 0u);
}

TEST_F(TraceLane, AStalledTaskIsFoundInWhatAWorkerHasTakenFromAQueue)
{
    start();
    qor_info_inside_t found = {};
    const auto look = [&] {
        found = {};
        found.age_ms = -1;
        trace_stalled(bus.get(), 7, found);
        return found.age_ms >= 0 ? found.kind : -1;
    };
    trace_lane_begin(begins(trace_start, trace_calls), 0);
    trace_lane_begin(begins(trace_wait, trace_waits_start), 0);
    EXPECT_EQ(look(), -1);

    trace_lane_begin(begins(trace_start, trace_handles, 0, 8), 0);
    trace_lane_begin(begins(trace_start, trace_responds, /* beyond the names */ 999), 0);
    trace_lane_begin(begins(trace_start, trace_runs), 0); /* of the same age */
    EXPECT_EQ(look(), QOR_INSIDE_RESPONSE);
    EXPECT_EQ(std::string(found.name), "");
    trace_lane_begin(begins(trace_start, trace_runs, 0, 9), 0); /* deeper than is kept */
    EXPECT_EQ(look(), QOR_INSIDE_RESPONSE);
}

TEST_F(TraceLane, ATaskIsFoundAsWell)
{
    start();
    trace_lane_begin(task_begins, QOR_TRACE_TASKS);
    qor_info_inside_t found = {};
    found.age_ms = -1;

    trace_stalled(bus.get(), 7, found);

    EXPECT_EQ(found.kind, QOR_INSIDE_TASK);
}

TEST_F(TraceLane, NobodyIsNumberNought)
{
    EXPECT_EQ(trace_who(nullptr), 0u);
}

TEST_F(TraceLane, ADelegateWithoutAContextIsNotNamed)
{
    start();
    Output out;

    qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, nullptr);

    EXPECT_EQ(memory.recording().name(1), "1");
}

/* By another thread, between the begin of the recording and its hooks. */
TEST_F(TraceLane, ARecordingThatIsEndedWhileItBeginsIsOver)
{
    ThreadCall starts;
    {
        hal_scoped_lock names(bus.get()->priv->mutex);
        starts = ThreadCall([this] { return qor_trace_start(bus.get(), &memory.config); });
        EXPECT_TRUE(await([] { return hal_load(trace_now.number) != 0; }));
        EXPECT_EQ(qor_trace_stop(), 0);
    }

    EXPECT_EQ(starts.get(), 0);

    EXPECT_EQ(hal_load(trace_mask), 0u);
    qor_trace_mark(1, 0);
    EXPECT_EQ(lane_mine(), nullptr);
}
