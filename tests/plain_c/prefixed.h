/* SPDX-License-Identifier: Apache-2.0 */
/* Stands in front of a source of the program, which is compiled once more with it: then that uses
 * the library's names in their qor_ spelling, and checks under a name of its own. */
#ifndef QOR_TESTS_PREFIXED_H
#define QOR_TESTS_PREFIXED_H

#define QOR_NO_COMMON_NAMES
#include "qor.h"

#include "qor_names_open.h" /* and never closed */

#define check_platform check_prefixed_platform
#define check_tree check_prefixed_tree
#define check_maps check_prefixed_maps

#endif /* QOR_TESTS_PREFIXED_H */
