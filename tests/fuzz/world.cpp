/* SPDX-License-Identifier: Apache-2.0 */
#include "world.hpp"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <unordered_map>

#include "qor_hal.h"

thread_local World *world;

namespace {

std::unordered_map<const void *, size_t> blocks;
WorldWait *waiting; /* the innermost wait there is; each leads to the one around it */

bool spent(int &left)
{
    return left >= 0 && left-- == 0;
}

bool memory_ends(size_t size)
{
    world->allocations++;
    return spent(world->memory_fails_in) || size > world->memory_most;
}

/* "[tag][err][function][123]:text" without the number, which says nothing about behaviour. */
void take_line(void *, int32_t, const char *fmt, va_list ap)
{
    char line[512];
    vsnprintf(line, sizeof(line), fmt, ap);
    std::string text = line;
    const size_t end = text.find("]:");
    const size_t begin = end == std::string::npos ? end : text.rfind('[', end);
    if (world && begin != std::string::npos) {
        world->printed += text.erase(begin, end - begin + 1);
    }
}

const qor_output_t output = {take_line, nullptr};

} // namespace

void world_differs(const char *file, int line, const char *what)
{
    fprintf(stderr, "%s:%d: not so: %s\n", file, line, what);
    if (world) {
        fprintf(stderr, "printed: %s\n", world->printed.c_str());
    }
    abort();
}

World::World()
{
    static bool told = false;
    if (!told) {
        told = true;
        qor_output_set(&output);
    }
    world = this;
}

World::~World()
{
    EXPECT(live() == 0);
    EXPECT(printed.empty());
    world = nullptr;
}

size_t World::live() const
{
    return blocks.size();
}

size_t World::size_of(const void *block) const
{
    const auto found = blocks.find(block);
    return found == blocks.end() ? SIZE_MAX : found->second;
}

size_t World::drop_all()
{
    const size_t count = blocks.size();
    while (!blocks.empty()) {
        free(const_cast<void *>(blocks.begin()->first));
    }
    return count;
}

void World::expect_printed(const std::string &lines)
{
    if (printed != lines) {
        fprintf(stderr, "expected: %s\n", lines.c_str());
    }
    EXPECT(printed == lines);
    printed.clear();
}

std::string World::err(const char *tag, const char *function, const char *text)
{
    return std::string("[") + tag + "][err][" + function + "]:" + text + "\n";
}

extern "C" {

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
void __real_free(void *);
char *__real_strdup(const char *);
int __real_clock_gettime(clockid_t, struct timespec *);
int __real_pthread_mutex_init(pthread_mutex_t *, const pthread_mutexattr_t *);
int __real_pthread_cond_init(pthread_cond_t *, const pthread_condattr_t *);
int __real_pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
int __real_pthread_cond_signal(pthread_cond_t *);
int __real_pthread_cond_broadcast(pthread_cond_t *);
void *__wrap_malloc(size_t);
void *__wrap_calloc(size_t, size_t);
void __wrap_free(void *);
char *__wrap_strdup(const char *);
int __wrap_clock_gettime(clockid_t, struct timespec *);
int __wrap_pthread_mutex_init(pthread_mutex_t *, const pthread_mutexattr_t *);
int __wrap_pthread_cond_init(pthread_cond_t *, const pthread_condattr_t *);
int __wrap_pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *);
int __wrap_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
int __wrap_pthread_cond_signal(pthread_cond_t *);
int __wrap_pthread_cond_broadcast(pthread_cond_t *);

static void *entered(void *block, size_t size)
{
    if (!block) {
        abort();
    }
    blocks[block] = size;
    return block;
}

void *__wrap_malloc(size_t size)
{
    if (!world) {
        return __real_malloc(size);
    }
    return memory_ends(size) ? nullptr : entered(__real_malloc(size), size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    if (!world) {
        return __real_calloc(count, size);
    }
    return memory_ends(count * size) ? nullptr : entered(__real_calloc(count, size), count * size);
}

void *__wrap_realloc(void *block, size_t size)
{
    if (!world) {
        return __real_realloc(block, size);
    }
    if (memory_ends(size)) {
        return nullptr;
    }
    EXPECT(!block || blocks.erase(block) == 1);
    return entered(__real_realloc(block, size), size);
}

char *__wrap_strdup(const char *text)
{
    if (!world) {
        return __real_strdup(text);
    }
    const size_t size = strlen(text) + 1;
    void *copy = __wrap_malloc(size);
    return copy ? static_cast<char *>(memcpy(copy, text, size)) : nullptr;
}

void __wrap_free(void *block)
{
    if (world && block) {
        EXPECT(blocks.erase(block) == 1);
    }
    __real_free(block);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *moment)
{
    if (!world || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, moment);
    }
    moment->tv_sec = world->now / 1000;
    moment->tv_nsec = world->now % 1000 * 1000000;
    return 0;
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr)
{
    return world && spent(world->locks_fail_in) ? ENOMEM : __real_pthread_mutex_init(mutex, attr);
}

int __wrap_pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr)
{
    return world && spent(world->locks_fail_in) ? ENOMEM : __real_pthread_cond_init(cond, attr);
}

static int wait_in_world(pthread_cond_t *cond, pthread_mutex_t *mutex, int64_t until)
{
    EXPECT(world->while_waiting);
    WorldWait wait = {cond, until, false, false, waiting};
    waiting = &wait;
    EXPECT(pthread_mutex_unlock(mutex) == 0);
    world->while_waiting(world->arg, wait);
    EXPECT(pthread_mutex_lock(mutex) == 0);
    waiting = wait.outer;
    return wait.timed_out ? ETIMEDOUT : 0;
}

int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex)
{
    return world ? wait_in_world(cond, mutex, INT64_MAX) : __real_pthread_cond_wait(cond, mutex);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                                  const struct timespec *until)
{
    if (!world) {
        return __real_pthread_cond_timedwait(cond, mutex, until);
    }
    EXPECT(until->tv_nsec >= 0 && until->tv_nsec < 1000000000);
    return wait_in_world(cond, mutex, int64_t{until->tv_sec} * 1000 + until->tv_nsec / 1000000);
}

static void woken(const pthread_cond_t *cond)
{
    for (WorldWait *wait = world ? waiting : nullptr; wait; wait = wait->outer) {
        wait->woken = wait->woken || wait->cond == cond;
    }
}

int __wrap_pthread_cond_signal(pthread_cond_t *cond)
{
    woken(cond);
    return __real_pthread_cond_signal(cond);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t *cond)
{
    woken(cond);
    return __real_pthread_cond_broadcast(cond);
}

} // extern "C"
