/* SPDX-License-Identifier: Apache-2.0 */
/* The request family of calls: what each puts into its message. */
#include "qor_context_module.h"

#include <string>

#include <gtest/gtest.h>

#include "context_module_fixture.hpp"
#include "output.hpp"
#include "recording_context.hpp"

namespace {

char req_bytes[4];
char res_bytes[9];

struct Request {
    const char *name;
    int32_t (*call)(qor_context_t *);
    const char *body; /* the function whose name a check prints */
    const char *slots;
    int32_t session;
    qor_context_response_t response;
    bool returns_session; /* or else the dispatcher's result */

    friend std::ostream &operator<<(std::ostream &os, const Request &r) { return os << r.name; }
};

const Request requests[] = {
    {"req",
     [](qor_context_t *c) { return qor_context_req(c, some_topic, req_bytes, 4); },
     "_qor_context_req",
     "session publish",
     drawn_session,
     {0, nullptr},
     true},
    {"req_ret",
     [](qor_context_t *c) { return qor_context_req_ret(c, some_topic, req_bytes, 4, 9); },
     "_qor_context_req",
     "session publish",
     drawn_session,
     {9, nullptr},
     true},
    {"req_s",
     [](qor_context_t *c) { return qor_context_req_s(c, own_session, some_topic, req_bytes, 4); },
     "_qor_context_req_s",
     "publish",
     own_session,
     {0, nullptr},
     true},
    {"req_ret_s",
     [](qor_context_t *c) {
         return qor_context_req_ret_s(c, own_session, some_topic, req_bytes, 4, 9);
     },
     "_qor_context_req_s",
     "publish",
     own_session,
     {9, nullptr},
     true},
    {"x_req",
     [](qor_context_t *c) { return qor_context_x_req(c, some_topic, req_bytes, 4); },
     "_qor_context_x_req",
     "session publishx",
     drawn_session,
     {0, nullptr},
     false},
    {"x_req_ret",
     [](qor_context_t *c) {
         return qor_context_x_req_ret(c, some_topic, req_bytes, 4, res_bytes, 9);
     },
     "_qor_context_x_req",
     "session publishx",
     drawn_session,
     {9, res_bytes},
     false},
    {"x_req_s",
     [](qor_context_t *c) { return qor_context_x_req_s(c, own_session, some_topic, req_bytes, 4); },
     "_qor_context_x_req_s",
     "publishx",
     own_session,
     {0, nullptr},
     false},
    {"x_req_ret_s",
     [](qor_context_t *c) {
         return qor_context_x_req_ret_s(c, own_session, some_topic, req_bytes, 4, res_bytes, 9);
     },
     "_qor_context_x_req_s",
     "publishx",
     own_session,
     {9, res_bytes},
     false},
};

struct AnyRequest : testing::TestWithParam<Request> {
    Output out;
    RecordingContext context;
};

TEST_P(AnyRequest, SendsAFilledMessage)
{
    GetParam().call(context.get());

    EXPECT_EQ(context.slots, GetParam().slots);
    EXPECT_EQ(context.msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(context.msg.session, GetParam().session);
    EXPECT_EQ(context.msg.ret, 0);
    EXPECT_EQ(context.msg.topic, some_topic);
    EXPECT_EQ(context.msg.request.size, 4);
    EXPECT_EQ(context.msg.request.buf, req_bytes);
    EXPECT_EQ(context.msg.response.size, GetParam().response.size);
    EXPECT_EQ(context.msg.response.buf, GetParam().response.buf);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(AnyRequest, ReturnsSessionOrResult)
{
    for (int32_t result : {0, 5}) {
        context.next_session = drawn_session;
        context.result = result;

        EXPECT_EQ(GetParam().call(context.get()),
                  GetParam().returns_session ? GetParam().session : result);
    }
}

TEST_P(AnyRequest, ReturnsMinusOneOrTheNegativeResult)
{
    context.result = -7;

    EXPECT_EQ(GetParam().call(context.get()), GetParam().returns_session ? -1 : -7);
}

TEST_P(AnyRequest, ReportsANullContextUnderTheCommonName)
{
    EXPECT_EQ(GetParam().call(nullptr), -1);

    EXPECT_EQ(out.printed(), err_line(tag, GetParam().body, "!(_this) == true."));
}

const auto row_name = [](const auto &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(ContextModule, AnyRequest, testing::ValuesIn(requests), row_name);

TEST(ContextModule, RequestsDoNotCheckTopicBuffersAndSizes)
{
    RecordingContext context;

    EXPECT_EQ(qor_context_x_req_ret_s(context.get(), -1, -3, nullptr, -4, nullptr, -9), 0);

    EXPECT_EQ(context.msg.session, -1);
    EXPECT_EQ(context.msg.topic, -3);
    EXPECT_EQ(context.msg.request.size, -4);
    EXPECT_EQ(context.msg.request.buf, nullptr);
    EXPECT_EQ(context.msg.response.size, -9);
    EXPECT_EQ(context.msg.response.buf, nullptr);
}

TEST(ContextModule, SynchronousRequestGetsItsResponseInPlace)
{
    RecordingContext context;
    context.answer = "answer";
    char response[7] = "";

    EXPECT_EQ(qor_context_x_req_ret(context.get(), some_topic, nullptr, 0, response, 7), 0);

    EXPECT_STREQ(response, "answer");
}

TEST(ContextModule, RequestOnAContextWithoutTableFails)
{
    Output out;
    qor_context_t context = {};

    EXPECT_EQ(qor_context_req(&context, some_topic, nullptr, 0), -1);

    EXPECT_EQ(
        out.printed(),
        err_line("qor_context_handler", "qor_context_handler_session", "!(handler) == true.") +
            err_line("qor_context_handler", "qor_context_handler_publish", "!(handler) == true."));
}

} // namespace
