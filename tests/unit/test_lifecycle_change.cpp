/* SPDX-License-Identifier: Apache-2.0 */
/* Changing a lifecycle from any state to any other. */
#include "qor_core_context.h"

#include <string>

#include <gtest/gtest.h>

#include "lifecycle_fixture.hpp"

/* One row for each state; the columns are the states asked for. */
const char *const change_accepted[states] = {"yyyyyyy", "-yyyyyy", "--yyyyy", "---yyyy",
                                             "yyyyyyy", "---y-yy", "---y--y"};

class LifecycleChange : public Lifecycle,
                        public testing::WithParamInterface<std::tuple<int, int>> {};

TEST_P(LifecycleChange, IsAcceptedUpwardsToResumeAndFromPause)
{
    const auto [from, to] = GetParam();
    const bool accepted = change_accepted[from][to] == 'y';
    be(from);

    EXPECT_EQ(qor_core_context_lifecycle_change(core, to), accepted ? 0 : -1);

    EXPECT_EQ(core->lifecycle, accepted ? to : from);
    EXPECT_EQ(out.printed(), accepted ? "" : refused_line);
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleChange,
                         testing::Combine(testing::Range(0, states), testing::Range(0, states)),
                         [](const auto &cell) {
                             return std::string(state_names[std::get<0>(cell.param)]) + "To" +
                                    state_names[std::get<1>(cell.param)];
                         });

TEST_F(Lifecycle, ResumeIsAcceptedFromAnywhere)
{
    for (int32_t from = INIT; from <= DESTROY; from++) {
        core->lifecycle = from;

        EXPECT_EQ(qor_core_context_lifecycle_change(core, RESUME), 0) << from;

        EXPECT_EQ(core->lifecycle, RESUME) << from;
    }
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Lifecycle, ChangeComparesWithoutSign)
{
    be(START);

    EXPECT_EQ(qor_core_context_lifecycle_change(core, -1), 0);

    EXPECT_EQ(core->lifecycle, -1);
    core->lifecycle = START;
}
