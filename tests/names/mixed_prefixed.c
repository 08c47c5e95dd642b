/* SPDX-License-Identifier: Apache-2.0 */
/* The unit without the library's common names. */
#define QOR_NO_COMMON_NAMES
#include "mixed.h"

int prefixed_fill(void *keyed_tree, const char *keys)
{
    qor_rbtree_root *tree = (qor_rbtree_root *)keyed_tree;
    for (; *keys; keys++) {
        if (qor_rbapi_insert((void *)(size_t)*keys, NULL, tree) != 0) {
            return -1;
        }
    }
    return tree->count;
}

int prefixed_knows(void *string_map)
{
    const qor_rbtree_kv_root *map = (qor_rbtree_kv_root *)string_map;
    return map->root.hash == qor_rbtree_string_hash && map->root.release == qor_rbapi_kv_release;
}

int prefixed_put(void *list, void *link)
{
    qor_list_head *head = (qor_list_head *)list;
    int count = 0;
    qor_list_add((qor_list_head *)link, head);
    for (qor_list_head *at = head->next; at != head; at = at->next) {
        count++;
    }
    return count;
}

int prefixed_count(qor_que_t *que)
{
    int count = 0;
    for (qor_list_head *at = que->head.next; at != &que->head; at = at->next) {
        count++;
    }
    return count;
}
