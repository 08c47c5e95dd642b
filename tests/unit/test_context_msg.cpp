/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_msg.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"

namespace {

constexpr int32_t header = offsetof(qor_context_msg_t, buf);

struct Destroy {
    void operator()(qor_context_msg_t *msg) const { qor_context_msg_destroy(msg); }
};
using Clone = std::unique_ptr<qor_context_msg_t, Destroy>;

std::string bytes(const void *from, size_t size)
{
    return std::string(static_cast<const char *>(from), size);
}

/* A message over string payloads, filled in full. */
struct Message {
    Message(std::string request, std::string response)
        : req(std::move(request)), res(std::move(response))
    {
        std::memset(&msg, 0, sizeof(msg)); /* the padding too: records are compared byte by byte */
        qor_context_msg_fill_full(&msg, 11, 7, req.data(), static_cast<int32_t>(req.size()),
                                  res.data(), static_cast<int32_t>(res.size()));
    }
    std::string req, res;
    qor_context_msg_t msg;
};

} // namespace

TEST(ContextMsg, TypesHaveTheirNumbers)
{
    EXPECT_EQ(QOR_CONTEXT_MSG_REQUEST, 0);
    EXPECT_EQ(QOR_CONTEXT_MSG_RESPONSE, 1);
    EXPECT_EQ(QOR_CONTEXT_MSG_LISTEN_BEFORE, 2);
    EXPECT_EQ(QOR_CONTEXT_MSG_LISTEN_AFTER, 3);
    EXPECT_EQ(QOR_CONTEXT_MSG_FILTER_BEFORE, 4);
    EXPECT_EQ(QOR_CONTEXT_MSG_FILTER_AFTER, 5);
}

TEST(ContextMsg, FillMakesARequestWithoutResponse)
{
    char request[10];
    qor_context_msg_t msg;
    memset(&msg, 0x77, sizeof(msg));

    EXPECT_EQ(qor_context_msg_fill(&msg, 5, 3, request, 10), 0);

    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(msg.session, 5);
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(msg.topic, 3);
    EXPECT_EQ(msg.request.size, 10);
    EXPECT_EQ(msg.request.buf, request);
    EXPECT_EQ(msg.response.size, 0);
    EXPECT_EQ(msg.response.buf, nullptr);
}

TEST(ContextMsg, FillFullAlsoTakesTheResponsePart)
{
    char request[4], response[6];
    qor_context_msg_t msg;
    memset(&msg, 0x77, sizeof(msg));

    EXPECT_EQ(qor_context_msg_fill_full(&msg, 5, 3, request, 4, response, 6), 0);

    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(msg.session, 5);
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(msg.topic, 3);
    EXPECT_EQ(msg.request.size, 4);
    EXPECT_EQ(msg.request.buf, request);
    EXPECT_EQ(msg.response.size, 6);
    EXPECT_EQ(msg.response.buf, response);
}

struct SizeCase {
    const char *name;
    int32_t request, response;
    int64_t whole; /* behind the header */
};
class ContextMsgSize : public testing::TestWithParam<SizeCase> {};

TEST_P(ContextMsgSize, IsHeaderBothSizesAndFourGuardBytes)
{
    Output out;
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 1, nullptr, GetParam().request, nullptr,
                              GetParam().response);

    EXPECT_EQ(qor_context_msg_whole_size(&msg), header + GetParam().whole);
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, ContextMsgSize,
                         testing::Values(SizeCase{"Nothing", 0, 0, 4},
                                         SizeCase{"RequestOnly", 10, 0, 14},
                                         SizeCase{"ResponseOnly", 0, 5, 9},
                                         SizeCase{"Both", 3, 5, 12},
                                         SizeCase{"NegativeRequestAsItIs", -3, 5, 6},
                                         SizeCase{"NegativeResponseAsItIs", 3, -8, -1}),
                         case_name<SizeCase>);

TEST(ContextMsg, WholeSizeOfTheLargestSizesWrapsWithoutAFault)
{
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 1, nullptr, INT32_MAX, nullptr, INT32_MAX);

    EXPECT_EQ(qor_context_msg_whole_size(&msg), header + 2);
}

TEST(ContextMsg, WholeSizeOfNullIsReportedAndZero)
{
    Output out;

    EXPECT_EQ(qor_context_msg_whole_size(nullptr), 0);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_whole_size", "!(msg) == true."));
}

