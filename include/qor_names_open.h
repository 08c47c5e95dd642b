/* SPDX-License-Identifier: Apache-2.0 */
/* Where QOR_NO_COMMON_NAMES is defined, what follows has the qor_ spelling of each public name that
 * does not begin with qor_ or QOR_, up to qor_names_close.h, which gives a program its own macros
 * of these names back. For the public headers only, behind whatever they include. */
#ifdef QOR_NO_COMMON_NAMES

/* the platform */
#pragma push_macro("hal_thread_t")
#undef hal_thread_t
#define hal_thread_t qor_hal_thread_t
#pragma push_macro("hal_thread_attr_t")
#undef hal_thread_attr_t
#define hal_thread_attr_t qor_hal_thread_attr_t
#pragma push_macro("hal_thread_mutex_t")
#undef hal_thread_mutex_t
#define hal_thread_mutex_t qor_hal_thread_mutex_t
#pragma push_macro("hal_thread_cond_t")
#undef hal_thread_cond_t
#define hal_thread_cond_t qor_hal_thread_cond_t
#pragma push_macro("hal_thread_condattr_t")
#undef hal_thread_condattr_t
#define hal_thread_condattr_t qor_hal_thread_condattr_t
#pragma push_macro("hal_printf")
#undef hal_printf
#define hal_printf qor_hal_printf
#pragma push_macro("hal_snprintf")
#undef hal_snprintf
#define hal_snprintf qor_hal_snprintf
#pragma push_macro("hal_vsnprintf")
#undef hal_vsnprintf
#define hal_vsnprintf qor_hal_vsnprintf
#pragma push_macro("hal_thread_name_set")
#undef hal_thread_name_set
#define hal_thread_name_set qor_hal_thread_name_set
#pragma push_macro("hal_thread_setpriority")
#undef hal_thread_setpriority
#define hal_thread_setpriority qor_hal_thread_setpriority
#pragma push_macro("hal_thread_attr_setpriority")
#undef hal_thread_attr_setpriority
#define hal_thread_attr_setpriority qor_hal_thread_attr_setpriority
#pragma push_macro("list_head")
#undef list_head
#define list_head qor_list_head
#pragma push_macro("__list_add_valid")
#undef __list_add_valid
#define __list_add_valid qor_list_add_valid
#pragma push_macro("__list_del_entry_valid")
#undef __list_del_entry_valid
#define __list_del_entry_valid qor_list_del_entry_valid
#pragma push_macro("INIT_LIST_HEAD")
#undef INIT_LIST_HEAD
#define INIT_LIST_HEAD qor_list_init
#pragma push_macro("__list_add")
#undef __list_add
#define __list_add qor_list_add_between
#pragma push_macro("list_add")
#undef list_add
#define list_add qor_list_add
#pragma push_macro("list_add_tail")
#undef list_add_tail
#define list_add_tail qor_list_add_tail
#pragma push_macro("__list_del_entry")
#undef __list_del_entry
#define __list_del_entry qor_list_del_entry
#pragma push_macro("list_del")
#undef list_del
#define list_del qor_list_del
#pragma push_macro("list_empty")
#undef list_empty
#define list_empty qor_list_empty
#pragma push_macro("hal_timestamp")
#undef hal_timestamp
#define hal_timestamp qor_hal_timestamp
#pragma push_macro("util_timestamp")
#undef util_timestamp
#define util_timestamp qor_util_timestamp
#pragma push_macro("util_timespec")
#undef util_timespec
#define util_timespec qor_util_timespec

