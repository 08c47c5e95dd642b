/* SPDX-License-Identifier: Apache-2.0 */
/* Red-black tree: a red node has no red child, and every way down from a node to an empty link
 * passes the same number of black nodes. Empty links count as black. */
#include "rbtree.h"

namespace {

static_assert(alignof(rb_node) >= 4, "two address bits must be free");

/* Which child. Left and right mirror each other, so each case is written once, for near and far. */
using side = rb_node *rb_node::*;
constexpr side left = &rb_node::rb_left;
constexpr side right = &rb_node::rb_right;

void dummy_propagate(rb_node *, rb_node *) {}
void dummy_copy(rb_node *, rb_node *) {}
void dummy_rotate(rb_node *, rb_node *) {}

constexpr rb_augment_callbacks dummy_callbacks = {dummy_propagate, dummy_copy, dummy_rotate};

bool rb_is_red(const rb_node *node)
{
    return node && !(node->__rb_parent_color & RB_BLACK);
}

void rb_set(rb_node *node, const rb_node *parent, size_t color)
{
    node->__rb_parent_color = reinterpret_cast<size_t>(parent) | color;
}

void rb_blacken(rb_node *node)
{
    node->__rb_parent_color |= RB_BLACK;
}

void rb_redden(rb_node *node)
{
    node->__rb_parent_color &= ~size_t{RB_BLACK};
}

/* Lifts the far child of a node into the node's place, with the node's colour. The node becomes its
 * near child, with the colour given, and takes over the subtree between the two. */
template <side near, side far, typename Rotate>
void rb_rotate(rb_node *down, rb_root *root, size_t color, Rotate augment_rotate)
{
    rb_node *up = down->*far;
    rb_node *between = up->*near;
    __rb_relink(down, up, rb_parent(down), root);
    up->__rb_parent_color = down->__rb_parent_color;
    up->*near = down;
    rb_set(down, up, color);
    down->*far = between;
    if (between) {
        __rb_set_parent(between, down);
    }
    augment_rotate(down, up);
}

/* Repairs "red below red" when the parent is the near child of the grandparent. Returns the node
 * above which to go on, or NULL when the tree is in order. */
template <side near, side far, typename Rotate>
rb_node *rb_insert_step(rb_node *node, rb_node *parent, rb_node *grand, rb_root *root,
                        Rotate augment_rotate)
{
    rb_node *uncle = grand->*far;
    if (rb_is_red(uncle)) {
        rb_blacken(parent);
        rb_blacken(uncle);
        rb_redden(grand);
        return grand;
    }
    if (parent->*far == node) { /* on the inner side: turned outwards first */
        rb_rotate<near, far>(parent, root, RB_RED, augment_rotate);
    }
    rb_rotate<far, near>(grand, root, RB_RED, augment_rotate);
    return nullptr;
}

template <typename Rotate>
inline void rb_insert_rebalance(rb_node *node, rb_root *root, Rotate augment_rotate)
{
    while (node) {
        rb_node *parent = rb_parent(node);
        if (!parent) {
            rb_blacken(node);
            return;
        }
        if (!rb_is_red(parent)) {
            return;
        }
        rb_node *grand = rb_parent(parent); /* there is one: the root is black */
        node = grand->rb_left == parent
                   ? rb_insert_step<left, right>(node, parent, grand, root, augment_rotate)
                   : rb_insert_step<right, left>(node, parent, grand, root, augment_rotate);
    }
}

/* Repairs "one black too few" in the near subtree of a node. Returns true when the tree is in
 * order, false when now the node's whole subtree has one too few. */
template <side near, side far, typename Rotate>
bool rb_erase_step(rb_node *parent, rb_root *root, Rotate augment_rotate)
{
    if (rb_is_red(parent->*far)) { /* makes the sibling a black one */
        rb_rotate<near, far>(parent, root, RB_RED, augment_rotate);
    }
    rb_node *sibling = parent->*far; /* there is one: its side has at least one black */
    if (!rb_is_red(sibling->*far)) { /* NOLINT(clang-analyzer-core.NullDereference) */
        if (!rb_is_red(sibling->*near)) {
            const bool done = rb_is_red(parent);
            rb_redden(sibling);
            rb_blacken(parent);
            return done;
        }
        rb_rotate<far, near>(sibling, root, RB_RED, augment_rotate); /* now the far one is red */
        sibling = parent->*far;
    }
    rb_rotate<near, far>(parent, root, RB_BLACK, augment_rotate);
    rb_blacken(sibling->*far);
    return true;
}

template <typename Rotate>
inline void rb_erase_rebalance(rb_node *parent, rb_root *root, Rotate augment_rotate)
{
    rb_node *node = nullptr; /* the root of the subtree with one black too few: an empty link */
    while (parent) {
        const bool done = parent->rb_left == node
                              ? rb_erase_step<left, right>(parent, root, augment_rotate)
                              : rb_erase_step<right, left>(parent, root, augment_rotate);
        if (done) {
            return;
        }
        node = parent;
        parent = rb_parent(node);
    }
}

rb_node *rb_outermost(rb_node *node, side direction)
{
    while (node && node->*direction) {
        node = node->*direction;
    }
    return node;
}

template <side near, side far> rb_node *rb_neighbour(const rb_node *node)
{
    /* Deliberate: a node whose word is its own address is unlinked by the caller's convention and
     * has no neighbours. Test: RbTree.ANodeThatPointsAtItselfHasNoNeighbours. */
    if (!node || node->__rb_parent_color == reinterpret_cast<size_t>(node)) {
        return nullptr;
    }
    if (node->*far) {
        return rb_outermost(node->*far, near);
    }
    const rb_node *below = node;
    rb_node *parent = rb_parent(node);
    while (parent && parent->*far == below) {
        below = parent;
        parent = rb_parent(parent);
    }
    return parent;
}

rb_node *rb_deepest(rb_node *node)
{
    while (node->rb_left || node->rb_right) {
        node = node->rb_left ? node->rb_left : node->rb_right;
    }
    return node;
}

} // namespace

