/* SPDX-License-Identifier: Apache-2.0 */
/* Waits in a queue that end for what has come about just before. */
#include "que_waits.hpp"

#include <gtest/gtest.h>

#include "hal_sync.hpp"
#include "qor_que_priv.hpp"
#include "qor_time_que_priv.hpp"
#include "que_holder.hpp"
#include "thread_call.hpp"

TEST(QueWaits, OneWhoseTimeIsOverAlreadyEndsAtOnce)
{
    hal_thread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    hal_thread_cond_t cond;
    ASSERT_EQ(que_cond_init(&cond, CLOCK_MONOTONIC), 0);
    const int64_t since = util_timestamp();
    {
        hal_scoped_lock lock(mutex);
        que_sleep_until(cond, mutex, since - 5000);
    }

    EXPECT_LT(util_timestamp() - since, too_late);
    pthread_cond_destroy(&cond);
}

/* What it holds goes only afterwards. */
TEST(QueWaits, AGiverGoesThoughTheQueueThatQuitsIsFull)
{
    Que que(1);
    ASSERT_EQ(qor_que_enque(que, new_node('a')), 0);
    qor_que_node_t *node = new_node('b');
    ThreadCall gives([&] { return qor_que_enque_block(que, node, -1); });
    EXPECT_TRUE(gives.waits());

    que_quit_begin(que);

    EXPECT_EQ(gives.get(), -1);
    EXPECT_EQ(que->count, 1);
    qor_que_node_destroy(node, nullptr);
}

TEST(QueWaits, SoDoesOneOfATimedQueue)
{
    TimeQue que(1);
    ASSERT_EQ(qor_time_que_enque(que, qor_time_que_node_create('a', far_off, 1)), 0);
    qor_time_que_node_t *node = qor_time_que_node_create('b', far_off, 1);
    ThreadCall gives([&] { return qor_time_que_enque_block(que, node, -1); });
    EXPECT_TRUE(gives.waits());

    time_que_quit_begin(que);

    EXPECT_EQ(gives.get(), -1);
    EXPECT_EQ(que->count, 1);
    qor_time_que_node_destroy(node, nullptr);
}
