/* SPDX-License-Identifier: Apache-2.0 */
/* Keyed trees: one descent by hash and comparison serves find and insert. */
#include "rbapi.h"

#include <stdlib.h>
#include <string.h>

namespace {

size_t rbtree_hash_default(const void *key)
{
    return reinterpret_cast<size_t>(key);
}

void rbtree_release_default(void *, void *, rbtree_root *) {}

/* An empty link where a key belongs, or the node that has the key already. */
struct rbtree_place {
    rb_node *parent;
    rb_node **link;
    rbtree_node *match;
};

rbtree_node *rbtree_node_of(rb_node *node)
{
    static_assert(offsetof(rbtree_node, node) == 0, "NULL must stay NULL");
    return reinterpret_cast<rbtree_node *>(node);
}

/* Deliberate: the hash of each node passed is computed again, since a node has no field for it.
 * Test: RbApi.HashesAreComputedAgainAtEveryVisitedNode. */
rbtree_place rbtree_search(const void *key, rbtree_root *root)
{
    const size_t hash = root->hash(key);
    rbtree_place place = {nullptr, &root->root.rb_node, nullptr};
    while (*place.link) {
        place.parent = *place.link;
        /* One of the two comes next: fetched while the key, seldom in the cache, is waited for. */
        __builtin_prefetch(place.parent->rb_left);
        __builtin_prefetch(place.parent->rb_right);
        rbtree_node *node = rbtree_node_of(place.parent);
        const size_t node_hash = root->hash(node->key);
        int order = hash < node_hash ? -1 : hash > node_hash;
        if (order == 0 && root->cmp) {
            order = root->cmp(key, node->key);
        }
        if (order == 0) {
            place.match = node;
            break;
        }
        place.link = order < 0 ? &place.parent->rb_left : &place.parent->rb_right;
    }
    return place;
}

constexpr uint32_t hash_multiplier = 0x5bd1e995;
constexpr uint32_t hash_string_seed = 0xaa55aa55;

/* Deliberate: the first byte is shifted out and the low byte is 0; hashes that applications have
 * stored depend on it. Test: HashApi.TheFirstByteOfABlockDoesNotCount. */
uint32_t hash_read_block(const uint8_t *at)
{
    const uint32_t whole =
        uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | uint32_t{at[3]};
    return whole << 8;
}

/* What hash_api() and rbtree_string_hash() compute. */
uint32_t hash_bytes(const void *buf, size_t len, uint32_t seed)
{
    const uint8_t *at = static_cast<const uint8_t *>(buf);
    uint32_t hash = seed ^ static_cast<uint32_t>(len);
    for (; len >= 4; at += 4, len -= 4) {
        uint32_t block = hash_read_block(at) * hash_multiplier;
        block ^= block >> 24;
        hash = (hash * hash_multiplier) ^ (block * hash_multiplier);
    }
    if (len > 0) {
        hash ^= len > 2 ? uint32_t{at[2]} << 16 : 0;
        hash ^= len > 1 ? uint32_t{at[1]} << 8 : 0;
        hash = (hash ^ at[0]) * hash_multiplier;
    }
    hash ^= hash >> 13;
    hash *= hash_multiplier;
    return hash ^ hash >> 15;
}

} // namespace

uint32_t hash_api(const void *buf, size_t len, uint32_t seed)
{
    return hash_bytes(buf, len, seed);
}

uint32_t buf2uint32(const void *buf)
{
    return hash_read_block(static_cast<const uint8_t *>(buf));
}

size_t rbtree_string_hash(const void *str)
{
    return hash_bytes(str, strlen(static_cast<const char *>(str)), hash_string_seed);
}

int rbtree_init(rbtree_root *root, rbtree_hash_func hash, rbtree_cmp_func cmp,
                rbtree_release_func release)
{
    if (!root) {
        return -1;
    }
    *root = {};
    root->hash = hash ? hash : rbtree_hash_default;
    root->cmp = cmp;
    root->release = release ? release : rbtree_release_default;
    root->__initialized__ = 1;
    return 0;
}

int rbtree_destroy(rbtree_root *root)
{
    if (rbtree_clear(root) != 0) {
        return -1;
    }
    root->__initialized__ = 0;
    return 0;
}

rbtree_node *rbtree_find(const void *key, rbtree_root *root)
{
    return root ? rbtree_search(key, root).match : nullptr;
}

int rbtree_insert(rbtree_node *node, rbtree_root *root)
{
    if (!node || !root) {
        return -1;
    }
    const rbtree_place place = rbtree_search(node->key, root);
    if (place.match) {
        return -1;
    }
    node->node = {reinterpret_cast<size_t>(place.parent), nullptr, nullptr};
    *place.link = &node->node;
    rb_insert_color(&node->node, &root->root);
    root->count++;
    return 0;
}

int rbtree_remove(rbtree_node *node, rbtree_root *root)
{
    if (!node || !root) {
        return -1;
    }
    rb_erase(&node->node, &root->root);
    root->count--;
    return 0;
}

