/* SPDX-License-Identifier: Apache-2.0 */
/* Diagnostic lines and argument checks. Each source defines its file_tag before it uses them. */
#ifndef QOR_DIAG_HPP
#define QOR_DIAG_HPP

#include "qor_hal.h"

/* Lines that the process has printed through hal_printf(), modulo 2^32; changed atomically. */
extern uint32_t diag_lines;

/* Prints "!(<cond>) == true.". */
void qor_check_print(const char *tag, const char *func, int line, const char *cond);

/* The same for one source. Out of line, so that the many checks do not load the tag. */
template <const char *tag>
[[gnu::noinline]] void qor_check_failed(const char *func, int line, const char *cond)
{
    qor_check_print(tag, func, line, cond);
}

/* One line at the given level, a literal that becomes part of the format. A macro, because function
 * and line are the caller's. */
#define QOR_LINE(level, func, format, ...) \
    hal_printf("[%s][" level "][%s][%d]:" format "\n", file_tag, func, __LINE__, ##__VA_ARGS__)

#define QOR_ERR(format, ...) QOR_LINE("err", __func__, format, ##__VA_ARGS__)
/* Deliberate: an err line followed by an empty one. These texts have always brought a newline of
 * their own, and logs are read with it. Test: TopicCore.WithoutTopicsRejectsEveryNumber.
 */
#define QOR_ERR_SPACED(text) QOR_ERR(text "\n")
#define QOR_WRN(format, ...) QOR_LINE("wrn", __func__, format, ##__VA_ARGS__)
#define QOR_INF(format, ...) QOR_LINE("inf", __func__, format, ##__VA_ARGS__)

/* Leaves the calling function with result unless cond holds. #cond stays in the outermost macro:
 * one level deeper, macros inside the condition would be expanded before they are printed. */
#define QOR_CHECK(cond, result)                                    \
    do {                                                           \
        if (!(cond)) {                                             \
            qor_check_failed<file_tag>(__func__, __LINE__, #cond); \
            return result;                                         \
        }                                                          \
    } while (0)

/* The same in a function without result. */
#define QOR_CHECK_VOID(cond)                                       \
    do {                                                           \
        if (!(cond)) {                                             \
            qor_check_failed<file_tag>(__func__, __LINE__, #cond); \
            return;                                                \
        }                                                          \
    } while (0)

/* The same where the expression and the printed text differ, as for a field read by hal_load(). */
#define QOR_CHECK_TEXT(cond, text, result)                        \
    do {                                                          \
        if (!(cond)) {                                            \
            qor_check_failed<file_tag>(__func__, __LINE__, text); \
            return result;                                        \
        }                                                         \
    } while (0)

#endif /* QOR_DIAG_HPP */
