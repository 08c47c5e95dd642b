/* SPDX-License-Identifier: Apache-2.0 */
/* Tree of wide blocks: few steps down, each within one piece of memory, and little of it per slot.
 * The slots of an inner block lead to blocks. Each has a key no higher than those below it and no
 * lower than those before it, but for a block's first slot, whose key is not looked at. No block
 * but the root of an empty tree is empty, and none stays full. */
#include "key_tree.hpp"

#include <stdlib.h>
#include <string.h>

#include "qor_util.hpp"

constexpr uint32_t block_size = 64;
constexpr size_t cache_line = 64; /* or a multiple of it */

struct key_block {
    uint32_t count;
    key_slot slots[block_size];
};

namespace {

/* How many of the slots have a lower key; they are the first ones. No branch on the comparison, for
 * it could not be foretold. */
uint32_t slots_below(const key_slot *slots, uint32_t count, size_t id, int64_t when)
{
    uint32_t below = 0;
    while (count > 0) {
        const uint32_t half = (count + 1) / 2;
        const key_slot &slot = slots[below + half - 1];
        const bool lower = (slot.id < id) | ((slot.id == id) & (slot.when < when));
        below += lower ? half : 0;
        count -= half;
    }
    return below;
}

key_block *block_alloc()
{
    key_block *block = static_cast<key_block *>(util_memory(malloc(sizeof(key_block))));
    if (block) {
        block->count = 0; /* slots are written before they are read */
    }
    return block;
}

/* Where a slot of an inner block leads to. */
key_block *block_at(const key_slot &slot)
{
    return static_cast<key_block *>(slot.to);
}

/* The lowest blocks of a large tree are in no cache: all of one is asked for at once, rather than
 * line after line as the search goes on. */
void block_fetch(const key_block *block)
{
    for (size_t offset = 0; offset < sizeof(*block); offset += cache_line) {
        __builtin_prefetch(reinterpret_cast<const char *>(block) + offset);
    }
}

/* Frees a block of that level and all below it. */
void block_free(key_block *block, uint32_t level)
{
    for (uint32_t at = 0; level > 0 && at < block->count; at++) {
        block_free(block_at(block->slots[at]), level - 1);
    }
    free(block);
}

/* Moves the slots from a place on up or down by one, and the count with them. */
void block_shift(key_block *block, uint32_t at, int32_t by)
{
    key_slot *slots = block->slots + at;
    memmove(slots + by, slots, (block->count - at) * sizeof(*slots));
    block->count += static_cast<uint32_t>(by);
}

/* Moves the slots from a place on to the end of another block. */
void block_move(key_block *block, uint32_t at, key_block *to)
{
    memcpy(to->slots + to->count, block->slots + at, (block->count - at) * sizeof(*to->slots));
    to->count += block->count - at;
    block->count = at;
}

/* Joins the blocks before and behind a place when half a block can hold both; what leads to the
 * second is then to be taken out. */
bool block_join(key_block *above, uint32_t at, uint32_t level)
{
    if (at == above->count) {
        return false;
    }
    key_block *left = block_at(above->slots[at - 1]);
    key_block *right = block_at(above->slots[at]);
    if (left->count + right->count > block_size / 2) {
        return false;
    }
    if (level > 0) { /* its first slot is a first one no longer */
        right->slots[0].when = above->slots[at].when;
        right->slots[0].id = above->slots[at].id;
    }
    block_move(right, 0, left);
    free(right);
    return true;
}

} // namespace

bool key_tree_grow(key_tree &tree)
{
    key_block *root = tree.height < key_tree_highest ? block_alloc() : nullptr;
    if (!root) {
        return false;
    }
    root->slots[0].to = tree.root;
    root->count = tree.height > 0;
    tree.root = root;
    tree.place[tree.height] = {root, 0};
    tree.height++;
    return true;
}

void key_tree_free(key_tree &tree)
{
    if (tree.root) {
        block_free(tree.root, tree.height - 1);
    }
}

void key_tree_seek(key_tree &tree, size_t id, int64_t when)
{
    key_block *block = tree.root;
    for (uint32_t level = tree.height; level-- > 0;) {
        const uint32_t first = level > 0;
        const uint32_t at = slots_below(block->slots + first, block->count - first, id, when);
        tree.place[level] = {block, at};
        if (level > 0) {
            block = block_at(block->slots[at]);
        }
        if (level == 1) {
            block_fetch(block);
        }
    }
}

key_slot *key_tree_slot(key_tree &tree)
{
    uint32_t level = 0;
    if (tree.place[0].at == tree.place[0].block->count) {
        do {
            if (++level == tree.height) {
                return nullptr;
            }
        } while (tree.place[level].at + 1 == tree.place[level].block->count);
        tree.place[level].at++;
    }
    for (;; level--) {
        key_slot &slot = tree.place[level].block->slots[tree.place[level].at];
        if (level == 0) {
            return &slot;
        }
        tree.place[level - 1] = {block_at(slot), 0};
    }
}

bool key_tree_insert(key_tree &tree, size_t id, int64_t when, void *to)
{
    if (tree.place[0].at == 0) { /* the place may have gone on to the next block, with other keys */
        key_tree_seek(tree, id, when);
    }
    key_slot slot = {when, id, to};
    for (uint32_t level = 0;; level++) {
        key_block *block = tree.place[level].block;
        /* What leads to a new block goes behind what leads to the one that it was split from. */
        const uint32_t at = tree.place[level].at + (level > 0);
        block_shift(block, at, 1);
        block->slots[at] = slot;
        if (block->count < block_size) {
            return true;
        }
        if (level + 1 == tree.height && !key_tree_grow(tree)) {
            return false;
        }
        key_block *right = block_alloc();
        if (!right) {
            return false;
        }
        /* A slot at the very end leaves alone, so that rising keys fill their blocks. */
        block_move(block, at + 1 == block_size ? at : block_size / 2, right);
        slot = {right->slots[0].when, right->slots[0].id, right};
    }
}

void key_tree_erase(key_tree &tree)
{
    for (uint32_t level = 0;; level++) {
        key_block *block = tree.place[level].block;
        block_shift(block, tree.place[level].at + 1, -1);
        if (level + 1 == tree.height) {
            break;
        }
        auto &above = tree.place[level + 1];
        if (block->count == 0) {
            free(block);
            continue;
        }
        above.at += above.at == 0; /* with the one before it, or else the one behind it */
        if (block->count > block_size / 4 || !block_join(above.block, above.at, level)) {
            break;
        }
    }
    while (tree.height > 1 && tree.root->count == 1) {
        key_block *root = tree.root;
        tree.root = block_at(root->slots[0]);
        tree.height--;
        free(root);
    }
}
