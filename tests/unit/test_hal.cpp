/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_hal.h"

#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <stdio_ext.h>

#include "output.hpp"
#include "thread.hpp"

static_assert(std::is_same_v<hal_thread_t, pthread_t>);
static_assert(std::is_same_v<hal_thread_attr_t, pthread_attr_t>);
static_assert(std::is_same_v<hal_thread_mutex_t, pthread_mutex_t>);
static_assert(std::is_same_v<hal_thread_cond_t, pthread_cond_t>);
static_assert(std::is_same_v<hal_thread_condattr_t, pthread_condattr_t>);

namespace {

struct Item {
    char name;
    list_head link;
};

/* The names of a list's items, forwards and backwards. */
std::string names(const list_head &head)
{
    std::string forwards, backwards;
    for (const list_head *link = head.next; link != &head; link = link->next) {
        forwards += reinterpret_cast<const Item *>(reinterpret_cast<const char *>(link) -
                                                   offsetof(Item, link))
                        ->name;
    }
    for (const list_head *link = head.prev; link != &head; link = link->prev) {
        backwards += reinterpret_cast<const Item *>(reinterpret_cast<const char *>(link) -
                                                    offsetof(Item, link))
                         ->name;
    }
    return forwards + "/" + backwards;
}

std::string forwarded(char *str, int len, const char *format, ...) QOR_PRINTF(3, 4);

/* Formats through the variant with an argument list; the result stands in front. */
std::string forwarded(char *str, int len, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int written = hal_vsnprintf(str, len, format, ap);
    va_end(ap);
    return std::to_string(written) + ":" + str;
}

std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

struct Scheduling {
    int policy, priority;
};

/* How the calling thread is scheduled. */
Scheduling scheduling()
{
    int policy = -1;
    sched_param param = {};
    EXPECT_EQ(pthread_getschedparam(pthread_self(), &policy, &param), 0);
    return {policy, param.sched_priority};
}

} // namespace

TEST(Hal, PrintfFlushesEachCall)
{
    Output out;

    hal_printf("%s-%d", "abc", 7);

    EXPECT_EQ(__fpending(stdout), 0u); /* before text(), which flushes too */
    EXPECT_EQ(out.text(), "abc-7");
}

TEST(Hal, PrintfDoesNotMixLinesOfDifferentThreads)
{
    Output out;
    const std::string text(200, 'x');
    std::vector<Thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; i++) {
                hal_printf("<%s>\n", text.c_str());
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    EXPECT_EQ(out.count("<" + text + ">\n"), 400);
    EXPECT_EQ(out.text().size(), 400 * (text.size() + 3));
}

TEST(Hal, SnprintfCutsAndReturnsTheWholeLength)
{
    char text[4] = "";

    EXPECT_EQ(hal_snprintf(text, sizeof(text), "%s", "abcdef"), 6);

    EXPECT_STREQ(text, "abc");
}

TEST(Hal, VsnprintfCutsAndReturnsTheWholeLength)
{
    char text[4] = "";

    EXPECT_EQ(forwarded(text, sizeof(text), "%d", 12345), "5:123");
}

TEST(Hal, ThreadNameIsCutAt15Characters)
{
    Thread([] {
        EXPECT_EQ(hal_thread_name_set("0123456789abcdefgh"), 0);
        EXPECT_EQ(thread_name(), "0123456789abcde");
    }).join();
}

/* Of a thread of the library's, which knows what it has named it. */
TEST(Hal, ThreadNameIsTheCallingThreads)
{
    const std::string before = thread_name();

    Thread([] { hal_thread_name_set("other"); }).join();

    EXPECT_EQ(thread_name(), before);
}

TEST(Hal, SetPriorityKeepsThePolicy)
{
    Thread([] {
        const Scheduling before = scheduling();

        hal_thread_setpriority(before.priority);

        EXPECT_EQ(scheduling().policy, before.policy);
        EXPECT_EQ(scheduling().priority, before.priority);
    }).join();
}

TEST(Hal, SetPrioritySurvivesARefusal)
{
    Thread([] {
        const Scheduling before = scheduling();
        Output out;

        hal_thread_setpriority(1000); /* no policy knows it */

        EXPECT_EQ(scheduling().policy, before.policy);
        EXPECT_EQ(scheduling().priority, before.priority);
        EXPECT_EQ(out.text(), "");
    }).join();
}

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

TEST(Hal, PriorityLeavesAnExplicitAttributeExplicit)
{
    hal_thread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);

    EXPECT_EQ(hal_thread_attr_setpriority(&attr, 10), 0);

    int inherit = -1;
    pthread_attr_getinheritsched(&attr, &inherit);
    EXPECT_EQ(inherit, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_destroy(&attr);
}

TEST(Hal, PriorityThatThePolicyRefusesFails)
{
    hal_thread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);

    EXPECT_NE(hal_thread_attr_setpriority(&attr, 1000), 0);

    pthread_attr_destroy(&attr);
}

TEST(Hal, TimestampIsTheMonotonicClockInMilliseconds)
{
    struct timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int64_t now = util_timestamp();
    clock_gettime(CLOCK_MONOTONIC, &after);

    EXPECT_GE(now, int64_t{before.tv_sec} * 1000 + before.tv_nsec / 1000000);
    EXPECT_LE(now, int64_t{after.tv_sec} * 1000 + after.tv_nsec / 1000000);
}

TEST(Hal, TimespecSplitsMilliseconds)
{
    struct timespec ts;

    util_timespec(12345678, &ts);
    EXPECT_EQ(ts.tv_sec, 12345);
    EXPECT_EQ(ts.tv_nsec, 678000000);

    util_timespec(0, &ts);
    EXPECT_EQ(ts.tv_sec, 0);
    EXPECT_EQ(ts.tv_nsec, 0);
}

TEST(List, NewHeadIsEmptyAndPointsAtItself)
{
    list_head head;

    INIT_LIST_HEAD(&head);

    EXPECT_TRUE(list_empty(&head));
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
}

TEST(List, AddInsertsAtTheFront)
{
    list_head head;
    Item a{'a', {}}, b{'b', {}};
    INIT_LIST_HEAD(&head);

    list_add(&a.link, &head);
    list_add(&b.link, &head);

    EXPECT_EQ(names(head), "ba/ab");
    EXPECT_FALSE(list_empty(&head));
}

TEST(List, AddTailInsertsAtTheEnd)
{
    list_head head;
    Item a{'a', {}}, b{'b', {}};
    INIT_LIST_HEAD(&head);

    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);

    EXPECT_EQ(names(head), "ab/ba");
}

TEST(List, DelJoinsTheNeighbours)
{
    list_head head;
    Item a{'a', {}}, b{'b', {}}, c{'c', {}};
    INIT_LIST_HEAD(&head);
    for (Item *item : {&a, &b, &c}) {
        list_add_tail(&item->link, &head);
    }

    list_del(&b.link);

    EXPECT_EQ(names(head), "ac/ca");
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

TEST(List, ARemovedEntryCanBeAddedAgain)
{
    list_head head;
    Item a{'a', {}};
    INIT_LIST_HEAD(&head);
    list_add(&a.link, &head);
    list_del(&a.link);

    list_add_tail(&a.link, &head);

    EXPECT_EQ(names(head), "a/a");
}

TEST(List, ValidityHooksAlwaysAgree)
{
    EXPECT_TRUE(__list_add_valid(nullptr, nullptr, nullptr));
    EXPECT_TRUE(__list_del_entry_valid(nullptr));
}
