/* SPDX-License-Identifier: Apache-2.0 */
/* Destroying user contexts. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "core_context_fixture.hpp"
#include "core_context_lines.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"

TEST_F(CoreContext, IsNotDestroyedBeforeItsUninit)
{
    ASSERT_EQ(qor_context_init(wrapper), 0);

    qor_context_destroy(wrapper);

    EXPECT_EQ(out.printed(), line("qor_core_context_destroy", "context is not ready to destroy."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    EXPECT_EQ(post(task("t", 7)), 0);
    loop();
    EXPECT_EQ(behind.happened, "start 7 over ");
}

TEST(CoreContextDestruction, IsRefusedInEveryStateButDestroy)
{
    Module module{"gauge"};
    Output out;
    qor_context_t *wrapper = cls.create(&module.descriptor);
    qor_core_context_t *core = qor_core_context_type(wrapper);
    qor_context_t *inner = core->context;
    for (int32_t state = QOR_USER_CONTEXT_LIFECYCLE_INIT;
         state < QOR_USER_CONTEXT_LIFECYCLE_DESTROY; state++) {
        core->lifecycle = state;

        qor_context_destroy(wrapper);
    }
    EXPECT_EQ(out.count("context is not ready to destroy."), 6);

    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_DESTROY;
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
    EXPECT_EQ(out.count("context is not ready to destroy."), 6);
}

TEST_F(CoreContext, DestroyLeavesTheInnerContext)
{
    destroy();

    EXPECT_STREQ(qor_context_module_name_get(inner), "gauge");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(CoreContext, DestroyReleasesTheTasksThatWait)
{
    for (int32_t session = 0; session < 3; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }

    destroy();

    EXPECT_EQ(recycled, 3);
    EXPECT_EQ(behind.happened, "");
}
