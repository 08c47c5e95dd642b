/* SPDX-License-Identifier: Apache-2.0 */
/* What a system context makes of its module's console. */
#ifndef QOR_IMPL_CONTEXT_PRIV_HPP
#define QOR_IMPL_CONTEXT_PRIV_HPP

#include "qor_impl_context.h"

/* Whether a context of this class that was started has a console without a thread. */
bool impl_console_missing(qor_context_t *context);

#endif /* QOR_IMPL_CONTEXT_PRIV_HPP */
