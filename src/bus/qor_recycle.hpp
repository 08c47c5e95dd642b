/* SPDX-License-Identifier: Apache-2.0 */
/* Release functions with a typed argument, in the form that records and queues carry. */
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

#endif /* QOR_RECYCLE_HPP */
