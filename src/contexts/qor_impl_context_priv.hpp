/* SPDX-License-Identifier: Apache-2.0 */
/* What a system context makes of its module's console. */
#ifndef QOR_IMPL_CONTEXT_PRIV_HPP
#define QOR_IMPL_CONTEXT_PRIV_HPP

#include "qor_impl_context.h"

/* The priority that the console's thread is made with. */
int32_t impl_console_priority(const qor_context_module_t *module);

/* Whether the system takes no attribute with the console's stack size: the thread then has the
 * default one. */
bool impl_console_stack_refused(const qor_context_module_t *module);

/* Whether a context of this class that was started has a console without a thread. */
bool impl_console_missing(qor_context_t *context);

#endif /* QOR_IMPL_CONTEXT_PRIV_HPP */
