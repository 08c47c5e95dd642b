/* SPDX-License-Identifier: Apache-2.0 */
/* Output: the only place where the library writes to the outside. Names of threads. The clock, for
 * strict ISO C. */
#include "qor_hal.h"

#include <stdio.h>
#include <string.h>

#include "thread_record.hpp"

void hal_printf(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
}

int hal_snprintf(char *str, const int len, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int written = hal_vsnprintf(str, len, fmt, ap);
    va_end(ap);
    return written;
}

int hal_vsnprintf(char *str, const int len, const char *format, va_list ap)
{
    return vsnprintf(str, static_cast<size_t>(len), format, ap);
}

int64_t hal_timestamp(void)
{
    return util_timestamp();
}

int hal_thread_name_set(const char *thread_name)
{
    thread_record *record = thread_record_get();
    if (!record || !thread_name) {
        return prctl(PR_SET_NAME, thread_name);
    }
    constexpr size_t longest = sizeof(record->name) - 1;
    if (record->named && strncmp(record->name, thread_name, longest) == 0) {
        return 0; /* asking the kernel costs as much as the hand-over of a task */
    }
    const size_t length = strnlen(thread_name, longest);
    memcpy(record->name, thread_name, length);
    record->name[length] = '\0';
    record->named = 1;
    return prctl(PR_SET_NAME, record->name);
}
