/* SPDX-License-Identifier: Apache-2.0 */
/* How often each word occurs: a string map whose values are counters. One thread at a time. */
#ifndef COUNT_H
#define COUNT_H

#include "qor.h"

/* Makes an empty map of counters; rbapi_kv_destroy() releases it. */
int count_init(rbtree_kv_root *counts);

/* Counts the words of a text, which is written over. A word is a letter and what follows of
 * letters, digits and underscores, in lower case; bytes beyond ASCII are letters. -1 without
 * memory. */
int count_text(rbtree_kv_root *counts, char *text);

/* Adds the counts of one map to another. Returns -1 without memory. */
int count_merge(rbtree_kv_root *into, rbtree_kv_root *from);

/* Prints how many words there are, then the most frequent ones; equally frequent ones by alphabet.
 * Returns -1 without memory. */
int count_print(rbtree_kv_root *counts, size_t most);

#endif
