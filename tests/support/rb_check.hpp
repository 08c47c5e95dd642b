/* SPDX-License-Identifier: Apache-2.0 */
/* Checks the rules of a red-black tree from outside, by its links alone. */
#ifndef QOR_TESTS_RB_CHECK_HPP
#define QOR_TESTS_RB_CHECK_HPP

#include <algorithm>
#include <string>

#include "rbtree.h"

inline bool rb_looks_red(const rb_node *node)
{
    return node && (node->__rb_parent_color & 1) == 0;
}

/* Returns the number of black nodes on each way down; adds what is wrong to faults. */
inline int rb_check_below(const rb_node *node, const rb_node *parent, std::string &faults)
{
    if (!node) {
        return 0;
    }
    if ((node->__rb_parent_color & ~size_t{1}) != reinterpret_cast<size_t>(parent)) {
        faults += "wrong parent word; ";
    }
    if (rb_looks_red(node) && (rb_looks_red(node->rb_left) || rb_looks_red(node->rb_right))) {
        faults += "red below red; ";
    }
    const int left = rb_check_below(node->rb_left, node, faults);
    const int right = rb_check_below(node->rb_right, node, faults);
    if (left != right) {
        faults += "uneven blacks; ";
    }
    return std::max(left, right) + (rb_looks_red(node) ? 0 : 1);
}

/* What is wrong with the tree's parent words, colours or numbers of black nodes; "" for nothing. */
inline std::string rb_faults(const rb_root &root)
{
    std::string faults;
    if (rb_looks_red(root.rb_node)) {
        faults += "red root; ";
    }
    rb_check_below(root.rb_node, nullptr, faults);
    return faults;
}

/* The number of nodes on the longest way down. */
inline int rb_height(const rb_node *node)
{
    return node ? 1 + std::max(rb_height(node->rb_left), rb_height(node->rb_right)) : 0;
}

#endif /* QOR_TESTS_RB_CHECK_HPP */
