/* SPDX-License-Identifier: Apache-2.0 */
#include "hal_thread.hpp"

#include <gtest/gtest.h>

namespace {

/* An attribute for the length of a test. */
class Attr {
public:
    Attr() { pthread_attr_init(&attr_); }
    ~Attr() { pthread_attr_destroy(&attr_); }
    Attr(const Attr &) = delete;
    Attr &operator=(const Attr &) = delete;
    operator hal_thread_attr_t *() { return &attr_; }

    size_t stack_size() const
    {
        size_t size = 0;
        pthread_attr_getstacksize(&attr_, &size);
        return size;
    }

private:
    hal_thread_attr_t attr_;
};

} // namespace

TEST(HalThread, AStackThatTheSystemTakesKeepsItsSize)
{
    Attr attr;

    EXPECT_EQ(hal_thread_attr_setstacksize(attr, 1024 * 1024), 0);

    EXPECT_EQ(attr.stack_size(), 1024u * 1024);
}

TEST(HalThread, AStackThatIsTooSmallBecomesTheSmallest)
{
    for (size_t size : {0, 1, 1024}) {
        Attr attr;
        ASSERT_NE(pthread_attr_setstacksize(attr, size), 0);

        EXPECT_EQ(hal_thread_attr_setstacksize(attr, size), 0);

        EXPECT_EQ(attr.stack_size(), hal_thread_stack_min());
    }
    EXPECT_EQ(hal_thread_stack_min() % static_cast<size_t>(sysconf(_SC_PAGESIZE)), 0u);
}
