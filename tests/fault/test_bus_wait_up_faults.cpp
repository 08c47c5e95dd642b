/* SPDX-License-Identifier: Apache-2.0 */
/* What is told of the start of modules where memory, a lock or a thread is missing. */
#include "qor_start.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "fault.h"
#include "main_faults_fixture.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "start_report.hpp"
#include "still_bus.hpp"

namespace {

class WaitUpFaults : public MainFaults {
protected:
    /* A call of start-up fails, and everything runs; what is told then. Gives how many such calls
     * there are. */
    int bring_up(fault_kind kind, int failing)
    {
        StillBus bus({&a, &b, &c});
        fault_arm(kind, failing);
        bus.run_all();
        const int calls = fault_calls(kind);
        fault_arm(kind, -1);
        result = qor_bus_wait_up(bus.get(), 0, report.get());
        all_started = a.started() && b.started() && c.started();
        return calls;
    }

    /* The same for each such call, until the report reads so; whether it ever did. */
    bool ever(fault_kind kind, const std::string &text)
    {
        const int calls = bring_up(kind, -1);
        for (int failing = 0; failing < calls; failing++) {
            forget();
            bring_up(kind, failing);
            if (report.text() == text) {
                return true;
            }
        }
        return false;
    }

    void forget()
    {
        for (Module *module : {&a, &b, &c}) {
            module->forget();
        }
    }

    Module a{"a"}, b{"b", 0}, c{"c"};
    StartReport report;
    int32_t result = -2;
    bool all_started = false;
};

int32_t console(qor_context_t *)
{
    return 0;
}

} // namespace

TEST_F(WaitUpFaults, AConsoleWhoseThreadCannotBeMade)
{
    a.descriptor.console = console;

    bring_up(FAULT_THREAD, 1); /* the first is the monitor's */

    EXPECT_EQ(result, 0);
    EXPECT_EQ(report.text(), "a: no console, b: up, c: up");
}

TEST_F(WaitUpFaults, AConsoleWhoseAttributeIsRefused)
{
    b.descriptor.console = console;

    bring_up(FAULT_SCHED, 1);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(report.text(), "a: up, b: no console, c: up");
    EXPECT_EQ(out.count(err_line("qor_impl_context", "qor_impl_context_start",
                                 "set thread priority failed.")),
              1);
}

TEST_F(WaitUpFaults, WithoutMemoryForTheManagerStartUpIsBroken)
{
    EXPECT_TRUE(ever(FAULT_ALLOC, "a: broken, b: broken, c: broken"));

    EXPECT_EQ(result, 1);
}

TEST_F(WaitUpFaults, ABrokenStartUpOfNoModulesIsNotUp)
{
    StillBus bus;
    fault_arm_from(FAULT_ALLOC, 0);
    bus.run_next();
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(qor_bus_wait_up(bus.get(), -1, report.get()), 1);

    EXPECT_EQ(report.report.total, 0U);
}

TEST_F(WaitUpFaults, AModuleWithoutMemoryLeavesTheOthers)
{
    EXPECT_TRUE(ever(FAULT_ALLOC, "a: no memory, b: up, c: up"));

    EXPECT_EQ(result, 1);
}

TEST_F(WaitUpFaults, AModuleOfTheSecondPhaseWithoutMemory)
{
    EXPECT_TRUE(ever(FAULT_ALLOC, "a: up, b: no memory, c: up"));

    EXPECT_EQ(result, 1);
}

TEST_F(WaitUpFaults, WithoutItsBusModuleNothingCanBeAttached)
{
    EXPECT_TRUE(ever(FAULT_ALLOC, "a: no memory, b: never because of c, c: no memory"));

    EXPECT_EQ(result, 1);
}

struct KindCase {
    const char *name;
    fault_kind kind;
};

class WaitUpFaultsOfKind : public WaitUpFaults, public testing::WithParamInterface<KindCase> {};

/* Once all tasks have run nothing is pending, wherever the fault was, and what is told is so. */
TEST_P(WaitUpFaultsOfKind, LeaveNobodyWaiting)
{
    const int calls = bring_up(GetParam().kind, -1);
    EXPECT_EQ(result, 0);
    ASSERT_GT(calls, 0);

    for (int failing = 0; failing < calls; failing++) {
        forget();
        bring_up(GetParam().kind, failing);

        EXPECT_EQ(result, all_started ? 0 : 1) << "after failing " << failing;
        EXPECT_EQ(report.text().find("pending"), std::string::npos) << report.text();
        EXPECT_EQ(report.text().find("init failed"), std::string::npos) << "none does";
        out.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, WaitUpFaultsOfKind,
                         testing::Values(KindCase{"Alloc", FAULT_ALLOC},
                                         KindCase{"Mutex", FAULT_MUTEX},
                                         KindCase{"Cond", FAULT_COND}),
                         case_name<KindCase>);

/* An init on the thread that waits for its start, because there is no helper to be had. */
TEST_F(WaitUpFaults, AnInitOnAThreadOfTheApplicationsIsRefused)
{
    int32_t inside = 0;
    StillBus bus({&a, &c});
    a.reg = [](qor_context_t *context) { qor_context_subscribe(context, 1, nullptr); };
    a.init = [&](qor_context_t *) {
        inside = qor_bus_wait_up(bus.get(), -1, report.get());
        return 0;
    };
    bus.run_next();
    fault_arm(FAULT_THREAD, 0);

    EXPECT_EQ(qor_context_x_req(c.context(), 1, nullptr, 0), 0);

    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(inside, -1);
    EXPECT_EQ(out.count("[qor_bus][err][qor_bus_wait_up]:a task of the bus would wait for itself."),
              1);
}
