/* SPDX-License-Identifier: Apache-2.0 */
/* The system context: calls the callbacks of its module directly. */
#ifndef QOR_IMPL_CONTEXT_H
#define QOR_IMPL_CONTEXT_H

#include "qor_context.h"

QOR_BEGIN_DECLS

/** A system context. It adds nothing to the base; resource holds its console thread, if any. */
struct qor_impl_context {
    qor_context_t base; /**< first: a pointer to it is one to the whole */
};

/**
 * The class of system contexts, "qor_impl_context", id 0: the built-in modules run in it, and every
 * user context has one inside. Its operations are reached through the qor_context_...() functions;
 * there is no lifecycle, no queue and no lock. resume, pause and loop are empty.
 *
 * - init, uninit, register, unregister and handle_message call the module's callback of the same
 *   purpose. One that the module lacks is reported, such as "!(_this->module->uninit) == true.",
 *   not skipped.
 * - handle_task posts the task through the context's handler table.
 * - start runs the module's console, if it has one, on a thread of its own, named after the module.
 *   The module's stack_size is rounded up to whole 64 KiB and is 64 KiB at least; its priority is
 *   clamped to 1..99 and recorded in a thread attribute that keeps inheriting the creator's
 *   scheduling, so that a console that needs it sets it with hal_thread_setpriority(). Prints "set
 *   thread priority failed." and returns -1 when the attribute cannot be prepared. A thread that
 *   could not be created is not reported: start returns 0 all the same. The console's thread has
 *   cancellation disabled: pthread_cancel() has no effect on it.
 * - stop waits for the console to return by itself; it does not ask it to. Without a console, or
 *   when its thread could not be created, it does nothing.
 * - create prints "malloc "qor_impl_context_t" failed." and an empty line when there is no memory.
 */
QOR_API extern qor_context_cls_t qor_impl_context_class;

QOR_END_DECLS

#endif /* QOR_IMPL_CONTEXT_H */
