/* SPDX-License-Identifier: Apache-2.0 */
/* The listed calls of the library, by the place that they are made from. Frames are walked by their
 * pointers, so the library is built with them. */
#define _GNU_SOURCE
#include "sites.h"
#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

enum { SITES_MAX = 4096 };

typedef struct site {
    const char *function;
    uintptr_t chain[SITE_DEPTH]; /* 0 behind the last */
    int met, failed;             /* how often */
} site;

static struct {
    pthread_mutex_t mutex; /* guards all but live */
    site met[SITES_MAX];
    int count;
    site aim;
    int aimed; /* the aim has not failed yet */
    int onward;
    int failing; /* all calls fail */
    int hits;
    int live;
} sites = {.mutex = PTHREAD_MUTEX_INITIALIZER};

static uintptr_t base, text_begin, text_end; /* of the library */

static int find_text(struct dl_phdr_info *module, size_t size, void *inside)
{
    (void)size;
    for (int i = 0; i < module->dlpi_phnum; i++) {
        const ElfW(Phdr) *part = &module->dlpi_phdr[i];
        const uintptr_t begin = module->dlpi_addr + part->p_vaddr;
        if (part->p_type == PT_LOAD && (part->p_flags & PF_X) && (uintptr_t)inside >= begin &&
            (uintptr_t)inside < begin + part->p_memsz) {
            base = module->dlpi_addr;
            text_begin = begin;
            text_end = begin + part->p_memsz;
            return 1;
        }
    }
    return 0;
}

__attribute__((constructor)) static void sites_open(void)
{
    dl_iterate_phdr(find_text, (void *)sites_open);
}

static int same(const site *a, const site *b)
{
    return memcmp(a->chain, b->chain, sizeof(a->chain)) == 0;
}

static site *note_locked(const site *here)
{
    int i = 0;
    while (i < sites.count && !same(&sites.met[i], here)) {
        i++;
    }
    if (i == SITES_MAX) {
        abort(); /* a site that is not told of would not be tried */
    }
    if (i == sites.count) {
        sites.met[sites.count++] = *here;
    }
    sites.met[i].met++;
    return &sites.met[i];
}

static int fails_locked(const site *here)
{
    const int aimed = sites.aimed && same(&sites.aim, here);
    const int result = aimed || sites.failing;
    note_locked(here)->failed += result;
    sites.hits += result;
    if (aimed) {
        sites.aimed = 0;
        sites.failing = sites.onward;
    }
    return result;
}

/* frame: of the wrapper. The walk ends where the library was called from. */
__attribute__((no_sanitize("address"))) static int fails(const char *function, uintptr_t *frame)
{
    site here = {function, {0}, 0, 0};
    for (int i = 0; i < SITE_DEPTH && frame[1] >= text_begin && frame[1] < text_end; i++) {
        here.chain[i] = frame[1] - base;
        frame = (uintptr_t *)frame[0];
    }
    pthread_mutex_lock(&sites.mutex);
    const int result = fails_locked(&here);
    pthread_mutex_unlock(&sites.mutex);
    return result;
}

#define FAILS() fails(__func__ + sizeof("__wrap_") - 1, __builtin_frame_address(0))

void fault_site_fail(const char *text, int onward)
{
    memset(&sites.aim, 0, sizeof(sites.aim));
    for (int i = 0; i < SITE_DEPTH && *text; i++) {
        char *end;
        sites.aim.chain[i] = strtoul(text, &end, 16);
        text = *end ? end + 1 : end;
    }
    sites.onward = onward;
    sites.aimed = 1;
}

void fault_site_heal(void)
{
    pthread_mutex_lock(&sites.mutex);
    sites.aimed = sites.failing = 0;
    pthread_mutex_unlock(&sites.mutex);
}

int fault_site_hits(void)
{
    pthread_mutex_lock(&sites.mutex);
    const int hits = sites.hits;
    pthread_mutex_unlock(&sites.mutex);
    return hits;
}

int fault_sites_live(void)
{
    return __atomic_load_n(&sites.live, __ATOMIC_SEQ_CST);
}

void fault_sites_print(FILE *to)
{
    pthread_mutex_lock(&sites.mutex);
    for (int i = 0; i < sites.count; i++) {
        const site *met = &sites.met[i];
        fprintf(to, "site %s ", met->function);
        for (int k = 0; k < SITE_DEPTH && met->chain[k]; k++) {
            fprintf(to, "%s%lx", k ? "," : "", (unsigned long)met->chain[k]);
        }
        fprintf(to, " %d %d\n", met->met, met->failed);
    }
    pthread_mutex_unlock(&sites.mutex);
}

static void *no_memory(void)
{
    errno = ENOMEM;
    return NULL;
}

static void *held(void *block)
{
    if (block) {
        __atomic_add_fetch(&sites.live, 1, __ATOMIC_SEQ_CST);
    }
    return block;
}

static int made(int result)
{
    if (result == 0) {
        __atomic_add_fetch(&sites.live, 1, __ATOMIC_SEQ_CST);
    }
    return result;
}

