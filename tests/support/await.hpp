/* SPDX-License-Identifier: Apache-2.0 */
/* Waiting for a condition instead of sleeping for luck. */
#ifndef QOR_TESTS_AWAIT_HPP
#define QOR_TESTS_AWAIT_HPP

#include <chrono>
#include <functional>
#include <thread>

/* Waits until the condition holds; false when it does not within a minute. */
inline bool await(const std::function<bool()> &condition)
{
    for (int tries = 0; tries < 30000; tries++) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
}

#endif /* QOR_TESTS_AWAIT_HPP */