int rbtree_free(rbtree_node *node, rbtree_root *root)
{
    if (!node || !root) {
        return -1;
    }
    if (root->release) {
        root->release(node->key, node->val, root);
    }
    node->key = nullptr;
    node->val = nullptr;
    return 0;
}

int rbtree_erase(rbtree_node *node, rbtree_root *root)
{
    return rbtree_remove(node, root) == 0 ? rbtree_free(node, root) : -1;
}

int rbtree_clear(rbtree_root *root)
{
    if (!root) {
        return -1;
    }
    while (rb_node *first = rb_first(&root->root)) {
        rbtree_erase(rbtree_node_of(first), root);
    }
    return 0;
}

int rbtree_travel(void *data, rbtree_root *root, rbtree_travel_func fn)
{
    return rbapi_travel(data, root, fn);
}

int rbapi_init(rbtree_root *root, rbtree_hash_func hash, rbtree_cmp_func cmp,
               rbtree_release_func release, rbtree_malloc_func my_malloc, rbtree_free_func my_free)
{
    if (rbtree_init(root, hash, cmp, release) != 0) {
        return -1;
    }
    root->my_malloc = my_malloc ? my_malloc : malloc;
    root->my_free = my_free ? my_free : free;
    return 0;
}

int rbapi_destroy(rbtree_root *root)
{
    if (rbapi_clear(root) != 0) {
        return -1;
    }
    root->__initialized__ = 0;
    return 0;
}

int rbapi_insert(void *key, void *val, rbtree_root *root)
{
    if (!root) {
        return -1;
    }
    rbtree_node *node = static_cast<rbtree_node *>(root->my_malloc(sizeof(rbtree_node)));
    if (!node) {
        return -1;
    }
    *node = {{}, key, val};
    /* Deliberate: a refused node is not freed, as it always was; callers whose my_malloc keeps
     * account of its memory rely on it, the others look before they insert.
     * Test: RbApi.ARefusedInsertDoesNotFreeItsNode. */
    return rbtree_insert(node, root);
}

int rbapi_find(const void *key, void **val, rbtree_root *root)
{
    const rbtree_node *node = rbtree_find(key, root);
    if (!node) {
        return -1;
    }
    if (val) {
        *val = node->val;
    }
    return 0;
}

rbtree_node *rbapi_remove(const void *key, rbtree_root *root)
{
    rbtree_node *node = rbtree_find(key, root);
    return rbtree_remove(node, root) == 0 ? node : nullptr;
}

/* Deliberate: the spelling is the interface. Test: RbApi.RemovedNodesAreFreedByTheCaller. */
int rbtapi_free(rbtree_node *node, rbtree_root *root)
{
    if (rbtree_free(node, root) != 0) {
        return -1;
    }
    root->my_free(node);
    return 0;
}

int rbapi_erase(const void *key, rbtree_root *root)
{
    return rbtapi_free(rbapi_remove(key, root), root);
}

int rbapi_replace(void *key, void *val, rbtree_root *root)
{
    (void)rbapi_erase(key, root); /* there may be none */
    return rbapi_insert(key, val, root);
}

int rbapi_clear(rbtree_root *root)
{
    if (!root) {
        return -1;
    }
    while (rb_node *first = rb_first(&root->root)) {
        rbtree_node *node = rbtree_node_of(first);
        rbtree_remove(node, root);
        rbtapi_free(node, root);
    }
    return 0;
}

int rbapi_travel(void *data, rbtree_root *root, rbtree_travel_func fn)
{
    if (!root || !fn) {
        return -1;
    }
    rb_node *next = nullptr;
    for (rb_node *node = rb_first(&root->root); node; node = next) {
        next = rb_next(node);
        if (fn(data, rbtree_node_of(node), root) < 0) {
            return -1;
        }
    }
    return 0;
}

QOR_COMMON_NAME(hash_api);
QOR_COMMON_NAME(buf2uint32);
QOR_COMMON_NAME(rbtree_string_hash);
QOR_COMMON_NAME(rbtree_init);
QOR_COMMON_NAME(rbtree_destroy);
QOR_COMMON_NAME(rbtree_find);
QOR_COMMON_NAME(rbtree_insert);
QOR_COMMON_NAME(rbtree_remove);
QOR_COMMON_NAME(rbtree_free);
QOR_COMMON_NAME(rbtree_erase);
QOR_COMMON_NAME(rbtree_clear);
QOR_COMMON_NAME(rbtree_travel);
QOR_COMMON_NAME(rbapi_travel);
QOR_COMMON_NAME(rbapi_init);
QOR_COMMON_NAME(rbapi_destroy);
QOR_COMMON_NAME(rbapi_insert);
QOR_COMMON_NAME(rbapi_find);
QOR_COMMON_NAME(rbapi_remove);
QOR_COMMON_NAME(rbtapi_free);
QOR_COMMON_NAME(rbapi_erase);
QOR_COMMON_NAME(rbapi_replace);
QOR_COMMON_NAME(rbapi_clear);
