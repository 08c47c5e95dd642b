/* SPDX-License-Identifier: Apache-2.0 */
/* The priority helpers, with doubles in place of the scheduling functions that they call: a test
 * must neither need privileges nor a system that refuses. */
#include <pthread.h>

#include <string>

#include <gtest/gtest.h>

namespace {

/* What was called, and which call fails. */
std::string calls;
std::string failing;

int called(const std::string &function, const std::string &values = "")
{
    calls += function + values + " ";
    return function == failing ? 1 : 0;
}

std::string pair_of(int first, int second)
{
    return "(" + std::to_string(first) + "," + std::to_string(second) + ")";
}

int double_getschedparam(pthread_t thread, int *policy, sched_param *param)
{
    EXPECT_TRUE(pthread_equal(thread, pthread_self()));
    *policy = SCHED_FIFO;
    *param = {};
    return called("get");
}

int double_setschedparam(pthread_t thread, int policy, const sched_param *param)
{
    EXPECT_TRUE(pthread_equal(thread, pthread_self()));
    return called("set", pair_of(policy, param->sched_priority));
}

int double_attr_getinheritsched(const pthread_attr_t *attr, int *inherit)
{
    const int result = called("getinherit");
    return result != 0 ? result : pthread_attr_getinheritsched(attr, inherit);
}

int double_attr_setinheritsched(pthread_attr_t *, int inherit)
{
    return called("setinherit", inherit == PTHREAD_INHERIT_SCHED ? "(inherit)" : "(explicit)");
}

int double_attr_setschedpolicy(pthread_attr_t *, int policy)
{
    return called("setpolicy", "(" + std::to_string(policy) + ")");
}

int double_attr_setschedparam(pthread_attr_t *, const sched_param *param)
{
    return called("setparam", "(" + std::to_string(param->sched_priority) + ")");
}

} // namespace

#define pthread_getschedparam double_getschedparam
#define pthread_setschedparam double_setschedparam
#define pthread_attr_getinheritsched double_attr_getinheritsched
#define pthread_attr_setinheritsched double_attr_setinheritsched
#define pthread_attr_setschedpolicy double_attr_setschedpolicy
#define pthread_attr_setschedparam double_attr_setschedparam
#include "qor_hal.h"
#undef pthread_getschedparam
#undef pthread_setschedparam
#undef pthread_attr_getinheritsched
#undef pthread_attr_setinheritsched
#undef pthread_attr_setschedpolicy
#undef pthread_attr_setschedparam

namespace {

/* What setting a thread's priority calls when one of the calls fails. */
std::string calls_for_thread(const std::string &fails, int priority)
{
    calls.clear();
    failing = fails;
    hal_thread_setpriority(priority);
    return calls;
}

struct Prepared {
    int result;
    std::string calls;
};

/* The same for a thread attribute. */
Prepared prepare(const std::string &fails, int inherit = PTHREAD_INHERIT_SCHED)
{
    hal_thread_attr_t attr;
    EXPECT_EQ(pthread_attr_init(&attr), 0);
    EXPECT_EQ(pthread_attr_setinheritsched(&attr, inherit), 0);
    calls.clear();
    failing = fails;
    const int result = hal_thread_attr_setpriority(&attr, 10);
    pthread_attr_destroy(&attr);
    return {result, calls};
}

const std::string policy = "setpolicy(" + std::to_string(SCHED_RR) + ") ";

} // namespace

TEST(HalScheduling, AThreadsPriorityIsSetUnderItsPresentPolicy)
{
    EXPECT_EQ(calls_for_thread("", 7), "get set" + pair_of(SCHED_FIFO, 7) + " ");
}

TEST(HalScheduling, AThreadWhosePolicyIsUnknownKeepsItsPriority)
{
    EXPECT_EQ(calls_for_thread("get", 7), "get ");
}

TEST(HalScheduling, AnInheritingAttributeIsSetToInheritAgain)
{
    const Prepared attr = prepare("");

    EXPECT_EQ(attr.result, 0);
    EXPECT_EQ(attr.calls, "getinherit setinherit(inherit) " + policy + "setparam(10) ");
}

TEST(HalScheduling, AnExplicitAttributeKeepsItsInheritance)
{
    const Prepared attr = prepare("", PTHREAD_EXPLICIT_SCHED);

    EXPECT_EQ(attr.result, 0);
    EXPECT_EQ(attr.calls, "getinherit " + policy + "setparam(10) ");
}

TEST(HalScheduling, ARefusedPolicyIsNoFailure)
{
    const Prepared attr = prepare("setpolicy");

    EXPECT_EQ(attr.result, 0);
    EXPECT_EQ(attr.calls, "getinherit setinherit(inherit) " + policy + "setparam(10) ");
}

TEST(HalScheduling, TheFirstStepThatFailsIsTheLast)
{
    const Prepared get = prepare("getinherit");
    EXPECT_NE(get.result, 0);
    EXPECT_EQ(get.calls, "getinherit ");

    const Prepared set = prepare("setinherit");
    EXPECT_NE(set.result, 0);
    EXPECT_EQ(set.calls, "getinherit setinherit(inherit) ");

    const Prepared param = prepare("setparam");
    EXPECT_NE(param.result, 0);
    EXPECT_EQ(param.calls, "getinherit setinherit(inherit) " + policy + "setparam(10) ");
}
