/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_core.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"

TEST(ContextCoreFaults, CreateWithoutMemoryPrintsALineAndAnEmptyOne)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_core_create(), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(), err_line("qor_context_core", "qor_context_core_create",
                                      "malloc \"qor_context_core_t\" failed.\n"));
}
