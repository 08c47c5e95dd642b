/* SPDX-License-Identifier: Apache-2.0 */
/* Making locks, a scoped lock, and loads and stores for fields that are read without their lock. */
#ifndef HAL_SYNC_HPP
#define HAL_SYNC_HPP

#include "qor_hal.h"

/* Makes several mutexes: 0, or -1 and none is made.
 *
 * Deliberate: whoever makes an object with locks reports one that cannot be had by the line for the
 * object's memory, for the log is searched for that line. Test: InitFaults.OfADelegateUndoItself.
 */
template <size_t count> inline int32_t hal_mutexes_init(hal_thread_mutex_t *const (&mutexes)[count])
{
    for (size_t made = 0; made < count; made++) {
        if (pthread_mutex_init(mutexes[made], nullptr) != 0) {
            while (made > 0) {
                pthread_mutex_destroy(mutexes[--made]);
            }
            return -1;
        }
    }
    return 0;
}

/* Makes a mutex and a condition that is waited on with it: 0, or -1 and neither is made. */
inline int32_t hal_mutex_cond_init(hal_thread_mutex_t &mutex, hal_thread_cond_t &cond)
{
    if (pthread_mutex_init(&mutex, nullptr) != 0) {
        return -1;
    }
    if (pthread_cond_init(&cond, nullptr) != 0) {
        pthread_mutex_destroy(&mutex);
        return -1;
    }
    return 0;
}

inline void hal_mutex_cond_destroy(hal_thread_mutex_t &mutex, hal_thread_cond_t &cond)
{
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
}

/* Locks a mutex. With more than one processor it tries for a while before it sleeps: what is done
 * under the library's locks takes less time than to put a thread to sleep and wake it. */
void hal_lock(hal_thread_mutex_t &mutex);

/* Holds a mutex from here to the end of the block. */
class hal_scoped_lock {
public:
    explicit hal_scoped_lock(hal_thread_mutex_t &mutex) : mutex_(mutex) { hal_lock(mutex_); }
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
