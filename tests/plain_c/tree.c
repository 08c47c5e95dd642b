/* SPDX-License-Identifier: Apache-2.0 */
/* The intrusive tree, plain and with nodes that know the size of their subtree. */
#include "check.h"
#include "rbtree.h"

enum { COUNT = 64 };

struct entry {
    rb_node node; /* first: a node is its entry */
    int key;
    int size; /* of the subtree; kept by the hooks only */
};

static struct entry entries[COUNT];

static struct entry *entry_of(const rb_node *node)
{
    return (struct entry *)node;
}

static int size_of(const rb_node *node)
{
    return node ? entry_of(node)->size : 0;
}

static void compute(rb_node *node)
{
    entry_of(node)->size = 1 + size_of(node->rb_left) + size_of(node->rb_right);
}

static void propagate(rb_node *node, rb_node *stop)
{
    for (; node != stop; node = rb_parent(node)) {
        compute(node);
    }
}

static void copy(rb_node *old_node, rb_node *new_node)
{
    entry_of(new_node)->size = entry_of(old_node)->size;
}

static void rotate(rb_node *old_node, rb_node *new_node)
{
    copy(old_node, new_node);
    compute(old_node);
}

static const rb_augment_callbacks sizes = {propagate, copy, rotate};

static void link_entry(struct entry *entry, rb_root *root)
{
    rb_node *parent = NULL, **link = &root->rb_node;
    while (*link) {
        parent = *link;
        link = entry->key < entry_of(parent)->key ? &parent->rb_left : &parent->rb_right;
    }
    entry->node.__rb_parent_color = (size_t)parent;
    entry->node.rb_left = entry->node.rb_right = NULL;
    *link = &entry->node;
}

static struct entry *scrambled(int i)
{
    struct entry *entry = &entries[i];
    entry->key = i * 37 % COUNT; /* each key once */
    return entry;
}

/* The number of nodes when they rise forwards and fall backwards, else -1. */
static int ordered(const rb_root *root)
{
    int count = 0;
    for (rb_node *n = rb_first(root), *next; n; n = next, count++) {
        next = rb_next(n);
        if (next && (entry_of(n)->key >= entry_of(next)->key || rb_prev(next) != n)) {
            return -1;
        }
    }
    return count;
}

/* The number of nodes when none comes after its parent, else -1. Marks those it has met by size. */
static int postordered(const rb_root *root)
{
    int count = 0;
    for (int i = 0; i < COUNT; i++) {
        entries[i].size = 0;
    }
    for (rb_node *n = rb_first_postorder(root); n; n = rb_next_postorder(n), count++) {
        if (size_of(rb_parent(n)) != 0) {
            return -1;
        }
        entry_of(n)->size = 1;
    }
    return count;
}

static void check_plain(void)
{
    rb_root root = {NULL};
    struct entry stand_in = {{0, NULL, NULL}, 20, 0};

    check("an empty tree has no first and last", !rb_first(&root) && !rb_last(&root));
    for (int i = 0; i < COUNT; i++) {
        link_entry(scrambled(i), &root);
        rb_insert_color(&entries[i].node, &root);
    }
    check("all are in order", ordered(&root) == COUNT);
    check("rb_first is the least", entry_of(rb_first(&root))->key == 0);
    check("rb_last is the greatest", entry_of(rb_last(&root))->key == COUNT - 1);
    check("children come before parents", postordered(&root) == COUNT);

    rb_node *victim = rb_first(&root);
    while (entry_of(victim)->key != stand_in.key) {
        victim = rb_next(victim);
    }
    rb_replace_node(victim, &stand_in.node, &root);
    check("a replacement keeps the order", ordered(&root) == COUNT);
    check("a replacement is linked", rb_next(&stand_in.node) && rb_prev(&stand_in.node));
    rb_erase(&stand_in.node, &root);
    for (int i = 0; i < COUNT; i += 2) {
        if (&entries[i].node != victim) {
            rb_erase(&entries[i].node, &root);
        }
    }
    check("the odd ones are left in order", ordered(&root) == COUNT / 2);
}

static int sizes_hold(const rb_root *root, int count)
{
    if (size_of(root->rb_node) != count) {
        return 0;
    }
    for (rb_node *n = rb_first(root); n; n = rb_next(n)) {
        if (size_of(n) != 1 + size_of(n->rb_left) + size_of(n->rb_right)) {
            return 0;
        }
    }
    return 1;
}

static void check_augmented(void)
{
    rb_root root = {NULL};
    for (int i = 0; i < COUNT; i++) {
        link_entry(scrambled(i), &root);
        propagate(&entries[i].node, NULL);
        __rb_insert_augmented(&entries[i].node, &root, rotate);
    }
    check("sizes hold after insertion", sizes_hold(&root, COUNT));
    for (int i = 0; i < COUNT / 2; i++) {
        rb_erase_augmented(&entries[i].node, &root, &sizes);
    }
    check("sizes hold after removal", sizes_hold(&root, COUNT / 2));
    check("the rest is in order", ordered(&root) == COUNT / 2);
}

void check_tree(void)
{
    check_plain();
    check_augmented();
}
