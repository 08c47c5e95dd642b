/* SPDX-License-Identifier: Apache-2.0 */
/* Lets a test wait until another thread is blocked. */
#ifndef QOR_TESTS_SLEEPER_HPP
#define QOR_TESTS_SLEEPER_HPP

#include <atomic>
#include <fstream>
#include <string>

#include <unistd.h>

/* The thread calls here() before it blocks; others wait until it sleeps(). */
class Sleeper {
public:
    void here() { id_ = gettid(); }
    bool sleeps() const
    {
        if (id_ == 0) {
            return false;
        }
        std::ifstream stat("/proc/self/task/" + std::to_string(id_) + "/stat");
        std::string text;
        std::getline(stat, text);
        const size_t name_end = text.rfind(") ");
        return name_end != std::string::npos && text[name_end + 2] == 'S';
    }

private:
    std::atomic<int> id_{0};
};

#endif /* QOR_TESTS_SLEEPER_HPP */
