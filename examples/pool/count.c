/* SPDX-License-Identifier: Apache-2.0 */
#include "count.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct entry {
    const char *word;
    unsigned long count;
};

struct merge {
    rbtree_kv_root *into;
    int result;
};

struct listing {
    struct entry *entries;
    size_t length;
    unsigned long words;
};

int count_init(rbtree_kv_root *counts)
{
    return rbapi_kv_init(counts, NULL); /* counters are released by free() */
}

/* Looks before it inserts: the map loses the memory of an insert that it refuses. */
static int add(rbtree_kv_root *counts, const char *word, unsigned long times)
{
    void *found;
    if (rbapi_kv_find(word, &found, counts) == 0) {
        *(unsigned long *)found += times;
        return 0;
    }
    unsigned long *counter = malloc(sizeof(*counter));
    if (!counter) {
        return -1;
    }
    *counter = times;
    if (rbapi_kv_insert(word, counter, counts) != 0) {
        free(counter);
        return -1;
    }
    return 0;
}

static int is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (unsigned char)c >= 0x80;
}

static int continues_word(char c)
{
    return is_letter(c) || (c >= '0' && c <= '9') || c == '_';
}

int count_text(rbtree_kv_root *counts, char *text)
{
    while (*text) {
        if (!is_letter(*text)) {
            text++;
            continue;
        }
        char *word = text;
        for (; continues_word(*text); text++) {
            if (*text >= 'A' && *text <= 'Z') {
                *text = (char)(*text - 'A' + 'a');
            }
        }
        const char behind = *text;
        *text = '\0';
        if (add(counts, word, 1) != 0) {
            return -1;
        }
        *text = behind;
    }
    return 0;
}

static int32_t merge_one(void *data, const char *word, void *counter)
{
    struct merge *merge = data;
    if (add(merge->into, word, *(unsigned long *)counter) != 0) {
        merge->result = -1;
    }
    return 0;
}

int count_merge(rbtree_kv_root *into, rbtree_kv_root *from)
{
    struct merge merge = {into, 0};
    rbapi_kv_travel(&merge, from, merge_one);
    return merge.result;
}

static int32_t list_one(void *data, const char *word, void *counter)
{
    struct listing *listing = data;
    const struct entry entry = {word, *(unsigned long *)counter};
    listing->entries[listing->length++] = entry;
    listing->words += entry.count;
    return 0;
}

static int by_frequency(const void *first, const void *second)
{
    const struct entry *a = first, *b = second;
    if (a->count != b->count) {
        return a->count > b->count ? -1 : 1;
    }
    return strcmp(a->word, b->word);
}

int count_print(rbtree_kv_root *counts, size_t most)
{
    struct listing listing = {calloc((size_t)counts->root.count + 1, sizeof(struct entry)), 0, 0};
    if (!listing.entries) {
        return -1;
    }
    rbapi_kv_travel(&listing, counts, list_one);
    qsort(listing.entries, listing.length, sizeof(struct entry), by_frequency);
    printf("%lu words, %zu different\n", listing.words, listing.length);
    for (size_t i = 0; i < listing.length && i < most; i++) {
        printf("%8lu  %s\n", listing.entries[i].count, listing.entries[i].word);
    }
    free(listing.entries);
    return 0;
}
