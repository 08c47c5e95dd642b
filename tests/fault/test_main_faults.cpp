/* SPDX-License-Identifier: Apache-2.0 */
/* Start-up and bring-up with calls that fail. */
#include "qor_main.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_core_context.h"
#include "still_bus.hpp"

namespace {

int listed()
{
    int contexts = 0;
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        contexts++;
    }
    return contexts;
}

class MainFaults : public testing::Test {
protected:
    ~MainFaults() override
    {
        for (int kind = 0; kind < FAULT_KINDS; kind++) {
            fault_arm(static_cast<fault_kind>(kind), -1);
        }
    }

    Output out;
};

} // namespace

TEST_F(MainFaults, AMissingSystemContextIsNotNoticedAtStartUp)
{
    StillBus bus;
    fault_arm(FAULT_ALLOC, 0); /* the context of the bus registration module */

    bus.run_next();

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(listed(), 2);
    EXPECT_EQ(out.printed().find(err_line("qor_impl_context", "qor_impl_context_create",
                                          "malloc \"qor_impl_context_t\" failed.\n")),
              0u);
    EXPECT_EQ(out.count("[qor_context_api][err][qor_context_register]:!(_this) == true.\n"), 1);
    EXPECT_EQ(out.count("[qor_context_api][err][qor_context_init]:!(_this) == true.\n"), 1);
    EXPECT_EQ(out.count("[qor_main][err][qor_context_init_task]:context init failed. name = "), 1);
}

TEST_F(MainFaults, AMissingDelegateIsNotNoticedAtStartUp)
{
    StillBus bus;
    fault_arm(FAULT_ALLOC, 1); /* after the context of the bus registration module */

    bus.run_next();

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(listed(), 3);
    EXPECT_EQ(out.printed().find(err_line("qor_sched_delegate", "qor_sched_delegate_create",
                                          "malloc for \"qor_sched_delegate_t\" failed.\n")),
              0u);
    EXPECT_EQ(out.count("[qor_main]"), 0);
}

TEST_F(MainFaults, ASystemModuleThatFailsToInitialiseStaysRegisteredAndIsNotStarted)
{
    StillBus bus;
    fault_arm(FAULT_ALLOC, -1);
    bus.run_next();
    const int last = fault_calls(FAULT_ALLOC) - 1; /* the manager's state comes last */
    bus.close();
    StillBus second;
    fault_arm(FAULT_ALLOC, last);

    second.run_next();

    EXPECT_EQ(listed(), 3);
    EXPECT_EQ(out.printed(), err_line("qor_mng_module", "qor_mng_module_init",
                                      "malloc \"qor_mng_module_t\" failed.") +
                                 err_line("qor_main", "qor_context_init_task",
                                          "context init failed. name = qor_mng_module"));
}

TEST_F(MainFaults, AConsoleThatCannotBeCreatedIsNotReported)
{
    StillBus bus;
    fault_arm(FAULT_THREAD, 0);

    bus.run_next();
    bus.close();

    EXPECT_EQ(fault_fired(FAULT_THREAD), 1);
    EXPECT_EQ(out.printed(), "");
}

/* ---- every call once ---- */

namespace {

struct KindCase {
    const char *name;
    fault_kind kind;
};

/* Creates a bus, brings it up, leaves it work and closes it; one call fails. Gives the
 * number of such calls. */
int life(fault_kind kind, int failing)
{
    Module first("first"), second("second", 0);
    first.reg = second.reg = [](qor_context_t *context) {
        qor_context_subscribe(context, 1, nullptr);
        qor_context_listen(context, 1, nullptr);
        qor_context_filter(context, 1, nullptr);
    };
    fault_arm(kind, failing);
    StillBus bus({&first, &second});
    if (bus.get()) {
        for (int i = 0; i < 3; i++) { /* start-up and two init tasks */
            bus.run_next();
        }
        if (first.started() && second.started()) {
            qor_context_req_ret(first.context(), 1, nullptr, 0, 4);
            qor_context_timer(
                first.context(), [](void *arg) { return arg; }, nullptr, 60000);
            qor_context_run(
                first.context(), [](void *arg) { return arg; }, nullptr);
        }
        bus.close();
    }
    const int calls = fault_calls(kind);
    EXPECT_EQ(listed(), 0) << "after failing " << failing;
    fault_arm(kind, -1);
    return calls;
}

} // namespace

class MainFaultsOfKind : public MainFaults, public testing::WithParamInterface<KindCase> {};

TEST_P(MainFaultsOfKind, LeaveNothingBehindWhereverTheyHappen)
{
    const int calls = life(GetParam().kind, -1);
    ASSERT_GT(calls, 0);

    for (int failing = 0; failing < calls; failing++) {
        life(GetParam().kind, failing);
    }
}

INSTANTIATE_TEST_SUITE_P(All, MainFaultsOfKind,
                         testing::Values(KindCase{"Allocations", FAULT_ALLOC},
                                         KindCase{"Threads", FAULT_THREAD},
                                         KindCase{"Priorities", FAULT_SCHED},
                                         KindCase{"Attributes", FAULT_ATTR}),
                         case_name<KindCase>);
