/* SPDX-License-Identifier: Apache-2.0 */
/* Lifecycle calls that wait, and what ends their wait. */
#include "qor_core_context.h"

#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "case_name.hpp"
#include "hal_sync.hpp"
#include "lifecycle_fixture.hpp"

struct WaitCase {
    const char *name;
    int32_t from;
};

class LifecycleResumeWait : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleResumeWait, EndsWithTheStart)
{
    be(GetParam().from);
    ThreadCall resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    EXPECT_EQ(resume.get(), 0);
    EXPECT_EQ(core->lifecycle, RESUME);
    EXPECT_EQ(core->active_refcount, 1);
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleResumeWait,
                         testing::Values(WaitCase{"InInit", INIT}, WaitCase{"InCreate", CREATE}),
                         case_name<WaitCase>);

class LifecycleStopWait : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleStopWait, EndsWithPause)
{
    be(GetParam().from);
    ThreadCall stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());

    be(PAUSE);

    EXPECT_EQ(stop.get(), 0);
    EXPECT_EQ(core->lifecycle, STOP);
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleStopWait,
                         testing::Values(WaitCase{"InInit", INIT}, WaitCase{"InCreate", CREATE},
                                         WaitCase{"InStart", START}, WaitCase{"InResume", RESUME}),
                         case_name<WaitCase>);

TEST_F(Lifecycle, ResumeStillWaitsAfterInit)
{
    ThreadCall resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_context_init(wrapper), 0);
    EXPECT_TRUE(resume.waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(resume.get(), 0);
}

TEST_F(Lifecycle, EveryWaitingResumeGoesOnAtTheStart)
{
    std::vector<ThreadCall> calls;
    for (int i = 0; i < 4; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_resume, core));
    }
    EXPECT_TRUE(calls.front().waits());

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);

    for (ThreadCall &call : calls) {
        EXPECT_EQ(call.get(), 0);
    }
    EXPECT_EQ(core->active_refcount, 4);
}

class LifecycleResumeRefused : public Lifecycle, public testing::WithParamInterface<WaitCase> {};

TEST_P(LifecycleResumeRefused, HasALineOfItsOwnAfterTheWait)
{
    be(INIT);
    ThreadCall resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    be(GetParam().from);

    EXPECT_EQ(resume.get(), -1);
    EXPECT_EQ(core->lifecycle, GetParam().from);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(out.printed(), line("qor_core_context_lifecycle_resume", resume_late_text));
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleResumeRefused,
                         testing::Values(WaitCase{"InStop", STOP}, WaitCase{"InDestroy", DESTROY}),
                         case_name<WaitCase>);

TEST_F(Lifecycle, OfTwoStopsOneTakesThePause)
{
    be(RESUME);
    ThreadCall first = begin(qor_core_context_lifecycle_stop, core);
    ThreadCall second = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(first.waits());
    EXPECT_TRUE(second.waits());

    be(PAUSE);
    ASSERT_TRUE(await([&] { return first.returned() || second.returned(); }));
    EXPECT_TRUE((first.returned() ? second : first).waits());

    be(RESUME);
    be(PAUSE);
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(out.printed(), "");
}

/* Its lock is the last thing that a pause waits for. */
TEST_F(Lifecycle, APauseThatAStopComesBeforeIsRefused)
{
    be(START);
    ASSERT_EQ(qor_core_context_lifecycle_resume(core), 0);
    ThreadCall pause;
    {
        hal_scoped_lock lock(core->mutex);
        pause = begin(qor_core_context_lifecycle_pause, core);
        EXPECT_TRUE(pause.waits());
        __atomic_store_n(&core->lifecycle, STOP, __ATOMIC_RELEASE);
    }

    EXPECT_EQ(pause.get(), -1);

    EXPECT_EQ(core->active_refcount, 1);
    EXPECT_EQ(out.printed(), pause_line);
}
