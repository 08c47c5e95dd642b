/* SPDX-License-Identifier: Apache-2.0 */
/* What the library's functions with common names are called inside. A program may have functions of
 * these names itself, and the library goes on calling its own; outside, the common name is an
 * alias. The command line includes this in front of every source. rbtree_string_hash and
 * rbapi_kv_release, whose addresses callers compare, have their names from the headers. */
#ifndef OWN_NAMES_HPP
#define OWN_NAMES_HPP

#pragma redefine_extname context_head qor_context_head
#pragma redefine_extname default_core qor_default_core
#pragma redefine_extname hal_printf qor_hal_printf
#pragma redefine_extname hal_snprintf qor_hal_snprintf
#pragma redefine_extname hal_thread_name_set qor_hal_thread_name_set
#pragma redefine_extname hal_timestamp qor_hal_timestamp
#pragma redefine_extname hal_vsnprintf qor_hal_vsnprintf
#pragma redefine_extname __rb_erase_color qor_rb_erase_color
#pragma redefine_extname __rb_insert_augmented qor_rb_insert_augmented
#pragma redefine_extname rb_erase qor_rb_erase
#pragma redefine_extname rb_first qor_rb_first
#pragma redefine_extname rb_first_postorder qor_rb_first_postorder
#pragma redefine_extname rb_insert_color qor_rb_insert_color
#pragma redefine_extname rb_last qor_rb_last
#pragma redefine_extname rb_next qor_rb_next
#pragma redefine_extname rb_next_postorder qor_rb_next_postorder
#pragma redefine_extname rb_prev qor_rb_prev
#pragma redefine_extname rb_replace_node qor_rb_replace_node
#pragma redefine_extname buf2uint32 qor_buf2uint32
#pragma redefine_extname hash_api qor_hash_api
#pragma redefine_extname rbtree_clear qor_rbtree_clear
#pragma redefine_extname rbtree_destroy qor_rbtree_destroy
#pragma redefine_extname rbtree_erase qor_rbtree_erase
#pragma redefine_extname rbtree_find qor_rbtree_find
#pragma redefine_extname rbtree_free qor_rbtree_free
#pragma redefine_extname rbtree_init qor_rbtree_init
#pragma redefine_extname rbtree_insert qor_rbtree_insert
#pragma redefine_extname rbtree_remove qor_rbtree_remove
#pragma redefine_extname rbtree_travel qor_rbtree_travel
#pragma redefine_extname rbapi_clear qor_rbapi_clear
#pragma redefine_extname rbapi_destroy qor_rbapi_destroy
#pragma redefine_extname rbapi_erase qor_rbapi_erase
#pragma redefine_extname rbapi_find qor_rbapi_find
#pragma redefine_extname rbapi_init qor_rbapi_init
#pragma redefine_extname rbapi_insert qor_rbapi_insert
#pragma redefine_extname rbapi_remove qor_rbapi_remove
#pragma redefine_extname rbapi_replace qor_rbapi_replace
#pragma redefine_extname rbapi_travel qor_rbapi_travel
#pragma redefine_extname rbtapi_free qor_rbtapi_free
#pragma redefine_extname rbapi_kv_clear qor_rbapi_kv_clear
#pragma redefine_extname rbapi_kv_destroy qor_rbapi_kv_destroy
#pragma redefine_extname rbapi_kv_erase qor_rbapi_kv_erase
#pragma redefine_extname rbapi_kv_find qor_rbapi_kv_find
#pragma redefine_extname rbapi_kv_init qor_rbapi_kv_init
#pragma redefine_extname rbapi_kv_insert qor_rbapi_kv_insert
#pragma redefine_extname rbapi_kv_isempty qor_rbapi_kv_isempty
#pragma redefine_extname rbapi_kv_isinit qor_rbapi_kv_isinit
#pragma redefine_extname rbapi_kv_travel qor_rbapi_kv_travel

/* Gives a function its common name too, behind the definition. Weak: of a program that is linked
 * statically, a function of its own by that name comes first. */
#define QOR_COMMON_NAME(function) QOR_ALIAS(function, #function, "qor_" #function)
#define QOR_ALIAS(function, alias_name, symbol)                                \
    extern "C" QOR_API __typeof(function) other_##function __asm__(alias_name) \
        __attribute__((weak, nothrow, alias(symbol)))

/* The same for data. The linker that copies it into a program, for the sake of the common name,
 * moves both names there, so that library and program go on sharing it: as long as one of them is
 * weak. */
#define QOR_COMMON_DATA(type, data) \
    extern "C" QOR_API type other_##data __asm__(#data) __attribute__((weak, alias("qor_" #data)))

#endif /* OWN_NAMES_HPP */
