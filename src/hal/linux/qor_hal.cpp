/* SPDX-License-Identifier: Apache-2.0 */
/* Output: the only place where the library writes to the outside. Names of threads. The clock, for
 * strict ISO C. */
#include "qor_hal.h"

#include <stdio.h>
#include <string.h>

#include "hal_sync.hpp"
#include "qor_diag.hpp"
#include "thread_record.hpp"
#include "trace.hpp"

namespace {

constexpr char file_tag[] = "qor_hal";

const qor_output_t *output; /* NULL: standard output; read without a lock */

/* The level in a line's format, "[%s][err]...". */
int32_t level_of(const char *fmt)
{
    constexpr char tag[] = "[%s][";
    constexpr size_t length = sizeof(tag) - 1;
    if (strncmp(fmt, tag, length) != 0) {
        return QOR_LEVEL_INF;
    }
    if (strncmp(fmt + length, "err]", 4) == 0) {
        return QOR_LEVEL_ERR;
    }
    return strncmp(fmt + length, "wrn]", 4) == 0 ? QOR_LEVEL_WRN : QOR_LEVEL_INF;
}

/* Hands a line to the sink: false when there is none, or the thread is inside it. */
bool output_taken(const char *fmt, va_list ap)
{
    const qor_output_t *to = hal_load(output);
    if (!to) {
        return false;
    }
    thread_record_here here;
    thread_record &record = here.get();
    if (record.printing) {
        return false;
    }
    record.printing = 1;
    to->write(to->arg, level_of(fmt), fmt, ap);
    record.printing = 0;
    return true;
}

} // namespace

void hal_printf(const char *fmt, ...)
{
    __atomic_fetch_add(&diag_lines, 1, __ATOMIC_RELAXED);
    va_list ap;
    va_start(ap, fmt);
    if (trace_on(QOR_TRACE_LINES)) {
        trace_recorder().line(level_of(fmt), fmt, ap);
    }
    if (!output_taken(fmt, ap)) {
        vprintf(fmt, ap);
        fflush(stdout);
    }
    va_end(ap);
}

void qor_output_set(const qor_output_t *to)
{
    QOR_CHECK_VOID(!to || to->write);
    QOR_CHECK_VOID(thread_records_open() == 0); /* a thread inside the sink must be known */
    hal_store(output, to);
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

QOR_COMMON_NAME(hal_printf);
QOR_COMMON_NAME(hal_snprintf);
QOR_COMMON_NAME(hal_vsnprintf);
QOR_COMMON_NAME(hal_timestamp);
QOR_COMMON_NAME(hal_thread_name_set);
