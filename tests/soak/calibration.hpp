/* SPDX-License-Identifier: Apache-2.0 */
/* How fast the machine is now, at what a round trip on a bus is made of: a thread hands something
 * to another, which hands it back. What is measured beside it can be divided by that. */
#ifndef QOR_TESTS_SOAK_CALIBRATION_HPP
#define QOR_TESTS_SOAK_CALIBRATION_HPP

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "stress.hpp"

class Calibration {
public:
    Calibration() : other_([this] { answer(); }) {}
    ~Calibration()
    {
        hand(over);
        other_.join();
    }
    Calibration(const Calibration &) = delete;
    Calibration &operator=(const Calibration &) = delete;

    /* In ns. */
    int64_t round_trip()
    {
        const Clock::time_point begin = Clock::now();
        hand(asked);
        while (state_.load(std::memory_order_relaxed) == asked) {
            std::this_thread::yield();
        }
        const std::chrono::nanoseconds took = Clock::now() - begin;
        return took.count();
    }

private:
    enum State { idle, asked, over };

    void hand(State state)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = state;
        changed_.notify_one();
    }

    void answer()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (state_ != over) {
            changed_.wait(lock, [this] { return state_ != idle; });
            if (state_ == asked) {
                state_ = idle;
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<State> state_{idle};
    std::thread other_;
};

class Median {
public:
    void add(double value) { values_.push_back(value); }
    double get()
    {
        const auto middle = values_.begin() + static_cast<std::ptrdiff_t>(values_.size() / 2);
        std::nth_element(values_.begin(), middle, values_.end());
        return *middle;
    }

private:
    std::vector<double> values_;
};

#endif /* QOR_TESTS_SOAK_CALIBRATION_HPP */