static int unmade(int result)
{
    if (result == 0) {
        __atomic_sub_fetch(&sites.live, 1, __ATOMIC_SEQ_CST);
    }
    return result;
}

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
char *__real_strdup(const char *);
void __real_free(void *);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __real_pthread_mutex_init(pthread_mutex_t *, const pthread_mutexattr_t *);
int __real_pthread_mutex_destroy(pthread_mutex_t *);
int __real_pthread_cond_init(pthread_cond_t *, const pthread_condattr_t *);
int __real_pthread_cond_destroy(pthread_cond_t *);
int __real_pthread_condattr_init(pthread_condattr_t *);
int __real_pthread_condattr_setclock(pthread_condattr_t *, clockid_t);
int __real_pthread_condattr_destroy(pthread_condattr_t *);
int __real_pthread_attr_init(pthread_attr_t *);
int __real_pthread_attr_destroy(pthread_attr_t *);
int __real_pthread_attr_getinheritsched(const pthread_attr_t *, int *);
int __real_pthread_attr_setinheritsched(pthread_attr_t *, int);
int __real_pthread_attr_setdetachstate(pthread_attr_t *, int);
int __real_pthread_attr_setstacksize(pthread_attr_t *, size_t);
int __real_pthread_attr_setschedpolicy(pthread_attr_t *, int);
int __real_pthread_attr_setschedparam(pthread_attr_t *, const struct sched_param *);
int __real_pthread_getschedparam(pthread_t, int *, struct sched_param *);
int __real_pthread_setschedparam(pthread_t, int, const struct sched_param *);
int __real_pthread_key_create(pthread_key_t *, void (*)(void *));
int __real_pthread_setspecific(pthread_key_t, const void *);
int __real_pthread_atfork(void (*)(void), void (*)(void), void (*)(void));

void *__wrap_malloc(size_t size)
{
    return FAILS() ? no_memory() : held(__real_malloc(size));
}
void *__wrap_calloc(size_t n, size_t size)
{
    return FAILS() ? no_memory() : held(__real_calloc(n, size));
}
void *__wrap_realloc(void *p, size_t size)
{
    return FAILS() ? no_memory() : p ? __real_realloc(p, size) : held(__real_realloc(p, size));
}
char *__wrap_strdup(const char *s)
{
    return FAILS() ? no_memory() : held(__real_strdup(s));
}
void __wrap_free(void *p)
{
    if (p) {
        __atomic_sub_fetch(&sites.live, 1, __ATOMIC_SEQ_CST);
    }
    __real_free(p);
}
int __wrap_pthread_create(pthread_t *t, const pthread_attr_t *attr, void *(*run)(void *), void *arg)
{
    return FAILS() ? EAGAIN : __real_pthread_create(t, attr, run, arg);
}
int __wrap_pthread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *attr)
{
    return FAILS() ? ENOMEM : made(__real_pthread_mutex_init(m, attr));
}
int __wrap_pthread_mutex_destroy(pthread_mutex_t *m)
{
    return unmade(__real_pthread_mutex_destroy(m));
}
int __wrap_pthread_cond_init(pthread_cond_t *c, const pthread_condattr_t *attr)
{
    return FAILS() ? ENOMEM : made(__real_pthread_cond_init(c, attr));
}
int __wrap_pthread_cond_destroy(pthread_cond_t *c)
{
    return unmade(__real_pthread_cond_destroy(c));
}
int __wrap_pthread_condattr_init(pthread_condattr_t *attr)
{
    return FAILS() ? ENOMEM : made(__real_pthread_condattr_init(attr));
}
int __wrap_pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock)
{
    return FAILS() ? EINVAL : __real_pthread_condattr_setclock(attr, clock);
}
int __wrap_pthread_condattr_destroy(pthread_condattr_t *attr)
{
    return unmade(__real_pthread_condattr_destroy(attr));
}
int __wrap_pthread_attr_init(pthread_attr_t *attr)
{
    return FAILS() ? ENOMEM : made(__real_pthread_attr_init(attr));
}
int __wrap_pthread_attr_destroy(pthread_attr_t *attr)
{
    return unmade(__real_pthread_attr_destroy(attr));
}
int __wrap_pthread_attr_getinheritsched(const pthread_attr_t *attr, int *inherit)
{
    return FAILS() ? EINVAL : __real_pthread_attr_getinheritsched(attr, inherit);
}
int __wrap_pthread_attr_setinheritsched(pthread_attr_t *attr, int inherit)
{
    return FAILS() ? EINVAL : __real_pthread_attr_setinheritsched(attr, inherit);
}
int __wrap_pthread_attr_setdetachstate(pthread_attr_t *attr, int state)
{
    return FAILS() ? EINVAL : __real_pthread_attr_setdetachstate(attr, state);
}
int __wrap_pthread_attr_setstacksize(pthread_attr_t *attr, size_t size)
{
    return FAILS() ? EINVAL : __real_pthread_attr_setstacksize(attr, size);
}
int __wrap_pthread_attr_setschedpolicy(pthread_attr_t *attr, int policy)
{
    return FAILS() ? EINVAL : __real_pthread_attr_setschedpolicy(attr, policy);
}
int __wrap_pthread_attr_setschedparam(pthread_attr_t *attr, const struct sched_param *param)
{
    return FAILS() ? EINVAL : __real_pthread_attr_setschedparam(attr, param);
}
int __wrap_pthread_getschedparam(pthread_t t, int *policy, struct sched_param *param)
{
    return FAILS() ? ESRCH : __real_pthread_getschedparam(t, policy, param);
}
int __wrap_pthread_setschedparam(pthread_t t, int policy, const struct sched_param *param)
{
    return FAILS() ? EPERM : __real_pthread_setschedparam(t, policy, param);
}
int __wrap_pthread_key_create(pthread_key_t *key, void (*over)(void *))
{
    return FAILS() ? EAGAIN : __real_pthread_key_create(key, over);
}
int __wrap_pthread_setspecific(pthread_key_t key, const void *value)
{
    /* Taking a value back needs no memory, so that cannot fail. */
    return value && FAILS() ? ENOMEM : __real_pthread_setspecific(key, value);
}
int __wrap_pthread_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void))
{
    return FAILS() ? ENOMEM : __real_pthread_atfork(prepare, parent, child);
}
