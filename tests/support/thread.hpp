/* SPDX-License-Identifier: Apache-2.0 */
/* A thread of a test, whose end is not awaited for ever. */
#ifndef QOR_TESTS_THREAD_HPP
#define QOR_TESTS_THREAD_HPP

#include <cstdlib>
#include <future>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>

#include "await.hpp"

class Thread {
public:
    Thread() = default;

    template <typename F, typename... Args,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Thread>>>
    explicit Thread(F &&function, Args &&...args)
    {
        std::promise<void> end;
        ended_ = end.get_future();
        thread_ = std::thread([end = std::move(end), function = std::forward<F>(function),
                               arguments = std::make_tuple(std::forward<Args>(args)...)]() mutable {
            std::apply(function, std::move(arguments));
            end.set_value();
        });
    }

    ~Thread()
    {
        if (joinable()) {
            join();
        }
    }
    Thread(Thread &&) = default;
    Thread &operator=(Thread &&) = default;

    bool joinable() const { return thread_.joinable(); }
    std::thread::native_handle_type native_handle() { return thread_.native_handle(); }

    bool ended_within(std::chrono::milliseconds time) const
    {
        return ended_.wait_for(time) == std::future_status::ready;
    }

    /* Waits for its end. When patience ends there is a line, and the process is aborted: whatever
     * the thread uses cannot be released under it. */
    void join(const Where &where = Where::here())
    {
        if (!ended_within(test_patience)) {
            print_awaited("a thread's end", where);
            std::abort();
        }
        thread_.join();
    }

private:
    std::future<void> ended_;
    std::thread thread_;
};

#endif /* QOR_TESTS_THREAD_HPP */
