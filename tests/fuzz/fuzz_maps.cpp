/* SPDX-License-Identifier: Apache-2.0 */
/* The tree, plain and with data about subtrees, the keyed tree with nodes of the caller and of its
 * own, and the map over strings: one of them with each input, as its first byte says. */
#include "rbapi.h"
#include "rbapi_kv.h"
#include "rbtree.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "world.hpp"

namespace {

/* ---- the tree */

constexpr uint32_t tree_nodes = 48;

struct Item {
    rb_node link;
    uint32_t key;
    uint32_t number;
    int32_t size; /* of the subtree, in an augmented tree */
};

Item *item_of(const rb_node *link)
{
    static_assert(offsetof(Item, link) == 0, "NULL stays NULL");
    return reinterpret_cast<Item *>(const_cast<rb_node *>(link));
}

int32_t size_of(const rb_node *link)
{
    return link ? item_of(link)->size : 0;
}

int32_t size_below(const rb_node *link)
{
    return 1 + size_of(link->rb_left) + size_of(link->rb_right);
}

int rotations;

void size_propagate(rb_node *node, rb_node *stop)
{
    for (; node != stop; node = rb_parent(node)) {
        item_of(node)->size = size_below(node);
    }
}

void size_copy(rb_node *old_node, rb_node *new_node)
{
    item_of(new_node)->size = item_of(old_node)->size;
}

void size_rotate(rb_node *old_node, rb_node *new_node)
{
    rotations++;
    item_of(new_node)->size = item_of(old_node)->size;
    item_of(old_node)->size = size_below(old_node);
}

const rb_augment_callbacks sizes = {size_propagate, size_copy, size_rotate};

struct Tree {
    rb_root root = {nullptr};
    Item items[tree_nodes] = {};
    std::vector<Item *> model; /* in order */
    std::vector<const rb_node *> postorder;
    bool augmented = false;

