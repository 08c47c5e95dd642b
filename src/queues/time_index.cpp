/* SPDX-License-Identifier: Apache-2.0 */
/* Two trees. One leads from a due time to the first of the nodes that are due then, behind which a
 * new one goes. The other has all nodes, by id and due time, and in the list's order where both are
 * equal. A node is forgotten by the id and due time that it was entered with, or not at all, so
 * that no slot outlives its node. */
#include "time_index.hpp"

#include "key_tree.hpp"

struct time_index {
    key_tree runs; /* id 0 */
    key_tree ids;
    const qor_time_que_node_t *found; /* whose slot the place in ids is at; NULL: not known */
    list_head ends;                   /* the links of the list's head, as last noted */
    int32_t count;                    /* as last noted; no count at all when the index is lost */
};

namespace {

constexpr int32_t lost = -1;

qor_time_que_node_t *node_at(const key_slot *slot)
{
    return static_cast<qor_time_que_node_t *>(slot->to);
}

bool node_is(const qor_time_que_node_t *node, const void *what)
{
    return node == what;
}

/* Goes to a node's slot by the id and due time that the node has now. */
bool node_seek(time_index *index, const qor_time_que_node_t *node)
{
    return time_index_find(index, node->id, node->when, node_is, node);
}

/* Goes to the nodes that are due when this one is, or to those that come next: their slot, or NULL
 * at the end. */
key_slot *run_seek(time_index *index, const qor_time_que_node_t *node)
{
    key_tree_seek(index->runs, 0, node->when);
    return key_tree_slot(index->runs);
}

/* Enters a node among those with its id, behind an equal one if one is given. */
bool node_put(time_index *index, qor_time_que_node_t *node, const qor_time_que_node_t *behind)
{
    key_tree_seek(index->ids, node->id, node->when);
    if (behind) {
        const key_slot *slot = key_tree_slot(index->ids);
        if (!slot || slot->to != behind) {
            return false;
        }
        key_tree_pass(index->ids);
    }
    return key_tree_insert(index->ids, node->id, node->when, node);
}

/* Enters a node as the first of all. */
bool index_push(time_index *index, qor_time_que_node_t *node)
{
    key_slot *run = run_seek(index, node);
    if (run && run->when == node->when) {
        run->to = node;
    } else if (!key_tree_insert(index->runs, 0, node->when, node)) {
        return false;
    }
    return node_put(index, node, nullptr);
}

/* Enters what is queued, from the end, so that of equal ones each comes to stand before the last.
 * False without memory, or if the list is out of order. */
bool index_fill(time_index *index, const qor_time_que_t *que)
{
    int64_t next = INT64_MAX;
    for (list_head *link = que->head.prev; link != &que->head; link = link->prev) {
        qor_time_que_node_t *node = time_que_node(link);
        if (node->when > next || !index_push(index, node)) {
            return false;
        }
        next = node->when;
    }
    return true;
}

} // namespace

time_index *time_index_build(const qor_time_que_t *que)
{
    time_index *index = util_zalloc<time_index>();
    if (!index) {
        return nullptr;
    }
    if (!key_tree_grow(index->runs) || !key_tree_grow(index->ids) || !index_fill(index, que)) {
        time_index_free(index);
        return nullptr;
    }
    time_index_note(index, que);
    return index;
}

void time_index_free(time_index *index)
{
    if (index) {
        key_tree_free(index->runs);
        key_tree_free(index->ids);
        free(index);
    }
}

void time_index_note(time_index *index, const qor_time_que_t *que)
{
    index->found = nullptr;
    index->ends = que->head;
    index->count = que->count;
}

bool time_index_holds(const time_index *index, const qor_time_que_t *que)
{
    return index->ends.next == que->head.next && index->ends.prev == que->head.prev &&
           index->count == que->count;
}

list_head *time_index_enter(time_index *index, qor_time_que_t *que, qor_time_que_node_t *node)
{
    const key_slot *run = run_seek(index, node);
    qor_time_que_node_t *first = run ? node_at(run) : nullptr;
    if (run && run->when == node->when) {
        const bool put = node_put(index, node, first->id == node->id ? first : nullptr);
        return put && first->when == node->when ? &first->node : nullptr;
    }
    __builtin_prefetch(first); /* comes while the trees are changed */
    if (!key_tree_insert(index->runs, 0, node->when, node) || !node_put(index, node, nullptr)) {
        return nullptr;
    }
    list_head *before = first ? first->node.prev : que->head.prev;
    return before == &que->head || time_que_node(before)->when < node->when ? before : nullptr;
}

bool time_index_forget(time_index *index, const qor_time_que_t *que, qor_time_que_node_t *node)
{
    if (index->found != node && !node_seek(index, node)) {
        return false;
    }
    __builtin_prefetch(node->node.next); /* both links are written soon, and in no cache either */
    __builtin_prefetch(node->node.prev);
    key_tree_erase(index->ids);
    key_slot *run = run_seek(index, node);
    if (!run || run->when != node->when) {
        return false;
    }
    if (run->to != node) {
        return true;
    }
    list_head *next = node->node.next;
    if (next == &que->head || time_que_node(next)->when != node->when) {
        key_tree_erase(index->runs);
        return true;
    }
    run->to = time_que_node(next);
    return node_seek(index, time_que_node(next));
}

qor_time_que_node_t *time_index_find(time_index *index, size_t id, int64_t from,
                                     time_index_test test, const void *what)
{
    index->found = nullptr;
    key_tree_seek(index->ids, id, from);
    for (;; key_tree_pass(index->ids)) {
        const key_slot *slot = key_tree_slot(index->ids);
        if (!slot || slot->id != id) {
            return nullptr;
        }
        qor_time_que_node_t *node = node_at(slot);
        if (node->id != id || node->when != slot->when) {
            index->count = lost;
            return nullptr;
        }
        if (!test || test(node, what)) {
            index->found = node;
            return node;
        }
    }
}
