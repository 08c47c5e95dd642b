/* SPDX-License-Identifier: Apache-2.0 */
/* How the operations of a user context's class reach the module. */
#include "qor_core_context.h"

#include <string>

#include <gtest/gtest.h>

#include "core_context_fixture.hpp"
#include "core_context_lines.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_impl_context.h"

TEST_F(CoreContext, RegisterAndUnregisterReachTheModuleWithTheInnerContext)
{
    std::string called;
    module.reg = [&](qor_context_t *c) { called += c == inner ? "reg " : "wrong "; };
    module.unreg = [&](qor_context_t *c) { called += c == inner ? "unreg " : "wrong "; };

    qor_context_register(wrapper);
    qor_context_unregister(wrapper);

    EXPECT_EQ(called, "reg unreg ");
}

TEST_F(CoreContext, InitGivesTheModulesResult)
{
    module.init = [&](qor_context_t *c) { return c == inner ? 12 : -1; };

    EXPECT_EQ(qor_context_init(wrapper), 12);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(CoreContext, FailedInitIsReportedAndStops)
{
    module.init = [](qor_context_t *) { return -12; };

    EXPECT_EQ(qor_context_init(wrapper), -12);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    EXPECT_EQ(out.printed(), line("qor_core_context_init", "context init failed."));
}

TEST_F(CoreContext, UninitReachesTheModuleBeforeTheLifecycleChanges)
{
    int32_t lifecycle = -1;
    module.uninit = [&](qor_context_t *c) { lifecycle = c == inner ? module.lifecycle() : -2; };
    qor_context_register(wrapper);

    qor_context_uninit(wrapper);

    EXPECT_EQ(lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

TEST_F(CoreContext, UninitOfAModuleWithoutItIsReportedAndDestroys)
{
    module.descriptor.uninit = nullptr;

    qor_context_uninit(wrapper);

    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_uninit",
                                      "!(_this->module->uninit) == true."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

TEST_F(CoreContext, MessagesReachTheModuleAndItsResultComesBack)
{
    static qor_context_msg_t msg;
    module.handle = [this](qor_context_t *c, qor_context_msg_t *m) {
        return c == inner && m == &msg ? -33 : 0;
    };

    EXPECT_EQ(qor_context_handle_message(wrapper, &msg), -33);
}

TEST_F(CoreContext, EnteringAndLeavingDoesNotReachTheModule)
{
    qor_context_cls_t strict = *inner->cls;
    strict.resume = strict.pause = [](qor_context_t *) {
        ADD_FAILURE() << "the inner context was told";
        return int32_t{-1};
    };
    inner->cls = &strict;
    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_START;

    EXPECT_EQ(qor_context_resume(wrapper), 0);
    EXPECT_EQ(qor_context_pause(wrapper), 0);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, StartGivesTheInnerResultAndStartsAllTheSame)
{
    qor_context_cls_t failing = *inner->cls;
    failing.start = [](qor_context_t *) { return int32_t{-9}; };
    inner->cls = &failing;

    EXPECT_EQ(qor_context_start(wrapper), -9);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_START);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, StopStopsTheInnerContextFirst)
{
    static int32_t seen;
    seen = -1;
    qor_context_cls_t watching = *inner->cls;
    watching.stop = [](qor_context_t *c) { seen = Module::of(c).lifecycle(); };
    inner->cls = &watching;
    qor_context_register(wrapper);
    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_PAUSE;

    qor_context_stop(wrapper);

    EXPECT_EQ(seen, QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, TypeIsTheContextItself)
{
    EXPECT_EQ(static_cast<void *>(qor_core_context_type(wrapper)), static_cast<void *>(wrapper));
    EXPECT_EQ(qor_core_context_type(nullptr), nullptr);
}