    bool has(const Item *item) const
    {
        return std::find(model.begin(), model.end(), item) != model.end();
    }
};

/* The black nodes on each way down, and what stands where; ends the run if a rule is broken. */
int expect_subtree(Tree &tree, const rb_node *node, const rb_node *parent)
{
    if (!node) {
        return 0;
    }
    EXPECT(rb_parent(node) == parent);
    const bool red = (node->__rb_parent_color & RB_BLACK) == RB_RED;
    EXPECT(!red || (parent && (parent->__rb_parent_color & RB_BLACK)));
    const int left = expect_subtree(tree, node->rb_left, node);
    const int right = expect_subtree(tree, node->rb_right, node);
    EXPECT(left == right);
    EXPECT(!tree.augmented || size_of(node) == size_below(node));
    tree.postorder.push_back(node);
    return left + !red;
}

void expect_walks(const Tree &tree)
{
    const rb_node *at = rb_first(&tree.root);
    for (const Item *item : tree.model) {
        EXPECT(at == &item->link);
        at = rb_next(at);
    }
    EXPECT(!at);
    at = rb_last(&tree.root);
    for (size_t n = tree.model.size(); n-- > 0;) {
        EXPECT(at == &tree.model[n]->link);
        at = rb_prev(at);
    }
    EXPECT(!at);
    at = rb_first_postorder(&tree.root);
    for (const rb_node *node : tree.postorder) {
        EXPECT(at == node);
        at = rb_next_postorder(at);
    }
    EXPECT(!at);
}

void expect_tree(Tree &tree)
{
    tree.postorder.clear();
    expect_subtree(tree, tree.root.rb_node, nullptr);
    EXPECT(tree.postorder.size() == tree.model.size());
    expect_walks(tree);
}

/* Behind those of the same key. */
void tree_insert(Tree &tree, Item *item, uint32_t key)
{
    item->key = key;
    item->size = 1;
    rb_node *parent = nullptr, **link = &tree.root.rb_node;
    while (*link) {
        parent = *link;
        link = key < item_of(parent)->key ? &parent->rb_left : &parent->rb_right;
    }
    item->link = {reinterpret_cast<size_t>(parent), nullptr, nullptr};
    *link = &item->link;
    const auto later = std::find_if(tree.model.begin(), tree.model.end(),
                                    [key](const Item *other) { return key < other->key; });
    tree.model.insert(later, item);
    if (!tree.augmented) {
        rb_insert_color(&item->link, &tree.root);
        return;
    }
    size_propagate(parent, nullptr);
    rotations = 0;
    __rb_insert_augmented(&item->link, &tree.root, size_rotate);
    EXPECT(rotations <= 2);
}

void tree_erase(Tree &tree, Item *item)
{
    tree.model.erase(std::find(tree.model.begin(), tree.model.end(), item));
    if (!tree.augmented) {
        const rb_node before = item->link;
        rb_erase(&item->link, &tree.root);
        EXPECT(memcmp(&before, &item->link, sizeof(before)) == 0);
        return;
    }
    rotations = 0;
    rb_erase_augmented(&item->link, &tree.root, &sizes);
    EXPECT(rotations <= 3);
}

void tree_replace(Tree &tree, Item *item, Item *by)
{
    if (tree.has(by)) {
        return;
    }
    by->key = item->key;
    by->size = item->size;
    *std::find(tree.model.begin(), tree.model.end(), item) = by;
    const rb_node before = item->link;
    rb_replace_node(&item->link, &by->link, &tree.root);
    EXPECT(memcmp(&before, &item->link, sizeof(before)) == 0);
    EXPECT(memcmp(&before, &by->link, sizeof(before)) == 0);
}

/* What has no neighbours. */
void tree_nothing(const Tree &)
{
    rb_node alone = {reinterpret_cast<size_t>(&alone), nullptr, nullptr};
    EXPECT(!rb_next(&alone) && !rb_prev(&alone));
    EXPECT(!rb_next(nullptr) && !rb_prev(nullptr) && !rb_next_postorder(nullptr));
    EXPECT(!rb_first(nullptr) && !rb_last(nullptr) && !rb_first_postorder(nullptr));
}

void run_tree(Bytes &bytes, bool augmented)
{
    Tree tree;
    tree.augmented = augmented;
    while (bytes.left()) {
        const uint32_t what = bytes.below(16);
        Item *item = &tree.items[bytes.below(tree_nodes)];
        if (!tree.has(item)) {
            tree_insert(tree, item, bytes.byte());
        } else if (what == 0) {
            tree_nothing(tree);
        } else if (what < 4) {
            tree_replace(tree, item, &tree.items[bytes.below(tree_nodes)]);
        } else {
            tree_erase(tree, item);
        }
        expect_tree(tree);
    }
}

/* ---- the keyed tree */

/* A key is a cell of this array: its hash is its number's remainder, and those of one remainder
 * are told apart by comparison, backwards, or not at all. */
constexpr uint32_t key_count = 40;
char keys[key_count];
uint32_t hash_by;
int hashed;

uint32_t number_of(const void *key)
{
    return static_cast<uint32_t>(static_cast<const char *>(key) - keys);
}

size_t hash_of(const void *key)
{
    hashed++;
    return number_of(key) % hash_by;
}

int compare_backwards(const void *first, const void *second)
{
    return static_cast<int>(number_of(second)) - static_cast<int>(number_of(first));
}

struct Released {
    void *key;
    void *val;
    rbtree_root *root;
};
std::vector<Released> released;

void note_release(void *key, void *val, rbtree_root *root)
{
    released.push_back({key, val, root});
}

void *world_malloc(size_t size)
{
    return malloc(size);
}

void world_free(void *block)
{
    free(block);
}

/* By hash, then backwards; a key without the other kind of hash is its own. */
struct Order {
    bool hash;
    bool cmp;

