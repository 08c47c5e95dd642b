/* SPDX-License-Identifier: Apache-2.0 */
/* A context's operations and the slots of its class that they reach. */
#include "qor_context.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "context_fixture.hpp"
#include "output.hpp"
#include "qor_context_module.h"

namespace {

/* What a function without result is taken to return, in the tables below. */
constexpr int32_t no_result = 1000;

/* The message and task that the dispatchers are to hand on; nobody may look into them. */
qor_context_msg_t *const some_msg = reinterpret_cast<qor_context_msg_t *>(0x10);
qor_context_task_t *const some_task = reinterpret_cast<qor_context_task_t *>(0x20);

void uninit_happens(qor_context_t *context)
{
    happened += "uninit ";
    happened_to = context;
}

template <auto function> int32_t call(qor_context_t *context)
{
    return function(context);
}

template <auto function> int32_t call_void(qor_context_t *context)
{
    function(context);
    return no_result;
}

int32_t call_handle_message(qor_context_t *context)
{
    return qor_context_handle_message(context, some_msg);
}

int32_t call_handle_task(qor_context_t *context)
{
    return qor_context_handle_task(context, some_task);
}

template <auto slot> void empty(qor_context_cls_t &cls)
{
    cls.*slot = nullptr;
}

void note(qor_context_t *context)
{
    happened += "slot";
    happened_to = context;
}

int32_t note_result(qor_context_t *context)
{
    note(context);
    return 7;
}

void fill(qor_context_cls_void_t &slot)
{
    slot = note;
}

void fill(qor_context_cls_op_t &slot)
{
    slot = note_result;
}

void fill(qor_context_cls_message_t &slot)
{
    slot = [](qor_context_t *context, qor_context_msg_t *msg) {
        EXPECT_EQ(msg, some_msg);
        return note_result(context);
    };
}

void fill(qor_context_cls_task_t &slot)
{
    slot = [](qor_context_t *context, qor_context_task_t *task) {
        EXPECT_EQ(task, some_task);
        return note_result(context);
    };
}

template <auto slot> void fill(qor_context_cls_t &cls)
{
    fill(cls.*slot);
}

struct Operation {
    const char *name; /* of the function, without qor_context_ */
    const char *slot;
    int32_t (*call)(qor_context_t *);
    void (*empty)(qor_context_cls_t &);
    void (*fill)(qor_context_cls_t &);
    int32_t failure;
    int32_t success;

