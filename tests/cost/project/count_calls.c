/* SPDX-License-Identifier: Apache-2.0 */
/* Preloaded into a program: counts what it and its libraries call of the C library that is dear,
 * and prints the counts on standard error when the program ends. Only for glibc, whose allocator
 * has a second set of names. */
#include <dlfcn.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

enum { LOCKS, ALLOCATIONS, CALLOCS, FORMATS, COUNTS };

static const char *const names[COUNTS] = {"locks", "allocations", "callocs", "formats"};
static atomic_long counts[COUNTS];

/* No header declares these. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
int __vsnprintf_chk(char *to, size_t size, int flag, size_t room, const char *format, va_list ap);
int __snprintf_chk(char *to, size_t size, int flag, size_t room, const char *format, ...);

typedef int (*mutex_function)(pthread_mutex_t *mutex);
typedef int (*format_function)(char *to, size_t size, const char *format, va_list ap);

/* Looked up at each call's first use: others may call before any constructor here has run. */
static void *next(const char *name, _Atomic(void *) *known)
{
    void *function = atomic_load(known);
    if (!function) {
        function = dlsym(RTLD_NEXT, name);
        atomic_store(known, function);
    }
    return function;
}

int pthread_mutex_lock(pthread_mutex_t *mutex)
{
    static _Atomic(void *) known;
    counts[LOCKS]++;
    return ((mutex_function)next("pthread_mutex_lock", &known))(mutex);
}

int pthread_mutex_trylock(pthread_mutex_t *mutex)
{
    static _Atomic(void *) known;
    const int result = ((mutex_function)next("pthread_mutex_trylock", &known))(mutex);
    counts[LOCKS] += result == 0;
    return result;
}

void *malloc(size_t size)
{
    counts[ALLOCATIONS]++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    counts[ALLOCATIONS]++;
    counts[CALLOCS]++;
    return __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size)
{
    counts[ALLOCATIONS]++;
    return __libc_realloc(memory, size);
}

int vsnprintf(char *to, size_t size, const char *format, va_list ap)
{
    static _Atomic(void *) known;
    counts[FORMATS]++;
    return ((format_function)next("vsnprintf", &known))(to, size, format, ap);
}

int snprintf(char *to, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int length = vsnprintf(to, size, format, ap);
    va_end(ap);
    return length;
}

/* What the two become where buffers are checked; whether they are is not looked at here. */
int __vsnprintf_chk(char *to, size_t size, int flag, size_t room, const char *format, va_list ap)
{
    (void)flag, (void)room;
    return vsnprintf(to, size, format, ap);
}

int __snprintf_chk(char *to, size_t size, int flag, size_t room, const char *format, ...)
{
    (void)flag, (void)room;
    va_list ap;
    va_start(ap, format);
    const int length = vsnprintf(to, size, format, ap);
    va_end(ap);
    return length;
}

__attribute__((destructor)) static void print_counts(void)
{
    long ended[COUNTS]; /* before printing adds to them */
    for (int i = 0; i < COUNTS; i++) {
        ended[i] = counts[i];
    }
    for (int i = 0; i < COUNTS; i++) {
        fprintf(stderr, "%s: %ld\n", names[i], ended[i]);
    }
}
