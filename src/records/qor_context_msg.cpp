/* SPDX-License-Identifier: Apache-2.0 */
/* Messages: filling, measuring, cloning into one block. Payloads may be misaligned: memcpy only. */
#include "qor_context_msg.h"

#include "qor_diag.hpp"
#include "qor_util.hpp"

#include <string.h>

namespace {

constexpr char file_tag[] = "qor_context_msg";

constexpr size_t guard_size = 2;

/* Deliberate: the guards of the two payloads stand in opposite orders, and nothing reads them: they
 * are for the eye in a memory dump. Test: ContextMsg.GuardBytesStandInOppositeOrders. */
constexpr unsigned char request_guard[guard_size] = {0xAA, 0x55};
constexpr unsigned char response_guard[guard_size] = {0x55, 0xAA};

static_assert(sizeof(qor_context_msg_t) == offsetof(qor_context_msg_t, buf),
              "the tail starts where the header ends");

/* In 64 bits, where two sizes of 32 bits cannot overflow. */
int64_t msg_total(const qor_context_msg_t *msg)
{
    const int64_t payloads = int64_t{msg->request.size} + msg->response.size;
    return static_cast<int64_t>(sizeof(*msg) + 2 * guard_size) + payloads;
}

/* What copying can write behind the header. Other than in msg_total(), a negative size takes
 * nothing away from the other payload. */
size_t msg_tail_room(const qor_context_msg_t *msg)
{
    const int32_t request = msg->request.size > 0 ? msg->request.size : 0;
    const int32_t response = msg->response.size > 0 ? msg->response.size : 0;
    return static_cast<size_t>(request) + static_cast<size_t>(response) + 2 * guard_size;
}

/* Writes a payload and its guard, and returns the place behind them. A payload without bytes leaves
 * the room as it is. */
char *msg_put(char *to, const void *payload, int32_t size, const unsigned char *guard)
{
    if (payload) {
        memcpy(to, payload, static_cast<size_t>(size));
    }
    memcpy(to + size, guard, guard_size);
    return to + size + guard_size;
}

/* Room for a copy, or NULL without memory. Zeroed is what copying may leave alone, not the header.
 */
qor_context_msg_t *msg_alloc(const qor_context_msg_t *src)
{
    const size_t tail = msg_tail_room(src);
    void *room = util_memory(malloc(sizeof(qor_context_msg_t) + tail));
    if (room) {
        memset(static_cast<qor_context_msg_t *>(room)->buf, 0, tail);
    }
    return static_cast<qor_context_msg_t *>(room);
}

} // namespace

int32_t qor_context_msg_fill(qor_context_msg_t *msg, int32_t ss, qor_context_topic_t topic,
                             void *req_buf, int32_t req_size)
{
    return qor_context_msg_fill_full(msg, ss, topic, req_buf, req_size, nullptr, 0);
}

int32_t qor_context_msg_fill_full(qor_context_msg_t *msg, int32_t ss, qor_context_topic_t topic,
                                  void *req_buf, int32_t req_size, void *res_buf, int32_t res_size)
{
    msg->type = QOR_CONTEXT_MSG_REQUEST;
    msg->session = ss;
    msg->ret = 0;
    msg->topic = topic;
    msg->request = {req_size, req_buf};
    msg->response = {res_size, res_buf};
    return 0;
}

int32_t qor_context_msg_whole_size(const qor_context_msg_t *msg)
{
    QOR_CHECK(msg, 0);
    return static_cast<int32_t>(msg_total(msg));
}

int32_t qor_context_msg_copy(qor_context_msg_t *dst, const qor_context_msg_t *src)
{
    /* Deliberate: src before dst, against the order of the parameters, so two NULLs print the text
     * for src. Test: ContextMsg.CopyChecksTheSourceFirst. */
    QOR_CHECK(src, -1);
    QOR_CHECK(dst, -1);
    dst->type = src->type;
    dst->session = src->session;
    dst->ret = src->ret;
    dst->topic = src->topic;
    /* Deliberate: a part without payload shares the source's pointer and is not cleared; the
     * request keeps its size, even a positive one, while the response's becomes 0. The owner of the
     * source must outlive whoever looks at such a pointer.
     * Test: ContextMsg.UncopiedPartsShareThePointer. */
    dst->request = src->request;
    dst->response = {0, src->response.buf};
    char *to = dst->buf;
    if (src->request.size >= 1 && src->request.buf) {
        dst->request.buf = to;
        to = msg_put(to, src->request.buf, src->request.size, request_guard);
    }
    if (src->response.size >= 1) {
        dst->response = {src->response.size, to};
        msg_put(to, src->response.buf, src->response.size, response_guard);
    }
    return 0;
}

qor_context_msg_t *qor_context_msg_clone(const qor_context_msg_t *src)
{
    QOR_CHECK(src, nullptr);
    qor_context_msg_t *dst = nullptr;
    const int64_t total = msg_total(src);
    if (total >= 0 && total <= INT32_MAX) {
        dst = msg_alloc(src);
    }
    /* Deliberate: this is how a clone that fails for want of memory is reported, as an argument
     * would be. Test: ContextMsgFaults.CloneWithoutMemoryPrintsTheTextForDst. */
    QOR_CHECK(dst, nullptr);
    qor_context_msg_copy(dst, src);
    return dst;
}

void qor_context_msg_destroy(qor_context_msg_t *msg)
{
    QOR_CHECK_VOID(msg);
    free(msg);
}