    std::string function() const { return std::string("qor_context_") + name; }
    friend std::ostream &operator<<(std::ostream &os, const Operation &op) { return os << op.name; }
};

template <auto function, auto slot> Operation with_result(const char *name, const char *slot_name)
{
    return {name, slot_name, call<function>, empty<slot>, fill<slot>, -1, 7};
}

template <auto function, auto slot>
Operation without_result(const char *name, const char *slot_name)
{
    return {name, slot_name, call_void<function>, empty<slot>, fill<slot>, no_result, no_result};
}

using Cls = qor_context_cls_t;

/* The slot is tested and must be there. */
const Operation required[] = {
    without_result<qor_context_destroy, &Cls::destroy>("destroy", "destroy"),
    with_result<qor_context_init, &Cls::init>("init", "init"),
    without_result<qor_context_uninit, &Cls::uninit>("uninit", "uninit"),
    with_result<qor_context_start, &Cls::start>("start", "start"),
    without_result<qor_context_stop, &Cls::stop>("stop", "stop"),
    without_result<qor_context_register, &Cls::reg>("register", "reg"),
    without_result<qor_context_unregister, &Cls::unreg>("unregister", "unreg"),
    with_result<call_handle_message, &Cls::handle_message>("handle_message", "handle_message"),
    with_result<call_handle_task, &Cls::handle_task>("handle_task", "handle_task"),
};

const Operation optional[] = {
    with_result<qor_context_resume, &Cls::resume>("resume", "resume"),
    with_result<qor_context_pause, &Cls::pause>("pause", "pause"),
};

const Operation untested[] = {
    with_result<qor_context_loop, &Cls::loop>("loop", "loop"),
};

struct AnyOperation : ContextTest, testing::WithParamInterface<Operation> {};

TEST_P(AnyOperation, CallsItsSlotAndReturnsTheResult)
{
    GetParam().fill(cls);

    EXPECT_EQ(GetParam().call(&context), GetParam().success);

    EXPECT_EQ(happened, "slot");
    EXPECT_EQ(happened_to, &context);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(AnyOperation, ReportsANullContext)
{
    EXPECT_EQ(GetParam().call(nullptr), GetParam().failure);

    EXPECT_EQ(out.printed(), err_line(tag, GetParam().function(), "!(_this) == true."));
}

TEST_P(AnyOperation, ReportsAContextWithoutClass)
{
    context.cls = nullptr;

    EXPECT_EQ(GetParam().call(&context), GetParam().failure);

    EXPECT_EQ(out.printed(), err_line(tag, GetParam().function(), "!(_this->cls) == true."));
}

INSTANTIATE_TEST_SUITE_P(Required, AnyOperation, testing::ValuesIn(required), case_name<Operation>);
INSTANTIATE_TEST_SUITE_P(Optional, AnyOperation, testing::ValuesIn(optional), case_name<Operation>);
INSTANTIATE_TEST_SUITE_P(Untested, AnyOperation, testing::ValuesIn(untested), case_name<Operation>);

struct RequiredOperation : ContextTest, testing::WithParamInterface<Operation> {};

TEST_P(RequiredOperation, ReportsAnEmptySlot)
{
    GetParam().empty(cls);

    EXPECT_EQ(GetParam().call(&context), GetParam().failure);

    const std::string text = std::string("!(_this->cls->") + GetParam().slot + ") == true.";
    EXPECT_EQ(out.printed(), err_line(tag, GetParam().function(), text));
}

INSTANTIATE_TEST_SUITE_P(Context, RequiredOperation, testing::ValuesIn(required),
                         case_name<Operation>);

struct OptionalOperation : ContextTest, testing::WithParamInterface<Operation> {};

TEST_P(OptionalOperation, SucceedsSilentlyWithAnEmptySlot)
{
    GetParam().empty(cls);

    EXPECT_EQ(GetParam().call(&context), 0);

    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(Context, OptionalOperation, testing::ValuesIn(optional),
                         case_name<Operation>);

TEST_F(Context, NullMessagesAndTasksAreHandedOn)
{
    cls.handle_message = [](qor_context_t *, qor_context_msg_t *msg) { return msg ? -1 : 5; };
    cls.handle_task = [](qor_context_t *, qor_context_task_t *task) { return task ? -1 : 6; };

    EXPECT_EQ(qor_context_handle_message(&context, nullptr), 5);
    EXPECT_EQ(qor_context_handle_task(&context, nullptr), 6);

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Context, UninitReleasesPublicDataFirstAndKeepsThePointer)
{
    cls.uninit = uninit_happens;
    char data = 'p';
    qor_context_pub_data_set(&context, &data, recycle_happens);

    qor_context_uninit(&context);
    EXPECT_EQ(happened, "puninit ");
    EXPECT_EQ(context.pub_data, &data);
    EXPECT_EQ(context.pub_data_recycle, recycle_happens);

    qor_context_uninit(&context);
    EXPECT_EQ(happened, "puninit puninit ");
}

TEST_F(Context, UninitWithoutRecycleReleasesNothing)
{
    cls.uninit = uninit_happens;
    char data = 'p';
    qor_context_pub_data_set(&context, &data, nullptr);

    qor_context_uninit(&context);

    EXPECT_EQ(happened, "uninit ");
}

TEST_F(Context, UninitWithoutPublicDataDoesNotCallRecycle)
{
    cls.uninit = uninit_happens;
    qor_context_pub_data_set(&context, nullptr, recycle_happens);

    qor_context_uninit(&context);

    EXPECT_EQ(happened, "uninit ");
}

TEST_F(Context, UninitWithoutTheSlotReleasesNothing)
{
    cls.uninit = nullptr;
    char data = 'p';
    qor_context_pub_data_set(&context, &data, recycle_happens);

    qor_context_uninit(&context);

    EXPECT_EQ(happened, "");
    EXPECT_EQ(out.printed(), err_line(tag, "qor_context_uninit", "!(_this->cls->uninit) == true."));
}

TEST_F(Context, LoopTestsTheMessageSlot)
{
    cls.handle_message = nullptr;
    cls.loop = note_result;

    EXPECT_EQ(qor_context_loop(&context), -1);

    EXPECT_EQ(happened, "");
    EXPECT_EQ(out.printed(),
              err_line(tag, "qor_context_loop", "!(_this->cls->handle_message) == true."));
}

TEST_F(Context, LoopFaultsWithoutItsSlot)
{
    cls.loop = nullptr;

    EXPECT_DEATH(qor_context_loop(&context), "");

    EXPECT_EQ(out.printed(), "");
}

} // namespace
