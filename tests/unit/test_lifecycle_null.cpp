/* SPDX-License-Identifier: Apache-2.0 */
/* Lifecycle calls without a context. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "lifecycle_fixture.hpp"
#include "output.hpp"

namespace {

struct NullCase {
    const char *name;
    int32_t (*operation)(qor_core_context_t *);
    const char *function;
};

const NullCase null_cases[] = {
    {"Change", [](qor_core_context_t *c) { return qor_core_context_lifecycle_change(c, START); },
     "qor_core_context_lifecycle_change"},
    {"Start", qor_core_context_lifecycle_start, "qor_core_context_lifecycle_start"},
    {"Stop", qor_core_context_lifecycle_stop, "qor_core_context_lifecycle_stop"},
    {"Resume", qor_core_context_lifecycle_resume, "qor_core_context_lifecycle_resume"},
    {"Pause", qor_core_context_lifecycle_pause, "qor_core_context_lifecycle_pause"},
};

} // namespace

class LifecycleNull : public testing::TestWithParam<NullCase> {};

TEST_P(LifecycleNull, IsReported)
{
    Output out;

    EXPECT_EQ(GetParam().operation(nullptr), -1);

    EXPECT_EQ(out.printed(), line(GetParam().function, "!(_this) == true."));
}

INSTANTIATE_TEST_SUITE_P(All, LifecycleNull, testing::ValuesIn(null_cases), case_name<NullCase>);
