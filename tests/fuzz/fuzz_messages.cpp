/* SPDX-License-Identifier: Apache-2.0 */
/* Messages: filled, measured, copied into a block with something in it already, and cloned, with
 * sizes of every kind and with memory that runs out. */
#include "qor_context_msg.h"

#include <string.h>

#include <string>

#include "world.hpp"

namespace {

constexpr char tag[] = "qor_context_msg";
constexpr int32_t payload_most = 48; /* a payload that is there */

/* A size that a caller might give: small ones mostly, negative and huge ones where nobody reads
 * that many bytes. */
int32_t any_size(Bytes &bytes)
{
    switch (bytes.below(8)) {
    case 0:
        return bytes.word();
    case 1:
        return -static_cast<int32_t>(bytes.below(64));
    case 2:
        return INT32_MAX - static_cast<int32_t>(bytes.below(160));
    default:
        return static_cast<int32_t>(bytes.below(payload_most + 1));
    }
}

/* A message on the stack with its payloads. */
struct Filled {
    char request[payload_most];
    char response[payload_most];
    qor_context_msg_t msg; /* last, for its tail */
};

/* Its request is read if it has bytes, and so is its response. */
void fill(Bytes &bytes, Filled &filled)
{
    for (char &at : filled.request) {
        at = static_cast<char>(bytes.left() ? bytes.byte() : 0x31);
    }
    memset(filled.response, 0x57, sizeof(filled.response));
    filled.response[0] = static_cast<char>(bytes.byte());
    const int32_t session = bytes.word();
    const qor_context_topic_t topic = static_cast<qor_context_topic_t>(bytes.word());
    const int32_t request_size = any_size(bytes);
    const int32_t response_size = any_size(bytes);
    void *request = request_size > payload_most || bytes.below(4) == 0 ? nullptr : filled.request;
    void *response =
        response_size > payload_most || bytes.below(4) == 0 ? nullptr : filled.response;
    memset(static_cast<void *>(&filled.msg), 0x6b, sizeof(filled.msg));
    const bool full = bytes.below(4) != 0;
    if (full) {
        EXPECT(qor_context_msg_fill_full(&filled.msg, session, topic, request, request_size,
                                         response, response_size) == 0);
    } else {
        EXPECT(qor_context_msg_fill(&filled.msg, session, topic, request, request_size) == 0);
    }
    const qor_context_msg_t &msg = filled.msg;
    EXPECT(msg.type == QOR_CONTEXT_MSG_REQUEST && msg.session == session && msg.ret == 0);
    EXPECT(msg.topic == topic && msg.request.buf == request && msg.request.size == request_size);
    EXPECT(msg.response.buf == (full ? response : nullptr));
    EXPECT(msg.response.size == (full ? response_size : 0));
    /* What the bus fills in later. */
    filled.msg.type = static_cast<int32_t>(bytes.below(6));
    filled.msg.ret = bytes.word();
}

int64_t whole(const qor_context_msg_t &msg)
{
    return static_cast<int64_t>(sizeof(msg)) + 4 + msg.request.size + msg.response.size;
}

/* What stands in the tail after a copy, where it held other bytes before. */
std::string tail_of_copy(const qor_context_msg_t &src, std::string tail, size_t *response_at)
{
    size_t at = 0;
    if (src.request.size >= 1 && src.request.buf) {
        const size_t size = static_cast<size_t>(src.request.size);
        tail.replace(0, size + 2,
                     std::string(static_cast<char *>(src.request.buf), size) + "\xAA\x55");
        at = size + 2;
    }
    *response_at = at;
    if (src.response.size >= 1) {
        const size_t size = static_cast<size_t>(src.response.size);
        if (src.response.buf) {
            tail.replace(at, size, static_cast<char *>(src.response.buf), size);
        }
        tail.replace(at + size, 2, "\x55\xAA");
    }
    return tail;
}

/* A copy is what it must be, down to the last byte of its tail, which held other bytes before. */
void expect_copy(const qor_context_msg_t &dst, const qor_context_msg_t &src,
                 const std::string &before)
{
    size_t response_at = 0;
    const std::string tail = tail_of_copy(src, before, &response_at);
    EXPECT(memcmp(dst.buf, tail.data(), tail.size()) == 0);
    EXPECT(dst.type == src.type && dst.session == src.session && dst.ret == src.ret);
    EXPECT(dst.topic == src.topic && dst.request.size == src.request.size);
    const bool copied = src.request.size >= 1 && src.request.buf;
    EXPECT(dst.request.buf == (copied ? dst.buf : src.request.buf));
    const bool answered = src.response.size >= 1;
    EXPECT(dst.response.size == (answered ? src.response.size : 0));
    EXPECT(dst.response.buf == (answered ? dst.buf + response_at : src.response.buf));
}

/* What a copy may write behind the header. */
size_t room(const qor_context_msg_t &msg)
{
    const int32_t request = msg.request.size > 0 ? msg.request.size : 0;
    const int32_t response = msg.response.size > 0 ? msg.response.size : 0;
    return static_cast<size_t>(request) + static_cast<size_t>(response) + 4;
}

void copy(World &there, Bytes &bytes, const Filled &filled)
{
    char untouched[sizeof(filled)];
    memcpy(untouched, &filled, sizeof(filled));
    const size_t size = room(filled.msg);
    if (size > 4096) {
        return; /* nobody has a block for it */
    }
    const std::string before(size, static_cast<char>(bytes.byte()));
    void *block = malloc(sizeof(qor_context_msg_t) + size); /* no byte more: its end is watched */
    qor_context_msg_t *dst = static_cast<qor_context_msg_t *>(block);
    memcpy(dst->buf, before.data(), size);

    EXPECT(qor_context_msg_copy(dst, &filled.msg) == 0);

    there.expect_printed("");
    expect_copy(*dst, filled.msg, before);
    EXPECT(memcmp(untouched, &filled, sizeof(filled)) == 0);
    free(dst);
}

/* Clones the message, and the clone as well if it can be had. */
void clone(World &there, Bytes &bytes, const qor_context_msg_t &src, int depth)
{
    there.memory_fails_in = bytes.below(8) == 0 ? 0 : -1;
    const int64_t total = whole(src);
    const bool asked = total >= 0 && total <= INT32_MAX;
    const bool had = asked && there.memory_fails_in < 0 &&
                     sizeof(qor_context_msg_t) + room(src) <= there.memory_most;
    const int before = there.allocations;

    qor_context_msg_t *made = qor_context_msg_clone(&src);

    there.memory_fails_in = -1;
    EXPECT(there.allocations == before + asked);
    EXPECT((made != nullptr) == had);
    if (!had) {
        there.expect_printed(World::err(tag, "qor_context_msg_clone", "!(dst) == true."));
        return;
    }
    there.expect_printed("");
    EXPECT(there.size_of(made) == sizeof(*made) + room(src));
    expect_copy(*made, src, std::string(room(src), '\0'));
    if (depth > 0) {
        clone(there, bytes, *made, depth - 1);
    }
    qor_context_msg_destroy(made);
    EXPECT(there.size_of(made) == SIZE_MAX);
}

void measure(World &there, const qor_context_msg_t &msg)
{
    EXPECT(qor_context_msg_whole_size(&msg) ==
           static_cast<int32_t>(static_cast<uint32_t>(whole(msg))));
    there.expect_printed("");
}

void without_a_message(World &there, Bytes &bytes, Filled &filled)
{
    switch (bytes.below(5)) {
    case 0:
        EXPECT(qor_context_msg_whole_size(nullptr) == 0);
        there.expect_printed(World::err(tag, "qor_context_msg_whole_size", "!(msg) == true."));
        break;
    case 1:
        EXPECT(qor_context_msg_copy(nullptr, nullptr) == -1);
        there.expect_printed(World::err(tag, "qor_context_msg_copy", "!(src) == true."));
        break;
    case 2:
        EXPECT(qor_context_msg_copy(nullptr, &filled.msg) == -1);
        there.expect_printed(World::err(tag, "qor_context_msg_copy", "!(dst) == true."));
        break;
    case 3:
        EXPECT(!qor_context_msg_clone(nullptr));
        there.expect_printed(World::err(tag, "qor_context_msg_clone", "!(src) == true."));
        break;
    default:
        qor_context_msg_destroy(nullptr);
        there.expect_printed(World::err(tag, "qor_context_msg_destroy", "!(msg) == true."));
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World there;
    Bytes bytes(data, size);
    while (bytes.left()) {
        const uint32_t what = bytes.below(4);
        Filled filled = {};
        fill(bytes, filled);
        switch (what) {
        case 0:
            copy(there, bytes, filled);
            break;
        case 1:
            clone(there, bytes, filled.msg, 1);
            break;
        case 2:
            measure(there, filled.msg);
            break;
        default:
            without_a_message(there, bytes, filled);
            break;
        }
        EXPECT(there.live() == 0);
    }
    return 0;
}
