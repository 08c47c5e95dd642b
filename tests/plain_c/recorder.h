/* SPDX-License-Identifier: Apache-2.0 */
/* A context whose way to the bus notes what was called and with what. */
#ifndef QOR_TESTS_RECORDER_H
#define QOR_TESTS_RECORDER_H

#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"

/* What the slots return, so that a result shows where it came from. */
enum { DRAWN_SESSION = 7, HANDED_OVER = 0, HANDLED = 55 };

/* What is looked at of a message. */
struct sent {
    int32_t type;
    int32_t session;
    qor_context_topic_t topic;
    int32_t request_size;
    int32_t response_size;
};

struct recorder {
    qor_context_t context;     /* first: a context is its recorder */
    const char *slot;          /* the one called last */
    struct sent sent;          /* the last message */
    qor_context_task_t task;   /* the last task */
    qor_context_topic_t topic; /* of the last registration */
    int32_t session;           /* of the last cancel */
};

/** Fills a recorder: a context with a handler table, but without class and module. */
void recorder_init(struct recorder *recorder);

#endif /* QOR_TESTS_RECORDER_H */
