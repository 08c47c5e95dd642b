/* SPDX-License-Identifier: Apache-2.0 */
/* A call on a thread of its own, which may have to wait. */
#ifndef QOR_TESTS_THREAD_CALL_HPP
#define QOR_TESTS_THREAD_CALL_HPP

#include <cstdint>
#include <memory>

#include "await.hpp"
#include "sleeper.hpp"
#include "thread.hpp"

class ThreadCall {
public:
    ThreadCall() = default;

    template <typename F>
    explicit ThreadCall(F function)
        : state_(std::make_unique<State>()), thread_([function, state = state_.get()] {
              state->sleeper.here();
              state->result = function();
          })
    {
    }

    /* Waits for its return; gives its result. */
    int32_t get(const Where &where = Where::here())
    {
        thread_.join(where);
        return state_->result;
    }

    bool returned(int milliseconds = 0) const
    {
        return thread_.ended_within(std::chrono::milliseconds(milliseconds));
    }

    /* Tells whether it has begun to wait and still does after the time that it would take to return
     * had it been woken. */
    bool waits(const Where &where = Where::here()) const
    {
        return await([this] { return state_->sleeper.sleeps() || returned(); }, where) &&
               !returned(30);
    }

private:
    struct State {
        Sleeper sleeper;
        int32_t result = -2;
    };
    std::unique_ptr<State> state_;
    Thread thread_; /* last: it uses the state */
};

#endif /* QOR_TESTS_THREAD_CALL_HPP */
