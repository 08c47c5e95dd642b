/* SPDX-License-Identifier: Apache-2.0 */
/* The system requests of a context. */
#include "qor_context.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "context_fixture.hpp"
#include "output.hpp"
#include "qor_context_module.h"
#include "recording_context.hpp"

namespace {

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
                         case_name<SystemRequest>);

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
