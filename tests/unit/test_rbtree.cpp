/* SPDX-License-Identifier: Apache-2.0 */
#include "rbtree.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rb_check.hpp"

namespace {

struct Item {
    rb_node node;
    int key;
};

Item *item_of(rb_node *node)
{
    return reinterpret_cast<Item *>(node); /* node is the first field */
}

/* Links a node as a caller does; returns its parent. */
rb_node *link_node(rb_node *node, rb_root &root, const std::function<bool(rb_node *)> &before)
{
    rb_node *parent = nullptr, **link = &root.rb_node;
    while (*link) {
        parent = *link;
        link = before(parent) ? &parent->rb_left : &parent->rb_right;
    }
    node->__rb_parent_color = reinterpret_cast<size_t>(parent);
    node->rb_left = node->rb_right = nullptr;
    *link = node;
    return parent;
}

/* A tree of integers. */
class Tree {
public:
    ~Tree()
    {
        for (rb_node *node = rb_first_postorder(&root); node;) {
            Item *item = item_of(node);
            node = rb_next_postorder(node);
            delete item;
        }
    }

    Item *insert(int key)
    {
        Item *item = new Item{{}, key};
        link_node(&item->node, root, [key](rb_node *parent) { return key < item_of(parent)->key; });
        rb_insert_color(&item->node, &root);
        return item;
    }

    void erase(Item *item)
    {
        rb_erase(&item->node, &root);
        delete item;
    }

    /* All keys by rb_next() and, backwards, by rb_prev(). */
    std::vector<int> keys() const
    {
        std::vector<int> found;
        for (rb_node *node = rb_first(&root); node; node = rb_next(node)) {
            found.push_back(item_of(node)->key);
        }
        return found;
    }
    std::vector<int> keys_backwards() const
    {
        std::vector<int> found;
        for (rb_node *node = rb_last(&root); node; node = rb_prev(node)) {
            found.push_back(item_of(node)->key);
        }
        return found;
    }

    rb_root root = {nullptr};
};

std::vector<int> numbers(int count)
{
    std::vector<int> all(static_cast<size_t>(count));
    std::iota(all.begin(), all.end(), 1);
    return all;
}

/* "4(2(1,3),6)" with red nodes marked by an asterisk, to state a whole tree in one line. */
std::string drawn(rb_node *node)
{
    if (!node) {
        return "";
    }
    std::string text = std::to_string(item_of(node)->key);
    text += node->__rb_parent_color & 1 ? "" : "*";
    if (node->rb_left || node->rb_right) {
        text += "(" + drawn(node->rb_left) + "," + drawn(node->rb_right) + ")";
    }
    return text;
}

} // namespace

TEST(RbTree, AnEmptyTreeHasNoNodes)
{
    rb_root root = {nullptr};

    EXPECT_EQ(rb_first(&root), nullptr);
    EXPECT_EQ(rb_last(&root), nullptr);
    EXPECT_EQ(rb_first_postorder(&root), nullptr);
}

TEST(RbTree, LookingAtNothingFindsNothing)
{
    EXPECT_EQ(rb_first(nullptr), nullptr);
    EXPECT_EQ(rb_last(nullptr), nullptr);
    EXPECT_EQ(rb_next(nullptr), nullptr);
    EXPECT_EQ(rb_prev(nullptr), nullptr);
    EXPECT_EQ(rb_first_postorder(nullptr), nullptr);
    EXPECT_EQ(rb_next_postorder(nullptr), nullptr);
}

TEST(RbTree, ASingleNodeBecomesABlackRoot)
{
    Tree tree;

    Item *item = tree.insert(7);

    EXPECT_EQ(tree.root.rb_node, &item->node);
    EXPECT_EQ(item->node.__rb_parent_color, size_t{RB_BLACK});
    EXPECT_EQ(rb_first(&tree.root), &item->node);
    EXPECT_EQ(rb_last(&tree.root), &item->node);
    EXPECT_EQ(rb_next(&item->node), nullptr);
    EXPECT_EQ(rb_prev(&item->node), nullptr);
}

TEST(RbTree, FieldsStandInTheStatedOrder)
{
    EXPECT_EQ(offsetof(struct rb_node, __rb_parent_color), 0u);
    EXPECT_EQ(offsetof(rb_node, rb_right), sizeof(void *));
    EXPECT_EQ(offsetof(rb_node, rb_left), 2 * sizeof(void *));
    EXPECT_EQ(sizeof(rb_node), 3 * sizeof(void *));
    EXPECT_EQ(sizeof(struct rb_root), sizeof(void *));
    EXPECT_EQ(offsetof(struct rb_augment_callbacks, propagate), 0u);
    EXPECT_EQ(offsetof(rb_augment_callbacks, copy), sizeof(void *));
    EXPECT_EQ(offsetof(rb_augment_callbacks, rotate), 2 * sizeof(void *));
}

