/* SPDX-License-Identifier: Apache-2.0 */
/* The table of deferred requests: an array that grows, and is freed when nothing is in it. */
#include "deferral_table.hpp"

#include <stdlib.h>

#include "qor_util.hpp"

namespace {

constexpr uint32_t table_first = 8; /* entries */

deferral *table; /* NULL while nothing is in it */
uint32_t table_size;
uint32_t table_used;
uint32_t table_free; /* index; good when table_used < table_size */
int32_t last_serial;

/* true, or false without memory. */
bool table_grow()
{
    const uint32_t size = table_size ? 2 * table_size : table_first;
    deferral *larger =
        static_cast<deferral *>(util_memory(realloc(table, size * sizeof(deferral))));
    if (!larger) {
        return false;
    }
    table = larger;
    for (uint32_t i = table_size; i < size; i++) {
        table[i].state = deferral_free;
        table[i].next = i + 1;
    }
    table_free = table_size;
    table_size = size;
    return true;
}

} // namespace

hal_thread_mutex_t deferrals_mutex = PTHREAD_MUTEX_INITIALIZER;

deferral *deferral_take_locked()
{
    if (table_used == table_size && !table_grow()) {
        return nullptr;
    }
    deferral *entry = &table[table_free];
    table_free = entry->next;
    table_used++;
    last_serial = last_serial == INT32_MAX ? 1 : last_serial + 1;
    entry->serial = last_serial;
    return entry;
}

void deferral_give_back_locked(deferral *entry)
{
    entry->state = deferral_free;
    entry->next = table_free;
    table_free = static_cast<uint32_t>(entry - table);
    if (--table_used == 0) {
        free(table);
        table = nullptr;
        table_size = 0;
    }
}

uint64_t deferral_token_locked(const deferral *entry)
{
    return static_cast<uint64_t>(entry->serial) << 32 | static_cast<uint32_t>(entry - table);
}

deferral *deferral_find_locked(uint64_t token)
{
    deferral *entry = deferral_at_locked(static_cast<uint32_t>(token));
    return entry && entry->state != deferral_free && deferral_token_locked(entry) == token
               ? entry
               : nullptr;
}

deferral *deferral_at_locked(uint32_t index)
{
    return index < table_size ? &table[index] : nullptr;
}
