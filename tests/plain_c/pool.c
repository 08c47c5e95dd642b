/* SPDX-License-Identifier: Apache-2.0 */
/* The thread pool. */
#include "check.h"
#include "qor_context_task.h"
#include "qor_thread_pool.h"

enum { TASKS = 40 };

static atomic_int executed;
static atomic_int recycled;

static void *run(void *arg)
{
    (void)arg;
    atomic_fetch_add(&executed, 1);
    return NULL;
}

static void recycle(void *arg)
{
    (void)arg;
    atomic_fetch_add(&recycled, 1);
}

static void *run_and_end_thread(void *arg)
{
    atomic_fetch_add(&executed, 1);
    pthread_exit(arg);
}

static int32_t post(qor_thread_pool_t *pool, qor_context_run_t function)
{
    qor_context_task_t task;
    qor_context_task_init(&task, NULL, "pool", 0, function, NULL);
    qor_context_task_set_recycle(&task, recycle);
    return qor_thread_pool_post(pool, &task);
}

void check_pool(void)
{
    qor_thread_pool_t *pool = qor_thread_pool_create(2, 4, -1, 65536, -1, 5);
    int accepted = 0;

    check("qor_thread_pool_create", pool != NULL);
    for (int i = 0; i < TASKS; i++) {
        accepted += post(pool, run) == 0;
    }
    check("tasks are accepted", accepted == TASKS);
    check("tasks run", reached(&executed, TASKS));
    check("and are released", reached(&recycled, TASKS));
    qor_thread_pool_quit(pool);
    check("nothing is accepted any more", post(pool, run) == -1);
    qor_thread_pool_destroy(pool);

    qor_thread_pool_t record;
    check("qor_thread_pool_init", qor_thread_pool_init(&record, 1, 1, 8, 65536, -1, 0) == 0);
    check("one thread takes a task", post(&record, run) == 0);
    check("and runs it", reached(&executed, TASKS + 1));
    qor_thread_pool_uninit(&record);
    check("each task ran once", atomic_load(&executed) == TASKS + 1);

    pool = qor_thread_pool_create(1, 1, -1, 65536, -1, 0);
    accepted = 0;
    for (int i = 0; i < TASKS; i++) {
        accepted += post(pool, run_and_end_thread) == 0;
    }
    check("tasks that end their threads are accepted", accepted == TASKS);
    check("are released", reached(&recycled, 2 * TASKS + 1));
    qor_thread_pool_destroy(pool);
    check("and ran once each", atomic_load(&executed) == 2 * TASKS + 1);
    check("a wrong stack size is refused", qor_thread_pool_create(1, 1, 8, 1000, -1, 0) == NULL);
}
