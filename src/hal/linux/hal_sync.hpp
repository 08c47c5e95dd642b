/* SPDX-License-Identifier: Apache-2.0 */
/* Scoped lock, and loads and stores for fields that are read without their lock. */
#ifndef HAL_SYNC_HPP
#define HAL_SYNC_HPP

#include "qor_hal.h"

/* Holds a mutex from here to the end of the block. */
class hal_scoped_lock {
public:
    explicit hal_scoped_lock(hal_thread_mutex_t &mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(&mutex_);
    }
    ~hal_scoped_lock() { pthread_mutex_unlock(&mutex_); }
    hal_scoped_lock(const hal_scoped_lock &) = delete;
    hal_scoped_lock &operator=(const hal_scoped_lock &) = delete;

private:
    hal_thread_mutex_t &mutex_;
};

/* Reads a shared field; what was written before its hal_store() is visible afterwards. */
template <typename T> inline T hal_load(const volatile T &field)
{
    static_assert(sizeof(T) <= sizeof(void *), "wider loads would need a runtime library");
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

/* Writes a shared field that others read with hal_load(). */
template <typename T, typename V> inline void hal_store(volatile T &field, V value)
{
    static_assert(sizeof(T) <= sizeof(void *), "wider stores would need a runtime library");
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}

#endif /* HAL_SYNC_HPP */