/* the tree */
#pragma push_macro("RB_RED")
#undef RB_RED
#define RB_RED QOR_RB_RED
#pragma push_macro("RB_BLACK")
#undef RB_BLACK
#define RB_BLACK QOR_RB_BLACK
#pragma push_macro("rb_node")
#undef rb_node
#define rb_node qor_rb_node
#pragma push_macro("__rb_parent_color")
#undef __rb_parent_color
#define __rb_parent_color qor_rb_parent_color
#pragma push_macro("rb_right")
#undef rb_right
#define rb_right qor_rb_right
#pragma push_macro("rb_left")
#undef rb_left
#define rb_left qor_rb_left
#pragma push_macro("rb_root")
#undef rb_root
#define rb_root qor_rb_root
#pragma push_macro("rb_augment_propagate_t")
#undef rb_augment_propagate_t
#define rb_augment_propagate_t qor_rb_augment_propagate_t
#pragma push_macro("rb_augment_copy_t")
#undef rb_augment_copy_t
#define rb_augment_copy_t qor_rb_augment_copy_t
#pragma push_macro("rb_augment_rotate_t")
#undef rb_augment_rotate_t
#define rb_augment_rotate_t qor_rb_augment_rotate_t
#pragma push_macro("rb_augment_callbacks")
#undef rb_augment_callbacks
#define rb_augment_callbacks qor_rb_augment_callbacks
#pragma push_macro("rb_insert_color")
#undef rb_insert_color
#define rb_insert_color qor_rb_insert_color
#pragma push_macro("__rb_insert_augmented")
#undef __rb_insert_augmented
#define __rb_insert_augmented qor_rb_insert_augmented
#pragma push_macro("rb_erase")
#undef rb_erase
#define rb_erase qor_rb_erase
#pragma push_macro("__rb_erase_color")
#undef __rb_erase_color
#define __rb_erase_color qor_rb_erase_color
#pragma push_macro("rb_first")
#undef rb_first
#define rb_first qor_rb_first
#pragma push_macro("rb_last")
#undef rb_last
#define rb_last qor_rb_last
#pragma push_macro("rb_next")
#undef rb_next
#define rb_next qor_rb_next
#pragma push_macro("rb_prev")
#undef rb_prev
#define rb_prev qor_rb_prev
#pragma push_macro("rb_replace_node")
#undef rb_replace_node
#define rb_replace_node qor_rb_replace_node
#pragma push_macro("rb_first_postorder")
#undef rb_first_postorder
#define rb_first_postorder qor_rb_first_postorder
#pragma push_macro("rb_next_postorder")
#undef rb_next_postorder
#define rb_next_postorder qor_rb_next_postorder
#pragma push_macro("rb_parent")
#undef rb_parent
#define rb_parent qor_rb_parent
#pragma push_macro("__rb_set_parent")
#undef __rb_set_parent
#define __rb_set_parent qor_rb_set_parent
#pragma push_macro("__rb_relink")
#undef __rb_relink
#define __rb_relink qor_rb_relink
#pragma push_macro("__rb_close_gap")
#undef __rb_close_gap
#define __rb_close_gap qor_rb_close_gap
#pragma push_macro("__rb_put_successor")
#undef __rb_put_successor
#define __rb_put_successor qor_rb_put_successor
#pragma push_macro("rb_erase_augmented")
#undef rb_erase_augmented
#define rb_erase_augmented qor_rb_erase_augmented

