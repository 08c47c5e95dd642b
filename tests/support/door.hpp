/* SPDX-License-Identifier: Apache-2.0 */
/* Holds other threads up until the test lets them go on. */
#ifndef QOR_TESTS_DOOR_HPP
#define QOR_TESTS_DOOR_HPP

#include <condition_variable>
#include <mutex>
#include <string>

#include "await.hpp"

/* Threads that call pass() wait there until it is opened, for good; at the latest by its end. */
class Door {
public:
    Door() = default;
    ~Door()
    {
        open();
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, test_patience, [this] { return waiting_ == 0; })) {
            print_awaited("threads to go through an open door", Where::here());
        }
    }
    Door(const Door &) = delete;
    Door &operator=(const Door &) = delete;

    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

    /* Waits at the door; false, and a line, when patience ends. */
    bool pass(const Where &where = Where::here())
    {
        std::unique_lock<std::mutex> lock(mutex_);
        waiting_++;
        changed_.notify_all();
        const bool passed = changed_.wait_for(lock, test_patience, [this] { return open_; });
        waiting_--;
        changed_.notify_all();
        if (!passed) {
            print_awaited("a door to be opened", where);
        }
        return passed;
    }

    /* Waits until that many threads stand at the door; false, and a line, when patience ends. */
    bool await(int count, const Where &where = Where::here())
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool there =
            changed_.wait_for(lock, test_patience, [&] { return waiting_ >= count; });
        if (!there) {
            print_awaited(std::to_string(count) + " threads at a door, not " +
                              std::to_string(waiting_),
                          where);
        }
        return there;
    }

    /* How many threads stand at the door. */
    int waiting()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return waiting_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int waiting_ = 0;
};

#endif /* QOR_TESTS_DOOR_HPP */
