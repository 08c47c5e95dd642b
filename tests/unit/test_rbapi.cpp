/* SPDX-License-Identifier: Apache-2.0 */
#include "rbapi.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "leak.hpp"
#include "rb_check.hpp"

namespace {

void *key_of(size_t number)
{
    return reinterpret_cast<void *>(number);
}

size_t number_of(const void *key)
{
    return reinterpret_cast<size_t>(key);
}

size_t same_hash(const void *)
{
    return 5;
}

size_t last_digit(const void *key)
{
    return number_of(key) % 10;
}

int compare(const void *first, const void *second)
{
    return number_of(first) < number_of(second) ? -1 : number_of(first) > number_of(second);
}

int hash_calls;

size_t counted_hash(const void *key)
{
    hash_calls++;
    return number_of(key);
}

std::string released;

void log_release(void *key, void *val, rbtree_root *root)
{
    released += std::to_string(number_of(key)) + "=" + std::to_string(number_of(val)) + " ";
    EXPECT_EQ(root->__initialized__, 1);
}

int mallocs, frees;
bool out_of_memory;

void *counted_malloc(size_t size)
{
    mallocs++;
    return out_of_memory ? nullptr : malloc(size);
}

void counted_free(void *node)
{
    frees++;
    free(node);
}

/* Keys in the order of the tree, as "1 2 3 ". */
std::string keys(rbtree_root &root)
{
    std::string text;
    rbtree_travel(&text, &root, [](void *data, rbtree_node *node, rbtree_root *) {
        *static_cast<std::string *>(data) += std::to_string(number_of(node->key)) + " ";
        return 0;
    });
    return text;
}

/* A tree with nodes of the caller: key N is linked with val 100 + N. */
class CallersTree {
public:
    explicit CallersTree(rbtree_hash_func hash = nullptr, rbtree_cmp_func cmp = nullptr)
    {
        released.clear();
        EXPECT_EQ(rbtree_init(&root, hash, cmp, log_release), 0);
    }

    rbtree_node *add(size_t key)
    {
        rbtree_node &node = nodes[key];
        node.key = key_of(key);
        node.val = key_of(100 + key);
        EXPECT_EQ(rbtree_insert(&node, &root), 0) << key;
        return &node;
    }

    rbtree_root root;
    std::map<size_t, rbtree_node> nodes;
};

/* A tree with nodes of its own, whose allocations are counted. */
class OwningTree {
public:
    OwningTree()
    {
        released.clear();
        mallocs = frees = 0;
        out_of_memory = false;
        EXPECT_EQ(rbapi_init(&root, nullptr, nullptr, log_release, counted_malloc, counted_free),
                  0);
    }
    ~OwningTree()
    {
        out_of_memory = false;
        rbapi_destroy(&root);
    }

    int insert(size_t key, size_t val) { return rbapi_insert(key_of(key), key_of(val), &root); }

    rbtree_root root;
};

} // namespace

