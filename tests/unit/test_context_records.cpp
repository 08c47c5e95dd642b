/* SPDX-License-Identifier: Apache-2.0 */
/* Creating, constructing and destroying context records. */
#include "qor_context.h"

#include <cstring>

#include <gtest/gtest.h>

#include "context_fixture.hpp"
#include "output.hpp"
#include "qor_context_module.h"

namespace {

qor_context_module_t *module_of_create;
qor_context_t *result_of_create;

qor_context_t *create_happens(qor_context_module_t *module)
{
    module_of_create = module;
    return result_of_create;
}

TEST_F(Context, CreateReturnsWhatTheClassCreates)
{
    cls.create = create_happens;
    result_of_create = &context;

    EXPECT_EQ(qor_context_create(&cls, &module), &context);

    EXPECT_EQ(module_of_create, &module);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, CreateReturnsNullWhenTheClassDoes)
{
    cls.create = create_happens;
    result_of_create = nullptr;

    EXPECT_EQ(qor_context_create(&cls, &module), nullptr);

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, CreateChecksTheClassBeforeTheModule)
{
    EXPECT_EQ(qor_context_create(nullptr, nullptr), nullptr);
    EXPECT_EQ(qor_context_create(&cls, nullptr), nullptr);

    EXPECT_EQ(out.printed(), err_line(tag, "qor_context_create", "!(cls) == true.") +
                                 err_line(tag, "qor_context_create", "!(module) == true."));
}

TEST_F(Context, CreateFaultsWithoutTheSlot)
{
    cls.create = nullptr;

    EXPECT_DEATH(qor_context_create(&cls, &module), "");

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, ConstructorZeroesAllButClassAndModule)
{
    qor_context_t fresh;
    memset(static_cast<void *>(&fresh), 0x5a, sizeof(fresh));

    EXPECT_EQ(qor_context_constructor(&fresh, &cls, &module), &fresh);

    EXPECT_EQ(fresh.cls, &cls);
    EXPECT_EQ(fresh.module, &module);
    EXPECT_EQ(fresh.handler, nullptr);
    EXPECT_EQ(fresh.id, 0);
    EXPECT_EQ(fresh.node.next, nullptr);
    EXPECT_EQ(fresh.node.prev, nullptr);
    EXPECT_EQ(fresh.resource, nullptr);
    EXPECT_EQ(fresh.pub_data, nullptr);
    EXPECT_EQ(fresh.priv_data, nullptr);
    EXPECT_EQ(fresh.pub_data_recycle, nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, ConstructorChecksContextThenClassThenModule)
{
    context.id = 3;

    EXPECT_EQ(qor_context_constructor(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(qor_context_constructor(&context, nullptr, nullptr), nullptr);
    EXPECT_EQ(qor_context_constructor(&context, &cls, nullptr), nullptr);

    EXPECT_EQ(out.printed(), err_line(tag, "qor_context_constructor", "!(_this) == true.") +
                                 err_line(tag, "qor_context_constructor", "!(cls) == true.") +
                                 err_line(tag, "qor_context_constructor", "!(module) == true."));
    EXPECT_EQ(context.id, 3);
}

TEST_F(Context, DestructorLeavesLinkAndPublicData)
{
    list_head head;
    INIT_LIST_HEAD(&head);
    list_add_tail(&context.node, &head);
    char data = 'p';
    qor_context_pub_data_set(&context, &data, recycle_happens);

    qor_context_destructor(&context);

    EXPECT_EQ(head.next, &context.node);
    EXPECT_EQ(context.pub_data, &data);
    EXPECT_EQ(happened, "");
    EXPECT_EQ(out.printed(), "");
}

} // namespace
