/* SPDX-License-Identifier: Apache-2.0 */
/* Keyed trees: nodes are ordered by the hash of their key, then by a comparison. The functions
 * rbtree_*() link nodes that the caller owns, rbapi_*() allocate and free the nodes themselves. One
 * tree takes nodes of one kind only.
 *
 * All functions return 0 on success and -1 on failure, or a node or NULL, unless they say
 * otherwise; a NULL tree or node is a failure. They take no lock, print nothing and may be called
 * from any thread, one at a time for each tree. */
#ifndef QOR_RBAPI_H
#define QOR_RBAPI_H

#include "rbtree.h"

#include "qor_names_open.h"

QOR_BEGIN_DECLS

typedef struct rbtree_root rbtree_root;

/** An entry: embedded or owned by the caller, or made by rbapi_insert(). */
typedef struct rbtree_node {
    rb_node node; /**< its place in the tree */
    void *key;    /**< what the tree is ordered by; must not change its hash while linked */
    void *val;    /**< the caller's */
} rbtree_node;

/**
 * Computes the hash of a key. Called for the key looked for and for the key of every node on the
 * way: hashes are not stored, so a slow function slows every operation.
 */
typedef size_t (*rbtree_hash_func)(const void *key);

/** Compares two keys of equal hash: negative, 0 or positive as strcmp does. */
typedef int (*rbtree_cmp_func)(const void *first, const void *second);

/** Releases what a node refers to, when it is freed or erased; it is out of the tree by then. */
typedef void (*rbtree_release_func)(void *key, void *val, rbtree_root *root);

/** Allocates a node of rbapi_insert(); NULL when there is no memory. */
typedef void *(*rbtree_malloc_func)(size_t size);

/** Frees such a node. */
typedef void (*rbtree_free_func)(void *node);

/**
 * Visits a node on a walk. It may erase this very node, but no other.
 *
 * @return  negative to end the walk
 */
typedef int (*rbtree_travel_func)(void *data, rbtree_node *node, rbtree_root *root);

/** A keyed tree. Change its fields only through the functions. */
struct rbtree_root {
    rb_root root;                 /**< smaller hashes to the left; equal ones by cmp */
    rbtree_hash_func hash;        /**< never NULL */
    rbtree_cmp_func cmp;          /**< NULL: keys of equal hash are the same key */
    rbtree_release_func release;  /**< for the contents of nodes */
    rbtree_malloc_func my_malloc; /**< for nodes of rbapi_insert() */
    rbtree_free_func my_free;     /**< for nodes of rbapi_insert() */
    int count;                    /**< linked nodes */
    int __initialized__;          /**< 1 from init to destroy */
};

/**
 * Hashes a block with a 32-bit MurmurHash2 of its own kind: full blocks of four bytes are read with
 * buf2uint32(), so that the first byte of each has no influence.
 *
 * @param buf   the bytes, without alignment
 * @param len   their number
 * @param seed  a start value
 */
QOR_API uint32_t hash_api(const void *buf, size_t len, uint32_t seed);

/**
 * Reads four bytes b0 to b3 as b1 * 2^24 + b2 * 2^16 + b3 * 2^8: the first byte does not count.
 * Hash values that applications have stored depend on it.
 */
QOR_API uint32_t buf2uint32(const void *buf);

/** Hashes a NUL-terminated string: hash_api() with the seed 0xaa55aa55. */
QOR_API size_t rbtree_string_hash(const void *str) QOR_LINKED_AS("qor_rbtree_string_hash");

/**
 * Makes an empty tree, whatever the record held before.
 *
 * @param root     the tree
 * @param hash     NULL for the value of the key pointer itself
 * @param cmp      NULL if keys of equal hash are the same key
 * @param release  NULL for one that does nothing
 */
QOR_API int rbtree_init(rbtree_root *root, rbtree_hash_func hash, rbtree_cmp_func cmp,
                        rbtree_release_func release);

