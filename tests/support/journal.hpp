/* SPDX-License-Identifier: Apache-2.0 */
/* What has happened, in order, whatever thread wrote it down. */
#ifndef QOR_TESTS_JOURNAL_HPP
#define QOR_TESTS_JOURNAL_HPP

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "await.hpp"

class Journal {
public:
    void add(const std::string &entry)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
        changed_.notify_all();
    }

    /* All entries, with a blank between each two. */
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return joined();
    }

    size_t size() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_.size();
    }

    /* Waits until there are that many entries; false, and a line, when patience ends. */
    bool await(size_t count, const Where &where = Where::here()) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool there =
            changed_.wait_for(lock, test_patience, [&] { return entries_.size() >= count; });
        if (!there) {
            print_awaited(std::to_string(count) + " entries, not \"" + joined() + "\"", where);
        }
        return there;
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    std::string joined() const
    {
        std::string all;
        for (const std::string &entry : entries_) {
            all += all.empty() ? entry : " " + entry;
        }
        return all;
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> entries_;
};

#endif /* QOR_TESTS_JOURNAL_HPP */
