/* SPDX-License-Identifier: Apache-2.0 */
/* Requests from modules to the built-in modules. */
#include <optional>

#include <gtest/gtest.h>

#include "requests_fixture.hpp"

TEST_F(Requests, ASystemRequestIsMadeOnTheWrapperAndGivesTheSession)
{
    be_up();

    EXPECT_GT(qor_context_sys_req(&client.core()->base, QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0),
              0);
    EXPECT_GT(qor_context_sysx_req(&client.core()->base, QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0),
              0);

    EXPECT_EQ(qor_context_sys_req(client.context(), QOR_SYS_MNG_CONTEXT_REGISTER, nullptr, 0), -1);
    EXPECT_EQ(out.count("!(handler->syscall) == true."), 1);
}
