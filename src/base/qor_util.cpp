/* SPDX-License-Identifier: Apache-2.0 */
/* Allocation, and a count of what could not be had. */
#include "qor_util.hpp"

uint32_t util_memory_missed;

void *util_memory_missing()
{
    __atomic_fetch_add(&util_memory_missed, 1, __ATOMIC_RELAXED);
    return nullptr;
}

void *util_memory_zeroed(size_t size)
{
    return util_memory(calloc(1, size));
}
