/* SPDX-License-Identifier: Apache-2.0 */
/* What a library answers that was built without the recorder. */
#include <gtest/gtest.h>

#include "output.hpp"
#include "recording.hpp"
#include "still_bus.hpp"

namespace {

TEST(TraceAbsent, AStartIsRefusedByItsLine)
{
    StillBus bus({});
    RecordedMemory memory;
    Output output;
    EXPECT_EQ(qor_trace_start(bus.get(), &memory.config), -1);
    EXPECT_EQ(output.printed(),
              err_line("qor_trace", "qor_trace_start", "built without the recorder."));
}

TEST(TraceAbsent, TheOthersDoNothing)
{
    char copy[256];
    Output output;
    EXPECT_EQ(qor_trace_size(1, 1, 64), 0u);
    EXPECT_EQ(qor_trace_stop(), 0);
    EXPECT_EQ(qor_trace_mask_set(QOR_TRACE_ALL), 0u);
    qor_trace_mark(1, 2);
    EXPECT_EQ(qor_trace_snapshot(copy, sizeof(copy)), -1);
    EXPECT_EQ(output.printed(), "");
}

} // namespace
