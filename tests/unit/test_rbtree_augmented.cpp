/* SPDX-License-Identifier: Apache-2.0 */
/* Trees whose nodes carry data about their subtree: the hooks keep it right at every change. */
#include "rbtree.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "rb_check.hpp"

namespace {

/* An interval. Each node knows the latest end in its subtree. */
struct Interval {
    rb_node node;
    int start, end;
    int latest;

    int key() const { return start; }
    int data() const { return latest; }
    static Interval make(int key, unsigned random)
    {
        return {{}, key, key + static_cast<int>(random % 100), 0};
    }
    static int computed(const Interval *item, const Interval *left, const Interval *right)
    {
        return std::max({item->end, left ? left->latest : 0, right ? right->latest : 0});
    }
    void set(int value) { latest = value; }
};

/* An element that can be found by its rank. Each node knows the size of its subtree. */
struct Ranked {
    rb_node node;
    int value;
    int size;

    int key() const { return value; }
    int data() const { return size; }
    static Ranked make(int key, unsigned) { return {{}, key, 0}; }
    static int computed(const Ranked *, const Ranked *left, const Ranked *right)
    {
        return 1 + (left ? left->size : 0) + (right ? right->size : 0);
    }
    void set(int new_size) { size = new_size; }
};

template <typename Record> Record *record_of(rb_node *node)
{
    return reinterpret_cast<Record *>(node); /* node is the first field; NULL stays NULL */
}

/* A tree of such records, with the hooks that a caller would write. */
template <typename Record> class AugmentedTree {
public:
    ~AugmentedTree()
    {
        for (rb_node *node = rb_first_postorder(&root); node;) {
            Record *record = record_of<Record>(node);
            node = rb_next_postorder(node);
            delete record;
        }
    }

    Record *insert(const Record &from)
    {
        Record *record = new Record(from);
        rb_node *parent = nullptr, **link = &root.rb_node;
        while (*link) {
            parent = *link;
            link = record->key() < record_of<Record>(parent)->key() ? &parent->rb_left
                                                                    : &parent->rb_right;
        }
        record->node = {reinterpret_cast<size_t>(parent), nullptr, nullptr};
        *link = &record->node;
        refresh(&record->node);
        propagate(parent, nullptr);
        __rb_insert_augmented(&record->node, &root, rotate);
        return record;
    }

    void erase(Record *record)
    {
        static constexpr rb_augment_callbacks callbacks = {propagate, copy, rotate};
        rb_erase_augmented(&record->node, &root, &callbacks);
        delete record;
    }

    Record *replace(Record *old_record, const Record &from)
    {
        Record *record = new Record(from);
        rb_replace_node(&old_record->node, &record->node, &root);
        copy(&old_record->node, &record->node);
        propagate(&record->node, nullptr);
        delete old_record;
        return record;
    }

    /* Whether every node's data is what its subtree says. */
    bool is_up_to_date() const
    {
        for (rb_node *node = rb_first_postorder(&root); node; node = rb_next_postorder(node)) {
            if (record_of<Record>(node)->data() != computed(node)) {
                return false;
            }
        }
        return true;
    }

    rb_root root = {nullptr};

private:
    static int computed(rb_node *node)
    {
        return Record::computed(record_of<Record>(node), record_of<Record>(node->rb_left),
                                record_of<Record>(node->rb_right));
    }

    static bool refresh(rb_node *node)
    {
        const int fresh = computed(node);
        const bool changed = fresh != record_of<Record>(node)->data();
        record_of<Record>(node)->set(fresh);
        return changed;
    }

    static void propagate(rb_node *node, rb_node *stop)
    {
        while (node != stop && refresh(node)) { /* ends early where nothing changes any more */
            node = rb_parent(node);
        }
    }

    static void copy(rb_node *old_node, rb_node *new_node)
    {
        record_of<Record>(new_node)->set(record_of<Record>(old_node)->data());
    }

    static void rotate(rb_node *old_node, rb_node *new_node)
    {
        copy(old_node, new_node);
        refresh(old_node);
    }
};

/* Inserts, erases and replaces at random, checking tree and data after each step. */
template <typename Record, typename Check> void change_at_random(int steps, Check check)
{
    std::mt19937 random(30);
    AugmentedTree<Record> tree;
    std::map<int, Record *> reference;
    size_t goal = 300;
    for (int step = 0; step < steps;) {
        const int key = static_cast<int>(random() % 1000);
        const auto at = reference.lower_bound(key);
        if (reference.size() == goal) {
            goal = random() % 301;
        }
        if (random() % 8 == 0 && at != reference.end()) {
            at->second = tree.replace(at->second, Record::make(at->first, random()));
        } else if (reference.size() > goal || (at != reference.end() && random() % 4 == 0)) {
            const auto victim = at == reference.end() ? reference.begin() : at;
            tree.erase(victim->second);
            reference.erase(victim);
        } else if (!reference.count(key)) {
            reference[key] = tree.insert(Record::make(key, random()));
        } else {
            continue;
        }
        step++;

        ASSERT_EQ(rb_faults(tree.root), "") << "step " << step;
        ASSERT_TRUE(tree.is_up_to_date()) << "step " << step;
        check(tree.root.rb_node, reference, random());
    }
}

/* Whether an interval that holds the point exists, found by the augmented data in one way down. */
bool is_covered(rb_node *node, int point)
{
    while (node) {
        const Interval *interval = record_of<Interval>(node);
        if (interval->start <= point && point < interval->end) {
            return true;
        }
        const Interval *left = record_of<Interval>(node->rb_left);
        node = left && left->latest > point ? node->rb_left : node->rb_right;
    }
    return false;
}

Ranked *at_rank(rb_node *node, int rank)
{
    while (node) {
        const int before = node->rb_left ? record_of<Ranked>(node->rb_left)->size : 0;
        if (rank == before) {
            break;
        }
        if (rank < before) {
            node = node->rb_left;
        } else {
            rank -= before + 1;
            node = node->rb_right;
        }
    }
    return record_of<Ranked>(node);
}

/* Hooks that write down their calls as text: "copy 2 3, propagate 4 3, ". */
struct Numbered {
    rb_node node;
    int number;
};

std::string calls;

std::string number_of(rb_node *node)
{
    return node ? std::to_string(record_of<Numbered>(node)->number) : "-";
}

void log_propagate(rb_node *node, rb_node *stop)
{
    calls += "propagate " + number_of(node) + " " + number_of(stop) + ", ";
}

void log_copy(rb_node *old_node, rb_node *new_node)
{
    calls += "copy " + number_of(old_node) + " " + number_of(new_node) + ", ";
}

void log_rotate(rb_node *old_node, rb_node *new_node)
{
    calls += "rotate " + number_of(old_node) + " " + number_of(new_node) + ", ";
    EXPECT_EQ(rb_parent(old_node), new_node) << "the links are turned before the call";
}

int rotations_in(const std::string &text)
{
    int found = 0;
    for (size_t at = 0; (at = text.find("rotate", at)) != std::string::npos; at++) {
        found++;
    }
    return found;
}

constexpr rb_augment_callbacks log_callbacks = {log_propagate, log_copy, log_rotate};

/* A tree of small numbers, filled in a given order. */
class NumberedTree {
public:
    NumberedTree(std::initializer_list<int> order)
    {
        for (int number : order) {
            calls_of_insert(number);
        }
    }

