/* SPDX-License-Identifier: Apache-2.0 */
/* String map: the keyed tree with string keys that the map owns. */
#include "rbapi_kv.h"

#include <stdlib.h>
#include <string.h>

namespace {

/* What the walk of the tree hands on to the visitor of the map. */
struct tmp_pack {
    void *data;
    rbapi_kv_travel_func filter;
};

int kv_visit(void *data, rbtree_node *node, rbtree_root *)
{
    const tmp_pack *pack = static_cast<tmp_pack *>(data);
    /* Deliberate: the result is ignored, so that every entry is visited.
     * Test: RbApiKv.TheWalkIgnoresTheResultOfTheVisitor. */
    (void)pack->filter(pack->data, static_cast<const char *>(node->key), node->val);
    return 0;
}

rbtree_root *kv_tree(rbtree_kv_root *kv)
{
    return kv ? &kv->root : nullptr;
}

} // namespace

int rbapi_kv_init(rbtree_kv_root *kv, rbapi_kv_release_func release)
{
    if (!kv) {
        return -1;
    }
    *kv = {};
    kv->release = release ? release : free;
    /* strcmp itself, not a wrapper of the right type: a caller can tell by it how keys compare. */
    const rbtree_cmp_func compare = reinterpret_cast<rbtree_cmp_func>(strcmp);
    return rbapi_init(&kv->root, rbtree_string_hash, compare, rbapi_kv_release, nullptr, nullptr);
}

int rbapi_kv_destroy(rbtree_kv_root *kv)
{
    return rbapi_destroy(kv_tree(kv));
}

int rbapi_kv_insert(const char *key, void *val, rbtree_kv_root *kv)
{
    char *copy = key && kv ? strdup(key) : nullptr;
    if (!copy) {
        return -1;
    }
    if (rbapi_insert(copy, val, &kv->root) == 0) {
        return 0;
    }
    /* Deliberate: with the key present, the refused node and the copy that it holds are kept, as by
     * rbapi_insert(). Without the key there was no memory for a node, and nobody holds the copy.
     * Tests: RbApiKv.ARefusedInsertKeepsNodeAndKeyCopy and
     * RbApiFaults.KvInsertOfAPresentKeyKeepsNodeAndKeyCopy. */
    if (rbapi_find(copy, nullptr, &kv->root) != 0) {
        free(copy);
    }
    return -1;
}

int rbapi_kv_find(const char *key, void **val, rbtree_kv_root *kv)
{
    return key ? rbapi_find(key, val, kv_tree(kv)) : -1;
}

int rbapi_kv_erase(const char *key, rbtree_kv_root *kv)
{
    return key ? rbapi_erase(key, kv_tree(kv)) : -1;
}

int rbapi_kv_clear(rbtree_kv_root *kv)
{
    return rbapi_clear(kv_tree(kv));
}

int rbapi_kv_isinit(const rbtree_kv_root *kv)
{
    return kv ? kv->root.__initialized__ : 0;
}

int rbapi_kv_isempty(const rbtree_kv_root *kv)
{
    return kv ? kv->root.count == 0 : -1;
}

int rbapi_kv_travel(void *data, rbtree_kv_root *kv, rbapi_kv_travel_func fn)
{
    tmp_pack pack = {data, fn};
    return fn ? rbapi_travel(&pack, kv_tree(kv), kv_visit) : -1;
}

void rbapi_kv_release(void *key, void *val, rbtree_root *root)
{
    static_assert(offsetof(rbtree_kv_root, root) == 0, "a map is found from its tree");
    free(key);
    reinterpret_cast<rbtree_kv_root *>(root)->release(val);
}

QOR_COMMON_NAME(rbapi_kv_init);
QOR_COMMON_NAME(rbapi_kv_destroy);
QOR_COMMON_NAME(rbapi_kv_insert);
QOR_COMMON_NAME(rbapi_kv_find);
QOR_COMMON_NAME(rbapi_kv_erase);
QOR_COMMON_NAME(rbapi_kv_clear);
QOR_COMMON_NAME(rbapi_kv_isinit);
QOR_COMMON_NAME(rbapi_kv_isempty);
QOR_COMMON_NAME(rbapi_kv_travel);
QOR_COMMON_NAME(rbapi_kv_release);
