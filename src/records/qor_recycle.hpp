/* SPDX-License-Identifier: Apache-2.0 */
/* Release and task functions with a typed argument, in the form that records and queues carry. */
#ifndef QOR_RECYCLE_HPP
#define QOR_RECYCLE_HPP

#include "qor_types.h"

/* The one place that converts a release function. A wrapper of the right type would be cleaner C++,
 * but callers compare the recycle fields with the public functions (a queue's is
 * qor_context_task_uninit), so the function itself must stand there. All data pointers are passed
 * alike on the systems that the library runs on. */
template <typename T> inline qor_context_recycle_t recycle_of(void (*release)(T *))
{
    return reinterpret_cast<qor_context_recycle_t>(release);
}

/* The same for the library's own task functions (start-up, a user context's loop), whose results
 * are dropped: a caller recognises the first task of a bus by qor_main itself. */
template <typename R, typename T> inline qor_context_run_t run_of(R (*run)(T *))
{
    using any_function = void (*)(); /* what compilers accept as a step in between */
    return reinterpret_cast<qor_context_run_t>(reinterpret_cast<any_function>(run));
}

#endif /* QOR_RECYCLE_HPP */
