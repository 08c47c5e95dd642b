/* SPDX-License-Identifier: Apache-2.0 */
/* The unit with the library's common names, which also takes them by their other spelling, and what
 * it shares with the unit that has none of them. */
#include <stdio.h>

#include "mixed.h"

static int failed;

static void check(const char *what, int holds)
{
    if (!holds) {
        fprintf(stderr, "FAILED: %s\n", what);
        failed++;
    }
}

static void check_tree(void)
{
    rbtree_root tree;
    size_t last = 0;

    check("rbapi_init", rbapi_init(&tree, NULL, NULL, NULL, NULL, NULL) == 0);
    check("the other unit fills it", prefixed_fill(&tree, "treby") == 5);
    check("qor_rbapi_clear", qor_rbapi_clear(&tree) == 0 && tree.count == 0);
    check("and again", prefixed_fill(&tree, "a longertih") == 11);
    for (qor_rb_node *node = rb_first(&tree.root); node; node = qor_rb_next(node)) {
        const size_t key = (size_t)((rbtree_node *)node)->key;
        check("it is in order", last < key);
        last = key;
    }
    check("rbapi_destroy", rbapi_destroy(&tree) == 0);
}

static void check_addresses(void)
{
    rbtree_kv_root map;

    check("rbapi_kv_init", rbapi_kv_init(&map, NULL) == 0);
    check("the functions of a map are known here",
          map.root.hash == rbtree_string_hash && map.root.release == rbapi_kv_release);
    check("and by their other names", prefixed_knows(&map));
    check("rbapi_kv_destroy", rbapi_kv_destroy(&map) == 0);
}

static void check_list(void)
{
    list_head list, here;
    qor_list_head there;

    qor_list_init(&list);
    list_add_tail(&here, &list);
    check("the other unit walks on", prefixed_put(&list, &there) == 2);
    check("its link is in front", list.next == &there && there.next == &here);
    list_del(&there);
    qor_list_del(&here);
    check("both are out", list_empty(&list) && qor_list_empty(&list));
}

static void check_que(void)
{
    qor_que_t *que = qor_que_create(3, NULL);
    for (int i = 0; i < 3; i++) {
        check("qor_que_enque", qor_que_enque(que, qor_que_node_create(i, 0)) == 0);
    }
    check("the other unit counts", prefixed_count(que) == 3);
    qor_que_destroy(que);
}

/* A compiler may take two names for two functions, so they are compared where it cannot. Nor can a
 * program at a fixed address, which has addresses of its own for the library's functions. */
static void check_functions(void)
{
#ifdef __PIC__
    void (*volatile one)(rb_node *, rb_root *) = rb_erase;
    void (*volatile other)(qor_rb_node *, qor_rb_root *) = qor_rb_erase;

    check("one function under both names", one == other);
#endif
}

int main(void)
{
    check_tree();
    check_addresses();
    check_list();
    check_que();
    check_functions();
    return failed > 0;
}
