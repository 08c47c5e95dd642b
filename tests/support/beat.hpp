/* SPDX-License-Identifier: Apache-2.0 */
/* The argument of a periodic timer that notes its runs and its release. */
#ifndef QOR_TESTS_BEAT_HPP
#define QOR_TESTS_BEAT_HPP

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "await.hpp"
#include "qor_hal.h"
#include "qor_periodic.h"

/* Outlives the bus. */
struct Beat {
    struct Run {
        int64_t begun; /* ms */
        uint32_t missed;
    };

    Beat() = default;
    Beat(const Beat &) = delete;
    Beat &operator=(const Beat &) = delete;

    /* Arms a timer with this argument; gives the call's result. */
    int32_t arm(qor_context_t *context, int32_t period)
    {
        before = util_timestamp();
        const int32_t drawn = qor_context_every(context, run, this, recycle, period);
        after = util_timestamp();
        session = drawn;
        return drawn;
    }

    bool await_runs(int count, const Where &where = Where::here())
    {
        return await([this, count] { return over >= count; }, where);
    }

    bool await_recycle(const Where &where = Where::here())
    {
        return await([this] { return recycles == 1; }, where);
    }

    std::vector<Run> runs() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return runs_;
    }

    std::function<void()> body; /* what a run does; set before it is armed */
    int64_t before = 0;         /* ms; the call was made between these */
    int64_t after = 0;
    std::atomic<int32_t> session{-1}; /* the result of the call */
    std::atomic<qor_context_t *> self{nullptr};
    std::atomic<int32_t> given{-1}; /* the session that the last run got */
    std::atomic<int> begun{0}, over{0};
    std::atomic<int> inside{0}, most_inside{0};
    std::atomic<int> recycles{0};

    static void run(qor_context_t *context, int32_t number, void *arg, uint32_t missed)
    {
        Beat &beat = *static_cast<Beat *>(arg);
        {
            std::lock_guard<std::mutex> lock(beat.mutex_);
            beat.runs_.push_back({util_timestamp(), missed});
        }
        beat.self = context;
        beat.given = number;
        const int beside = ++beat.inside;
        if (beside > beat.most_inside) {
            beat.most_inside = beside;
        }
        beat.begun++;
        if (beat.body) {
            beat.body();
        }
        beat.inside--;
        beat.over++;
    }

    static void recycle(void *arg) { static_cast<Beat *>(arg)->recycles++; }

private:
    mutable std::mutex mutex_;
    std::vector<Run> runs_;
};

#endif /* QOR_TESTS_BEAT_HPP */
