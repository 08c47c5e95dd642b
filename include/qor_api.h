/* SPDX-License-Identifier: Apache-2.0 */
/* The language layer of every public header: export marker, C linkage, format checking. */
#ifndef QOR_API_H
#define QOR_API_H

#include <stddef.h>
#include <stdint.h>

/** Marks what the shared library exports; everything else in it is hidden. */
#define QOR_API __attribute__((visibility("default")))

/** Lets the compiler check printf-style arguments: number of the format, number of the first value.
 */
#define QOR_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

#ifdef __cplusplus
#define QOR_BEGIN_DECLS extern "C" {
#define QOR_END_DECLS }
#else
#define QOR_BEGIN_DECLS
#define QOR_END_DECLS
#endif

#endif /* QOR_API_H */
