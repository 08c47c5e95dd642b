/* SPDX-License-Identifier: Apache-2.0 */
/* Waiting for what other threads bring about: never for luck, and never for ever. */
#ifndef QOR_TESTS_AWAIT_HPP
#define QOR_TESTS_AWAIT_HPP

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

inline std::chrono::seconds test_patience_set()
{
    const char *seconds = std::getenv("QOR_TESTS_PATIENCE");
    return std::chrono::seconds(seconds ? std::atoi(seconds) : 60);
}

/* How long to wait for what other threads bring about. A test that passes never waits that long; a
 * machine with much to do may need a good part of it. Less where many tests are to fail. */
inline const std::chrono::seconds test_patience = test_patience_set();

/* The line of a test that waits. As a default argument it is the line of the call. */
struct Where {
    const char *file;
    int line;

    static constexpr Where here(const char *file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }

    /* The line as it is written; "" where the sources are out of reach. */
    std::string text() const
    {
        std::ifstream source(file);
        std::string text;
        for (int i = 0; i < line && std::getline(source, text); i++) {
        }
        text.erase(0, text.find_first_not_of(' '));
        return source ? text : "";
    }
};

/* Prints that patience has ended: where, for what, and the line that waited. On standard error,
 * because tests catch standard output. */
inline void print_awaited(const std::string &what, const Where &where)
{
    std::fprintf(stderr, "%s:%d: waited %d s in vain for %s: %s\n", where.file, where.line,
                 static_cast<int>(test_patience.count()), what.c_str(), where.text().c_str());
}

/* Waits until a condition holds; false, and a line, when patience ends. */
template <typename C> bool await(C condition, const Where &where = Where::here())
{
    const auto deadline = std::chrono::steady_clock::now() + test_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            print_awaited("a condition", where);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif /* QOR_TESTS_AWAIT_HPP */
