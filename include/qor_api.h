/* SPDX-License-Identifier: Apache-2.0 */
/* The language layer of every public header: version, export marker, C linkage, format checking. */
#ifndef QOR_API_H
#define QOR_API_H

#include <stddef.h>
#include <stdint.h>

/** The version that a program is compiled for; qor_version() tells the one that it runs with. */
#define QOR_VERSION_MAJOR 1
/** Grows with what is added. */
#define QOR_VERSION_MINOR 0
/** Grows with what is mended. */
#define QOR_VERSION_PATCH 0

/** Marks what the shared library exports; everything else in it is hidden. */
#define QOR_API __attribute__((visibility("default")))

/** Lets the compiler check printf-style arguments: place of the format, place of the first value.
 */
#define QOR_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

/** Has a function or data called by its second name in the program's object, whichever spelling is
 * used in the source: what is compared by its address is one thing, and the other name stays free.
 */
#define QOR_LINKED_AS(name) __asm__(name)

#ifdef __cplusplus
#define QOR_BEGIN_DECLS extern "C" {
#define QOR_END_DECLS }
#else
#define QOR_BEGIN_DECLS
#define QOR_END_DECLS
#endif

QOR_BEGIN_DECLS

/** Returns the library's own version, such as "1.0.0"; valid for ever. Any thread. */
QOR_API const char *qor_version(void);

QOR_END_DECLS

#endif /* QOR_API_H */