    bool operator()(const void *first, const void *second) const
    {
        if (!hash) {
            return first < second;
        }
        const uint32_t one = number_of(first), two = number_of(second);
        return one % hash_by != two % hash_by ? one % hash_by < two % hash_by : cmp && one > two;
    }
};

struct Entry {
    void *key;
    void *val;
    rbtree_node *node; /* NULL: the tree's own, never seen */
};

struct Keyed {
    World &there;
    rbtree_root root;
    std::map<const void *, Entry, Order> model;
    bool own; /* the tree allocates its nodes */
    bool releases;
    bool counts_hashes;
    size_t lost = 0; /* nodes refused, not linked and not freed */
};

/* How often a key is hashed on the way to its place. */
int hashes_on_the_way(const Keyed &keyed, const void *key)
{
    const Order less = keyed.model.key_comp();
    int count = 1;
    for (const rb_node *at = keyed.root.root.rb_node; at;) {
        count++;
        const void *there = reinterpret_cast<const rbtree_node *>(at)->key;
        if (less(key, there)) {
            at = at->rb_left;
        } else if (less(there, key)) {
            at = at->rb_right;
        } else {
            break;
        }
    }
    return keyed.counts_hashes ? count : 0;
}

void expect_released(Keyed &keyed, const std::vector<Entry> &entries)
{
    EXPECT(released.size() == (keyed.releases ? entries.size() : 0));
    for (size_t n = 0; n < released.size(); n++) {
        EXPECT(released[n].key == entries[n].key && released[n].val == entries[n].val);
        EXPECT(released[n].root == &keyed.root);
    }
    released.clear();
}

void expect_keyed(Keyed &keyed)
{
    EXPECT(keyed.root.count == static_cast<int>(keyed.model.size()));
    EXPECT(keyed.root.__initialized__ == 1);
    EXPECT(keyed.there.live() == (keyed.own ? keyed.model.size() + keyed.lost : 0));
    const rb_node *at = rb_first(&keyed.root.root);
    for (const auto &[key, entry] : keyed.model) {
        const rbtree_node *node = reinterpret_cast<const rbtree_node *>(at);
        EXPECT(node && node->key == key && node->val == entry.val);
        EXPECT(!entry.node || entry.node == node);
        at = rb_next(at);
    }
    EXPECT(!at);
}

/* A walk that ends at a number of nodes, and erases some of those it visits. */
struct Walk {
    Keyed *keyed;
    std::vector<Entry> expected; /* still to come */
    uint32_t left;
    uint8_t erases;
};

int visit(void *data, rbtree_node *node, rbtree_root *root)
{
    Walk *walk = static_cast<Walk *>(data);
    EXPECT(root == &walk->keyed->root && !walk->expected.empty());
    const Entry next = walk->expected.front();
    walk->expected.erase(walk->expected.begin());
    EXPECT(node->key == next.key && node->val == next.val);
    if (walk->erases & 1) {
        EXPECT((walk->keyed->own ? rbapi_erase(next.key, root) : rbtree_erase(node, root)) == 0);
        expect_released(*walk->keyed, {next});
        walk->keyed->model.erase(next.key);
    }
    walk->erases = static_cast<uint8_t>(walk->erases >> 1 | walk->erases << 7);
    return walk->left-- == 0 ? -1 : 0;
}

void walk(Keyed &keyed, Bytes &bytes)
{
    Walk walk = {&keyed, {}, bytes.below(key_count), bytes.byte()};
    for (const auto &found : keyed.model) {
        walk.expected.push_back(found.second);
    }
    const bool ends = walk.left < walk.expected.size();
    const size_t unseen = ends ? walk.expected.size() - walk.left - 1 : 0;
    const auto travel = bytes.below(2) ? rbapi_travel : rbtree_travel;
    EXPECT(travel(&walk, &keyed.root, visit) == (ends ? -1 : 0));
    EXPECT(walk.expected.size() == unseen);
    EXPECT(travel(&walk, nullptr, visit) == -1 && travel(&walk, &keyed.root, nullptr) == -1);
}

void clear(Keyed &keyed, bool destroys)
{
    std::vector<Entry> all;
    for (const auto &found : keyed.model) {
        all.push_back(found.second);
    }
    keyed.model.clear();
    rbtree_root *root = &keyed.root;
    if (keyed.own) {
        EXPECT((destroys ? rbapi_destroy(root) : rbapi_clear(root)) == 0);
    } else {
        EXPECT((destroys ? rbtree_destroy(root) : rbtree_clear(root)) == 0);
    }
    expect_released(keyed, all);
    EXPECT(root->__initialized__ == !destroys && root->count == 0 && !root->root.rb_node);
}

/* One call on a tree with nodes of the caller. */
void callers_step(Keyed &keyed, Bytes &bytes, rbtree_node *nodes)
{
    rbtree_root *root = &keyed.root;
    const uint32_t what = bytes.below(8);
    char *key = &keys[bytes.below(key_count)];
    rbtree_node *node = &nodes[number_of(key)];
    const auto found = keyed.model.find(key);
    const int way = hashes_on_the_way(keyed, key);
    hashed = 0;
    if (what < 3) {
        if (found != keyed.model.end() && found->second.node == node) {
            rbtree_node other = {{5, &other.node, nullptr}, key, nullptr};
            EXPECT(rbtree_insert(&other, root) == -1);
            EXPECT(other.node.__rb_parent_color == 5 && other.node.rb_right == &other.node);
        } else {
            *node = {{}, key, &nodes[bytes.below(key_count)]};
            const bool fresh = found == keyed.model.end();
            EXPECT(rbtree_insert(node, root) == (fresh ? 0 : -1));
            if (fresh) {
                keyed.model[key] = {key, node->val, node};
            }
        }
        EXPECT(hashed == way);
    } else if (what < 5) {
        rbtree_node *there = found == keyed.model.end() ? nullptr : found->second.node;
        EXPECT(rbtree_find(key, root) == there);
        EXPECT(hashed == way);
    } else if (what < 7) {
        if (found == keyed.model.end()) {
            return;
        }
        const Entry entry = found->second;
        keyed.model.erase(found);
        if (what == 5) {
            EXPECT(rbtree_remove(entry.node, root) == 0);
            EXPECT(released.empty() && entry.node->key == entry.key &&
                   root->count == static_cast<int>(keyed.model.size()));
            EXPECT(rbtree_free(entry.node, root) == 0);
        } else {
            EXPECT(rbtree_erase(entry.node, root) == 0);
        }
        EXPECT(!entry.node->key && !entry.node->val);
        expect_released(keyed, {entry});
    } else {
        walk(keyed, bytes);
    }
}

/* One call on a tree that allocates its nodes. */
void own_step(Keyed &keyed, Bytes &bytes)
{
    rbtree_root *root = &keyed.root;
    const uint32_t what = bytes.below(8);
    char *key = &keys[bytes.below(key_count)];
    void *val = &keys[bytes.below(key_count)];
    const auto found = keyed.model.find(key);
    const bool present = found != keyed.model.end();
    const Entry entry = present ? found->second : Entry{};
    keyed.there.memory_fails_in = what < 4 && bytes.below(8) == 0 ? 0 : -1;
    const bool memory = keyed.there.memory_fails_in < 0;
    void *given = key + key_count;
    if (what < 3) {
        EXPECT(rbapi_insert(key, val, root) == (memory && !present ? 0 : -1));
        keyed.lost += memory && present;
        if (memory && !present) {
            keyed.model[key] = {key, val, nullptr};
        }
    } else if (what == 3) {
        EXPECT(rbapi_replace(key, val, root) == (memory ? 0 : -1));
        keyed.model.erase(key);
        if (present) {
            expect_released(keyed, {entry});
        }
        if (memory) {
            keyed.model[key] = {key, val, nullptr};
        }
    } else if (what == 4) {
        EXPECT(rbapi_find(key, &given, root) == (present ? 0 : -1));
        EXPECT(given == (present ? entry.val : key + key_count));
        EXPECT(rbapi_find(key, nullptr, root) == (present ? 0 : -1));
    } else if (what == 5) {
        EXPECT(rbapi_erase(key, root) == (present ? 0 : -1));
        keyed.model.erase(key);
        if (present) {
            expect_released(keyed, {entry});
        }
    } else if (what == 6) {
        rbtree_node *node = rbapi_remove(key, root);
        EXPECT((node != nullptr) == present);
        keyed.model.erase(key);
        if (node) {
            EXPECT(node->key == entry.key && node->val == entry.val && released.empty());
            EXPECT(root->count == static_cast<int>(keyed.model.size()));
            EXPECT(keyed.there.size_of(node) == sizeof(*node));
            EXPECT(rbtapi_free(node, root) == 0);
            expect_released(keyed, {entry});
        }
    } else {
        walk(keyed, bytes);
    }
    keyed.there.memory_fails_in = -1;
    expect_released(keyed, {});
}

/* What all of them say to no tree and no node. */
void no_tree(Keyed &keyed)
{
    rbtree_root *root = &keyed.root;
    rbtree_node node = {{}, keys, keys};
    EXPECT(rbtree_init(nullptr, nullptr, nullptr, nullptr) == -1);
    EXPECT(rbapi_init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) == -1);
    EXPECT(rbtree_destroy(nullptr) == -1 && rbapi_destroy(nullptr) == -1);
    EXPECT(rbtree_clear(nullptr) == -1 && rbapi_clear(nullptr) == -1);
    EXPECT(!rbtree_find(keys, nullptr) && rbapi_find(keys, nullptr, nullptr) == -1);
    EXPECT(rbtree_insert(&node, nullptr) == -1 && rbtree_insert(nullptr, root) == -1);
    EXPECT(rbtree_remove(&node, nullptr) == -1 && rbtree_remove(nullptr, root) == -1);
    EXPECT(rbtree_free(&node, nullptr) == -1 && rbtree_free(nullptr, root) == -1);
    EXPECT(rbtree_erase(&node, nullptr) == -1 && rbtree_erase(nullptr, root) == -1);
    EXPECT(rbapi_insert(keys, keys, nullptr) == -1 && rbapi_replace(keys, keys, nullptr) == -1);
    EXPECT(!rbapi_remove(keys, nullptr) && rbapi_erase(keys, nullptr) == -1);
    EXPECT(rbtapi_free(&node, nullptr) == -1 && rbtapi_free(nullptr, root) == -1);
    EXPECT(node.key == keys && node.val == keys);
    expect_released(keyed, {});
}

