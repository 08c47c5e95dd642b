/* SPDX-License-Identifier: Apache-2.0 */
#include "output.hpp"

#include <chrono>
#include <cstdio>
#include <regex>
#include <thread>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

Output::Output() : file_(memfd_create("stdout", MFD_CLOEXEC)), real_(dup(STDOUT_FILENO))
{
    fflush(stdout);
    dup2(file_, STDOUT_FILENO);
}

Output::~Output()
{
    fflush(stdout);
    dup2(real_, STDOUT_FILENO);
    if (testing::Test::HasFailure()) {
        start_ = 0;
        fputs(text().c_str(), stdout);
    }
    close(real_);
    close(file_);
}

std::string Output::text() const
{
    fflush(stdout);
    std::string all;
    char part[4096];
    off_t at = start_;
    for (ssize_t n; (n = pread(file_, part, sizeof(part), at)) > 0; at += n) {
        all.append(part, static_cast<size_t>(n));
    }
    return all;
}

std::string Output::printed() const
{
    static const std::regex number("\\]\\[[0-9]+\\]:");
    return std::regex_replace(text(), number, "]:");
}

int Output::count(const std::string &part) const
{
    const std::string all = printed();
    int found = 0;
    for (size_t at = 0; (at = all.find(part, at)) != std::string::npos; at += part.size()) {
        found++;
    }
    return found;
}

bool Output::await(const std::string &part, int times, const Where &where) const
{
    const auto deadline = std::chrono::steady_clock::now() + test_patience;
    while (count(part) < times) {
        if (std::chrono::steady_clock::now() > deadline) {
            print_awaited(std::to_string(times) + " times \"" + part + "\"", where);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void Output::clear()
{
    fflush(stdout);
    start_ = lseek(file_, 0, SEEK_END);
}

std::string err_line(const std::string &tag, const std::string &function, const std::string &text)
{
    return "[" + tag + "][err][" + function + "]:" + text + "\n";
}
