/* SPDX-License-Identifier: Apache-2.0 */
/* Attributes of the library's own threads. */
#ifndef HAL_THREAD_HPP
#define HAL_THREAD_HPP

#include <unistd.h>

#include "qor_hal.h"

/* The smallest stack that the system gives a thread, in bytes, in whole pages. */
inline size_t hal_thread_stack_min()
{
    const long least = sysconf(_SC_THREAD_STACK_MIN);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (static_cast<size_t>(least > 0 ? least : 0) + page - 1) & ~(page - 1); /* a power of 2 */
}

/* Sets a stack size of at least so many bytes: what the system finds too small becomes the smallest
 * that it takes. Returns 0, or non-zero when it refuses that too. */
inline int hal_thread_attr_setstacksize(hal_thread_attr_t *attr, size_t size)
{
    if (pthread_attr_setstacksize(attr, size) == 0) {
        return 0;
    }
    const size_t least = hal_thread_stack_min();
    return pthread_attr_setstacksize(attr, size > least ? size : least);
}

#endif /* HAL_THREAD_HPP */