TEST(ContextMsg, CloneOfARequestHoldsItsBytesAndGuard)
{
    char request[] = "0123456789";
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, request, 10);
    ASSERT_EQ(qor_context_msg_whole_size(&msg), header + 14);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.buf, clone->buf);
    EXPECT_EQ(clone->request.size, 10);
    EXPECT_EQ(bytes(clone->buf, 12), "0123456789\xAA\x55");
    EXPECT_EQ(clone->response.buf, nullptr);
    EXPECT_EQ(clone->response.size, 0);
}

TEST(ContextMsg, GuardBytesStandInOppositeOrders)
{
    Message source("abc", "vwxyz");

    Clone clone(qor_context_msg_clone(&source.msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(bytes(clone->buf, 12), "abc\xAA\x55"
                                     "vwxyz\x55\xAA");
    EXPECT_EQ(clone->request.buf, clone->buf);
    EXPECT_EQ(clone->response.buf, clone->buf + 5);
    EXPECT_EQ(clone->response.size, 5);
}

TEST(ContextMsg, CloneCarriesTypeSessionResultAndTopic)
{
    Message source("abc", "");
    source.msg.type = QOR_CONTEXT_MSG_LISTEN_AFTER;
    source.msg.ret = -9;

    Clone clone(qor_context_msg_clone(&source.msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->type, QOR_CONTEXT_MSG_LISTEN_AFTER);
    EXPECT_EQ(clone->session, 11);
    EXPECT_EQ(clone->ret, -9);
    EXPECT_EQ(clone->topic, 7);
}

TEST(ContextMsg, ResponseWithoutBufferIsZeroedRoomInTheClone)
{
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, nullptr, 0, nullptr, 8);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->response.buf, clone->buf);
    EXPECT_EQ(clone->response.size, 8);
    EXPECT_EQ(bytes(clone->buf, 10), std::string(8, '\0') + "\x55\xAA");
}

TEST(ContextMsg, RequestWithoutBufferKeepsItsSizeAndTakesNoRoom)
{
    char response[] = "xyz";
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, nullptr, 4, response, 3);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.size, 4);
    EXPECT_EQ(clone->request.buf, nullptr);
    EXPECT_EQ(clone->response.buf, clone->buf);
    EXPECT_EQ(bytes(clone->buf, 5), "xyz\x55\xAA");
}

TEST(ContextMsg, UncopiedPartsShareThePointer)
{
    char request[1], response[1];
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, request, 0, response, -1);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.buf, request);
    EXPECT_EQ(clone->request.size, 0);
    EXPECT_EQ(clone->response.buf, response);
    EXPECT_EQ(clone->response.size, 0);
}

TEST(ContextMsg, ResponseOfSizeZeroTakesNoRoom)
{
    Message source("abc", "");

    Clone clone(qor_context_msg_clone(&source.msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->response.buf, source.res.data());
    EXPECT_EQ(clone->response.size, 0);
    EXPECT_EQ(bytes(clone->buf, 7), std::string("abc\xAA\x55\0\0", 7));
}

TEST(ContextMsg, PartsOfOneByteAreCopied)
{
    Message source("q", "r");

    Clone clone(qor_context_msg_clone(&source.msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.buf, clone->buf);
    EXPECT_EQ(clone->response.buf, clone->buf + 3);
    EXPECT_EQ(bytes(clone->buf, 6), "q\xAA\x55"
                                    "r\x55\xAA");
}

TEST(ContextMsg, UncopiedRequestKeepsANegativeSize)
{
    char request[1];
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, request, -2);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.buf, request);
    EXPECT_EQ(clone->request.size, -2);
}

TEST(ContextMsg, SpareBytesOfACloneAreZero)
{
    char request[] = "ab";
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, request, 2);

    Clone clone(qor_context_msg_clone(&msg));

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(bytes(clone->buf, 6), std::string("ab\xAA\x55\0\0", 6));
}

TEST(ContextMsg, ChangingTheSourceDoesNotChangeTheClone)
{
    Message source("abc", "vwxyz");
    Clone clone(qor_context_msg_clone(&source.msg));
    ASSERT_NE(clone, nullptr);

    source.req = "ABC";
    source.res = "VWXYZ";

    EXPECT_EQ(bytes(clone->request.buf, 3), "abc");
    EXPECT_EQ(bytes(clone->response.buf, 5), "vwxyz");
}