void run_keyed(World &there, Bytes &bytes, bool own)
{
    const uint8_t how = bytes.byte();
    hash_by = 1 + bytes.below(key_count);
    const bool hash = how & 1, cmp = how & 2, releases = how & 4;
    Keyed keyed = {there, {},       std::map<const void *, Entry, Order>(Order{hash, cmp}),
                   own,   releases, hash};
    memset(static_cast<void *>(&keyed.root), how, sizeof(keyed.root));
    const auto hash_fn = hash ? hash_of : nullptr;
    const auto cmp_fn = cmp ? compare_backwards : nullptr;
    const auto release = releases ? note_release : nullptr;
    if (own) {
        EXPECT(rbapi_init(&keyed.root, hash_fn, cmp_fn, release, how & 8 ? world_malloc : nullptr,
                          how & 16 ? world_free : nullptr) == 0);
    } else {
        EXPECT(rbtree_init(&keyed.root, hash_fn, cmp_fn, release) == 0);
    }
    rbtree_node nodes[key_count] = {};
    while (bytes.left()) {
        const uint32_t what = bytes.below(32);
        if (what == 0) {
            clear(keyed, false);
        } else if (what == 1) {
            no_tree(keyed);
        } else if (own) {
            own_step(keyed, bytes);
        } else {
            callers_step(keyed, bytes, nodes);
        }
        expect_keyed(keyed);
    }
    clear(keyed, true);
    EXPECT(there.drop_all() == keyed.lost);
}

