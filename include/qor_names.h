/* SPDX-License-Identifier: Apache-2.0 */
/* A second spelling, qor_ or QOR_ and the name, for what is public under other names: the types and
 * functions are the same ones, as their headers describe them. With QOR_NO_COMMON_NAMES, defined
 * before the first of the library's headers, this is the only spelling: then a program has the
 * others for itself, as types, functions and macros, before these headers and after them.
 *
 * Leading underscores go, and three names are new: qor_list_init() is INIT_LIST_HEAD(),
 * qor_list_add_between() is __list_add(), qor_user_context_lifecycle_t is in qor_core_context.h.
 * qor_context_head is in qor_main.h, qor_default_core in qor_context_core.h.
 *
 * Units of both kinds go into one program. A program that has functions or data of these names
 * itself may be linked with either library, which goes on using its own. */
#ifndef QOR_NAMES_H
#define QOR_NAMES_H

#ifndef QOR_NO_COMMON_NAMES

#include "qor_hal.h"
#include "rbapi.h"
#include "rbapi_kv.h"
#include "rbtree.h"

QOR_BEGIN_DECLS

/* Colours. */
enum { QOR_RB_RED = RB_RED, QOR_RB_BLACK = RB_BLACK };

typedef hal_thread_t qor_hal_thread_t;
typedef hal_thread_attr_t qor_hal_thread_attr_t;
typedef hal_thread_mutex_t qor_hal_thread_mutex_t;
typedef hal_thread_cond_t qor_hal_thread_cond_t;
typedef hal_thread_condattr_t qor_hal_thread_condattr_t;
typedef list_head qor_list_head;

typedef rb_node qor_rb_node;
typedef rb_root qor_rb_root;
typedef rb_augment_propagate_t qor_rb_augment_propagate_t;
typedef rb_augment_copy_t qor_rb_augment_copy_t;
typedef rb_augment_rotate_t qor_rb_augment_rotate_t;
typedef rb_augment_callbacks qor_rb_augment_callbacks;

typedef rbtree_root qor_rbtree_root;
typedef rbtree_node qor_rbtree_node;
typedef rbtree_hash_func qor_rbtree_hash_func;
typedef rbtree_cmp_func qor_rbtree_cmp_func;
typedef rbtree_release_func qor_rbtree_release_func;
typedef rbtree_malloc_func qor_rbtree_malloc_func;
typedef rbtree_free_func qor_rbtree_free_func;
typedef rbtree_travel_func qor_rbtree_travel_func;

typedef rbapi_kv_release_func qor_rbapi_kv_release_func;
typedef rbapi_kv_travel_func qor_rbapi_kv_travel_func;
typedef rbtree_kv_root qor_rbtree_kv_root;

/** Lines, texts and threads: as the functions without the prefix. */
QOR_API void qor_hal_printf(const char *fmt, ...) QOR_PRINTF(1, 2);
QOR_API int qor_hal_snprintf(char *str, const int len, const char *fmt, ...) QOR_PRINTF(3, 4);
QOR_API int qor_hal_vsnprintf(char *str, const int len, const char *format, va_list ap)
    QOR_PRINTF(3, 0);
QOR_API int qor_hal_thread_name_set(const char *thread_name);
QOR_API int64_t qor_hal_timestamp(void);

/** The tree: as the functions without the prefix. */
QOR_API void qor_rb_insert_color(qor_rb_node *node, qor_rb_root *root);
QOR_API void qor_rb_insert_augmented(qor_rb_node *node, qor_rb_root *root,
                                     qor_rb_augment_rotate_t augment_rotate);
QOR_API void qor_rb_erase(qor_rb_node *node, qor_rb_root *root);
QOR_API void qor_rb_erase_color(qor_rb_node *parent, qor_rb_root *root,
                                qor_rb_augment_rotate_t augment_rotate);
QOR_API qor_rb_node *qor_rb_first(const qor_rb_root *root);
QOR_API qor_rb_node *qor_rb_last(const qor_rb_root *root);
QOR_API qor_rb_node *qor_rb_next(const qor_rb_node *node);
QOR_API qor_rb_node *qor_rb_prev(const qor_rb_node *node);
QOR_API void qor_rb_replace_node(qor_rb_node *victim, qor_rb_node *new_node, qor_rb_root *root);
QOR_API qor_rb_node *qor_rb_first_postorder(const qor_rb_root *root);
QOR_API qor_rb_node *qor_rb_next_postorder(const qor_rb_node *node);

/** Keyed trees: as the functions without the prefix. */
QOR_API uint32_t qor_hash_api(const void *buf, size_t len, uint32_t seed);
QOR_API uint32_t qor_buf2uint32(const void *buf);
QOR_API size_t qor_rbtree_string_hash(const void *str);
QOR_API int qor_rbtree_init(qor_rbtree_root *root, qor_rbtree_hash_func hash,
                            qor_rbtree_cmp_func cmp, qor_rbtree_release_func release);
