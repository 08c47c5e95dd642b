/* SPDX-License-Identifier: Apache-2.0 */
/* The task that initialises a context. */
#include "qor_main.h"

#include <string>

#include <gtest/gtest.h>

#include "module.hpp"
#include "output.hpp"
#include "qor_context.h"
#include "strict_class.hpp"

namespace {

std::string called;
int32_t init_result;
int32_t start_result;

class InitTask : public testing::Test {
protected:
    InitTask()
    {
        called.clear();
        init_result = start_result = 0;
        cls.init = [](qor_context_t *) {
            called += "init ";
            return init_result;
        };
        cls.start = [](qor_context_t *) {
            called += "start ";
            return start_result;
        };
        qor_context_constructor(&context, &cls, &module.descriptor);
    }

    Module module{"gauge"};
    qor_context_cls_t cls = strict_class();
    qor_context_t context;
    Output out;
};

} // namespace

TEST_F(InitTask, InitialisesAndThenStarts)
{
    init_result = 5;

    qor_context_init_task(&context);

    EXPECT_EQ(called, "init start ");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(InitTask, DoesNotStartWhatFailedToInitialise)
{
    init_result = -1;

    qor_context_init_task(&context);

    EXPECT_EQ(called, "init ");
    EXPECT_EQ(out.printed(),
              err_line("qor_main", "qor_context_init_task", "context init failed. name = gauge"));
}

TEST_F(InitTask, ReportsAFailedStart)
{
    start_result = -3;

    qor_context_init_task(&context);

    EXPECT_EQ(called, "init start ");
    EXPECT_EQ(out.printed(),
              err_line("qor_main", "qor_context_init_task", "context start failed. name = gauge"));
}