/* ---- the map over strings */

/* What a string hashes to, reckoned byte by byte. */
uint32_t model_hash(const std::string &text, uint32_t seed)
{
    const uint32_t factor = 0x5bd1e995;
    const auto at = [&text](size_t n) { return uint32_t{static_cast<uint8_t>(text[n])}; };
    uint32_t hash = seed ^ static_cast<uint32_t>(text.size());
    size_t n = 0;
    for (; n + 4 <= text.size(); n += 4) {
        uint32_t block = at(n + 1) * 0x1000000 + at(n + 2) * 0x10000 + at(n + 3) * 0x100;
        block *= factor;
        block = (block ^ block / 0x1000000) * factor;
        hash = hash * factor ^ block;
    }
    uint32_t rest = 0;
    for (size_t k = n; k < text.size(); k++) {
        rest |= at(k) << 8 * (k - n);
    }
    if (n < text.size()) {
        hash = (hash ^ rest) * factor;
    }
    hash = (hash ^ hash / 0x2000) * factor;
    return hash ^ hash / 0x8000;
}

struct ByHash {
    bool operator()(const std::string &first, const std::string &second) const
    {
        const uint32_t one = model_hash(first, 0xaa55aa55), two = model_hash(second, 0xaa55aa55);
        return one != two ? one < two : first < second;
    }
};

