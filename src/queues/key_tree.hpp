/* SPDX-License-Identifier: Apache-2.0 */
/* Sorted pointers for long lists: a tree of wide blocks, ordered by id, then by time. Equal keys
 * may stand in it any number of times, in the order that their places of insertion give. */
#ifndef KEY_TREE_HPP
#define KEY_TREE_HPP

#include <stddef.h>
#include <stdint.h>

struct key_slot {
    int64_t when;
    size_t id;
    void *to;
};

struct key_block;

/* More levels than there is memory for. A tree that would need them takes no more slots. */
constexpr uint32_t key_tree_highest = 8;

struct key_tree {
    key_block *root;
    uint32_t height; /* levels; the lowest holds what was inserted, the others lead there */
    struct {
        key_block *block;
        uint32_t at;           /* on the lowest level perhaps behind the last slot */
    } place[key_tree_highest]; /* where the next call works, from the lowest level to the root */
};

/* Makes a zeroed tree ready for use, and later, from inside, one level higher. False without
 * memory.
 */
bool key_tree_grow(key_tree &tree);

/* Frees all that the tree has allocated. */
void key_tree_free(key_tree &tree);

/* Goes to the place before the first slot whose key is not lower. */
void key_tree_seek(key_tree &tree, size_t id, int64_t when);

/* The slot behind the place; NULL at the end of the tree. */
key_slot *key_tree_slot(key_tree &tree);

/* Goes past that slot. */
inline void key_tree_pass(key_tree &tree)
{
    tree.place[0].at++;
}

/* Puts a slot at the place that its key has led to, or past equal ones there, and leaves the place.
 * False without memory; then the tree is good for key_tree_free() alone. */
bool key_tree_insert(key_tree &tree, size_t id, int64_t when, void *to);

/* Takes out the slot that key_tree_slot() has given, and leaves the place. */
void key_tree_erase(key_tree &tree);

#endif /* KEY_TREE_HPP */
