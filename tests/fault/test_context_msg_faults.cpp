/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_msg.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"

TEST(ContextMsgFaults, CloneWithoutMemoryPrintsTheTextForDst)
{
    Output out;
    char request[] = "abc";
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, request, 3);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_msg_clone(&msg), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_clone", "!(dst) == true."));
}

TEST(ContextMsgFaults, CloneIsOneBlock)
{
    char request[] = "abc", response[] = "vwxyz";
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, request, 3, response, 5);
    fault_arm(FAULT_ALLOC, -1);

    qor_context_msg_t *clone = qor_context_msg_clone(&msg);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
    qor_context_msg_destroy(clone);
}
