/* SPDX-License-Identifier: Apache-2.0 */
/* The deferred requests of the process, found by their tokens. One table for all buses: a token
 * says nothing of its bus, and may be older than it. */
#ifndef DEFERRAL_TABLE_HPP
#define DEFERRAL_TABLE_HPP

#include "qor_hal.h"
#include "qor_que.h"
#include "qor_types.h"

enum deferral_state : int32_t {
    deferral_free = 0,
    deferral_open,
    deferral_ended,     /* has its result, and goes on when nobody holds it any more */
    deferral_discarded, /* is freed then */
};

struct deferral {
    deferral_state state;
    uint32_t holds; /* who keeps it here: that it is open, its handler, each copy under way */
    int32_t serial; /* from 1; tells it from earlier ones in its place; its timer's session */
    int32_t ret;
    uint32_t next; /* of the free ones; the last one's leads nowhere */
    bool timed;    /* it has a timer, which may have fallen due */
    qor_bus_t *bus;
    qor_context_t *publisher;
    qor_context_t *subscriber;
    qor_context_msg_t *msg;
    qor_que_node_t *node;      /* of the task that ends it */
    int64_t since;             /* when it began, monotonic ms */
    qor_context_topic_t topic; /* the request's, as its handler got it; the next too */
    int32_t session;
};

/* Guards the table and what is in it; the caller of each function holds it. Taken before a queue's
 * lock, and inside no other. */
extern hal_thread_mutex_t deferrals_mutex;

/* Takes a place, with a new serial and the rest as it was; NULL without memory. Other pointers into
 * the table are void. */
deferral *deferral_take_locked();

/* Gives a place back; with the last one the memory goes. */
void deferral_give_back_locked(deferral *entry);

uint64_t deferral_token_locked(const deferral *entry);

/* What has the token, whatever its state; NULL when nothing has. */
deferral *deferral_find_locked(uint64_t token);

/* The place with that number, from 0; NULL behind the last one. */
deferral *deferral_at_locked(uint32_t index);

#endif /* DEFERRAL_TABLE_HPP */