TEST(ContextMsg, CloneOfACloneOutlivesTheFirst)
{
    Message source("abc", "vwxyz");
    Clone first(qor_context_msg_clone(&source.msg));
    ASSERT_NE(first, nullptr);

    Clone second(qor_context_msg_clone(first.get()));
    first.reset();

    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->request.buf, second->buf);
    EXPECT_EQ(bytes(second->buf, 12), "abc\xAA\x55"
                                      "vwxyz\x55\xAA");
}

TEST(ContextMsg, CloneOfNullIsReported)
{
    Output out;

    EXPECT_EQ(qor_context_msg_clone(nullptr), nullptr);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_clone", "!(src) == true."));
}

struct TotalCase {
    const char *name;
    int32_t request, response;
};
class ContextMsgTotal : public testing::TestWithParam<TotalCase> {};

TEST_P(ContextMsgTotal, OutOfRangeClonesToNullWithTheTextForDst)
{
    Output out;
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 1, nullptr, GetParam().request, nullptr,
                              GetParam().response);

    EXPECT_EQ(qor_context_msg_clone(&msg), nullptr);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_clone", "!(dst) == true."));
}

INSTANTIATE_TEST_SUITE_P(All, ContextMsgTotal,
                         testing::Values(TotalCase{"NegativeByTheRequest", -header - 5, 0},
                                         TotalCase{"NegativeByTheResponse", 0, -header - 5},
                                         TotalCase{"SmallestSizes", INT32_MIN, INT32_MIN},
                                         TotalCase{"JustBeyond", INT32_MAX - header - 3, 0},
                                         TotalCase{"WrappedToPositive", INT32_MAX, INT32_MAX}),
                         case_name<TotalCase>);

TEST(ContextMsg, SizesThatAddUpToNothingCanStillBeCloned)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, nullptr, -header - 4);
    ASSERT_EQ(qor_context_msg_whole_size(&msg), 0);

    Clone clone(qor_context_msg_clone(&msg)); /* of which the header needs its room all the same */

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->request.size, -header - 4);
}

TEST(ContextMsg, NegativeSizeTakesNoRoomFromTheOtherPart)
{
    char response[100];
    memset(response, 'r', sizeof(response));
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, nullptr, -100, response, 100);

    Clone clone(qor_context_msg_clone(&msg)); /* an overrun is the sanitizers' to find */

    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(bytes(clone->buf, 102), std::string(100, 'r') + "\x55\xAA");
}

TEST(ContextMsg, CopyChecksTheSourceFirst)
{
    Output out;

    EXPECT_EQ(qor_context_msg_copy(nullptr, nullptr), -1);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_copy", "!(src) == true."));
}

TEST(ContextMsg, CopyToNullIsReported)
{
    Output out;
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, nullptr, 0);

    EXPECT_EQ(qor_context_msg_copy(nullptr, &msg), -1);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_copy", "!(dst) == true."));
}

TEST(ContextMsg, CopyLeavesTheRoomOfAMissingResponseAsItWas)
{
    qor_context_msg_t msg;
    qor_context_msg_fill_full(&msg, 1, 2, nullptr, 0, nullptr, 3);
    const size_t size = static_cast<size_t>(qor_context_msg_whole_size(&msg));
    Clone block(static_cast<qor_context_msg_t *>(malloc(size)));
    memset(static_cast<void *>(block.get()), '#', size);

    EXPECT_EQ(qor_context_msg_copy(block.get(), &msg), 0);

    EXPECT_EQ(block->response.buf, block->buf);
    EXPECT_EQ(bytes(block->buf, 7), "###\x55\xAA##");
}

TEST(ContextMsg, CopyLeavesTheSourceUnchanged)
{
    Message source("abc", "vwxyz");
    const std::string before = bytes(&source.msg, sizeof(source.msg));

    Clone clone(qor_context_msg_clone(&source.msg));

    EXPECT_EQ(bytes(&source.msg, sizeof(source.msg)), before);
    EXPECT_EQ(source.req, "abc");
    EXPECT_EQ(source.res, "vwxyz");
}

TEST(ContextMsg, DestroyOfNullIsReported)
{
    Output out;

    qor_context_msg_destroy(nullptr);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_destroy", "!(msg) == true."));
}
