/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_hal.h"

#include <gtest/gtest.h>

#include "output.hpp"

TEST(Hal, PriorityLeavesAnInheritingAttributeInheriting)
{
    hal_thread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);

    EXPECT_EQ(hal_thread_attr_setpriority(&attr, 10), 0);

    int inherit = -1;
    int policy = -1;
    sched_param param = {};
    pthread_attr_getinheritsched(&attr, &inherit);
    pthread_attr_getschedpolicy(&attr, &policy);
    pthread_attr_getschedparam(&attr, &param);
    EXPECT_EQ(inherit, PTHREAD_INHERIT_SCHED);
    EXPECT_EQ(policy, SCHED_RR);
    EXPECT_EQ(param.sched_priority, 10);
    pthread_attr_destroy(&attr);
}

TEST(List, RemovedEntryHasNullLinks)
{
    list_head head, entry;
    INIT_LIST_HEAD(&head);
    list_add(&entry, &head);

    list_del(&entry);

    EXPECT_EQ(entry.next, nullptr);
    EXPECT_EQ(entry.prev, nullptr);
    EXPECT_TRUE(list_empty(&head));
}

TEST(Hal, PrintfFlushesEachCall)
{
    Output out;

    hal_printf("%s-%d", "abc", 7);

    EXPECT_EQ(out.text(), "abc-7");
}
