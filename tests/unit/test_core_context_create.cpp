/* SPDX-License-Identifier: Apache-2.0 */
/* The class of user contexts, and creating one. */
#include "qor_core_context.h"

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "core_context_fixture.hpp"
#include "core_context_lines.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_core.h"
#include "qor_context_handler.h"
#include "qor_context_task.h"
#include "qor_impl_context.h"

TEST_F(CoreContext, ClassHasNoNameTheDefaultIdAndIsNotRegistered)
{
    EXPECT_STREQ(cls.name, "");
    EXPECT_EQ(cls.id, 0);
    EXPECT_EQ(cls.node.next, nullptr);
    EXPECT_EQ(cls.node.prev, nullptr);
}

TEST_F(CoreContext, ClassFillsEverySlot)
{
    EXPECT_TRUE(cls.create && cls.destroy && cls.reg && cls.unreg && cls.start && cls.stop &&
                cls.resume && cls.pause && cls.init && cls.uninit && cls.handle_message &&
                cls.handle_task && cls.loop);
}

TEST_F(CoreContext, IsCreatedInInitWithAnEmptyQueue)
{
    EXPECT_EQ(wrapper->cls, &cls);
    EXPECT_EQ(wrapper->module, &module.descriptor);
    EXPECT_EQ(wrapper->id, 0);
    EXPECT_EQ(wrapper->node.prev, nullptr);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(core->refcount, 0);
    ASSERT_NE(core->que, nullptr);
    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(core->que->max_count, 50u);
    EXPECT_EQ(reinterpret_cast<void (*)()>(core->que->recycle),
              reinterpret_cast<void (*)()>(qor_context_task_uninit));
}

TEST_F(CoreContext, IsCreatedWithAnInnerContextOfTheModulesClass)
{
    EXPECT_EQ(inner->cls, &qor_impl_context_class);
    EXPECT_EQ(inner->module, &module.descriptor);
    EXPECT_NE(inner->handler, nullptr);
    EXPECT_EQ(inner->pub_data, wrapper);
    EXPECT_EQ(inner->pub_data_recycle, nullptr);
}

TEST(CoreContextCreation, LeavesTheWrappersHandlerEmpty)
{
    Module module{"gauge"};
    qor_context_t *wrapper = cls.create(&module.descriptor);
    qor_context_t *inner = qor_core_context_type(wrapper)->context;

    EXPECT_EQ(wrapper->handler, nullptr);
    EXPECT_EQ(wrapper->pub_data, nullptr);

    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
}

TEST(CoreContextCreation, ReportsAMissingModule)
{
    Output out;

    EXPECT_EQ(cls.create(nullptr), nullptr);

    EXPECT_EQ(out.printed(), line("qor_core_context_create", "!(module) == true."));
}

TEST(CoreContextCreation, FailsForAnIdThatNoClassServes)
{
    Module module{"gauge"};
    module.descriptor.id = 4711;
    Output out;

    EXPECT_EQ(cls.create(&module.descriptor), nullptr);

    EXPECT_EQ(out.printed(), line("qor_core_context_constructor", "create context failed.") +
                                 line("qor_core_context_create",
                                      "\"qor_core_context_constructor\" called failed.\n"));
}

TEST(CoreContextCreation, TakesTheInnerContextFromTheClassOfTheModulesId)
{
    Module module{"gauge"};
    module.descriptor.id = 9;
    static qor_context_t special;
    static qor_context_cls_t special_cls = qor_impl_context_class;
    special_cls.id = 9;
    special_cls.node = {};
    special_cls.create = [](qor_context_module_t *m) {
        return qor_context_constructor(&special, &special_cls, m);
    };
    special_cls.destroy = [](qor_context_t *) {};
    qor_context_core_class_register(qor_context_core_instance_get(), &special_cls);

    qor_context_t *wrapper = cls.create(&module.descriptor);

    EXPECT_EQ(qor_core_context_type(wrapper)->context, &special);
    EXPECT_EQ(special.pub_data, wrapper);
    qor_context_core_class_unregister(qor_context_core_instance_get(), &special_cls);
    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
}

namespace {

struct RefcountCase {
    const char *name;
    int32_t given;
    uint32_t kept;
};

} // namespace

class CoreContextRefcount : public CoreContext, public testing::WithParamInterface<RefcountCase> {
protected:
    CoreContextRefcount() : CoreContext(GetParam().given) {}
};

TEST_P(CoreContextRefcount, IsTheLimitOfLoopRuns)
{
    EXPECT_EQ(core->refcount_max, GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(All, CoreContextRefcount,
                         testing::Values(RefcountCase{"NoneMeansOne", 0, 1},
                                         RefcountCase{"One", 1, 1}, RefcountCase{"Three", 3, 3},
                                         RefcountCase{"NegativeMeansNoLimit", -1, UINT32_MAX}),
                         case_name<RefcountCase>);
