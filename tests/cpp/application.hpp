/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the C++ interface are made of: captures that are counted, a bus that is up, and
 * modules that run what a test gives them. */
#ifndef QOR_TESTS_APPLICATION_HPP
#define QOR_TESTS_APPLICATION_HPP

#include "qor.hpp"

#include <atomic>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "output.hpp"

using namespace std::chrono_literals;

/* Counts those that are alive. Goes with captures: moved, never copied, and empty afterwards. */
class Counted {
public:
    explicit Counted(std::atomic<int> &alive) : alive_(&alive) { alive++; }
    Counted(Counted &&other) noexcept : alive_(std::exchange(other.alive_, nullptr)) {}
    ~Counted()
    {
        if (alive_) {
            --*alive_;
        }
    }
    Counted &operator=(Counted &&) = delete;

private:
    std::atomic<int> *alive_;
};

/* A module that only sends, with a body for its init. */
class Sender : public qor::module<Sender> {
public:
    explicit Sender(std::function<int32_t()> body = [] { return 0; })
        : module("sender"), body_(std::move(body))
    {
    }

    int32_t init() { return body_(); }

private:
    std::function<int32_t()> body_;
};

/* A bus that loops beside the test, with all its modules up. */
class UpBus {
public:
    explicit UpBus(std::initializer_list<qor::module_ref> modules, uint32_t workers = 2)
        : bus_(qor::bus::create(modules, 8))
    {
        EXPECT_TRUE(bus_);
        qor_bus_watch_set(bus_->get(), 0); /* the monitor's notes take memory of their own */
        qor_bus_thread_num_set(bus_->get(), workers);
        EXPECT_EQ(bus_->start(), qor::failure::none);
        up_ = bus_->wait_up(test_patience);
    }

    /* What waiting for the modules has given. */
    int32_t up() const { return up_; }

    qor::bus &operator*() { return *bus_; }
    qor::bus *operator->() { return &*bus_; }

    /* Waits until nothing is queued or running. */
    void settle() { EXPECT_EQ(bus_->drain(test_patience), 0); }

    /* Quits and closes. */
    void end() { qor::bus gone(std::move(*bus_)); }

private:
    qor::result<qor::bus> bus_;
    int32_t up_ = -1;
};

#endif /* QOR_TESTS_APPLICATION_HPP */
