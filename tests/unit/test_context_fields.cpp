/* SPDX-License-Identifier: Apache-2.0 */
/* Setting and reading the fields of a context. */
#include "qor_context.h"

#include <string>

#include <gtest/gtest.h>

#include "context_fixture.hpp"
#include "output.hpp"
#include "qor_context_handler.h"

namespace {

TEST_F(Context, NamesAreThoseOfClassAndModule)
{
    EXPECT_EQ(qor_context_cls_name_get(&context), cls.name);
    EXPECT_EQ(qor_context_module_name_get(&context), module.name);

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, NamesNeedClassAndModule)
{
    context.cls = nullptr;
    context.module = nullptr;

    EXPECT_EQ(qor_context_cls_name_get(&context), nullptr);
    EXPECT_EQ(qor_context_module_name_get(&context), nullptr);

    EXPECT_EQ(
        out.printed(),
        err_line(tag, "qor_context_cls_name_get", "!(_this && _this->cls) == true.") +
            err_line(tag, "qor_context_module_name_get", "!(_this && _this->module) == true."));
}

TEST_F(Context, NamesNeedAContext)
{
    EXPECT_EQ(qor_context_cls_name_get(nullptr), nullptr);
    EXPECT_EQ(qor_context_module_name_get(nullptr), nullptr);

    EXPECT_EQ(
        out.printed(),
        err_line(tag, "qor_context_cls_name_get", "!(_this && _this->cls) == true.") +
            err_line(tag, "qor_context_module_name_get", "!(_this && _this->module) == true."));
}

TEST_F(Context, NumberIsSetOnce)
{
    EXPECT_EQ(qor_context_id_get(&context), 0);
    EXPECT_EQ(qor_context_id_set(&context, 3), 0);
    EXPECT_EQ(out.printed(), "");

    EXPECT_EQ(qor_context_id_set(&context, 4), -1);

    EXPECT_EQ(qor_context_id_get(&context), 3);
    EXPECT_EQ(out.printed(),
              err_line(tag, "qor_context_id_set", "!(_this->id == 0 && id > 0) == true."));
}

TEST_F(Context, NumberMustBePositive)
{
    const std::string line =
        err_line(tag, "qor_context_id_set", "!(_this->id == 0 && id > 0) == true.");

    EXPECT_EQ(qor_context_id_set(&context, 0), -1);
    EXPECT_EQ(qor_context_id_set(&context, -1), -1);

    EXPECT_EQ(qor_context_id_get(&context), 0);
    EXPECT_EQ(out.printed(), line + line);
}

TEST_F(Context, HandlerIsReplaced)
{
    qor_context_handler_t first = {};
    qor_context_handler_t second = {};
    EXPECT_EQ(qor_context_handler_get(&context), nullptr);

    qor_context_handler_set(&context, &first);
    EXPECT_EQ(qor_context_handler_get(&context), &first);
    qor_context_handler_set(&context, &second);
    EXPECT_EQ(qor_context_handler_get(&context), &second);

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, HandlerMustNotBeNull)
{
    qor_context_handler_t handler = {};
    qor_context_handler_set(&context, &handler);

    qor_context_handler_set(&context, nullptr);
    qor_context_handler_set(nullptr, nullptr);

    EXPECT_EQ(qor_context_handler_get(&context), &handler);
    EXPECT_EQ(out.printed(), err_line(tag, "qor_context_handler_set", "!(handler) == true.") +
                                 err_line(tag, "qor_context_handler_set", "!(_this) == true."));
}

TEST_F(Context, PublicDataIsOverwrittenWithoutRelease)
{
    char first = '1';
    char second = '2';
    EXPECT_EQ(qor_context_pub_data_get(&context), nullptr);

    qor_context_pub_data_set(&context, &first, recycle_happens);
    qor_context_pub_data_set(&context, &second, nullptr);

    EXPECT_EQ(qor_context_pub_data_get(&context), &second);
    EXPECT_EQ(context.pub_data_recycle, nullptr);
    EXPECT_EQ(happened, "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, ResourceAndPrivateDataAreKeptApart)
{
    int resource, priv_data;
    EXPECT_EQ(qor_context_resource_get(&context), nullptr);
    EXPECT_EQ(qor_context_priv_data_get(&context), nullptr);

    qor_context_resource_set(&context, &resource);
    qor_context_priv_data_set(&context, &priv_data);

    EXPECT_EQ(qor_context_resource_get(&context), &resource);
    EXPECT_EQ(qor_context_priv_data_get(&context), &priv_data);
    EXPECT_EQ(qor_context_pub_data_get(&context), nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, FieldFunctionsReportANullContext)
{
    qor_context_handler_t handler = {};

    qor_context_destructor(nullptr);
    EXPECT_EQ(qor_context_id_get(nullptr), -1);
    EXPECT_EQ(qor_context_id_set(nullptr, 0), -1);
    qor_context_handler_set(nullptr, &handler);
    EXPECT_EQ(qor_context_handler_get(nullptr), nullptr);
    qor_context_pub_data_set(nullptr, &handler, nullptr);
    EXPECT_EQ(qor_context_pub_data_get(nullptr), nullptr);
    qor_context_resource_set(nullptr, &handler);
    EXPECT_EQ(qor_context_resource_get(nullptr), nullptr);
    qor_context_priv_data_set(nullptr, &handler);
    EXPECT_EQ(qor_context_priv_data_get(nullptr), nullptr);

    std::string lines;
    for (const char *name :
         {"destructor", "id_get", "id_set", "handler_set", "handler_get", "pub_data_set",
          "pub_data_get", "resource_set", "resource_get", "priv_data_set", "priv_data_get"}) {
        lines += err_line(tag, std::string("qor_context_") + name, "!(_this) == true.");
    }
    EXPECT_EQ(out.printed(), lines);
}

} // namespace
