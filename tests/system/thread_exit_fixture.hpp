/* SPDX-License-Identifier: Apache-2.0 */
/* What tests of ending threads share: how a callback leaves, and what must not stay behind. */
#ifndef QOR_TESTS_THREAD_EXIT_FIXTURE_HPP
#define QOR_TESTS_THREAD_EXIT_FIXTURE_HPP

#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <iterator>

#include "qor_context.h"
#include "qor_hal.h"
#include "qor_main.h"
#include "qor_monitor_module.h"
#include "qor_time_que.h"
#include "time_que_length.hpp"

/* Ends the calling thread; who has called counts it first. */
[[noreturn]] inline void leave(std::atomic<int> &left)
{
    left++;
    pthread_exit(nullptr);
}

/* Tasks that the monitor watches. The bus has come up. */
inline int32_t watches()
{
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        auto *context = reinterpret_cast<qor_context_t *>(reinterpret_cast<char *>(link) -
                                                          offsetof(qor_context_t, node));
        if (context->module == &qor_monitor_module) {
            return length_of(static_cast<qor_time_que_t *>(qor_context_priv_data_get(context)));
        }
    }
    return -1;
}

/* Threads of the process. */
inline long threads()
{
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
}

#endif /* QOR_TESTS_THREAD_EXIT_FIXTURE_HPP */
