/* SPDX-License-Identifier: Apache-2.0 */
/* The dispatchers under the names that the call families use; local to each source. */
#ifndef QOR_CONTEXT_FORWARD_HPP
#define QOR_CONTEXT_FORWARD_HPP

#include "qor_context_handler.h"

static inline int32_t qor_context_publish(qor_context_t *_this, qor_context_msg_t *msg)
{
    return qor_context_handler_publish(_this, msg);
}

static inline int32_t qor_context_publishx(qor_context_t *_this, qor_context_msg_t *msg)
{
    return qor_context_handler_publishx(_this, msg);
}

static inline int32_t qor_context_syscall(qor_context_t *_this, qor_context_msg_t *msg)
{
    return qor_context_handler_syscall(_this, msg);
}

static inline int32_t qor_context_syscallx(qor_context_t *_this, qor_context_msg_t *msg)
{
    return qor_context_handler_syscallx(_this, msg);
}

static inline int32_t qor_context_post(qor_context_t *_this, qor_context_task_t *task)
{
    return qor_context_handler_post(_this, task);
}

/* Deliberate: calls post. The delegate's table has no postx, so a call of that would fail on every
 * context that is attached to the bus. Test: ContextHandler.PostxForwardGoesToPost. */
static inline int32_t qor_context_postx(qor_context_t *_this, qor_context_task_t *task)
{
    return qor_context_handler_post(_this, task);
}

static inline int32_t qor_context_cancel(qor_context_t *_this, int32_t session)
{
    return qor_context_handler_cancel(_this, session);
}

static inline int32_t qor_context_cancelx(qor_context_t *_this, int32_t session)
{
    return qor_context_handler_cancelx(_this, session);
}

#endif /* QOR_CONTEXT_FORWARD_HPP */
