/* SPDX-License-Identifier: Apache-2.0 */
/* Small helpers of the sources: allocation, the record around a member, walking a list. */
#ifndef QOR_UTIL_HPP
#define QOR_UTIL_HPP

#include <stdlib.h>
#include <string.h>

#include "qor_hal.h"

/* Allocations that have failed in the process, modulo 2^32; changed atomically. */
extern uint32_t util_memory_missed;

/* Counts an allocation that has failed. Gives NULL. */
void *util_memory_missing();

/* The result of an allocation, which is counted if it has failed. */
inline void *util_memory(void *memory)
{
    return memory ? memory : util_memory_missing();
}

/* So many zeroed bytes, or NULL without memory. */
void *util_memory_zeroed(size_t size);

/* A zeroed record, followed by extra bytes; NULL without memory. Goes back with free(). */
template <typename T> inline T *util_zalloc(size_t extra = 0)
{
    return static_cast<T *>(util_memory_zeroed(sizeof(T) + extra));
}

/* Copies a module's or class's name, of which nothing is read beyond its 20 bytes, into zeroed
 * ones: what is not terminated there is cut off. */
inline void util_name_copy(char (&to)[20], const char *name)
{
    memcpy(to, name, strnlen(name, sizeof(to) - 1));
}

/* The record that holds a link: util_container<qor_context_t, offsetof(qor_context_t, node)>(link).
 */
template <typename T, size_t offset> inline T *util_container(list_head *link)
{
    return reinterpret_cast<T *>(reinterpret_cast<char *>(link) - offset);
}

/* Calls visit(link) for every entry of a list; the visit may take its own entry out. The caller
 * holds the list's lock. */
template <typename F> inline void util_list_each(list_head &head, F visit)
{
    for (list_head *link = head.next, *next; link != &head; link = next) {
        next = link->next;
        visit(link);
    }
}

#endif /* QOR_UTIL_HPP */
