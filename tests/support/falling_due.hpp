/* SPDX-License-Identifier: Apache-2.0 */
/* Lets a timer fall due when the test says so. */
#ifndef QOR_TESTS_FALLING_DUE_HPP
#define QOR_TESTS_FALLING_DUE_HPP

#include <gtest/gtest.h>

#include "qor_hal.h"
#include "qor_time_que.h"

/* The timer with that session, which waits in a bus's timer queue, is due now. */
inline void fall_due(qor_time_que_t *timers, int32_t session)
{
    qor_time_que_node_t *timer = qor_time_que_remove(timers, static_cast<size_t>(session));
    ASSERT_NE(timer, nullptr);
    timer->when = util_timestamp();
    ASSERT_EQ(qor_time_que_enque(timers, timer), 0);
}

#endif /* QOR_TESTS_FALLING_DUE_HPP */
