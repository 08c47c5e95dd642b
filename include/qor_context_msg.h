/* SPDX-License-Identifier: Apache-2.0 */
/* The message: a request, its response, and what listeners and filters are shown of both. */
#ifndef QOR_CONTEXT_MSG_H
#define QOR_CONTEXT_MSG_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** What a message is; its type field. */
enum {
    QOR_CONTEXT_MSG_REQUEST = 0,       /**< goes to the subscriber of its topic */
    QOR_CONTEXT_MSG_RESPONSE = 1,      /**< sent to the publisher of the request */
    QOR_CONTEXT_MSG_LISTEN_BEFORE = 2, /**< shown to listeners before the request is handled */
    QOR_CONTEXT_MSG_LISTEN_AFTER = 3,  /**< shown to listeners after it was handled */
    QOR_CONTEXT_MSG_FILTER_BEFORE = 4, /**< shown to filters before the request is handled */
    QOR_CONTEXT_MSG_FILTER_AFTER = 5   /**< shown to filters after it was handled */
};

/** Results of a request that its handler has not ended, found in the response's ret. They are never
 * a handler's: one that returns them in a module with a contract gets -1 there and a line. */
enum {
    QOR_RET_DROPPED = INT32_MIN,     /**< its place in a full queue went to another */
    QOR_RET_EXPIRED = INT32_MIN + 1, /**< it was deferred and not completed in time */
    QOR_RET_GONE = INT32_MIN + 2     /**< kept for later versions */
};

/** The request half of a message. */
typedef struct qor_context_request {
    int32_t size; /**< bytes at buf; 0 or more */
    void *buf;    /**< the payload, or NULL */
} qor_context_request_t;

/** The response half of a message. */
typedef struct qor_context_response {
    int32_t size; /**< bytes at buf; 0 or more */
    void *buf;    /**< room for the payload, or NULL */
} qor_context_response_t;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* the tail array, in C++ */
/**
 * A message.
 *
 * A message that was filled owns nothing: both buf pointers are the caller's. A clone is one heap
 * block that carries copies of both payloads in its tail; it is never copied with a plain memory
 * copy, whose pointers would still lead into the first block.
 *
 * Payloads in a clone follow each other without padding: read and write them with memcpy only,
 * never through a cast pointer, which may be misaligned.
 *
 * A message has no lock: one thread at a time uses it.
 */
struct qor_context_msg {
    int32_t type;                    /**< QOR_CONTEXT_MSG_... */
    int32_t session;                 /**< session number; a response carries its request's */
    int32_t ret;                     /**< result code of the handler of the request */
    qor_context_topic_t topic;       /**< topic number */
    qor_context_request_t request;   /**< what is asked */
    qor_context_response_t response; /**< room for the answer */
    char buf[]; /**< a clone's payloads: request, 0xAA 0x55, response, 0x55 0xAA */
};
#pragma GCC diagnostic pop

/**
 * Fills a request that expects no response payload. Every field is set.
 *
 * @param msg       the message, usually on the caller's stack
 * @param ss        session number
 * @param topic     topic number
 * @param req_buf   request payload; stays the caller's, and must live as long as msg is used
 * @param req_size  its bytes, 0 or more
 * @return          0
 *
 * No argument is checked.
 */
QOR_API int32_t qor_context_msg_fill(qor_context_msg_t *msg, int32_t ss, qor_context_topic_t topic,
                                     void *req_buf, int32_t req_size);

/**
 * Fills a request with room for a response payload; otherwise as qor_context_msg_fill().
 *
 * @param res_buf   where the response is to be written; stays the caller's
 * @param res_size  its bytes, 0 or more
 * @return          0
 */
QOR_API int32_t qor_context_msg_fill_full(qor_context_msg_t *msg, int32_t ss,
                                          qor_context_topic_t topic, void *req_buf,
                                          int32_t req_size, void *res_buf, int32_t res_size);

/**
 * Measures the block that a clone needs: the header, both sizes and four guard bytes.
 *
 * @return  bytes, or 0 for a NULL message
 *
 * Prints "!(msg) == true." for a NULL message. Negative sizes are not rejected but counted as they
 * are, and a sum beyond int32_t wraps; qor_context_msg_clone() refuses both kinds of total.
 */
QOR_API int32_t qor_context_msg_whole_size(const qor_context_msg_t *msg);

/**
 * Copies a message and its payloads into one block.
 *
 * @param dst  a block of at least qor_context_msg_whole_size(src) bytes, for sizes of 0 or more
 * @param src  the message; it and its payloads stay unchanged
 * @return     0, or -1 for a NULL argument
 *
 * Checks src before dst and prints "!(src) == true." or "!(dst) == true.".
 *
 * A request without payload (size below 1 or no buffer) is not copied: dst shares the pointer and
 * keeps the size, even a positive one. A response of size below 1 shares the pointer too, but its
 * size becomes 0. A response with a size and no buffer gets that many bytes of dst's tail, which
 * keep what they held: zero in a clone. The guard bytes after each copied payload stand in opposite
 * orders; the library never reads them.
 */
QOR_API int32_t qor_context_msg_copy(qor_context_msg_t *dst, const qor_context_msg_t *src);

/**
 * Makes a copy in one heap block; see qor_context_msg_copy() for what is copied and what is shared.
 *
 * @return  the clone, released by the caller with qor_context_msg_destroy(), or NULL
 *
 * Prints "!(src) == true." for a NULL message and "!(dst) == true." when there is no memory or when
 * the whole size is negative or beyond int32_t.
 */
QOR_API qor_context_msg_t *qor_context_msg_clone(const qor_context_msg_t *src);

/**
 * Frees a clone with its payloads. Prints "!(msg) == true." for NULL.
 *
 * Tasks that carry a clone name this function as their recycle.
 */
QOR_API void qor_context_msg_destroy(qor_context_msg_t *msg);

QOR_END_DECLS

#endif /* QOR_CONTEXT_MSG_H */