/** Clears the tree, see rbtree_clear(), and marks it as not initialised. */
QOR_API int rbtree_destroy(rbtree_root *root);

/** Returns the node with this key, or NULL. */
QOR_API rbtree_node *rbtree_find(const void *key, rbtree_root *root);

/**
 * Links a node whose key is set; its links need no preparation.
 *
 * @return  0, or -1 when an equal key is present: the node is then untouched and the caller's
 */
QOR_API int rbtree_insert(rbtree_node *node, rbtree_root *root);

/** Takes a linked node out; the caller owns it with its contents. */
QOR_API int rbtree_remove(rbtree_node *node, rbtree_root *root);

/**
 * Calls release() for the contents of a node that is out of the tree, then sets its key and val to
 * NULL. The node's own memory is the caller's.
 */
QOR_API int rbtree_free(rbtree_node *node, rbtree_root *root);

/** Takes a linked node out and releases its contents: rbtree_remove(), then rbtree_free(). */
QOR_API int rbtree_erase(rbtree_node *node, rbtree_root *root);

/** Erases all nodes in order. */
QOR_API int rbtree_clear(rbtree_root *root);

/**
 * Calls fn for every node in order. The next node is chosen before the call.
 *
 * @param data  handed to fn
 * @return      0 after the last node, -1 when fn ended the walk
 */
QOR_API int rbtree_travel(void *data, rbtree_root *root, rbtree_travel_func fn);

/**
 * Makes an empty tree that owns its nodes, see rbtree_init().
 *
 * @param my_malloc  allocates the nodes; NULL for malloc
 * @param my_free    frees them; NULL for free
 */
QOR_API int rbapi_init(rbtree_root *root, rbtree_hash_func hash, rbtree_cmp_func cmp,
                       rbtree_release_func release, rbtree_malloc_func my_malloc,
                       rbtree_free_func my_free);

/** Clears the tree, see rbapi_clear(), and marks it as not initialised. */
QOR_API int rbapi_destroy(rbtree_root *root);

/**
 * Adds an entry.
 *
 * @param key  handed to release() when the entry is erased
 * @param val  handed to release() when the entry is erased
 * @return     0, or -1 without memory or when an equal key is present; key and val stay the
 *             caller's
 *
 * When an equal key is present, the node that was allocated for the new entry is lost: it is
 * neither linked nor freed. Where keys may repeat, ask rbapi_find() first or use rbapi_replace().
 */
QOR_API int rbapi_insert(void *key, void *val, rbtree_root *root);

/**
 * Looks an entry up.
 *
 * @param val  takes its value; may be NULL
 * @return     0, or -1 when there is none; val is then untouched
 */
QOR_API int rbapi_find(const void *key, void **val, rbtree_root *root);

/**
 * Takes an entry out without releasing its contents.
 *
 * @return  its node, now the caller's, who ends it with rbtapi_free(), or NULL when there is none
 */
QOR_API rbtree_node *rbapi_remove(const void *key, rbtree_root *root);

/** Releases the contents of a node that rbapi_remove() returned, then its memory with my_free(). */
QOR_API int rbtapi_free(rbtree_node *node, rbtree_root *root);

/** Takes an entry out and frees it with its contents; -1 when there is none. */
QOR_API int rbapi_erase(const void *key, rbtree_root *root);

/**
 * Adds an entry in place of the one with an equal key, if there is one: that one is erased first,
 * so key must not be memory that release() frees with it, and is gone when there is no memory for
 * the new one.
 */
QOR_API int rbapi_replace(void *key, void *val, rbtree_root *root);

/** Erases all entries in order and frees their nodes. */
QOR_API int rbapi_clear(rbtree_root *root);

/** The walk of rbtree_travel(), under the name of this layer. */
QOR_API int rbapi_travel(void *data, rbtree_root *root, rbtree_travel_func fn);

QOR_END_DECLS

#include "qor_names_close.h"

#endif /* QOR_RBAPI_H */
