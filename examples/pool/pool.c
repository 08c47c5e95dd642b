/* SPDX-License-Identifier: Apache-2.0 */
/* Counts the words of many files on a thread pool: one task per file, which counts into a map of
 * its own and then adds it to the common one. */
#include <errno.h>
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "count.h"

enum { DEFAULT_THREADS = 4, MOST_THREADS = 256, STACK_SIZE = 64 * 1024, LISTED = 20 };

static const char usage[] = "usage: pool [--threads N] [FILE...]\n";

/* What the tasks share. */
struct work {
    pthread_mutex_t mutex; /* guards the rest */
    pthread_cond_t done;   /* signalled when no file is left */
    rbtree_kv_root counts;
    size_t left;
    size_t failed;
};

struct job {
    struct work *work;
    const char *path;
};

/* Reads a whole file as one string; zero bytes become spaces. Returns NULL and sets errno. */
static char *read_file(FILE *file)
{
    size_t length = 0, room = 0;
    char *text = NULL;
    while (!feof(file)) {
        if (room - length < 2) {
            room = room ? 2 * room : 16 * 1024;
            char *larger = realloc(text, room);
            if (!larger) {
                free(text);
                return NULL;
            }
            text = larger;
        }
        length += fread(text + length, 1, room - length - 1, file);
        if (ferror(file)) {
            free(text);
            return NULL;
        }
    }
    text[length] = '\0';
    for (char *zero = text; (zero = memchr(zero, '\0', (size_t)(text + length - zero)));) {
        *zero = ' ';
    }
    return text;
}

/* Returns 0, or the error's number. */
static int count_file(struct work *work, const char *path)
{
    FILE *file = fopen(path, "rb");
    char *text = file ? read_file(file) : NULL;
    const int problem = errno;
    if (file) {
        fclose(file);
    }
    if (!text) {
        return problem;
    }
    rbtree_kv_root counts;
    count_init(&counts);
    int result = count_text(&counts, text);
    if (result == 0) {
        pthread_mutex_lock(&work->mutex);
        result = count_merge(&work->counts, &counts);
        pthread_mutex_unlock(&work->mutex);
    }
    rbapi_kv_destroy(&counts);
    free(text);
    return result == 0 ? 0 : ENOMEM;
}

/* The task: runs on a thread of the pool. */
static void *run(void *arg)
{
    const struct job *job = arg;
    const int problem = count_file(job->work, job->path);
    if (problem != 0) {
        pthread_mutex_lock(&job->work->mutex);
        fprintf(stderr, "pool: %s: %s\n", job->path, strerror(problem));
        job->work->failed++;
        pthread_mutex_unlock(&job->work->mutex);
    }
    return NULL;
}

/* The task's recycle: runs once for every task, after it. */
static void finish(void *arg)
{
    struct work *work = ((struct job *)arg)->work;
    pthread_mutex_lock(&work->mutex);
    work->left--;
    if (work->left == 0) {
        pthread_cond_signal(&work->done);
    }
    pthread_mutex_unlock(&work->mutex);
}

static void post(qor_thread_pool_t *pool, struct job *job)
{
    qor_context_task_t task = {0};
    qor_context_task_init(&task, NULL, "count", 0, run, job);
    qor_context_task_set_recycle(&task, finish);
    if (qor_thread_pool_post(pool, &task) != 0) { /* refused: it is still ours */
        qor_context_task_excute(&task);
        qor_context_task_uninit(&task);
    }
}

/* Counts all files. Returns -1 when there is no memory for the pool. */
static int count_files(struct work *work, char **paths, size_t length, int threads)
{
    int result = -1;
    struct job *jobs = calloc(length + 1, sizeof(*jobs));
    qor_thread_pool_t *pool = qor_thread_pool_create(threads, threads, /* any number of tasks */ -1,
                                                     STACK_SIZE, /* no priority */ -1, 0);
    if (jobs && pool) {
        work->left = length;
        for (size_t i = 0; i < length; i++) {
            jobs[i].work = work;
            jobs[i].path = paths[i];
            post(pool, &jobs[i]);
        }
        pthread_mutex_lock(&work->mutex);
        while (work->left > 0) {
            pthread_cond_wait(&work->done, &work->mutex);
        }
        pthread_mutex_unlock(&work->mutex);
        result = 0;
    }
    if (pool) {
        qor_thread_pool_destroy(pool); /* any earlier, it would discard what waits */
    }
    free(jobs);
    return result;
}

/* Lists the library's own sources. */
static void find_sources(glob_t *found)
{
    static const char *const patterns[] = {"/include/*.h", "/src/*/*.[hc]pp", "/src/*/*/*.[hc]*"};
    for (size_t i = 0; i < sizeof(patterns) / sizeof(patterns[0]); i++) {
        char pattern[4096];
        snprintf(pattern, sizeof(pattern), "%s%s", SOURCE_ROOT, patterns[i]);
        glob(pattern, i > 0 ? GLOB_APPEND : 0, NULL, found);
    }
}

/* Takes "--threads N" off the arguments. Returns N, or 0 for a wrong option. */
static int read_threads(char ***arguments)
{
    char **at = *arguments;
    if (!at[0] || strncmp(at[0], "--", 2) != 0) {
        return DEFAULT_THREADS;
    }
    if (strcmp(at[0], "--threads") != 0 || !at[1]) {
        return 0;
    }
    char *end;
    const long number = strtol(at[1], &end, 10);
    *arguments = at + 2;
    return *end == '\0' && number >= 1 && number <= MOST_THREADS ? (int)number : 0;
}

int main(int argc, char **argv)
{
    struct work work = {.mutex = PTHREAD_MUTEX_INITIALIZER, .done = PTHREAD_COND_INITIALIZER};
    glob_t found = {0};
    char **paths = argv + 1;
    const int threads = read_threads(&paths);
    if (threads == 0) {
        fputs(usage, stderr);
        return 2;
    }
    size_t length = (size_t)(argv + argc - paths);
    if (length == 0) {
        find_sources(&found);
        paths = found.gl_pathv;
        length = found.gl_pathc;
    }
    count_init(&work.counts);
    int status = count_files(&work, paths, length, threads);
    if (status == 0) {
        status = count_print(&work.counts, LISTED);
    }
    if (status != 0) {
        fputs("pool: no memory\n", stderr);
    }
    rbapi_kv_destroy(&work.counts);
    globfree(&found);
    return status != 0 || work.failed > 0;
}