TEST(RbTree, ParentWordIsTheAddressWithTheColourInBitZero)
{
    Tree tree;
    Item *two = tree.insert(2);
    Item *one = tree.insert(1);

    EXPECT_EQ(one->node.__rb_parent_color, reinterpret_cast<size_t>(&two->node)); /* red */
    EXPECT_EQ(rb_parent(&one->node), &two->node);

    tree.insert(3);
    tree.insert(4); /* recolours one and three */

    EXPECT_EQ(one->node.__rb_parent_color, reinterpret_cast<size_t>(&two->node) | 1);
    EXPECT_EQ(rb_parent(&one->node), &two->node);
}

TEST(RbTree, EraseLeavesTheNodesOwnFields)
{
    Tree tree;
    std::map<int, Item *> items;
    for (int key : numbers(32)) {
        items[key] = tree.insert(key);
    }
    std::mt19937 random(1);
    while (!items.empty()) {
        auto victim = items.begin();
        std::advance(victim, random() % items.size());
        Item *item = victim->second;
        const rb_node was = item->node;

        rb_erase(&item->node, &tree.root);

        EXPECT_EQ(item->node.__rb_parent_color, was.__rb_parent_color);
        EXPECT_EQ(item->node.rb_left, was.rb_left);
        EXPECT_EQ(item->node.rb_right, was.rb_right);
        delete item;
        items.erase(victim);
    }
    EXPECT_EQ(tree.root.rb_node, nullptr);
}

TEST(RbTree, ANodeThatPointsAtItselfHasNoNeighbours)
{
    rb_node other = {};
    rb_node node = {reinterpret_cast<size_t>(&node), &other, &other};

    EXPECT_EQ(rb_next(&node), nullptr);
    EXPECT_EQ(rb_prev(&node), nullptr);
}

TEST(RbTree, ReplacingPutsTheNewNodeIntoTheSamePlace)
{
    for (int key : numbers(9)) {
        Tree tree;
        std::map<int, Item *> items;
        for (int each : numbers(9)) {
            items[each] = tree.insert(each);
        }
        const std::string before = drawn(tree.root.rb_node);
        Item *fresh = new Item{{}, key};

        rb_replace_node(&items[key]->node, &fresh->node, &tree.root);
        delete items[key];

        rb_node *left_of = rb_prev(&fresh->node);
        EXPECT_EQ(left_of ? rb_next(left_of) : rb_first(&tree.root), &fresh->node);
        EXPECT_EQ(drawn(tree.root.rb_node), before);
        EXPECT_EQ(rb_faults(tree.root), "");
    }
}

/* Known trees, worked out by hand. */
struct KnownTree {
    const char *name;
    std::vector<int> inserted, erased;
    const char *drawing;
};

class KnownTrees : public testing::TestWithParam<KnownTree> {};

TEST_P(KnownTrees, HaveTheShapeOfTheAlgorithm)
{
    Tree tree;
    std::map<int, Item *> items;
    for (int key : GetParam().inserted) {
        items[key] = tree.insert(key);
    }
    for (int key : GetParam().erased) {
        tree.erase(items[key]);
    }

    EXPECT_EQ(drawn(tree.root.rb_node), GetParam().drawing);
}

INSTANTIATE_TEST_SUITE_P(
    RbTree, KnownTrees,
    testing::Values(
        KnownTree{"BlackParent", {2, 1, 3}, {}, "2(1*,3*)"},
        KnownTree{"RedUncle", {2, 1, 3, 4}, {}, "2(1,3(,4*))"},
        KnownTree{"OuterSide", {1, 2, 3}, {}, "2(1*,3*)"},
        KnownTree{"OuterSideMirrored", {3, 2, 1}, {}, "2(1*,3*)"},
        KnownTree{"InnerSide", {1, 3, 2}, {}, "2(1*,3*)"},
        KnownTree{"InnerSideMirrored", {3, 1, 2}, {}, "2(1*,3*)"},
        KnownTree{"RedUncleHigherUp", {1, 2, 3, 4, 5, 6, 7, 8}, {}, "4(2*(1,3),6*(5,7(,8*)))"},
        KnownTree{"EraseRedLeaf", {2, 1, 3}, {1}, "2(,3*)"},
        KnownTree{"EraseLoneChildOfRoot", {2, 1, 3}, {1, 2}, "3"},
        KnownTree{"EraseWithChildSuccessor", {2, 1, 3}, {2}, "3(1*,)"},
        KnownTree{"EraseWithDeepSuccessor", {2, 1, 4, 3}, {2}, "3(1,4)"},
        KnownTree{"EraseFarNephewRed", {2, 1, 3, 4}, {1}, "3(2,4)"},
        KnownTree{"EraseNearNephewRed", {2, 1, 4, 3}, {1}, "3(2,4)"},
        KnownTree{"EraseFarNephewRedMirrored", {3, 2, 4, 1}, {4}, "2(1,3)"},
        KnownTree{"EraseNearNephewRedMirrored", {3, 1, 4, 2}, {4}, "2(1,3)"},
        KnownTree{"EraseNoRedNephew", {2, 1, 3, 4}, {4, 1}, "2(,3*)"},
        KnownTree{"EraseRedSibling", {1, 2, 3, 4, 5, 6}, {1}, "4(2(,3*),5(,6*))"},
        KnownTree{"EraseUpToARedParent", {1, 2, 3, 4, 5, 6, 7, 8}, {8, 1}, "4(2(,3*),6*(5,7))"}),
    [](const auto &known) { return std::string(known.param.name); });

