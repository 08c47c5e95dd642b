/* SPDX-License-Identifier: Apache-2.0 */
/* What inspection offers to those who also look into a bus: reading a bus, and lines of text. */
#ifndef INFO_HPP
#define INFO_HPP

#include "qor_inspect.h"

/* A line that is put together piece by piece. Longer than any, whatever its numbers; what is too
 * much for it is cut off. */
struct text_line {
    char text[1024];
    size_t length; /* 0 at first */
};

void text_add(text_line &to, const char *format, ...) QOR_PRINTF(2, 3);

/* Adds what qor_bus_dump() says of a record. */
void text_add_info(text_line &to, int32_t kind, const void *info);

/* Reads all of a bus but the size. */
void info_bus_read(const qor_bus_t *bus, qor_info_bus_t &info);

#endif /* INFO_HPP */
