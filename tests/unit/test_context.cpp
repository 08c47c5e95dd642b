/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_context_module.h"
#include "recording_context.hpp"
#include "strict_class.hpp"

namespace {

constexpr char tag[] = "qor_context_api";

/* What a function without result is taken to return, in the tables below. */
constexpr int32_t no_result = 1000;

/* The message and task that the dispatchers are to hand on; nobody may look into them. */
qor_context_msg_t *const some_msg = reinterpret_cast<qor_context_msg_t *>(0x10);
qor_context_task_t *const some_task = reinterpret_cast<qor_context_task_t *>(0x20);

/* What happened, in order, and the context that it happened to. */
std::string happened;
qor_context_t *happened_to;

void uninit_happens(qor_context_t *context)
{
    happened += "uninit ";
    happened_to = context;
}

void recycle_happens(void *pub_data)
{
    happened += *static_cast<const char *>(pub_data);
}

struct ContextTest : testing::Test {
    ContextTest()
    {
        happened.clear();
        happened_to = nullptr;
        qor_context_constructor(&context, &cls, &module);
    }

    Output out;
    qor_context_cls_t cls = strict_class();
    qor_context_module_t module = {"module",
                                   /* id */ 0,
                                   /* pure */ 0,
                                   /* refcount */ 0,
                                   /* priority */ 0,
                                   /* stack_size */ 0,
                                   /* arg */ nullptr,
                                   /* reg */ nullptr,
                                   /* unreg */ nullptr,
                                   /* init */ nullptr,
                                   /* uninit */ nullptr,
                                   /* console */ nullptr,
                                   /* handle_message */ nullptr};
    qor_context_t context;
};

using Context = ContextTest;

/* Records */

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

/* Operations of the class */

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

const auto operation_name = [](const auto &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(Required, AnyOperation, testing::ValuesIn(required), operation_name);
INSTANTIATE_TEST_SUITE_P(Optional, AnyOperation, testing::ValuesIn(optional), operation_name);
INSTANTIATE_TEST_SUITE_P(Untested, AnyOperation, testing::ValuesIn(untested), operation_name);

struct RequiredOperation : ContextTest, testing::WithParamInterface<Operation> {};

TEST_P(RequiredOperation, ReportsAnEmptySlot)
{
    GetParam().empty(cls);

    EXPECT_EQ(GetParam().call(&context), GetParam().failure);

    const std::string text = std::string("!(_this->cls->") + GetParam().slot + ") == true.";
    EXPECT_EQ(out.printed(), err_line(tag, GetParam().function(), text));
}

INSTANTIATE_TEST_SUITE_P(Context, RequiredOperation, testing::ValuesIn(required), operation_name);

struct OptionalOperation : ContextTest, testing::WithParamInterface<Operation> {};

TEST_P(OptionalOperation, SucceedsSilentlyWithAnEmptySlot)
{
    GetParam().empty(cls);

    EXPECT_EQ(GetParam().call(&context), 0);

    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(Context, OptionalOperation, testing::ValuesIn(optional), operation_name);

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

/* Fields */

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

/* System requests */

char request_bytes[4];
char response_bytes[9];

struct SystemRequest {
    const char *name;
    int32_t (*call)(qor_context_t *);
    const char *slot;
    qor_context_response_t response;

    friend std::ostream &operator<<(std::ostream &os, const SystemRequest &r)
    {
        return os << r.name;
    }
};

const SystemRequest system_requests[] = {
    {"sys_req", [](qor_context_t *c) { return qor_context_sys_req(c, 3, request_bytes, 4); },
     "syscall", qor_context_response_t{0, nullptr}},
    {"sys_req_ret",
     [](qor_context_t *c) { return qor_context_sys_req_ret(c, 3, request_bytes, 4, 9); }, "syscall",
     qor_context_response_t{9, nullptr}},
    {"sysx_req", [](qor_context_t *c) { return qor_context_sysx_req(c, 3, request_bytes, 4); },
     "syscallx", qor_context_response_t{0, nullptr}},
    {"sysx_req_ret",
     [](qor_context_t *c) {
         return qor_context_sysx_req_ret(c, 3, request_bytes, 4, response_bytes, 9);
     },
     "syscall", qor_context_response_t{9, response_bytes}},
};

struct AnySystemRequest : testing::TestWithParam<SystemRequest> {
    Output out;
    RecordingContext context;
};

TEST_P(AnySystemRequest, SendsAFilledMessageUnderADrawnSession)
{
    EXPECT_EQ(GetParam().call(context.get()), 41);

    EXPECT_EQ(context.slots, std::string("session ") + GetParam().slot);
    EXPECT_EQ(context.msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(context.msg.session, 41);
    EXPECT_EQ(context.msg.ret, 0);
    EXPECT_EQ(context.msg.topic, 3);
    EXPECT_EQ(context.msg.request.size, 4);
    EXPECT_EQ(context.msg.request.buf, request_bytes);
    EXPECT_EQ(context.msg.response.size, GetParam().response.size);
    EXPECT_EQ(context.msg.response.buf, GetParam().response.buf);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(AnySystemRequest, ReturnsTheSessionForAPositiveResult)
{
    context.result = 5;

    EXPECT_EQ(GetParam().call(context.get()), 41);
}

TEST_P(AnySystemRequest, ReturnsMinusOneForANegativeResult)
{
    context.result = -7;

    EXPECT_EQ(GetParam().call(context.get()), -1);
}

TEST_P(AnySystemRequest, GoesOnAfterAFailedDraw)
{
    context.draw_result = -1;

    EXPECT_EQ(GetParam().call(context.get()), 0);

    EXPECT_EQ(context.msg.session, 0);
    EXPECT_EQ(context.slots, std::string("session ") + GetParam().slot);
}

TEST_P(AnySystemRequest, ReportsANullContextUnderTheCommonName)
{
    EXPECT_EQ(GetParam().call(nullptr), -1);

    EXPECT_EQ(out.printed(), err_line(tag, "_qor_context_sys_req", "!(_this) == true."));
}

TEST_P(AnySystemRequest, FailsWhereTheTableHasNoSystemCalls)
{
    context.handler.syscall = nullptr;
    context.handler.syscallx = nullptr;

    EXPECT_EQ(GetParam().call(context.get()), -1);

    const std::string slot = GetParam().slot;
    EXPECT_EQ(context.slots, "session");
    EXPECT_EQ(out.printed(), err_line("qor_context_handler", "qor_context_handler_" + slot,
                                      "!(handler->" + slot + ") == true."));
}

INSTANTIATE_TEST_SUITE_P(Context, AnySystemRequest, testing::ValuesIn(system_requests),
                         operation_name);

TEST_F(Context, SystemRequestGoesOnAfterAFailedDraw)
{
    RecordingContext recording;
    recording.draw_result = -1;

    EXPECT_EQ(qor_context_sys_req(recording.get(), 3, nullptr, 0), 0);

    EXPECT_EQ(recording.slots, "session syscall");
}

TEST_F(Context, SystemRequestsDoNotCheckTopicBuffersAndSizes)
{
    RecordingContext recording;

    EXPECT_EQ(qor_context_sysx_req_ret(recording.get(), -3, nullptr, -4, nullptr, -9), 41);

    EXPECT_EQ(recording.msg.topic, -3);
    EXPECT_EQ(recording.msg.request.size, -4);
    EXPECT_EQ(recording.msg.request.buf, nullptr);
    EXPECT_EQ(recording.msg.response.size, -9);
    EXPECT_EQ(recording.msg.response.buf, nullptr);
}

TEST_F(Context, SysxReqReturnsTheSession)
{
    RecordingContext recording;
    recording.result = 5;

    EXPECT_EQ(qor_context_sysx_req(recording.get(), 3, nullptr, 0), 41);

    EXPECT_EQ(recording.slots, "session syscallx");
}

TEST_F(Context, SysxReqRetIsAsynchronous)
{
    RecordingContext recording;

    EXPECT_EQ(qor_context_sysx_req_ret(recording.get(), 3, nullptr, 0, response_bytes, 9), 41);

    EXPECT_EQ(recording.slots, "session syscall");
    EXPECT_EQ(recording.msg.response.buf, response_bytes);
}

} // namespace