TEST(RbTree, EveryOrderOfInsertionKeepsTheRulesAndTheHeight)
{
    const int count = 1000;
    std::map<std::string, std::vector<int>> orders;
    orders["ascending"] = numbers(count);
    orders["descending"] = numbers(count);
    std::reverse(orders["descending"].begin(), orders["descending"].end());
    for (int i = 0; i < count / 2; i++) {
        orders["outside in"].insert(orders["outside in"].end(), {i + 1, count - i});
    }
    orders["inside out"].assign(orders["outside in"].rbegin(), orders["outside in"].rend());
    for (int start = 0; start < 37; start++) { /* short ascending runs, each among the others */
        for (int key = start + 1; key <= count; key += 37) {
            orders["interleaved"].push_back(key);
        }
    }
    for (int bit_reversed = 0; bit_reversed < 1024; bit_reversed++) { /* middle of every gap */
        int key = 0;
        for (int bit = 0; bit < 10; bit++) {
            key |= (bit_reversed >> bit & 1) << (9 - bit);
        }
        if (key >= 1 && key <= count) {
            orders["bit-reversed"].push_back(key);
        }
    }

    for (const auto &[name, order] : orders) {
        SCOPED_TRACE(name);
        ASSERT_EQ(order.size(), size_t{count});
        Tree tree;
        std::vector<Item *> items;
        for (int key : order) {
            items.push_back(tree.insert(key));
            ASSERT_EQ(rb_faults(tree.root), "");
            ASSERT_LE(rb_height(tree.root.rb_node), 2 * std::log2(items.size() + 1));
        }
        EXPECT_EQ(tree.keys(), numbers(count));
        for (Item *item : items) {
            tree.erase(item);
            ASSERT_EQ(rb_faults(tree.root), "");
        }
        EXPECT_EQ(tree.root.rb_node, nullptr);
    }
}

TEST(RbTree, PostorderVisitsEachNodeOnceAfterItsChildren)
{
    for (int count : {1, 2, 3, 10, 300}) {
        Tree tree;
        std::vector<int> order = numbers(count);
        std::shuffle(order.begin(), order.end(), std::mt19937(7));
        for (int key : order) {
            tree.insert(key);
        }
        std::set<rb_node *> seen;

        for (rb_node *node = rb_first_postorder(&tree.root); node; node = rb_next_postorder(node)) {
            EXPECT_TRUE(!node->rb_left || seen.count(node->rb_left));
            EXPECT_TRUE(!node->rb_right || seen.count(node->rb_right));
            EXPECT_TRUE(seen.insert(node).second);
        }

        EXPECT_EQ(seen.size(), static_cast<size_t>(count));
    }
}

TEST(RbTree, RandomChangesKeepTheRulesAndTheOrder)
{
    std::mt19937 random(20);
    Tree tree;
    std::map<int, Item *> reference;
    const size_t most = 300;
    size_t goal = most; /* the size wanders between empty and full */
    for (int step = 0; step < 100000;) {
        const int key = static_cast<int>(random() % 1000);
        const auto at = reference.lower_bound(key);
        if (reference.size() == goal) {
            goal = random() % (most + 1);
        }
        if (random() % 8 == 0 && at != reference.end()) {
            Item *fresh = new Item{{}, at->first};
            rb_replace_node(&at->second->node, &fresh->node, &tree.root);
            delete at->second;
            at->second = fresh;
        } else if (reference.size() > goal || (at != reference.end() && random() % 4 == 0)) {
            const auto victim = at == reference.end() ? reference.begin() : at;
            tree.erase(victim->second);
            reference.erase(victim);
        } else if (!reference.count(key)) {
            reference[key] = tree.insert(key);
        } else {
            continue;
        }
        step++;

        std::vector<int> expected;
        for (const auto &entry : reference) {
            expected.push_back(entry.first);
        }
        ASSERT_EQ(rb_faults(tree.root), "") << "step " << step;
        ASSERT_EQ(tree.keys(), expected) << "step " << step;
        std::reverse(expected.begin(), expected.end());
        ASSERT_EQ(tree.keys_backwards(), expected) << "step " << step;
        ASSERT_LE(rb_height(tree.root.rb_node), 2 * std::log2(reference.size() + 1));
    }
}