    std::string calls_of_insert(int number)
    {
        Numbered &entry = entries_.at(static_cast<size_t>(number));
        entry.number = number;
        rb_node *parent = nullptr, **link = &root.rb_node;
        while (*link) {
            parent = *link;
            link =
                number < record_of<Numbered>(parent)->number ? &parent->rb_left : &parent->rb_right;
        }
        entry.node = {reinterpret_cast<size_t>(parent), nullptr, nullptr};
        *link = &entry.node;
        calls.clear();
        __rb_insert_augmented(&entry.node, &root, log_rotate);
        return calls;
    }

    std::string calls_of_erase(int number)
    {
        calls.clear();
        rb_erase_augmented(node(number), &root, &log_callbacks);
        EXPECT_EQ(rb_faults(root), "");
        return calls;
    }

    rb_node *node(int number) { return &entries_.at(static_cast<size_t>(number)).node; }

    rb_root root = {nullptr};

private:
    std::array<Numbered, 32> entries_ = {};
};

} // namespace

TEST(RbAugmented, IntervalTreeStaysUpToDate)
{
    change_at_random<Interval>(
        100000, [](rb_node *root, const std::map<int, Interval *> &reference, unsigned random) {
            const int point = static_cast<int>(random % 1100);
            const bool expected =
                std::any_of(reference.begin(), reference.end(), [point](const auto &entry) {
                    return entry.second->start <= point && point < entry.second->end;
                });
            ASSERT_EQ(is_covered(root, point), expected);
        });
}

TEST(RbAugmented, OrderStatisticsTreeStaysUpToDate)
{
    change_at_random<Ranked>(
        100000, [](rb_node *root, const std::map<int, Ranked *> &reference, unsigned random) {
            ASSERT_EQ(at_rank(root, static_cast<int>(reference.size())), nullptr);
            if (!reference.empty()) {
                const int rank = static_cast<int>(random % reference.size());
                ASSERT_EQ(at_rank(root, rank), std::next(reference.begin(), rank)->second);
            }
        });
}

