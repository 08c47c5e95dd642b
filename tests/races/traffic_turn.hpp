/* SPDX-License-Identifier: Apache-2.0 */
#ifndef QOR_TESTS_RACES_TRAFFIC_TURN_HPP
#define QOR_TESTS_RACES_TRAFFIC_TURN_HPP

#include "traffic.hpp"

/* A module's turn. Of a strict one nothing else runs meanwhile. */
class Traffic::Turn {
public:
    Turn(Traffic &traffic, int module)
        : turns_(traffic.is_strict(module) ? &traffic.turns_[module] : nullptr),
          works_(traffic.asking_.load(std::memory_order_relaxed) && traffic.work && !inside &&
                         !outside
                     ? &traffic
                     : nullptr)
    {
        if (turns_) {
            turns_->count++;
            must(turns_->inside++ == 0, "a strict module has one turn at a time");
        }
        if (works_) {
            inside = true;
            begin_ = Clock::now();
            traffic.work();
        }
    }
    ~Turn()
    {
        if (works_) {
            const std::chrono::nanoseconds took = Clock::now() - begin_;
            add(works_->busy, took.count());
            inside = false;
        }
        if (turns_) {
            turns_->inside--;
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    static thread_local bool outside; /* no worker, but a caller of modules */

private:
    static thread_local bool inside; /* a turn already: a call of another module is part of it */

    Turns *const turns_;
    Traffic *const works_; /* NULL: without work */
    Clock::time_point begin_;
};

#endif /* QOR_TESTS_RACES_TRAFFIC_TURN_HPP */
