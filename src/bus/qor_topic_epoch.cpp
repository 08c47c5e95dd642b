/* SPDX-License-Identifier: Apache-2.0 */
/* The two epochs of a topic: dispatches count without a lock, retiring and freeing take one. */
#include "qor_topic_epoch.hpp"

#include <stdlib.h>

#include "hal_sync.hpp"

namespace {

constexpr uint32_t entries_mask = UINT32_MAX >> 1;

void retired_free(topic_retired *first)
{
    for (topic_retired *next; first; first = next) {
        next = first->next;
        free(first->block);
    }
}

/* Makes another epoch the current one: gives the entries into the former. An entry that comes
 * meanwhile may be into either, and is counted there. */
uint32_t topic_epoch_turn(qor_topic_core_private &topic, uint32_t to)
{
    uint32_t closed = 0;
    for (uint32_t &entered : topic.entered) {
        const uint32_t entries = __atomic_exchange_n(&entered, to, __ATOMIC_SEQ_CST) >> 1;
        closed += entries;
        if (&entered == &topic.entered[topic_requested]) {
            topic.requests += entries;
        }
    }
    return closed & entries_mask;
}

/* Closes the current epoch as often as the older one is empty, and frees what nobody can reach.
 *
 * Sequentially consistent throughout: a dispatch that leaves either is counted here or sees pending
 * and comes here itself. */
void topic_epoch_reclaim(qor_topic_core_private &topic)
{
    topic_retired *unreachable = nullptr;
    {
        hal_scoped_lock lock(topic.mutex);
        uint32_t older = ~__atomic_load_n(&topic.entered[topic_enters], __ATOMIC_SEQ_CST) & 1;
        while ((__atomic_load_n(&topic.left[older], __ATOMIC_SEQ_CST) & entries_mask) ==
               topic.closed) {
            while (topic_retired *retired = topic.closing) {
                topic.closing = retired->next;
                retired->next = unreachable;
                unreachable = retired;
            }
            if (!topic.waiting) {
                __atomic_store_n(&topic.pending, 0, __ATOMIC_SEQ_CST);
                break;
            }
            topic.closing = topic.waiting;
            topic.waiting = nullptr;
            __atomic_store_n(&topic.left[older], 0, __ATOMIC_SEQ_CST);
            topic.closed = topic_epoch_turn(topic, older);
            older ^= 1;
        }
    }
    retired_free(unreachable);
}

} // namespace

int32_t topic_epoch_init(qor_topic_core_private &topic)
{
    return pthread_mutex_init(&topic.mutex, nullptr) == 0 ? 0 : -1;
}

void topic_epoch_uninit(qor_topic_core_private &topic)
{
    pthread_mutex_destroy(&topic.mutex);
    retired_free(topic.waiting);
    retired_free(topic.closing);
}

uint32_t topic_epoch_enter(qor_topic_core_private &topic, topic_entry as)
{
    return __atomic_fetch_add(&topic.entered[as], 2, __ATOMIC_SEQ_CST) & 1;
}

uint32_t topic_epoch_requests(qor_topic_core_private &topic)
{
    hal_scoped_lock lock(topic.mutex);
    return (topic.requests + (hal_load(topic.entered[topic_requested]) >> 1)) & entries_mask;
}

void topic_epoch_leave(qor_topic_core_private &topic, uint32_t epoch)
{
    __atomic_fetch_add(&topic.left[epoch], 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&topic.pending, __ATOMIC_SEQ_CST)) {
        topic_epoch_reclaim(topic);
    }
}

void topic_epoch_retire(qor_topic_core_private &topic, topic_retired *retired)
{
    {
        hal_scoped_lock lock(topic.mutex);
        retired->next = topic.waiting;
        topic.waiting = retired;
        __atomic_store_n(&topic.pending, 1, __ATOMIC_SEQ_CST); /* before the epoch is closed */
    }
    topic_epoch_reclaim(topic);
}
