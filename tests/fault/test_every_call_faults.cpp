/* SPDX-License-Identifier: Apache-2.0 */
/* The whole life of a bus, with each call that can fail made to fail once. */
#include "qor_main.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "fault.h"
#include "main_faults_fixture.hpp"
#include "module.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "still_bus.hpp"

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
