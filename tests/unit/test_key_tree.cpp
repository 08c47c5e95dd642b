/* SPDX-License-Identifier: Apache-2.0 */
#include "key_tree.hpp"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "case_name.hpp"

namespace {

/* A tree for the length of a test, and a sorted vector beside it. */
class Tree {
public:
    Tree() { EXPECT_TRUE(key_tree_grow(tree_)); }
    ~Tree() { key_tree_free(tree_); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    /* Inserts in front of so many equal ones, or behind as many as there are. */
    void insert(size_t id, int64_t when, size_t behind)
    {
        auto at =
            std::lower_bound(slots_.begin(), slots_.end(), key_slot{when, id, nullptr}, lower);
        key_tree_seek(tree_, id, when);
        for (; behind > 0 && at != slots_.end() && at->id == id && at->when == when; behind--) {
            at++;
            ASSERT_TRUE(key_tree_slot(tree_));
            key_tree_pass(tree_);
        }
        void *to = &numbers_[next_++ % sizeof(numbers_)];
        slots_.insert(at, key_slot{when, id, to});
        ASSERT_TRUE(key_tree_insert(tree_, id, when, to));
    }

    /* Erases the slot so many places behind the first that is not lower. */
    void erase(size_t id, int64_t when, size_t behind)
    {
        auto at =
            std::lower_bound(slots_.begin(), slots_.end(), key_slot{when, id, nullptr}, lower);
        key_tree_seek(tree_, id, when);
        for (; behind > 0 && at != slots_.end(); behind--) {
            at++;
            ASSERT_TRUE(key_tree_slot(tree_));
            key_tree_pass(tree_);
        }
        key_slot *slot = key_tree_slot(tree_);
        ASSERT_EQ(slot != nullptr, at != slots_.end());
        if (slot) {
            ASSERT_EQ(slot->to, at->to);
            key_tree_erase(tree_);
            slots_.erase(at);
        }
    }

    void expect_found(size_t id, int64_t when)
    {
        auto at =
            std::lower_bound(slots_.begin(), slots_.end(), key_slot{when, id, nullptr}, lower);
        key_tree_seek(tree_, id, when);
        const key_slot *slot = key_tree_slot(tree_);
        ASSERT_EQ(slot != nullptr, at != slots_.end());
        if (slot) {
            ASSERT_EQ(slot->to, at->to);
        }
    }

    /* All slots, from the lowest key on. */
    void expect_all()
    {
        key_tree_seek(tree_, 0, INT64_MIN);
        for (const key_slot &expected : slots_) {
            const key_slot *slot = key_tree_slot(tree_);
            ASSERT_TRUE(slot);
            ASSERT_EQ(slot->when, expected.when);
            ASSERT_EQ(slot->id, expected.id);
            ASSERT_EQ(slot->to, expected.to);
            key_tree_pass(tree_);
        }
        ASSERT_FALSE(key_tree_slot(tree_));
    }

    size_t size() const { return slots_.size(); }
    uint32_t height() const { return tree_.height; }

private:
    static bool lower(const key_slot &a, const key_slot &b)
    {
        return a.id < b.id || (a.id == b.id && a.when < b.when);
    }

    key_tree tree_ = {};
    std::vector<key_slot> slots_;
    size_t next_ = 0;
    char numbers_[1 << 16]; /* their addresses tell the slots apart */
};

struct Keys {
    const char *name;
    unsigned ids, times, most;
};

class KeyTreeShapes : public testing::TestWithParam<Keys> {};

} // namespace

TEST(KeyTree, AnEmptyTreeHasNoSlot)
{
    Tree tree;

    tree.expect_all();
    tree.expect_found(7, 7);
}

TEST_P(KeyTreeShapes, KeepTheOrderOfASortedVector)
{
    const Keys &keys = GetParam();
    for (unsigned seed = 1; seed <= 3; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        Tree tree;
        for (unsigned most : {keys.most, 100u, keys.most / 2, 1u, keys.most}) {
            const bool grows = tree.size() < most;
            while (grows ? tree.size() < most : tree.size() > most) {
                const size_t id = random() % keys.ids;
                const int64_t when = static_cast<int64_t>(random() % keys.times) - keys.times / 2;
                const size_t behind = random() % 3 ? 0 : random() % 200;
                if (random() % 8 > 1 ? grows : !grows) {
                    tree.insert(id, when, behind);
                } else {
                    tree.erase(id, when, behind);
                }
                tree.expect_found(random() % keys.ids, when);
                if (HasFatalFailure()) {
                    return;
                }
            }
            ASSERT_NO_FATAL_FAILURE(tree.expect_all());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(KeyTree, KeyTreeShapes,
                         testing::Values(Keys{"OneKey", 1, 1, 5000}, Keys{"FewKeys", 3, 4, 5000},
                                         Keys{"Ids", 100000, 1, 5000},
                                         Keys{"Times", 1, 100000, 5000},
                                         Keys{"Both", 300, 300, 6000}),
                         case_name<Keys>);

TEST(KeyTree, RisingAndFallingKeysComeAndGoFromEitherEnd)
{
    for (const int64_t sign : {1, -1}) {
        for (const bool from_front : {true, false}) {
            Tree tree;
            for (int64_t i = 0; i < 20000; i++) {
                tree.insert(5, sign * i, 0);
            }
            ASSERT_GE(tree.height(), 3u);
            ASSERT_NO_FATAL_FAILURE(tree.expect_all());
            for (int64_t i = 0; i < 20000; i++) {
                const int64_t lowest = sign > 0 ? 0 : -19999;
                tree.erase(5, from_front ? lowest + i : lowest + 19999 - i, 0);
            }
            EXPECT_EQ(tree.size(), 0u);
            EXPECT_EQ(tree.height(), 1u);
            ASSERT_NO_FATAL_FAILURE(tree.expect_all());
        }
    }
}

/* Joined inner blocks lead to a key that came before what its block once began with. */
TEST(KeyTree, KeysInTheGapOfAnErasedBlockAreFoundAfterJoins)
{
    Tree tree;
    for (int64_t i = 0; i < 20000; i++) {
        tree.insert(5, i, 0);
    }
    ASSERT_GE(tree.height(), 3u);
    for (int64_t i = 0; i < 20000; i++) {
        if (i % 2000 >= 500) {
            tree.erase(5, i, 0);
        }
        if (i % 2000 == 1999) {
            tree.insert(5, i - 99, 0);
        }
    }
    for (int64_t i = 0; i < 20000; i++) {
        if (i % 2000 < 500 && i % 100 > 0) {
            tree.erase(5, i, 0);
            /* An inner block began at 4 * 63 * 63 = 15876, begins at 15939, and got 15900. */
            ASSERT_NO_FATAL_FAILURE(tree.expect_found(5, 15920));
        }
    }
    ASSERT_NO_FATAL_FAILURE(tree.expect_all());
    for (int64_t i = 0; i < 20000; i++) {
        ASSERT_NO_FATAL_FAILURE(tree.expect_found(5, i));
    }
}

/* What remains of many blocks is joined, from whichever end they become thin. */
TEST(KeyTree, ThinBlocksAreJoined)
{
    for (const bool rising : {true, false}) {
        Tree tree;
        for (int64_t i = 0; i < 20000; i++) {
            tree.insert(5, i, 0);
        }
        for (int64_t i = 0; i < 20000; i++) {
            const int64_t when = rising ? i : 19999 - i;
            if (when % 1000 != 0) {
                tree.erase(5, when, 0);
            }
        }
        EXPECT_EQ(tree.size(), 20u);
        ASSERT_NO_FATAL_FAILURE(tree.expect_all());
        EXPECT_LE(tree.height(), 2u);
    }
}

TEST(KeyTree, GrowsToALimitOnly)
{
    key_tree tree = {};
    uint32_t height = 0;
    while (height < 1000 && key_tree_grow(tree)) {
        height++;
    }

    EXPECT_EQ(height, tree.height);
    EXPECT_LT(height, 1000u);
    key_tree_free(tree);
}