TEST(RbAugmented, InsertWithoutRotationCallsNoHook)
{
    NumberedTree tree = {2, 1, 3};

    EXPECT_EQ(tree.calls_of_insert(4), ""); /* recolours only */
}

TEST(RbAugmented, InsertOnTheOuterSideRotatesOnce)
{
    NumberedTree ascending = {1, 2};
    EXPECT_EQ(ascending.calls_of_insert(3), "rotate 1 2, ");

    NumberedTree descending = {3, 2};
    EXPECT_EQ(descending.calls_of_insert(1), "rotate 3 2, ");
}

TEST(RbAugmented, InsertOnTheInnerSideRotatesTwice)
{
    NumberedTree tree = {1, 3};
    EXPECT_EQ(tree.calls_of_insert(2), "rotate 3 2, rotate 1 2, ");

    NumberedTree mirrored = {3, 1};
    EXPECT_EQ(mirrored.calls_of_insert(2), "rotate 1 2, rotate 3 2, ");
}

TEST(RbAugmented, EraseOfTheOnlyNodeCallsNoHook)
{
    NumberedTree tree = {1};

    EXPECT_EQ(tree.calls_of_erase(1), "");
    EXPECT_EQ(tree.root.rb_node, nullptr);
}

TEST(RbAugmented, EraseOfALeafPropagatesFromItsParent)
{
    NumberedTree tree = {2, 1, 3};

    EXPECT_EQ(tree.calls_of_erase(3), "propagate 2 -, ");
}

TEST(RbAugmented, EraseOfANodeWithOneChildPropagatesFromItsParent)
{
    NumberedTree tree = {2, 1, 3, 4};

    EXPECT_EQ(tree.calls_of_erase(3), "propagate 2 -, ");
}

TEST(RbAugmented, EraseWithItsOwnChildAsSuccessorCopiesAndPropagates)
{
    NumberedTree tree = {2, 1, 3};

    EXPECT_EQ(tree.calls_of_erase(2), "copy 2 3, propagate 3 -, ");
}

TEST(RbAugmented, EraseWithADeepSuccessorPropagatesUpToItFirst)
{
    NumberedTree tree = {2, 1, 4, 3};

    EXPECT_EQ(tree.calls_of_erase(2), "copy 2 3, propagate 4 3, propagate 3 -, ");
}

TEST(RbAugmented, EraseRotatesAfterPropagating)
{
    NumberedTree far_nephew = {2, 1, 3, 4};
    EXPECT_EQ(far_nephew.calls_of_erase(1), "propagate 2 -, rotate 2 3, ");

    NumberedTree near_nephew = {2, 1, 4, 3};
    EXPECT_EQ(near_nephew.calls_of_erase(1), "propagate 2 -, rotate 4 3, rotate 2 3, ");
}

TEST(RbAugmented, EraseRotatesThreeTimesAtTheMost)
{
    /* A red sibling whose near child has a red near child: all three turns are needed. */
    NumberedTree tree = {2, 1, 6, 4, 7, 8, 3};
    ASSERT_EQ(rb_faults(tree.root), "");

    EXPECT_EQ(tree.calls_of_erase(1), "propagate 2 -, rotate 2 6, rotate 4 3, rotate 2 3, ");
}

TEST(RbAugmented, RebalancingByHandRepairsAnEmptyLink)
{
    NumberedTree tree = {2, 1, 3, 4};
    tree.node(2)->rb_left = nullptr; /* 1 is a black leaf */
    calls.clear();

    __rb_erase_color(tree.node(2), &tree.root, log_rotate);

    EXPECT_EQ(calls, "rotate 2 3, ");
    EXPECT_EQ(rb_faults(tree.root), "");
    EXPECT_EQ(tree.root.rb_node, tree.node(3));
}

TEST(RbAugmented, NoChangeTakesMoreRotationsThanStated)
{
    std::mt19937 random(40);
    NumberedTree tree({});
    std::set<int> present;
    for (int step = 0; step < 20000; step++) {
        const int number = static_cast<int>(random() % 32);
        if (present.insert(number).second) {
            tree.calls_of_insert(number);
            ASSERT_LE(rotations_in(calls), 2);
        } else {
            present.erase(number);
            tree.calls_of_erase(number);
            ASSERT_LE(rotations_in(calls), 3);
        }
        ASSERT_EQ(rb_faults(tree.root), "");
    }
}
