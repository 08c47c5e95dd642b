/* SPDX-License-Identifier: Apache-2.0 */
/* Puts blocking queues under load and writes down, in the order of their lock, what is called, what
 * is answered, and who waits and wakes whom: replay_que FILE CALLS [timed]. replay.py reads it. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qor_que.h"
#include "que_waits.hpp"

namespace {

constexpr uint32_t takers = 3;
constexpr uint32_t givers = 2;
constexpr uint32_t capacity = 2;
constexpr uint32_t round_calls = 20000; /* of each giver, in one queue */

FILE *file;
qor_que_t *que;                /* NULL: nothing is written down */
std::vector<uint64_t> entries; /* guarded by the queue's lock */
std::atomic<uint32_t> recycled;
std::atomic<uint32_t> taken;
thread_local uint32_t me;

/* With the queue's lock. */
void note(char what, uint64_t value)
{
    entries.push_back(static_cast<uint64_t>(what) << 56 | static_cast<uint64_t>(me) << 48 | value);
}

/* Which of a queue's conditions it is; 0 for any other. */
char cond_name(const pthread_cond_t *cond)
{
    if (!que) {
        return 0;
    }
    /* The private block begins with its waits. */
    const que_waits *waits = reinterpret_cast<const que_waits *>(que->priv);
    return cond == &que->cond            ? 'c'
           : cond == &waits->takers.cond ? 't'
           : cond == &waits->givers.cond ? 'g'
           : cond == &waits->settled     ? 's'
                                         : 0;
}

} // namespace

extern "C" {

int __real_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex);
int __real_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  const struct timespec *until);
int __real_pthread_cond_signal(pthread_cond_t *cond);
int __real_pthread_cond_broadcast(pthread_cond_t *cond);
int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex);
int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  const struct timespec *until);
int __wrap_pthread_cond_signal(pthread_cond_t *cond);
int __wrap_pthread_cond_broadcast(pthread_cond_t *cond);

int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex)
{
    const char name = cond_name(cond);
    if (name) {
        note('w', static_cast<uint64_t>(name));
    }
    const int result = __real_pthread_cond_wait(cond, mutex);
    if (name) {
        note('e', static_cast<uint64_t>(name));
    }
    return result;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  const struct timespec *until)
{
    const char name = cond_name(cond);
    if (name) {
        note('w', static_cast<uint64_t>(name));
    }
    const int result = __real_pthread_cond_timedwait(cond, mutex, until);
    if (name) {
        note('e', static_cast<uint64_t>(name));
    }
    return result;
}

int __wrap_pthread_cond_signal(pthread_cond_t *cond)
{
    if (const char name = cond_name(cond)) {
        note('1', static_cast<uint64_t>(name));
    }
    return __real_pthread_cond_signal(cond);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t *cond)
{
    if (const char name = cond_name(cond)) {
        note('*', static_cast<uint64_t>(name));
    }
    return __real_pthread_cond_broadcast(cond);
}
}

namespace {

void recycle(void *)
{
    recycled++;
}

/* Every other call has a time limit, or each. */
int32_t wait_time(uint32_t call, bool timed)
{
    return timed || call % 2 ? 5 : -1;
}

void give(uint32_t thread, bool timed)
{
    me = thread;
    for (uint32_t i = 0; i < round_calls; i++) {
        const uint64_t number = uint64_t{i} * givers + thread;
        qor_que_node_t *node = qor_que_node_create(number, 1);
        const int32_t limit = wait_time(i, timed);
        qor_que_lock(que);
        note(limit < 0 ? 'G' : 'g', number);
        const int32_t result = qor_que_enque_block_locked(que, node, limit);
        note('r', result == 0);
        qor_que_unlock(que);
        if (result != 0) {
            qor_que_node_destroy(node, nullptr);
        }
    }
}

/* Until the queue quits. */
void take(uint32_t thread, bool timed)
{
    me = thread;
    for (uint32_t i = 0;; i++) {
        const int32_t limit = wait_time(i, timed);
        qor_que_lock(que);
        note(limit < 0 ? 'T' : 't', 0);
        qor_que_node_t *node = qor_que_deque_block_locked(que, limit);
        note('r', node ? qor_que_node_id(node) + 1 : 0);
        const bool over = que->quitting != 0;
        qor_que_unlock(que);
        if (node) {
            qor_que_node_destroy(node, nullptr);
            taken++;
        } else if (over) {
            return;
        }
    }
}

/* One queue from its creation to its end; it quits when so many nodes have been taken. */
void round(uint32_t quits_at, bool timed)
{
    recycled = 0;
    taken = 0;
    que = qor_que_create(capacity, recycle);
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < takers; i++) {
        threads.emplace_back(take, givers + i, timed);
    }
    for (uint32_t i = 0; i < givers; i++) {
        threads.emplace_back(give, i, timed);
    }
    while (taken < quits_at) {
        std::this_thread::yield();
    }
    me = givers + takers;
    qor_que_quit(que);
    for (std::thread &thread : threads) {
        thread.join();
    }
    note('q', recycled);
    qor_que_t *over = que;
    que = nullptr;
    qor_que_destroy(over);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3 || !(file = fopen(argv[1], "wb"))) {
        fprintf(stderr, "replay_que FILE CALLS [timed]\n");
        return 2;
    }
    const bool timed = argc > 3 && strcmp(argv[3], "timed") == 0;
    const unsigned long calls = strtoul(argv[2], nullptr, 10);
    unsigned long done = 0;
    for (uint32_t i = 0; done < calls; i++) {
        round(timed ? round_calls / 2 : round_calls + i * 997 % (round_calls / 2), timed);
        done += taken * 2ul; /* given and taken: at least so many calls */
        fwrite(entries.data(), sizeof(entries[0]), entries.size(), file);
        entries.clear();
    }
    return fclose(file) == 0 ? 0 : 1;
}
