/* SPDX-License-Identifier: Apache-2.0 */
/* The keyed trees: hash, caller's nodes, own nodes, strings. */
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "rbapi_kv.h"

/* As units refer to them whose declarations do not say QOR_LINKED_AS. */
extern size_t hash_unlabelled(const void *str) __asm__("rbtree_string_hash");
extern void release_unlabelled(void *key, void *val, rbtree_root *root) __asm__("rbapi_kv_release");

static int released;

static int compare(const void *first, const void *second)
{
    return strcmp(first, second);
}

static void release(void *key, void *val, rbtree_root *root)
{
    (void)key, (void)val, (void)root;
    released++;
}

static void release_value(void *val)
{
    (void)val;
    released++;
}

static int visit(void *data, rbtree_node *node, rbtree_root *root)
{
    (void)node, (void)root;
    return ++*(int *)data == 2 ? -1 : 0;
}

static int32_t visit_kv(void *data, const char *key, void *val)
{
    (void)key, (void)val;
    ++*(int *)data;
    return -1;
}

static void check_hash(void)
{
    const unsigned char bytes[] = {1, 2, 3, 4};
    check("buf2uint32 leaves the first byte out", buf2uint32(bytes) == 0x02030400);
    check("hash_api is repeatable", hash_api("abcdefg", 7, 1) == hash_api("abcdefg", 7, 1));
    check("hash_api depends on the seed", hash_api("abcdefg", 7, 1) != hash_api("abcdefg", 7, 2));
    check("the string hash has its seed",
          rbtree_string_hash("abcdefg") == hash_api("abcdefg", 7, 0xaa55aa55));
    check("and is there by its other name",
          hash_unlabelled("abcdefg") == rbtree_string_hash("abcdefg"));
}

static void check_callers_nodes(void)
{
    static char *const names[] = {"one", "two", "three"};
    rbtree_node nodes[3], twin;
    rbtree_root root;
    int visited = 0;

    released = 0;
    check("rbtree_init", rbtree_init(&root, rbtree_string_hash, compare, release) == 0);
    for (int i = 0; i < 3; i++) {
        nodes[i].key = nodes[i].val = names[i];
        check("rbtree_insert", rbtree_insert(&nodes[i], &root) == 0);
    }
    twin.key = names[0];
    check("an equal key is refused", rbtree_insert(&twin, &root) == -1);
    check("rbtree_find", rbtree_find("two", &root) == &nodes[1]);
    check("rbtree_find of none", rbtree_find("four", &root) == NULL);
    check("a visitor ends the walk", rbtree_travel(&visited, &root, visit) == -1 && visited == 2);
    check("rbtree_remove", rbtree_remove(&nodes[0], &root) == 0 && root.count == 2);
    check("removal releases nothing", released == 0);
    check("rbtree_free", rbtree_free(&nodes[0], &root) == 0 && released == 1 && !nodes[0].key);
    check("rbtree_erase", rbtree_erase(&nodes[1], &root) == 0 && released == 2);
    check("rbtree_clear", rbtree_clear(&root) == 0 && released == 3 && root.count == 0);
    check("rbtree_destroy", rbtree_destroy(&root) == 0 && !root.__initialized__);
}

static void check_own_nodes(void)
{
    rbtree_root root;
    void *val = NULL;
    int visited = 0;

    released = 0;
    check("rbapi_init", rbapi_init(&root, rbtree_string_hash, compare, release, malloc, free) == 0);
    check("rbapi_insert", rbapi_insert("a", "1", &root) == 0);
    check("rbapi_replace adds", rbapi_replace("b", "2", &root) == 0 && released == 0);
    check("rbapi_replace replaces", rbapi_replace("b", "3", &root) == 0 && released == 1);
    check("rbapi_find", rbapi_find("b", &val, &root) == 0 && strcmp(val, "3") == 0);
    check("rbapi_travel", rbapi_travel(&visited, &root, visit) == -1 && visited == 2);
    rbtree_node *node = rbapi_remove("a", &root);
    check("rbapi_remove hands the node out", node && strcmp(node->val, "1") == 0);
    check("rbtapi_free", rbtapi_free(node, &root) == 0 && released == 2);
    check("rbapi_erase", rbapi_erase("b", &root) == 0 && released == 3);
    check("rbapi_erase of none", rbapi_erase("b", &root) == -1);
    check("rbapi_insert again", rbapi_insert("c", "4", &root) == 0);
    check("rbapi_clear", rbapi_clear(&root) == 0 && root.count == 0);
    check("rbapi_destroy", rbapi_destroy(&root) == 0 && !root.__initialized__);
}

static void check_strings(void)
{
    rbtree_kv_root map;
    void *val = NULL;
    int visited = 0;

    released = 0;
    check("rbapi_kv_init", rbapi_kv_init(&map, release_value) == 0);
    check("rbapi_kv_isinit", rbapi_kv_isinit(&map) == 1);
    check("rbapi_kv_isempty", rbapi_kv_isempty(&map) == 1);
    check("rbapi_kv_insert", rbapi_kv_insert("a", "1", &map) == 0);
    check("rbapi_kv_insert another", rbapi_kv_insert("b", "2", &map) == 0);
    check("rbapi_kv_find", rbapi_kv_find("a", &val, &map) == 0 && strcmp(val, "1") == 0);
    check("a visitor cannot end the walk",
          rbapi_kv_travel(&visited, &map, visit_kv) == 0 && visited == 2);
    check("rbapi_kv_erase", rbapi_kv_erase("a", &map) == 0 && released == 1);
    rbtree_node *node = rbapi_remove("b", &map.root);
    rbapi_kv_release(node->key, node->val, &map.root);
    free(node);
    check("rbapi_kv_release releases the value", released == 2);
    check("rbapi_kv_insert once more", rbapi_kv_insert("b", "2", &map) == 0);
    node = rbapi_remove("b", &map.root);
    release_unlabelled(node->key, node->val, &map.root);
    free(node);
    check("by its other name as well", released == 3);
    check("rbapi_kv_insert again", rbapi_kv_insert("c", "3", &map) == 0);
    check("rbapi_kv_clear", rbapi_kv_clear(&map) == 0 && rbapi_kv_isempty(&map) == 1);
    check("rbapi_kv_destroy", rbapi_kv_destroy(&map) == 0 && !rbapi_kv_isinit(&map));
}

void check_maps(void)
{
    check_hash();
    check_callers_nodes();
    check_own_nodes();
    check_strings();
}