using Model = std::map<std::string, void *, ByHash>;

std::vector<void *> values_released;

void note_value(void *val)
{
    values_released.push_back(val);
}

/* Few strings, so that they come again; those that differ in the first byte of a block only hash
 * alike. */
std::string any_key(Bytes &bytes)
{
    static const char *const ends[] = {"", "b", "bcd", "bcd-1", "bcd-12", "bcd-123", "\xff\x80"};
    const uint8_t what = bytes.byte();
    return std::string(1, static_cast<char>('A' + what % 5)) + ends[what / 5 % 7];
}

struct KvWalk {
    Model expected;
    Model *model;
    rbtree_kv_root *kv;
    uint8_t erases;
    bool frees;
};

int32_t kv_visit(void *data, const char *key, void *val)
{
    KvWalk *walk = static_cast<KvWalk *>(data);
    EXPECT(!walk->expected.empty());
    const auto first = walk->expected.begin();
    EXPECT(first->first == key && first->second == val);
    if (walk->erases & 1) {
        EXPECT(rbapi_kv_erase(key, walk->kv) == 0);
        EXPECT(walk->frees || (values_released.size() == 1 && values_released[0] == val));
        values_released.clear();
        walk->model->erase(first->first);
    }
    walk->erases = static_cast<uint8_t>(walk->erases >> 1 | walk->erases << 7);
    walk->expected.erase(first);
    return -1; /* says nothing to it */
}

void no_map(rbtree_kv_root *kv)
{
    EXPECT(rbapi_kv_init(nullptr, nullptr) == -1 && rbapi_kv_destroy(nullptr) == -1);
    EXPECT(rbapi_kv_insert("A", nullptr, nullptr) == -1);
    EXPECT(rbapi_kv_insert(nullptr, nullptr, kv) == -1);
    EXPECT(rbapi_kv_find("A", nullptr, nullptr) == -1 && rbapi_kv_find(nullptr, nullptr, kv) == -1);
    EXPECT(rbapi_kv_erase("A", nullptr) == -1 && rbapi_kv_erase(nullptr, kv) == -1);
    EXPECT(rbapi_kv_clear(nullptr) == -1 && rbapi_kv_travel(nullptr, kv, nullptr) == -1);
    EXPECT(rbapi_kv_travel(nullptr, nullptr, kv_visit) == -1);
    EXPECT(rbapi_kv_isinit(nullptr) == 0 && rbapi_kv_isempty(nullptr) == -1);
}

