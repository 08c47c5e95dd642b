/* SPDX-License-Identifier: Apache-2.0 */
/* Map from strings to values: a keyed tree that copies its keys. Results and threads as for the
 * functions of rbapi.h. */
#ifndef QOR_RBAPI_KV_H
#define QOR_RBAPI_KV_H

#include "rbapi.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

/** Releases a value whose entry is erased. */
typedef void (*rbapi_kv_release_func)(void *val);

/**
 * Visits an entry on a walk. It may erase this very entry (key is gone then), but no other. The
 * result is ignored.
 */
typedef int32_t (*rbapi_kv_travel_func)(void *data, const char *key, void *val);

/** A map. Change its fields only through the functions. */
typedef struct rbtree_kv_root {
    rbtree_root root;              /**< keys by hash, then by strcmp: not in alphabetical order */
    rbapi_kv_release_func release; /**< for values */
} rbtree_kv_root;

/**
 * Makes an empty map, whatever the record held before.
 *
 * @param kv       the map
 * @param release  for values; NULL for free. A map of values that need no release takes a function
 *                 that does nothing
 */
QOR_API int rbapi_kv_init(rbtree_kv_root *kv, rbapi_kv_release_func release);

/** Clears the map, see rbapi_kv_clear(), and marks it as not initialised. */
QOR_API int rbapi_kv_destroy(rbtree_kv_root *kv);

/**
 * Adds an entry.
 *
 * @param key  a string, copied
 * @param val  the map's from now on
 * @return     0, or -1 without memory or when the key is present; val stays the caller's
 *
 * When the key is present, the copy of the key and the node allocated for the new entry are lost.
 * Where keys may repeat, ask rbapi_kv_find() first.
 */
QOR_API int rbapi_kv_insert(const char *key, void *val, rbtree_kv_root *kv);

/**
 * Looks an entry up.
 *
 * @param val  takes the value, which stays the map's; may be NULL
 * @return     0, or -1 when there is none; val is then untouched
 */
QOR_API int rbapi_kv_find(const char *key, void **val, rbtree_kv_root *kv);

/** Takes an entry out and releases it; -1 when there is none. */
QOR_API int rbapi_kv_erase(const char *key, rbtree_kv_root *kv);

/** Takes all entries out and releases them. */
QOR_API int rbapi_kv_clear(rbtree_kv_root *kv);

/** Returns 1 between init and destroy, else 0. The record must have been zeroed or initialised. */
QOR_API int rbapi_kv_isinit(const rbtree_kv_root *kv);

/** Returns 1 when the map has no entry, else 0; -1 for a NULL map. */
QOR_API int rbapi_kv_isempty(const rbtree_kv_root *kv);

/**
 * Calls fn for every entry, in the order of the tree.
 *
 * @param data  handed to fn
 * @return      0 after the last entry: unlike rbapi_travel(), this walk cannot be ended by fn
 */
QOR_API int rbapi_kv_travel(void *data, rbtree_kv_root *kv, rbapi_kv_travel_func fn);

/** The release function of a map's tree: frees the copy of the key and releases the value. */
QOR_API void rbapi_kv_release(void *key, void *val, rbtree_root *root)
    QOR_LINKED_AS("qor_rbapi_kv_release");

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_RBAPI_KV_H */
