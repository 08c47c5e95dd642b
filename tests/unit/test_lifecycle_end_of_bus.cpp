/* SPDX-License-Identifier: Apache-2.0 */
/* Lifecycle calls that still wait when their bus quits. */
#include "qor_core_context.h"

#include <vector>

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_sched_delegate.h"

namespace {

/* A user context that is attached to a bus whose loop never runs. */
class LifecycleOnABus : public testing::Test {
protected:
    LifecycleOnABus() : bus(qor_bus_create(modules, 1))
    {
        wrapper = qor_core_context_class.create(&module.descriptor);
        core = qor_core_context_type(wrapper);
        qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, wrapper);
    }

    ~LifecycleOnABus() override
    {
        qor_core_context_lifecycle_change(core, DESTROY);
        qor_context_destroy(wrapper);
        qor_bus_close(bus); /* frees it as well */
    }

    Module module{"clock"};
    qor_context_module_t *modules[1] = {nullptr};
    qor_bus_t *bus;
    qor_context_t *wrapper;
    qor_core_context_t *core;
    Output out;
};

} // namespace

TEST_F(LifecycleOnABus, QuitEndsAWaitForTheStart)
{
    ThreadCall resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());

    qor_bus_quit(bus);

    EXPECT_EQ(resume.get(), -1);
    EXPECT_EQ(core->lifecycle, INIT);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(out.printed(), line("qor_core_context_lifecycle_resume", resume_late_text));
}

TEST_F(LifecycleOnABus, QuitEndsAWaitForPause)
{
    qor_core_context_lifecycle_change(core, START);
    ThreadCall stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());

    qor_bus_quit(bus);

    EXPECT_EQ(stop.get(), -1);
    EXPECT_EQ(core->lifecycle, START);
    EXPECT_EQ(out.printed(), stop_line);
}

TEST_F(LifecycleOnABus, QuitEndsEveryWait)
{
    std::vector<ThreadCall> calls;
    for (int i = 0; i < 4; i++) {
        calls.push_back(begin(qor_core_context_lifecycle_resume, core));
        calls.push_back(begin(qor_core_context_lifecycle_stop, core));
    }
    EXPECT_TRUE(calls.back().waits());

    qor_bus_quit(bus);

    for (ThreadCall &call : calls) {
        EXPECT_EQ(call.get(), -1);
    }
}

TEST_F(LifecycleOnABus, NothingWaitsOnceTheBusQuits)
{
    qor_bus_quit(bus);

    EXPECT_EQ(qor_core_context_lifecycle_resume(core), -1);
    EXPECT_EQ(qor_core_context_lifecycle_stop(core), -1);

    EXPECT_EQ(out.printed(),
              line("qor_core_context_lifecycle_resume", resume_late_text) + stop_line);
}

TEST_F(LifecycleOnABus, WhatNeedsNoWaitSucceedsAfterQuit)
{
    qor_bus_quit(bus);

    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_resume(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_pause(core), 0);
    EXPECT_EQ(qor_core_context_lifecycle_change(core, PAUSE), 0);
    EXPECT_EQ(qor_core_context_lifecycle_stop(core), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(LifecycleOnABus, WaitsEndAsWithoutABus)
{
    ThreadCall resume = begin(qor_core_context_lifecycle_resume, core);
    EXPECT_TRUE(resume.waits());
    EXPECT_EQ(qor_core_context_lifecycle_start(core), 0);
    EXPECT_EQ(resume.get(), 0);

    ThreadCall stop = begin(qor_core_context_lifecycle_stop, core);
    EXPECT_TRUE(stop.waits());
    EXPECT_EQ(qor_core_context_lifecycle_change(core, PAUSE), 0);
    EXPECT_EQ(stop.get(), 0);
}
