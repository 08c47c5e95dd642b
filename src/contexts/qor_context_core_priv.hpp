/* SPDX-License-Identifier: Apache-2.0 */
/* What the process's class registry would do. */
#ifndef QOR_CONTEXT_CORE_PRIV_HPP
#define QOR_CONTEXT_CORE_PRIV_HPP

#include "qor_context_core.h"

/* The class that default_core serves an id with, or NULL. Constructs nothing: before its first use
 * that is the system class alone. */
const qor_context_cls_t *context_core_class(int32_t id);

#endif /* QOR_CONTEXT_CORE_PRIV_HPP */