void expect_values_released(bool frees, const std::vector<void *> &expected)
{
    EXPECT(values_released == (frees ? std::vector<void *>() : expected));
    values_released.clear();
}

void run_kv(World &there, Bytes &bytes)
{
    rbtree_kv_root kv;
    const bool frees = bytes.below(2); /* the default release */
    EXPECT(rbapi_kv_init(&kv, frees ? nullptr : note_value) == 0);
    Model model;
    size_t lost = 0;
    while (bytes.left()) {
        const uint32_t what = bytes.below(16);
        const std::string key = any_key(bytes);
        const auto found = model.find(key);
        const bool present = found != model.end();
        void *had = present ? found->second : nullptr;
        std::vector<void *> gone;
        if (what < 6) {
            void *val = frees ? malloc(1) : &keys[bytes.below(key_count)];
            const int fails = static_cast<int>(bytes.below(12));
            there.memory_fails_in = fails < 2 ? fails : -1;
            const int ret = rbapi_kv_insert(key.c_str(), val, &kv);
            EXPECT(ret == (fails >= 2 && !present ? 0 : -1));
            /* With the key there, a copy is lost when there was no memory for the node. */
            lost += fails >= 2 && present ? 2 : fails == 1 && present ? 1 : 0;
            there.memory_fails_in = -1;
            if (ret == 0) {
                model[key] = val;
            } else if (frees) {
                free(val);
            }
        } else if (what < 9) {
            void *val = &kv;
            EXPECT(rbapi_kv_find(key.c_str(), &val, &kv) == (present ? 0 : -1));
            EXPECT(val == (present ? had : &kv));
            EXPECT(rbapi_kv_find(key.c_str(), nullptr, &kv) == (present ? 0 : -1));
        } else if (what < 12) {
            EXPECT(rbapi_kv_erase(key.c_str(), &kv) == (present ? 0 : -1));
            if (present) {
                gone.push_back(had);
                model.erase(found);
            }
        } else if (what == 12) {
            for (const auto &entry : model) {
                gone.push_back(entry.second);
            }
            model.clear();
            EXPECT(rbapi_kv_clear(&kv) == 0);
        } else if (what == 13) {
            KvWalk walk = {model, &model, &kv, bytes.byte(), frees};
            EXPECT(rbapi_kv_travel(&walk, &kv, kv_visit) == 0);
            EXPECT(walk.expected.empty());
        } else if (what == 14) {
            no_map(&kv);
        } else {
            const uint32_t seed = static_cast<uint32_t>(bytes.word());
            EXPECT(hash_api(key.data(), key.size(), seed) == model_hash(key, seed));
            EXPECT(rbtree_string_hash(key.c_str()) == model_hash(key, 0xaa55aa55));
            const uint8_t four[4] = {bytes.byte(), bytes.byte(), bytes.byte(), bytes.byte()};
            EXPECT(buf2uint32(four) ==
                   four[1] * 0x1000000u + four[2] * 0x10000u + four[3] * 0x100u);
        }
        expect_values_released(frees, gone);
        EXPECT(rbapi_kv_isempty(&kv) == model.empty() && rbapi_kv_isinit(&kv) == 1);
        EXPECT(there.live() == model.size() * (frees ? 3 : 2) + lost);
    }
    std::vector<void *> gone;
    for (const auto &entry : model) {
        gone.push_back(entry.second);
    }
    EXPECT(rbapi_kv_destroy(&kv) == 0);
    expect_values_released(frees, gone);
    EXPECT(rbapi_kv_isinit(&kv) == 0 && there.drop_all() == lost);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World there;
    Bytes bytes(data, size);
    switch (bytes.below(5)) {
    case 0:
        run_tree(bytes, false);
        break;
    case 1:
        run_tree(bytes, true);
        break;
    case 2:
        run_keyed(there, bytes, false);
        break;
    case 3:
        run_keyed(there, bytes, true);
        break;
    default:
        run_kv(there, bytes);
        break;
    }
    return 0;
}