void rb_insert_color(rb_node *node, rb_root *root)
{
    rb_insert_rebalance(node, root, dummy_callbacks.rotate);
}

void __rb_insert_augmented(rb_node *node, rb_root *root, rb_augment_rotate_t augment_rotate)
{
    rb_insert_rebalance(node, root, augment_rotate);
}

void rb_erase(rb_node *node, rb_root *root)
{
    /* Deliberate: the node's own fields stay as they were; clearing them would be lost work for
     * those who free it. Test: RbTree.EraseLeavesTheNodesOwnFields. */
    rb_erase_augmented(node, root, &dummy_callbacks);
}

void __rb_erase_color(rb_node *parent, rb_root *root, rb_augment_rotate_t augment_rotate)
{
    rb_erase_rebalance(parent, root, augment_rotate);
}

rb_node *rb_first(const rb_root *root)
{
    return root ? rb_outermost(root->rb_node, left) : nullptr;
}

rb_node *rb_last(const rb_root *root)
{
    return root ? rb_outermost(root->rb_node, right) : nullptr;
}

rb_node *rb_next(const rb_node *node)
{
    return rb_neighbour<left, right>(node);
}

rb_node *rb_prev(const rb_node *node)
{
    return rb_neighbour<right, left>(node);
}

void rb_replace_node(rb_node *victim, rb_node *new_node, rb_root *root)
{
    *new_node = *victim;
    __rb_relink(victim, new_node, rb_parent(victim), root);
    if (victim->rb_left) {
        __rb_set_parent(victim->rb_left, new_node);
    }
    if (victim->rb_right) {
        __rb_set_parent(victim->rb_right, new_node);
    }
}

rb_node *rb_first_postorder(const rb_root *root)
{
    return root && root->rb_node ? rb_deepest(root->rb_node) : nullptr;
}

rb_node *rb_next_postorder(const rb_node *node)
{
    rb_node *parent = node ? rb_parent(node) : nullptr;
    if (parent && parent->rb_left == node && parent->rb_right) {
        return rb_deepest(parent->rb_right);
    }
    return parent;
}

QOR_COMMON_NAME(rb_insert_color);
QOR_ALIAS(__rb_insert_augmented, "__rb_insert_augmented", "qor_rb_insert_augmented");
QOR_COMMON_NAME(rb_erase);
QOR_ALIAS(__rb_erase_color, "__rb_erase_color", "qor_rb_erase_color");
QOR_COMMON_NAME(rb_first);
QOR_COMMON_NAME(rb_last);
QOR_COMMON_NAME(rb_next);
QOR_COMMON_NAME(rb_prev);
QOR_COMMON_NAME(rb_replace_node);
QOR_COMMON_NAME(rb_first_postorder);
QOR_COMMON_NAME(rb_next_postorder);