/* keyed trees */
#pragma push_macro("rbtree_root")
#undef rbtree_root
#define rbtree_root qor_rbtree_root
#pragma push_macro("rbtree_node")
#undef rbtree_node
#define rbtree_node qor_rbtree_node
#pragma push_macro("rbtree_hash_func")
#undef rbtree_hash_func
#define rbtree_hash_func qor_rbtree_hash_func
#pragma push_macro("rbtree_cmp_func")
#undef rbtree_cmp_func
#define rbtree_cmp_func qor_rbtree_cmp_func
#pragma push_macro("rbtree_release_func")
#undef rbtree_release_func
#define rbtree_release_func qor_rbtree_release_func
#pragma push_macro("rbtree_malloc_func")
#undef rbtree_malloc_func
#define rbtree_malloc_func qor_rbtree_malloc_func
#pragma push_macro("rbtree_free_func")
#undef rbtree_free_func
#define rbtree_free_func qor_rbtree_free_func
#pragma push_macro("rbtree_travel_func")
#undef rbtree_travel_func
#define rbtree_travel_func qor_rbtree_travel_func
#pragma push_macro("hash_api")
#undef hash_api
#define hash_api qor_hash_api
#pragma push_macro("buf2uint32")
#undef buf2uint32
#define buf2uint32 qor_buf2uint32
#pragma push_macro("rbtree_string_hash")
#undef rbtree_string_hash
#define rbtree_string_hash qor_rbtree_string_hash
#pragma push_macro("rbtree_init")
#undef rbtree_init
#define rbtree_init qor_rbtree_init
#pragma push_macro("rbtree_destroy")
#undef rbtree_destroy
#define rbtree_destroy qor_rbtree_destroy
#pragma push_macro("rbtree_find")
#undef rbtree_find
#define rbtree_find qor_rbtree_find
#pragma push_macro("rbtree_insert")
#undef rbtree_insert
#define rbtree_insert qor_rbtree_insert
#pragma push_macro("rbtree_remove")
#undef rbtree_remove
#define rbtree_remove qor_rbtree_remove
#pragma push_macro("rbtree_free")
#undef rbtree_free
#define rbtree_free qor_rbtree_free
#pragma push_macro("rbtree_erase")
#undef rbtree_erase
#define rbtree_erase qor_rbtree_erase
#pragma push_macro("rbtree_clear")
#undef rbtree_clear
#define rbtree_clear qor_rbtree_clear
#pragma push_macro("rbtree_travel")
#undef rbtree_travel
#define rbtree_travel qor_rbtree_travel
#pragma push_macro("rbapi_init")
#undef rbapi_init
#define rbapi_init qor_rbapi_init
#pragma push_macro("rbapi_destroy")
#undef rbapi_destroy
#define rbapi_destroy qor_rbapi_destroy
#pragma push_macro("rbapi_insert")
#undef rbapi_insert
#define rbapi_insert qor_rbapi_insert
#pragma push_macro("rbapi_find")
#undef rbapi_find
#define rbapi_find qor_rbapi_find
#pragma push_macro("rbapi_remove")
#undef rbapi_remove
#define rbapi_remove qor_rbapi_remove
#pragma push_macro("rbtapi_free")
#undef rbtapi_free
#define rbtapi_free qor_rbtapi_free
#pragma push_macro("rbapi_erase")
#undef rbapi_erase
#define rbapi_erase qor_rbapi_erase
#pragma push_macro("rbapi_replace")
#undef rbapi_replace
#define rbapi_replace qor_rbapi_replace
#pragma push_macro("rbapi_clear")
#undef rbapi_clear
#define rbapi_clear qor_rbapi_clear
#pragma push_macro("rbapi_travel")
#undef rbapi_travel
#define rbapi_travel qor_rbapi_travel

/* maps from strings */
#pragma push_macro("rbapi_kv_release_func")
#undef rbapi_kv_release_func
#define rbapi_kv_release_func qor_rbapi_kv_release_func
#pragma push_macro("rbapi_kv_travel_func")
#undef rbapi_kv_travel_func
#define rbapi_kv_travel_func qor_rbapi_kv_travel_func
#pragma push_macro("rbtree_kv_root")
#undef rbtree_kv_root
#define rbtree_kv_root qor_rbtree_kv_root
#pragma push_macro("rbapi_kv_init")
#undef rbapi_kv_init
#define rbapi_kv_init qor_rbapi_kv_init
#pragma push_macro("rbapi_kv_destroy")
#undef rbapi_kv_destroy
#define rbapi_kv_destroy qor_rbapi_kv_destroy
#pragma push_macro("rbapi_kv_insert")
#undef rbapi_kv_insert
#define rbapi_kv_insert qor_rbapi_kv_insert
#pragma push_macro("rbapi_kv_find")
#undef rbapi_kv_find
#define rbapi_kv_find qor_rbapi_kv_find
#pragma push_macro("rbapi_kv_erase")
#undef rbapi_kv_erase
#define rbapi_kv_erase qor_rbapi_kv_erase
#pragma push_macro("rbapi_kv_clear")
#undef rbapi_kv_clear
#define rbapi_kv_clear qor_rbapi_kv_clear
#pragma push_macro("rbapi_kv_isinit")
#undef rbapi_kv_isinit
#define rbapi_kv_isinit qor_rbapi_kv_isinit
#pragma push_macro("rbapi_kv_isempty")
#undef rbapi_kv_isempty
#define rbapi_kv_isempty qor_rbapi_kv_isempty
#pragma push_macro("rbapi_kv_travel")
#undef rbapi_kv_travel
#define rbapi_kv_travel qor_rbapi_kv_travel
#pragma push_macro("rbapi_kv_release")
#undef rbapi_kv_release
#define rbapi_kv_release qor_rbapi_kv_release

/* the user context */
#pragma push_macro("E_QOR_USER_CONTEXT_LIFECYCLE_T")
#undef E_QOR_USER_CONTEXT_LIFECYCLE_T
#define E_QOR_USER_CONTEXT_LIFECYCLE_T qor_user_context_lifecycle_t

#endif /* QOR_NO_COMMON_NAMES */
