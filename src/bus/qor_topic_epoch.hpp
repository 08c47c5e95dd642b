/* SPDX-License-Identifier: Apache-2.0 */
/* When the memory of a removed registration may be freed: the two epochs of a topic. */
#ifndef QOR_TOPIC_EPOCH_HPP
#define QOR_TOPIC_EPOCH_HPP

#include "qor_hal.h"

/* A block that waits to be freed; lies inside it. */
struct topic_retired {
    topic_retired *next;
    void *block;
};

/* What enters a topic, counted apart: so the requests of a topic are counted by what they do
 * anyway. */
enum topic_entry : uint32_t {
    topic_enters = 0, /* filters, listeners, a request on its further way, a registration */
    topic_requested,  /* the publication of a request */
    topic_entries,
};

/* One per topic. Dispatches count themselves into one of two epochs. Blocks that are retired in the
 * current epoch wait until it can be closed, which needs the older one to be empty; they are freed
 * when the last dispatch of the closed epoch has left. So a topic that is never quiet still gives
 * memory back. */
struct qor_topic_core_private {
    hal_thread_mutex_t mutex;        /* guards what follows, but for entered and left; a leaf */
    uint32_t entered[topic_entries]; /* bit 0: the current epoch, in each the same while mutex is
                                        free; above: entries into it, modulo 2^31 */
    uint32_t left[2];                /* exits from either epoch, modulo 2^32 */
    uint32_t closed;   /* entries into the older epoch when it was closed, modulo 2^31 */
    int32_t pending;   /* blocks wait to be freed; read without the mutex at each exit */
    uint32_t changes;  /* registrations made and removed, modulo 2^32; read without any mutex */
    uint32_t requests; /* publications before the current epoch, modulo 2^31 */
    uint32_t unserved; /* requests that found nobody, modulo 2^32; changed atomically */
    topic_retired *waiting; /* retired in the current epoch */
    topic_retired *closing; /* retired before: the older epoch's dispatches may stand on them */
};

/* 0, or -1 when its mutex cannot be had. The rest of the record is zero. */
int32_t topic_epoch_init(qor_topic_core_private &topic);

/* Frees what still waits; nobody dispatches any more. */
void topic_epoch_uninit(qor_topic_core_private &topic);

/* Counts a dispatch in; the result goes to topic_epoch_leave(). One atomic operation. */
uint32_t topic_epoch_enter(qor_topic_core_private &topic, topic_entry as);

/* How many requests have been published so far, modulo 2^31. */
uint32_t topic_epoch_requests(qor_topic_core_private &topic);

/* Counts a dispatch out and frees what only it could still reach. One atomic operation when nothing
 * waits. */
void topic_epoch_leave(qor_topic_core_private &topic, uint32_t epoch);

/* Frees a block once every dispatch that has been counted in before has been counted out. New ones
 * cannot reach it any more. */
void topic_epoch_retire(qor_topic_core_private &topic, topic_retired *retired);

#endif /* QOR_TOPIC_EPOCH_HPP */
