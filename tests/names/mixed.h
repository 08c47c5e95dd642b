/* SPDX-License-Identifier: Apache-2.0 */
/* What a unit with the library's common names and one without hand each other: the same records,
 * under both names of their types, so they go as what they are made of. */
#ifndef QOR_TESTS_MIXED_H
#define QOR_TESTS_MIXED_H

#include "qor.h"

QOR_BEGIN_DECLS

/** Fills a keyed tree with the bytes of a string as keys; returns how many are in. */
int prefixed_fill(void *keyed_tree, const char *keys);

/** Puts a link in front of a list; returns how many it has then. */
int prefixed_put(void *list, void *link);

/** Walks over a queue's own list; returns how many nodes it has. */
int prefixed_count(qor_que_t *que);

/** Whether a map of strings has the functions that this unit knows for such maps. */
int prefixed_knows(void *string_map);

QOR_END_DECLS

#endif /* QOR_TESTS_MIXED_H */
