/* SPDX-License-Identifier: Apache-2.0 */
/* What stands in front of each queue node, in the same block: what only the library knows of it. */
#ifndef QUE_FRONT_HPP
#define QUE_FRONT_HPP

#include <string.h>

#include "qor_que.h"
#include "qor_util.hpp"

enum que_flags : uint32_t {
    que_own = 1,        /* the library made it for itself: cancel passes over it */
    que_quiet = 2,      /* it names its thread itself, its worker need not */
    que_again = 4,      /* it is queued again when one of its tasks has ended its thread */
    que_message = 8,    /* it carries a request or a response, see message_node.hpp */
    que_counted = 16,   /* its module's ledger counts it */
    que_placed = 32,    /* it has one of the places that its module's contract bounds */
    que_reply = 64,     /* it carries a response to a module with a contract */
    que_periodic = 128, /* it is a periodic timer's in the timer queue, see bus_periodic.hpp */
};

struct alignas(8) que_front {
    qor_que_node_recycle_t discard; /* for a node that is discarded unrun, in place of the recycle
                                       that the discarding call brings; NULL: that one */
    const void *owner;              /* the user context, or the periodic timer, that it is a run
                                       of; NULL: of none */
    qor_que_node_t *spare;          /* memory for the hand-over after this one, freed with it */
    uint32_t number;                /* tells it among the nodes of one owner; 0: has none */
    uint32_t flags; /* below bit 8; above: since when it has been in the task queue, or 0 */
};

constexpr uint32_t que_since_bit = 8;

/* Notes when a node comes into the task queue, in ms and never 0. Four hours and a half fit. */
template <typename N> inline void que_since_set(N *node, uint32_t now)
{
    uint32_t &flags = reinterpret_cast<que_front *>(node)[-1].flags;
    flags = (flags & ((1u << que_since_bit) - 1)) | now << que_since_bit;
}

/* A zeroed node with so many bytes of body, or NULL without memory. */
template <typename N> inline N *que_node_alloc(size_t size)
{
    que_front *front = util_zalloc<que_front>(sizeof(N) + size);
    return front ? reinterpret_cast<N *>(front + 1) : nullptr;
}

/* The same without zeroing the body, which the caller is about to fill. */
template <typename N> inline N *que_node_alloc_unfilled(size_t size)
{
    que_front *front =
        static_cast<que_front *>(util_memory(malloc(sizeof(que_front) + sizeof(N) + size)));
    if (!front) {
        return nullptr;
    }
    memset(static_cast<void *>(front), 0, sizeof(que_front) + sizeof(N));
    return reinterpret_cast<N *>(front + 1);
}

template <typename N> inline que_front *que_front_of(N *node)
{
    return reinterpret_cast<que_front *>(node) - 1;
}

template <typename N> inline const que_front *que_front_of(const N *node)
{
    return reinterpret_cast<const que_front *>(node) - 1;
}

/* Takes the spare from a node; NULL when it has none. */
template <typename N> inline qor_que_node_t *que_spare_take(N *node)
{
    qor_que_node_t *spare = que_front_of(node)->spare;
    que_front_of(node)->spare = nullptr;
    return spare;
}

/* Frees a node and its spare; the body is released already. */
template <typename N> inline void que_node_free(N *node)
{
    que_front *front = que_front_of(node);
    if (front->spare) {
        free(que_front_of(front->spare));
    }
    free(front);
}

/* What releases a node's body when it is discarded: its own way, else the one given. */
template <typename N>
inline qor_que_node_recycle_t que_discard_of(N *node, qor_que_node_recycle_t recycle)
{
    return que_front_of(node)->discard ? que_front_of(node)->discard : recycle;
}

#endif /* QUE_FRONT_HPP */
