/* SPDX-License-Identifier: Apache-2.0 */
/* Output: the only place where the library writes to the outside. The clock, for strict ISO C. */
#include "qor_hal.h"

#include <stdio.h>

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