TEST(RbTreeMap, InitClearsTheRecordAndSetsTheDefaults)
{
    rbtree_root root;
    memset(&root, 0xa5, sizeof(root));

    ASSERT_EQ(rbtree_init(&root, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(root.root.rb_node, nullptr);
    EXPECT_EQ(root.hash(key_of(12345)), 12345u);
    EXPECT_EQ(root.cmp, nullptr);
    root.release(key_of(1), key_of(2), &root); /* does nothing */
    EXPECT_EQ(root.my_malloc, nullptr);
    EXPECT_EQ(root.my_free, nullptr);
    EXPECT_EQ(root.count, 0);
    EXPECT_EQ(root.__initialized__, 1);
}

TEST(RbTreeMap, InitTakesTheGivenFunctions)
{
    rbtree_root root;

    ASSERT_EQ(rbtree_init(&root, same_hash, compare, log_release), 0);

    EXPECT_EQ(root.hash, same_hash);
    EXPECT_EQ(root.cmp, compare);
    EXPECT_EQ(root.release, log_release);
}

TEST(RbTreeMap, FieldsStandInTheStatedOrder)
{
    const size_t word = sizeof(void *);
    EXPECT_EQ(offsetof(rbtree_node, node), 0u);
    EXPECT_EQ(offsetof(rbtree_node, key), 3 * word);
    EXPECT_EQ(offsetof(rbtree_node, val), 4 * word);
    EXPECT_EQ(offsetof(rbtree_root, root), 0u);
    EXPECT_EQ(offsetof(rbtree_root, hash), word);
    EXPECT_EQ(offsetof(rbtree_root, cmp), 2 * word);
    EXPECT_EQ(offsetof(rbtree_root, release), 3 * word);
    EXPECT_EQ(offsetof(rbtree_root, my_malloc), 4 * word);
    EXPECT_EQ(offsetof(rbtree_root, my_free), 5 * word);
    EXPECT_EQ(offsetof(rbtree_root, count), 6 * word);
    EXPECT_EQ(offsetof(rbtree_root, __initialized__), 6 * word + sizeof(int));
}

TEST(RbTreeMap, NullArgumentsFail)
{
    rbtree_root root;
    rbtree_node node = {};
    ASSERT_EQ(rbtree_init(&root, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(rbtree_init(nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(rbtree_destroy(nullptr), -1);
    EXPECT_EQ(rbtree_find(key_of(1), nullptr), nullptr);
    EXPECT_EQ(rbtree_insert(nullptr, &root), -1);
    EXPECT_EQ(rbtree_insert(&node, nullptr), -1);
    EXPECT_EQ(rbtree_remove(nullptr, &root), -1);
    EXPECT_EQ(rbtree_remove(&node, nullptr), -1);
    EXPECT_EQ(rbtree_free(nullptr, &root), -1);
    EXPECT_EQ(rbtree_free(&node, nullptr), -1);
    EXPECT_EQ(rbtree_erase(nullptr, &root), -1);
    EXPECT_EQ(rbtree_erase(&node, nullptr), -1);
    EXPECT_EQ(rbtree_clear(nullptr), -1);
    EXPECT_EQ(rbtree_travel(nullptr, &root, nullptr), -1);
    EXPECT_EQ(root.count, 0);
}

TEST(RbTreeMap, InsertLinksANodeWhoseLinksAreNotPrepared)
{
    rbtree_root root;
    ASSERT_EQ(rbtree_init(&root, nullptr, nullptr, nullptr), 0);
    rbtree_node node;
    memset(&node, 0xa5, sizeof(node));
    node.key = key_of(3);

    EXPECT_EQ(rbtree_insert(&node, &root), 0);

    EXPECT_EQ(rb_faults(root.root), "");
    EXPECT_EQ(root.count, 1);
    EXPECT_EQ(rbtree_find(key_of(3), &root), &node);
}

TEST(RbTreeMap, WithoutCmpAnEqualHashIsTheSameKey)
{
    CallersTree tree(last_digit);
    rbtree_node *first = tree.add(17);
    rbtree_node second = {{}, key_of(27), key_of(1)};

    EXPECT_EQ(rbtree_insert(&second, &tree.root), -1);

    EXPECT_EQ(tree.root.count, 1);
    EXPECT_EQ(second.key, key_of(27));
    EXPECT_EQ(rbtree_find(key_of(27), &tree.root), first);
}

TEST(RbTreeMap, WithTheDefaultHashTheSamePointerIsRefusedAndOthersAreNot)
{
    CallersTree tree;
    int a, b;
    rbtree_node first = {{}, &a, nullptr}, again = {{}, &a, nullptr}, other = {{}, &b, nullptr};

    EXPECT_EQ(rbtree_insert(&first, &tree.root), 0);
    EXPECT_EQ(rbtree_insert(&again, &tree.root), -1);
    EXPECT_EQ(rbtree_insert(&other, &tree.root), 0);
    EXPECT_EQ(tree.root.count, 2);
}

TEST(RbTreeMap, WithCmpKeysOfEqualHashAreToldApart)
{
    CallersTree tree(same_hash, compare);
    for (size_t key : {5, 1, 4, 2, 3}) {
        tree.add(key);
    }
    rbtree_node again = {{}, key_of(4), nullptr};

    EXPECT_EQ(keys(tree.root), "1 2 3 4 5 ");
    EXPECT_EQ(rbtree_insert(&again, &tree.root), -1);
    EXPECT_EQ(rbtree_find(key_of(4), &tree.root), &tree.nodes[4]);
    EXPECT_EQ(rbtree_find(key_of(6), &tree.root), nullptr);
}

TEST(RbTreeMap, OrderIsByHashFirstAndComparisonSecond)
{
    CallersTree tree(last_digit, compare);
    for (size_t key : {33, 21, 42, 11, 13, 2}) {
        tree.add(key);
    }

    EXPECT_EQ(keys(tree.root), "11 21 2 42 13 33 ");
}

TEST(RbTreeMap, HashesAreComparedWithoutSign)
{
    CallersTree tree;
    tree.add(~size_t{0});
    tree.add(1);

    EXPECT_EQ(number_of(reinterpret_cast<rbtree_node *>(rb_first(&tree.root.root))->key), 1u);
}

TEST(RbTreeMap, RemoveLeavesTheContents)
{
    CallersTree tree;
    rbtree_node *node = tree.add(1);
    tree.add(2);

    EXPECT_EQ(rbtree_remove(node, &tree.root), 0);

    EXPECT_EQ(node->key, key_of(1));
    EXPECT_EQ(node->val, key_of(101));
    EXPECT_EQ(released, "");
    EXPECT_EQ(tree.root.count, 1);
    EXPECT_EQ(rbtree_find(key_of(1), &tree.root), nullptr);
}

TEST(RbTreeMap, FreeReleasesTheContentsAndForgetsThem)
{
    CallersTree tree;
    rbtree_node node = {{}, key_of(1), key_of(2)};

    EXPECT_EQ(rbtree_free(&node, &tree.root), 0);

    EXPECT_EQ(released, "1=2 ");
    EXPECT_EQ(node.key, nullptr);
    EXPECT_EQ(node.val, nullptr);
}

TEST(RbTreeMap, FreeWithoutReleaseForgetsTheContents)
{
    CallersTree tree;
    tree.root.release = nullptr;
    rbtree_node node = {{}, key_of(1), key_of(2)};

    EXPECT_EQ(rbtree_free(&node, &tree.root), 0);

    EXPECT_EQ(node.key, nullptr);
    EXPECT_EQ(node.val, nullptr);
}

TEST(RbTreeMap, EraseRemovesAndReleases)
{
    CallersTree tree;
    rbtree_node *node = tree.add(1);

    EXPECT_EQ(rbtree_erase(node, &tree.root), 0);

    EXPECT_EQ(released, "1=101 ");
    EXPECT_EQ(node->key, nullptr);
    EXPECT_EQ(tree.root.count, 0);
    EXPECT_EQ(tree.root.root.rb_node, nullptr);
}

TEST(RbTreeMap, ClearErasesInOrderAndTheTreeCanBeUsedAgain)
{
    CallersTree tree;
    for (size_t key : {2, 3, 1}) {
        tree.add(key);
    }

    EXPECT_EQ(rbtree_clear(&tree.root), 0);

    EXPECT_EQ(released, "1=101 2=102 3=103 ");
    EXPECT_EQ(tree.root.count, 0);
    EXPECT_EQ(tree.root.__initialized__, 1);
    tree.add(4);
    EXPECT_EQ(keys(tree.root), "4 ");
}

TEST(RbTreeMap, DestroyClearsAndMarksTheTree)
{
    CallersTree tree;
    tree.add(1);

    EXPECT_EQ(rbtree_destroy(&tree.root), 0);

    EXPECT_EQ(released, "1=101 ");
    EXPECT_EQ(tree.root.__initialized__, 0);
}

TEST(RbTreeMap, TravelOfAnEmptyTreeSucceeds)
{
    CallersTree tree;

    EXPECT_EQ(
        rbtree_travel(nullptr, &tree.root, [](void *, rbtree_node *, rbtree_root *) { return -1; }),
        0);
}

TEST(RbTreeMap, TravelEndsWhenTheVisitorSaysSo)
{
    CallersTree tree;
    for (size_t key : {1, 2, 3, 4}) {
        tree.add(key);
    }
    std::string seen;

    const int result =
        rbtree_travel(&seen, &tree.root, [](void *data, rbtree_node *node, rbtree_root *) {
            *static_cast<std::string *>(data) += std::to_string(number_of(node->key)) + " ";
            return number_of(node->key) == 3 ? -7 : 1; /* positive goes on */
        });

    EXPECT_EQ(result, -1);
    EXPECT_EQ(seen, "1 2 3 ");
}

TEST(RbTreeMap, TravelGoesOnWhenTheVisitorErasesItsNode)
{
    CallersTree tree;
    for (size_t key = 1; key <= 20; key++) {
        tree.add(key);
    }

    const int result =
        rbtree_travel(nullptr, &tree.root, [](void *, rbtree_node *node, rbtree_root *root) {
            return number_of(node->key) % 2 ? rbtree_erase(node, root) : 0;
        });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(keys(tree.root), "2 4 6 8 10 12 14 16 18 20 ");
    EXPECT_EQ(rb_faults(tree.root.root), "");
}

TEST(RbTreeMap, AThousandAscendingKeysStayBalanced)
{
    CallersTree tree;
    std::string expected;
    for (size_t key = 1; key <= 1000; key++) {
        tree.add(key);
        expected += std::to_string(key) + " ";
        ASSERT_LE(rb_height(tree.root.root.rb_node), 2 * std::log2(key + 1));
    }

    EXPECT_EQ(rb_faults(tree.root.root), "");
    EXPECT_EQ(keys(tree.root), expected);
    EXPECT_EQ(tree.root.count, 1000);
}

TEST(RbApi, InitSetsTheDefaultAllocation)
{
    rbtree_root root;
    ASSERT_EQ(rbapi_init(&root, nullptr, nullptr, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(root.my_malloc, &malloc);
    EXPECT_EQ(root.my_free, &free);
    EXPECT_EQ(root.__initialized__, 1);
}

TEST(RbApi, NullArgumentsFail)
{
    void *val = key_of(1);

    EXPECT_EQ(rbapi_init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(rbapi_destroy(nullptr), -1);
    EXPECT_EQ(rbapi_insert(key_of(1), key_of(1), nullptr), -1);
    EXPECT_EQ(rbapi_find(key_of(1), &val, nullptr), -1);
    EXPECT_EQ(rbapi_remove(key_of(1), nullptr), nullptr);
    EXPECT_EQ(rbtapi_free(nullptr, nullptr), -1);
    EXPECT_EQ(rbapi_erase(key_of(1), nullptr), -1);
    EXPECT_EQ(rbapi_replace(key_of(1), key_of(1), nullptr), -1);
    EXPECT_EQ(rbapi_clear(nullptr), -1);
    EXPECT_EQ(rbapi_travel(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(val, key_of(1));
}

TEST(RbApi, InsertedEntriesAreFound)
{
    OwningTree tree;
    ASSERT_EQ(tree.insert(1, 11), 0);
    ASSERT_EQ(tree.insert(2, 22), 0);
    void *val = nullptr;

    EXPECT_EQ(rbapi_find(key_of(2), &val, &tree.root), 0);
    EXPECT_EQ(val, key_of(22));
    EXPECT_EQ(mallocs, 2);
    EXPECT_EQ(tree.root.count, 2);
}

TEST(RbApi, FindWithoutAPlaceForTheValueTellsPresence)
{
    OwningTree tree;
    tree.insert(1, 11);

    EXPECT_EQ(rbapi_find(key_of(1), nullptr, &tree.root), 0);
    EXPECT_EQ(rbapi_find(key_of(2), nullptr, &tree.root), -1);
}

TEST(RbApi, FindOfAnAbsentKeyLeavesTheValue)
{
    OwningTree tree;
    void *val = key_of(9);

    EXPECT_EQ(rbapi_find(key_of(1), &val, &tree.root), -1);
    EXPECT_EQ(val, key_of(9));
}

TEST(RbApi, ARefusedInsertDoesNotFreeItsNode)
{
    OwningTree tree;
    tree.insert(1, 11);
    {
        PrescribedLeak leak;
        EXPECT_EQ(tree.insert(1, 12), -1);
    }

    EXPECT_EQ(mallocs, 2);
    EXPECT_EQ(frees, 0);
    EXPECT_EQ(released, "");
    EXPECT_EQ(tree.root.count, 1);
    rbapi_clear(&tree.root);
    EXPECT_EQ(frees, 1); /* not even then */
    EXPECT_EQ(released, "1=11 ");
}

TEST(RbApi, InsertWithoutMemoryFails)
{
    OwningTree tree;
    out_of_memory = true;

    EXPECT_EQ(tree.insert(1, 11), -1);
    EXPECT_EQ(tree.root.count, 0);
    EXPECT_EQ(released, "");
}

TEST(RbApi, RemovedNodesAreFreedByTheCaller)
{
    OwningTree tree;
    tree.insert(1, 11);

    rbtree_node *node = rbapi_remove(key_of(1), &tree.root);

    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->key, key_of(1));
    EXPECT_EQ(node->val, key_of(11));
    EXPECT_EQ(tree.root.count, 0);
    EXPECT_EQ(released, "");
    EXPECT_EQ(frees, 0);
    EXPECT_EQ(rbtapi_free(node, &tree.root), 0);
    EXPECT_EQ(released, "1=11 ");
    EXPECT_EQ(frees, 1);
}

TEST(RbApi, RemoveOfAnAbsentKeyReturnsNull)
{
    OwningTree tree;
    tree.insert(1, 11);

    EXPECT_EQ(rbapi_remove(key_of(2), &tree.root), nullptr);
    EXPECT_EQ(tree.root.count, 1);
}

TEST(RbApi, EraseReleasesAndFrees)
{
    OwningTree tree;
    tree.insert(1, 11);

    EXPECT_EQ(rbapi_erase(key_of(1), &tree.root), 0);

    EXPECT_EQ(released, "1=11 ");
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(rbapi_erase(key_of(1), &tree.root), -1);
    EXPECT_EQ(frees, 1);
}

TEST(RbApi, ReplaceErasesTheOldEntryFirst)
{
    OwningTree tree;
    tree.insert(1, 11);

    EXPECT_EQ(rbapi_replace(key_of(1), key_of(12), &tree.root), 0);

    void *val = nullptr;
    EXPECT_EQ(rbapi_find(key_of(1), &val, &tree.root), 0);
    EXPECT_EQ(val, key_of(12));
    EXPECT_EQ(released, "1=11 ");
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(tree.root.count, 1);
}

TEST(RbApi, ReplaceOfAnAbsentKeyInserts)
{
    OwningTree tree;

    EXPECT_EQ(rbapi_replace(key_of(1), key_of(12), &tree.root), 0);
    EXPECT_EQ(rbapi_find(key_of(1), nullptr, &tree.root), 0);
    EXPECT_EQ(released, "");
}

TEST(RbApi, ReplaceWithoutMemoryLosesTheOldEntry)
{
    OwningTree tree;
    tree.insert(1, 11);
    out_of_memory = true;

    EXPECT_EQ(rbapi_replace(key_of(1), key_of(12), &tree.root), -1);

    EXPECT_EQ(rbapi_find(key_of(1), nullptr, &tree.root), -1);
    EXPECT_EQ(released, "1=11 ");
    EXPECT_EQ(tree.root.count, 0);
}

TEST(RbApi, ClearErasesInOrderAndFrees)
{
    OwningTree tree;
    for (size_t key : {3, 1, 2}) {
        tree.insert(key, key * 11);
    }

    EXPECT_EQ(rbapi_clear(&tree.root), 0);

    EXPECT_EQ(released, "1=11 2=22 3=33 ");
    EXPECT_EQ(frees, 3);
    EXPECT_EQ(tree.root.count, 0);
    EXPECT_EQ(tree.root.__initialized__, 1);
}

TEST(RbApi, DestroyFreesAndMarksTheTree)
{
    OwningTree tree;
    tree.insert(1, 11);

    EXPECT_EQ(rbapi_destroy(&tree.root), 0);

    EXPECT_EQ(frees, 1);
    EXPECT_EQ(tree.root.__initialized__, 0);
}

TEST(RbApi, TravelGoesOnWhenTheVisitorErasesItsEntry)
{
    OwningTree tree;
    for (size_t key = 1; key <= 10; key++) {
        tree.insert(key, 0);
    }

    const int result =
        rbapi_travel(nullptr, &tree.root, [](void *, rbtree_node *node, rbtree_root *root) {
            return number_of(node->key) > 3 ? rbapi_erase(node->key, root) : 0;
        });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(keys(tree.root), "1 2 3 ");
    EXPECT_EQ(frees, 7);
}

TEST(RbApi, HashesAreComputedAgainAtEveryVisitedNode)
{
    rbtree_root root;
    ASSERT_EQ(rbapi_init(&root, counted_hash, nullptr, nullptr, nullptr, nullptr), 0);
    for (size_t key : {2, 1, 3}) {
        rbapi_insert(key_of(key), nullptr, &root);
    }

    hash_calls = 0;
    rbapi_find(key_of(2), nullptr, &root);
    EXPECT_EQ(hash_calls, 2); /* the key, the root */

    hash_calls = 0;
    rbapi_find(key_of(3), nullptr, &root);
    EXPECT_EQ(hash_calls, 3);

    hash_calls = 0;
    rbapi_insert(key_of(4), nullptr, &root);
    EXPECT_EQ(hash_calls, 3);
    rbapi_destroy(&root);
}

TEST(RbApi, RandomChangesAgreeWithAReference)
{
    std::mt19937 random(50);
    OwningTree tree;
    ASSERT_EQ(rbapi_init(&tree.root, last_digit, compare, nullptr, counted_malloc, counted_free),
              0);
    std::map<std::pair<size_t, size_t>, size_t> reference; /* by hash, then by key */
    for (size_t step = 0; step < 20000; step++) {
        const size_t key = random() % 400;
        const auto entry = reference.find({key % 10, key});
        void *val = nullptr;
        ASSERT_EQ(rbapi_find(key_of(key), &val, &tree.root), entry == reference.end() ? -1 : 0);
        if (entry != reference.end()) {
            ASSERT_EQ(number_of(val), entry->second);
        }
        switch (random() % 3) {
        case 0:
            if (entry == reference.end()) {
                ASSERT_EQ(tree.insert(key, step), 0);
                reference[{key % 10, key}] = step;
            }
            break;
        case 1:
            ASSERT_EQ(rbapi_replace(key_of(key), key_of(step), &tree.root), 0);
            reference[{key % 10, key}] = step;
            break;
        default:
            ASSERT_EQ(rbapi_erase(key_of(key), &tree.root), entry == reference.end() ? -1 : 0);
            reference.erase({key % 10, key});
            break;
        }
        ASSERT_EQ(static_cast<size_t>(tree.root.count), reference.size());
        ASSERT_EQ(static_cast<size_t>(mallocs - frees), reference.size());
    }

    std::string expected;
    for (const auto &entry : reference) {
        expected += std::to_string(entry.first.second) + " ";
    }
    EXPECT_EQ(keys(tree.root), expected);
    EXPECT_EQ(rb_faults(tree.root.root), "");
}
