/* SPDX-License-Identifier: Apache-2.0 */
/* Start-up and bring-up with calls that fail. */
#include "qor_main.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "main_faults_fixture.hpp"
#include "output.hpp"
#include "qor_context.h"
#include "still_bus.hpp"

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
