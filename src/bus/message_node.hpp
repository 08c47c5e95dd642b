/* SPDX-License-Identifier: Apache-2.0 */
/* The queue node that a request travels with, to its subscriber and, as the response, back. It is
 * had when the request is queued, so a response cannot be lost for want of memory. */
#ifndef MESSAGE_NODE_HPP
#define MESSAGE_NODE_HPP

#include "qor_context_task.h"
#include "qor_que.h"
#include "qor_time_que.h"
#include "thread_record.hpp"

/* The body of such a node when it goes past a full private queue: the task of the run that handles
 * it, and what makes up its own task again. */
struct message_run {
    qor_context_task_t task;
    qor_context_t *publisher;
    void *msg;
    qor_context_recycle_t recycle;
};

/* Make a node with a body still to be filled, or NULL without memory and a line. Its block has room
 * for a node of either kind, and is freed as either. */
qor_time_que_node_t *message_node_create();
qor_que_node_t *message_node_create_for_bus();

/* A node's block as a node of the task queue, with a body still to be filled. */
qor_que_node_t *message_node_for_bus(qor_time_que_node_t *node);

/* The node for a response: that of the request which the thread handles, else a new one. NULL
 * without memory for a new one. */
qor_time_que_node_t *message_node_for_response();

/* Frees the node of the request which the thread handles: its response will not be made here. */
void message_node_release();

/* While it lives, the response to the request in a node may take the node along; with NULL, no
 * response may take that of a request further down the stack. On a thread that is not the library's
 * it does nothing. */
class message_offer {
public:
    explicit message_offer(void *node, thread_record *record = thread_record_get());
    ~message_offer();
    message_offer(const message_offer &) = delete;
    message_offer &operator=(const message_offer &) = delete;

    /* Whether it has; the node may be gone by then. */
    bool taken() const;

private:
    thread_record *record_; /* NULL: not a thread of the library's */
    void *node_;
    void *before_; /* offered by whoever runs this thread's earlier request */
};

#endif /* MESSAGE_NODE_HPP */