QOR_API int qor_rbtree_destroy(qor_rbtree_root *root);
QOR_API qor_rbtree_node *qor_rbtree_find(const void *key, qor_rbtree_root *root);
QOR_API int qor_rbtree_insert(qor_rbtree_node *node, qor_rbtree_root *root);
QOR_API int qor_rbtree_remove(qor_rbtree_node *node, qor_rbtree_root *root);
QOR_API int qor_rbtree_free(qor_rbtree_node *node, qor_rbtree_root *root);
QOR_API int qor_rbtree_erase(qor_rbtree_node *node, qor_rbtree_root *root);
QOR_API int qor_rbtree_clear(qor_rbtree_root *root);
QOR_API int qor_rbtree_travel(void *data, qor_rbtree_root *root, qor_rbtree_travel_func fn);
QOR_API int qor_rbapi_init(qor_rbtree_root *root, qor_rbtree_hash_func hash,
                           qor_rbtree_cmp_func cmp, qor_rbtree_release_func release,
                           qor_rbtree_malloc_func my_malloc, qor_rbtree_free_func my_free);
QOR_API int qor_rbapi_destroy(qor_rbtree_root *root);
QOR_API int qor_rbapi_insert(void *key, void *val, qor_rbtree_root *root);
QOR_API int qor_rbapi_find(const void *key, void **val, qor_rbtree_root *root);
QOR_API qor_rbtree_node *qor_rbapi_remove(const void *key, qor_rbtree_root *root);
QOR_API int qor_rbtapi_free(qor_rbtree_node *node, qor_rbtree_root *root);
QOR_API int qor_rbapi_erase(const void *key, qor_rbtree_root *root);
QOR_API int qor_rbapi_replace(void *key, void *val, qor_rbtree_root *root);
QOR_API int qor_rbapi_clear(qor_rbtree_root *root);
QOR_API int qor_rbapi_travel(void *data, qor_rbtree_root *root, qor_rbtree_travel_func fn);

/** Maps from strings: as the functions without the prefix. */
QOR_API int qor_rbapi_kv_init(qor_rbtree_kv_root *kv, qor_rbapi_kv_release_func release);
QOR_API int qor_rbapi_kv_destroy(qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_insert(const char *key, void *val, qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_find(const char *key, void **val, qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_erase(const char *key, qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_clear(qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_isinit(const qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_isempty(const qor_rbtree_kv_root *kv);
QOR_API int qor_rbapi_kv_travel(void *data, qor_rbtree_kv_root *kv, qor_rbapi_kv_travel_func fn);
QOR_API void qor_rbapi_kv_release(void *key, void *val, qor_rbtree_root *root);

/** hal_thread_setpriority() by its second name. */
static inline void qor_hal_thread_setpriority(int priority)
{
    hal_thread_setpriority(priority);
}

/** hal_thread_attr_setpriority() by its second name. */
static inline int qor_hal_thread_attr_setpriority(qor_hal_thread_attr_t *attr, int priority)
{
    return hal_thread_attr_setpriority(attr, priority);
}

/** INIT_LIST_HEAD() by its second name. */
static inline void qor_list_init(qor_list_head *list)
{
    INIT_LIST_HEAD(list);
}

/** __list_add() by its second name. */
static inline void qor_list_add_between(qor_list_head *entry, qor_list_head *prev,
                                        qor_list_head *next)
{
    __list_add(entry, prev, next);
}

/** list_add() by its second name. */
static inline void qor_list_add(qor_list_head *entry, qor_list_head *head)
{
    list_add(entry, head);
}

/** list_add_tail() by its second name. */
static inline void qor_list_add_tail(qor_list_head *entry, qor_list_head *head)
{
    list_add_tail(entry, head);
}

/** list_del() by its second name. */
static inline void qor_list_del(qor_list_head *entry)
{
    list_del(entry);
}

/** list_empty() by its second name. */
static inline int qor_list_empty(const qor_list_head *head)
{
    return list_empty(head);
}

/** util_timestamp() by its second name. */
static inline int64_t qor_util_timestamp(void)
{
    return util_timestamp();
}

/** util_timespec() by its second name. */
static inline void qor_util_timespec(int64_t timestamp, struct timespec *ts)
{
    util_timespec(timestamp, ts);
}

/** rb_parent() by its second name. */
static inline qor_rb_node *qor_rb_parent(const qor_rb_node *node)
{
    return rb_parent(node);
}

/** rb_erase_augmented() by its second name. */
static inline void qor_rb_erase_augmented(qor_rb_node *node, qor_rb_root *root,
                                          const qor_rb_augment_callbacks *augment)
{
    rb_erase_augmented(node, root, augment);
}

QOR_END_DECLS

#endif /* QOR_NO_COMMON_NAMES */

#endif /* QOR_NAMES_H */
