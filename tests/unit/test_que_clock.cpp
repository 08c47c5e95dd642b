/* SPDX-License-Identifier: Apache-2.0 */
/* Waits with a limit where the monotonic clock is ahead of the system's time. How often they look
 * is what QueFaults and TimeQueFaults count, on any kernel. */
#include <ctime>
#include <functional>
#include <iostream>

#include <gtest/gtest.h>

#include "que_holder.hpp"
#include "time_namespace.hpp"

namespace {

constexpr int32_t wait_time = 50;

bool takes_that_long(const std::function<bool()> &wait)
{
    const int64_t start = util_timestamp();
    return util_timestamp() > 1000 * static_cast<int64_t>(time(nullptr)) && wait() &&
           util_timestamp() - start >= wait_time;
}

void expect_to_end_on_time(const std::function<bool()> &wait)
{
    const InNamespace result = in_time_namespace([&] { return takes_that_long(wait); });
    if (result == InNamespace::refused) {
        std::cout << "no time namespace on this system: not tried\n";
        return;
    }
    EXPECT_EQ(result, InNamespace::done);
}

} // namespace

TEST(QueClock, AWaitForANodeIsNoLongerWhereTheSystemsTimeIsBehind)
{
    Que que;

    expect_to_end_on_time([&] { return !qor_que_deque_block(que, wait_time); });
}

TEST(QueClock, AWaitForRoomIsNoLongerWhereTheSystemsTimeIsBehind)
{
    Que que(0);
    qor_que_node_t *node = new_node('a');

    expect_to_end_on_time([&] { return qor_que_enque_block(que, node, wait_time) == -1; });

    qor_que_node_destroy(node, nullptr);
}

TEST(QueClock, AWaitInATimedQueueIsNoLongerWhereTheSystemsTimeIsBehind)
{
    TimeQue que(0);
    qor_time_que_node_t *node = new_time_node('a', 0);

    expect_to_end_on_time([&] { return !qor_time_que_deque_block(que, wait_time); });
    expect_to_end_on_time([&] { return qor_time_que_enque_block(que, node, wait_time) == -1; });

    qor_time_que_node_destroy(node, nullptr);
}
