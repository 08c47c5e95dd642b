/* SPDX-License-Identifier: Apache-2.0 */
/* Intrusive red-black tree. The caller embeds a node in a record of its own, finds the place of a
 * new node by its own comparison and links it there; the tree keeps itself balanced. It never
 * allocates, compares or frees, takes no lock and prints nothing. */
#ifndef QOR_RBTREE_H
#define QOR_RBTREE_H

#include "qor_api.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** Colours, as bit 0 of a node's parent word. */
enum { RB_RED = 0, RB_BLACK = 1 };

/**
 * The link of a tree, embedded in the caller's record. Aligned to at least 4 bytes, because the two
 * low bits of its address carry the colour in the words of its children.
 */
typedef struct rb_node {
    size_t __rb_parent_color; /**< the parent's address (the root's is 0), the colour in bit 0 */
    struct rb_node *rb_right; /**< the later ones, or NULL */
    struct rb_node *rb_left;  /**< the earlier ones, or NULL */
} rb_node;

/** A tree. One that is all zero is empty. */
typedef struct rb_root {
    struct rb_node *rb_node; /**< the topmost node, or NULL */
} rb_root;

/**
 * Brings augmented data up to date from node upwards, ending before stop or, when that is NULL,
 * after the root. It may end early, at the first node whose data turns out to be unchanged.
 */
typedef void (*rb_augment_propagate_t)(rb_node *node, rb_node *stop);

/** Copies augmented data: new_node has taken over the place of old_node. */
typedef void (*rb_augment_copy_t)(rb_node *old_node, rb_node *new_node);

/**
 * Brings two nodes up to date after a rotation: new_node went up into the place of old_node, which
 * is its child now. The data of the subtree as a whole has not changed, so new_node can take over
 * that of old_node, whose own is to be computed from its children.
 */
typedef void (*rb_augment_rotate_t)(rb_node *old_node, rb_node *new_node);

/**
 * Hooks of a tree whose nodes carry data about their subtree, such as a size or a maximum. They are
 * called on the thread that changes the tree, in the middle of the change: they read links and
 * write their own data only.
 */
typedef struct rb_augment_callbacks {
    rb_augment_propagate_t propagate; /**< after a node has left the subtree */
    rb_augment_copy_t copy;           /**< after one node took the place of another */
    rb_augment_rotate_t rotate;       /**< after a rotation */
} rb_augment_callbacks;

/**
 * Rebalances the tree after the caller has linked a node.
 *
 * @param node  the new node, linked at an empty link: its word holds the parent's address (0 in an
 *              empty tree), both children are NULL
 * @param root  the tree
 *
 * Linking comes first, with the order that the caller wants:
 *
 *     rb_node *parent = NULL, **link = &root->rb_node;
 *     while (*link) {
 *         parent = *link;
 *         link = before(node, parent) ? &parent->rb_left : &parent->rb_right;
 *     }
 *     node->__rb_parent_color = (size_t)parent;
 *     node->rb_left = node->rb_right = NULL;
 *     *link = node;
 *     rb_insert_color(node, root);
 */
QOR_API void rb_insert_color(rb_node *node, rb_root *root);

/**
 * Rebalances as rb_insert_color() and calls augment_rotate after each of the rotations, two at the
 * most. The caller has brought the data of the node and of all above it up to date.
 */
QOR_API void __rb_insert_augmented(rb_node *node, rb_root *root,
                                   rb_augment_rotate_t augment_rotate);

/**
 * Takes a node out of the tree and rebalances. Its memory stays the caller's.
 *
 * The node's own fields keep their values, which say nothing any more: a caller that asks later
 * whether it is linked stores the node's own address in __rb_parent_color (see rb_next()). Erasing
 * a node that is not linked damages the tree.
 */
QOR_API void rb_erase(rb_node *node, rb_root *root);

/**
 * Rebalances after a black node has been taken out that left an empty link below parent: the second
 * half of rb_erase_augmented(), for callers that unlink by themselves. Calls augment_rotate after
 * each of the rotations, three at the most.
 */
QOR_API void __rb_erase_color(rb_node *parent, rb_root *root, rb_augment_rotate_t augment_rotate);

/** Returns the first node in order, or NULL when the tree is empty. */
QOR_API rb_node *rb_first(const rb_root *root);

/** Returns the last node in order, or NULL when the tree is empty. */
QOR_API rb_node *rb_last(const rb_root *root);

/**
 * Returns the next node in order, or NULL after the last.
 *
 * A node whose word is its own address counts as unlinked: it has no next one. The tree itself
 * never writes such a word.
 */
QOR_API rb_node *rb_next(const rb_node *node);

