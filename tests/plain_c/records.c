/* SPDX-License-Identifier: Apache-2.0 */
/* Messages and tasks. */
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"

void check_messages(void)
{
    char question[] = "why", answer[4] = "";
    qor_context_msg_t msg;

    qor_context_msg_fill(&msg, 7, 2, question, 3);
    check("a filled message is a request", msg.type == QOR_CONTEXT_MSG_REQUEST);
    check("with session and topic", msg.session == 7 && msg.topic == 2);
    check("its payload is the caller's", msg.request.buf == question && msg.request.size == 3);
    check("and has no response part", !msg.response.buf && msg.response.size == 0);

    qor_context_msg_fill_full(&msg, 8, 3, question, 3, answer, 4);
    check("room for a response is the caller's", msg.response.buf == answer);
    const int32_t size = qor_context_msg_whole_size(&msg);
    check("a clone holds both payloads", size == (int32_t)sizeof(msg) + 3 + 4 + 4);

    qor_context_msg_t *clone = qor_context_msg_clone(&msg);
    check("qor_context_msg_clone", clone != NULL);
    check("a clone has payloads of its own", clone->request.buf == clone->buf);
    check("with the same bytes", memcmp(clone->request.buf, question, 3) == 0);
    check("and the same session", clone->session == 8);
    memcpy(clone->response.buf, "yes", 4);
    check("its response is not the caller's", answer[0] == '\0');

    qor_context_msg_t *block = calloc(1, (size_t)size);
    check("qor_context_msg_copy", block && qor_context_msg_copy(block, clone) == 0);
    check("a copy carries the response", strcmp(block->response.buf, "yes") == 0);
    free(block);
    qor_context_msg_destroy(clone);
    check("NULL has no size", qor_context_msg_whole_size(NULL) == 0);
}

static int executed;
static int recycled;

static void *run(void *arg)
{
    executed++;
    return arg;
}

static void *runx(qor_context_t *context, int32_t session, void *arg)
{
    executed += session;
    return context == arg ? arg : NULL;
}

static void recycle(void *arg)
{
    (void)arg;
    recycled++;
}

/* A task only hands its context on, so any address will do. */
static void check_task_kinds(int *arg)
{
    qor_context_t *context = (qor_context_t *)(void *)arg;
    qor_context_task_t task, other;

    executed = recycled = 0;
    qor_context_task_init(&task, NULL, "first", 5, run, arg);
    check("a task runs", qor_context_task_excute(&task) == arg && executed == 1);
    qor_context_taskx_init(&task, context, NULL, 5, runx, arg);
    check("a task runs with its session", qor_context_task_excute(&task) == arg && executed == 6);
    check("NULL names it after its function", strncmp(task.name, "task:", 5) == 0);

    qor_context_task_set_recycle(&task, recycle);
    check("qor_context_task_copy", qor_context_task_copy(&other, &task) == 0);
    check("a copy carries the release", qor_context_task_get_recycle(&other) == recycle);
    qor_context_task_uninit(&other);
    check("qor_context_task_uninit releases", recycled == 1);

    qor_context_task_t *made = qor_context_task_create(NULL, "made", 1, run, arg);
    check("qor_context_task_create", made && qor_context_task_excute(made) == arg);
    qor_context_task_destroy(made);
    made = qor_context_taskx_create(context, "made", 1, runx, arg);
    check("qor_context_taskx_create", made && qor_context_task_excute(made) == arg);
    qor_context_task_set_recycle(made, recycle);
    qor_context_task_destroy(made);
    check("qor_context_task_destroy releases", recycled == 2);
}

static void check_task_fields(void)
{
    qor_context_task_t task;
    char name[32];
    int32_t value = 0;

    memset(&task, 0, sizeof(task));
    qor_context_task_init(&task, NULL, "a", 1, run, NULL);
    check("qor_context_task_set_name", qor_context_task_set_name(&task, "longer") == 0);
    check("qor_context_task_get_name", qor_context_task_get_name(&task, name, 32) == 0);
    check("the name is kept", strcmp(name, "longer") == 0);
    check("qor_context_task_set_async", qor_context_task_set_async(&task, 1) == 0);
    check("qor_context_task_get_async",
          qor_context_task_get_async(&task, &value) == 0 && value == 1);
    check("qor_context_task_set_delay", qor_context_task_set_delay(&task, 40) == 0);
    check("qor_context_task_get_delay",
          qor_context_task_get_delay(&task, &value) == 0 && value == 40);
    check("a new task has no release", qor_context_task_get_recycle(&task) == NULL);
    check("NULL is refused", qor_context_task_excute(NULL) == NULL);
}

void check_tasks(void)
{
    int arg = 0;
    check_task_kinds(&arg);
    check_task_fields();
}
