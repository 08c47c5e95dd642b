/* SPDX-License-Identifier: Apache-2.0 */
/* Index of a long timed queue: finds places by due time and nodes by id without a walk.
 *
 * It stands beside the list and copies what it is sorted by, so it holds as long as only the
 * queue's functions change the queue. A function that meets a node or a list that was changed
 * otherwise, or is without memory, says so; then the index is good for time_index_free() alone, and
 * the list, which is what counts, is to be walked. All is called with the queue's lock held. */
#ifndef TIME_INDEX_HPP
#define TIME_INDEX_HPP

#include "qor_time_que.h"
#include "qor_util.hpp"

struct time_index;

/* Which node is meant; what comes from the caller. */
using time_index_test = bool (*)(const qor_time_que_node_t *node, const void *what);

/* The node around a link that is not the list's head. */
inline qor_time_que_node_t *time_que_node(list_head *link)
{
    return util_container<qor_time_que_node_t, offsetof(qor_time_que_node_t, node)>(link);
}

/* Makes an index of what is queued; NULL without memory, or if that is out of order. */
time_index *time_index_build(const qor_time_que_t *que);

/* NULL is allowed. */
void time_index_free(time_index *index);

/* Remembers the list's ends and the count, after a change that the index has followed. */
void time_index_note(time_index *index, const qor_time_que_t *que);

/* Whether they are the same still. Says no for good when the index is lost. */
bool time_index_holds(const time_index *index, const qor_time_que_t *que);

/* Enters a node and gives the link behind which the caller puts it. NULL: the index is lost. */
list_head *time_index_enter(time_index *index, qor_time_que_t *que, qor_time_que_node_t *node);

/* Forgets a node that is in the list still. False: the index is lost. */
bool time_index_forget(time_index *index, const qor_time_que_t *que, qor_time_que_node_t *node);

/* The first node with the id that is due then or later and passes the test, if one is given; NULL
 * when there is none, or the index is lost. */
qor_time_que_node_t *time_index_find(time_index *index, size_t id, int64_t from,
                                     time_index_test test, const void *what);

#endif /* TIME_INDEX_HPP */
