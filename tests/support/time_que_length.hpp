/* SPDX-License-Identifier: Apache-2.0 */
/* How many nodes a timed queue holds that other threads change. */
#ifndef QOR_TESTS_TIME_QUE_LENGTH_HPP
#define QOR_TESTS_TIME_QUE_LENGTH_HPP

#include "hal_sync.hpp"
#include "qor_time_que.h"

inline int32_t length_of(qor_time_que_t *que)
{
    hal_scoped_lock lock(que->mutex);
    return que->count;
}

#endif /* QOR_TESTS_TIME_QUE_LENGTH_HPP */
