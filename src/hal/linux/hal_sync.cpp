/* SPDX-License-Identifier: Apache-2.0 */
/* How a mutex is locked. */
#include "hal_sync.hpp"

#include <unistd.h>

namespace {

constexpr int32_t tries_unknown = -1;
/* Some 1 us. Ten times as many made a pipeline over two processors stall now and then. */
constexpr int32_t tries_beside_others = 30;

int32_t tries = tries_unknown; /* read and written without a lock: it is the same for everybody */

int32_t lock_tries()
{
    int32_t known = __atomic_load_n(&tries, __ATOMIC_RELAXED);
    if (known == tries_unknown) {
        known = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? tries_beside_others : 0;
        __atomic_store_n(&tries, known, __ATOMIC_RELAXED);
    }
    return known;
}

/* Tells the processor that this thread waits for another. */
void processor_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__ARM_ARCH_7A__)
    __asm__ __volatile__("yield");
#endif
}

} // namespace

void hal_lock(hal_thread_mutex_t &mutex)
{
    if (pthread_mutex_trylock(&mutex) == 0) {
        return;
    }
    for (int32_t left = lock_tries(); left > 0; left--) {
        processor_relax();
        if (pthread_mutex_trylock(&mutex) == 0) {
            return;
        }
    }
    pthread_mutex_lock(&mutex);
}
