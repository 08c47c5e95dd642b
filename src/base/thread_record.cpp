/* SPDX-License-Identifier: Apache-2.0 */
/* Records of the library's threads, found by a key. Not by a thread-local variable: a small libc
 * opens no library at run time that has one in static storage, and the other kind needs a function
 * of the loader's. */
#include "thread_record.hpp"

#include "hal_sync.hpp"

namespace {

hal_thread_mutex_t key_mutex = PTHREAD_MUTEX_INITIALIZER; /* held while the key is made */
pthread_key_t key;
int32_t key_made; /* stored after the key; read without the mutex */

/* When the library is unloaded: a process that opens it again and again would run out of keys. */
__attribute__((destructor)) void thread_records_close()
{
    if (key_made) {
        pthread_key_delete(key);
    }
}

} // namespace

int32_t thread_records_open()
{
    hal_scoped_lock lock(key_mutex);
    if (!key_made) {
        if (pthread_key_create(&key, nullptr) != 0) {
            return -1;
        }
        hal_store(key_made, 1);
    }
    return 0;
}

thread_record *thread_record_get()
{
    return hal_load(key_made) ? static_cast<thread_record *>(pthread_getspecific(key)) : nullptr;
}

int32_t thread_record_set(thread_record *record)
{
    return hal_load(key_made) && pthread_setspecific(key, record) == 0 ? 0 : -1;
}

void thread_record_leave(thread_record &record)
{
    record.handled = nullptr; /* its frame is gone */
    while (record.depth > 0) {
        record.depth--;
        if (record.depth < thread_scopes_max) {
            record.scopes[record.depth].leave(record.scopes[record.depth].what);
        }
    }
}