/** Returns the previous node in order, or NULL before the first; otherwise as rb_next(). */
QOR_API rb_node *rb_prev(const rb_node *node);

/**
 * Puts a node into the place of another, with its parent, colour and children, in constant time.
 *
 * @param victim    the node to be replaced; its fields keep their values
 * @param new_node  a node outside the tree that belongs at the same place in the order
 * @param root      the tree
 *
 * Augmented data is not touched: the caller copies it and brings what is above up to date.
 */
QOR_API void rb_replace_node(rb_node *victim, rb_node *new_node, rb_root *root);

/**
 * Returns the first node of a walk on which children come before their parent, or NULL when the
 * tree is empty. Each node may be freed once its successor is known, which takes a tree down
 * without rebalancing.
 */
QOR_API rb_node *rb_first_postorder(const rb_root *root);

/** Returns the next node of that walk, or NULL after the root. */
QOR_API rb_node *rb_next_postorder(const rb_node *node);

/** Returns the node above, or NULL for the root. */
static inline rb_node *rb_parent(const rb_node *node)
{
    return (rb_node *)(node->__rb_parent_color & ~(size_t)3);
}

/** Changes the parent and keeps the colour; part of rb_erase_augmented(). */
static inline void __rb_set_parent(rb_node *node, const rb_node *parent)
{
    node->__rb_parent_color = (size_t)parent | (node->__rb_parent_color & RB_BLACK);
}

/** Lets the link from above lead to new_node instead; part of rb_erase_augmented(). */
static inline void __rb_relink(const rb_node *old_node, rb_node *new_node, rb_node *parent,
                               rb_root *root)
{
    if (!parent) {
        root->rb_node = new_node;
    } else if (parent->rb_left == old_node) {
        parent->rb_left = new_node;
    } else {
        parent->rb_right = new_node;
    }
}

/**
 * Fills the empty link's place below gap: a lone child is red and becomes black in place of what
 * was above it. Returns gap if a black node is missing there now, else NULL. Part of
 * rb_erase_augmented().
 */
static inline rb_node *__rb_close_gap(rb_node *gap, rb_node *child, size_t lost)
{
    if (child) {
        child->__rb_parent_color = (size_t)gap | RB_BLACK;
        return NULL;
    }
    return lost & RB_BLACK ? gap : NULL;
}

/**
 * Moves the successor of a node with two children into its place. Returns the node below which a
 * black one is missing, or NULL. Part of rb_erase_augmented().
 */
static inline rb_node *__rb_put_successor(rb_node *node, rb_root *root,
                                          const rb_augment_callbacks *augment)
{
    rb_node *next = node->rb_right;
    while (next->rb_left) {
        next = next->rb_left;
    }
    rb_node *gap = next;
    rb_node *child = next->rb_right;
    const size_t lost = next->__rb_parent_color;
    if (next != node->rb_right) {
        gap = rb_parent(next);
        gap->rb_left = child;
        next->rb_right = node->rb_right;
        __rb_set_parent(node->rb_right, next);
    }
    next->rb_left = node->rb_left;
    __rb_set_parent(node->rb_left, next);
    next->__rb_parent_color = node->__rb_parent_color;
    __rb_relink(node, next, rb_parent(node), root);
    rb_node *deficient = __rb_close_gap(gap, child, lost);

    augment->copy(node, next);
    if (gap != next) {
        augment->propagate(gap, next);
    }
    augment->propagate(next, NULL);
    return deficient;
}

/**
 * Takes a node out of an augmented tree and rebalances; otherwise as rb_erase().
 *
 * @param augment  the tree's hooks. When the node had two children: copy(node, successor), then
 *                 propagate() from where the successor came from up to it, unless it was the node's
 *                 own child, then propagate(successor, NULL). Otherwise propagate(parent, NULL) if
 *                 there is a parent. Then rotate() for each rotation.
 *
 * Inline, so that the hooks can be inlined too.
 */
static inline void rb_erase_augmented(rb_node *node, rb_root *root,
                                      const rb_augment_callbacks *augment)
{
    rb_node *deficient;
    if (node->rb_left && node->rb_right) {
        deficient = __rb_put_successor(node, root, augment);
    } else {
        rb_node *parent = rb_parent(node);
        rb_node *child = node->rb_left ? node->rb_left : node->rb_right;
        __rb_relink(node, child, parent, root);
        deficient = __rb_close_gap(parent, child, node->__rb_parent_color);
        if (parent) {
            augment->propagate(parent, NULL);
        }
    }
    if (deficient) {
        __rb_erase_color(deficient, root, augment->rotate);
    }
}

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_RBTREE_H */
