/* SPDX-License-Identifier: Apache-2.0 */
/* The calls of contexts and modules: which slot of the handler table each one reaches, and how. */
#include <string.h>

#include "check.h"
#include "qor_context_module.h"
#include "recorder.h"

enum { TOPIC = 4, OWN_SESSION = 9, DELAY = 30 };

static struct recorder record;
static qor_context_t *const self = &record.context;

static int reaches(const char *slot)
{
    const int same = strcmp(record.slot, slot) == 0;
    record.slot = "";
    return same;
}

static void registers(const char *what, int32_t result, const char *slot)
{
    check(what, result == 0 && reaches(slot) && record.topic == TOPIC);
    record.topic = 0;
}

static void check_dispatchers(void)
{
    qor_context_msg_t msg;
    qor_context_task_t task;
    int32_t session = 0;

    check("qor_context_handler_session",
          qor_context_handler_session(self, &session) == 0 && session == DRAWN_SESSION);
    registers("handler_subscribe", qor_context_handler_subscribe(self, TOPIC, NULL), "subscribe");
    registers("handler_unsubscribe", qor_context_handler_unsubscribe(self, TOPIC), "unsubscribe");
    registers("handler_listen", qor_context_handler_listen(self, TOPIC, NULL), "listen");
    registers("handler_unlisten", qor_context_handler_unlisten(self, TOPIC), "unlisten");
    registers("handler_filter", qor_context_handler_filter(self, TOPIC, NULL), "filter");
    registers("handler_unfilter", qor_context_handler_unfilter(self, TOPIC), "unfilter");

    qor_context_msg_fill(&msg, 1, TOPIC, NULL, 0);
    memset(&task, 0, sizeof(task));
    check("handler_publish",
          qor_context_handler_publish(self, &msg) == HANDED_OVER && reaches("publish"));
    check("handler_publishx",
          qor_context_handler_publishx(self, &msg) == HANDLED && reaches("publishx"));
    check("handler_syscall",
          qor_context_handler_syscall(self, &msg) == HANDED_OVER && reaches("syscall"));
    check("handler_syscallx",
          qor_context_handler_syscallx(self, &msg) == HANDLED && reaches("syscallx"));
    check("handler_post", qor_context_handler_post(self, &task) == HANDED_OVER && reaches("post"));
    check("handler_postx",
          qor_context_handler_postx(self, &task) == HANDED_OVER && reaches("postx"));
    check("handler_cancel", qor_context_handler_cancel(self, 3) == 0 && reaches("cancel"));
    check("handler_cancelx", qor_context_handler_cancelx(self, 3) == 0 && reaches("cancelx"));
}

static void check_shortcuts(void)
{
    int32_t session = 0;
    check("qor_context_session",
          qor_context_session(self, &session) == 0 && session == DRAWN_SESSION);
    registers("qor_context_subscribe", qor_context_subscribe(self, TOPIC, NULL), "subscribe");
    registers("qor_context_unsubscribe", qor_context_unsubscribe(self, TOPIC), "unsubscribe");
    registers("qor_context_listen", qor_context_listen(self, TOPIC, NULL), "listen");
    registers("qor_context_unlisten unsubscribes", qor_context_unlisten(self, TOPIC),
              "unsubscribe");
    registers("qor_context_filter", qor_context_filter(self, TOPIC, NULL), "filter");
    registers("qor_context_unfilter", qor_context_unfilter(self, TOPIC), "unfilter");
}

void check_handler(void)
{
    recorder_init(&record);
    check_dispatchers();
    check_shortcuts();
    check("a context without table is refused",
          (record.context.handler = NULL, qor_context_subscribe(self, TOPIC, NULL) == -1));
}

/* The message that arrived: three bytes of request, and so many of response. */
static void requests(const char *what, int32_t result, int32_t wanted, const char *slot,
                     int32_t session, int32_t res_size)
{
    const struct sent *sent = &record.sent;
    check(what, result == wanted && reaches(slot) && sent->session == session &&
                    sent->topic == TOPIC && sent->type == QOR_CONTEXT_MSG_REQUEST &&
                    sent->request_size == 3 && sent->response_size == res_size);
    memset(&record.sent, -1, sizeof(record.sent));
}

static void check_requests(void)
{
    char question[] = "why", answer[2];
    const int32_t drawn = DRAWN_SESSION, own = OWN_SESSION;

    requests("req", qor_context_req(self, TOPIC, question, 3), drawn, "publish", drawn, 0);
    requests("req_ret", qor_context_req_ret(self, TOPIC, question, 3, 2), drawn, "publish", drawn,
             2);
    requests("req_s", qor_context_req_s(self, own, TOPIC, question, 3), own, "publish", own, 0);
    requests("req_ret_s", qor_context_req_ret_s(self, own, TOPIC, question, 3, 2), own, "publish",
             own, 2);
    requests("x_req", qor_context_x_req(self, TOPIC, question, 3), HANDLED, "publishx", drawn, 0);
    requests("x_req_ret", qor_context_x_req_ret(self, TOPIC, question, 3, answer, 2), HANDLED,
             "publishx", drawn, 2);
    requests("x_req_s", qor_context_x_req_s(self, own, TOPIC, question, 3), HANDLED, "publishx",
             own, 0);
    requests("x_req_ret_s", qor_context_x_req_ret_s(self, own, TOPIC, question, 3, answer, 2),
             HANDLED, "publishx", own, 2);
    requests("sys_req", qor_context_sys_req(self, TOPIC, question, 3), drawn, "syscall", drawn, 0);
    requests("sys_req_ret", qor_context_sys_req_ret(self, TOPIC, question, 3, 2), drawn, "syscall",
             drawn, 2);
    requests("sysx_req", qor_context_sysx_req(self, TOPIC, question, 3), drawn, "syscallx", drawn,
             0);
    requests("sysx_req_ret", qor_context_sysx_req_ret(self, TOPIC, question, 3, answer, 2), drawn,
             "syscall", drawn, 2);
}

static void *run(void *arg)
{
    return arg;
}

static void *runx(qor_context_t *context, int32_t session, void *arg)
{
    (void)context;
    return session >= 0 ? arg : NULL;
}

/* The task that arrived: named as given, or after its function. */
static void posts(const char *what, int32_t result, int32_t wanted, const char *name,
                  int32_t session, int32_t async, int32_t delay)
{
    check(what, result == wanted && reaches("post") && record.task.session == session &&
                    record.task.async == async && record.task.delay == delay &&
                    record.task.context == self && qor_context_task_excute(&record.task) == self &&
                    strncmp(record.task.name, name ? name : "task:", name ? 32 : 5) == 0);
    memset(&record.task, 0, sizeof(record.task));
}

static void check_runs(void)
{
    const int32_t drawn = DRAWN_SESSION, own = OWN_SESSION;

    posts("run_full", qor_context_run_full(self, "n", own, run, self), 0, "n", own, 0, 0);
    posts("run", qor_context_run(self, run, self), drawn, NULL, drawn, 0, 0);
    posts("run_s", qor_context_run_s(self, own, run, self), 0, NULL, own, 0, 0);
    posts("run_name", qor_context_run_name(self, "n", run, self), drawn, "n", drawn, 0, 0);
    posts("runx_full", qor_context_runx_full(self, "n", own, runx, self), 0, "n", own, 1, 0);
    posts("runx", qor_context_runx(self, runx, self), drawn, NULL, drawn, 1, 0);
    posts("runx_s", qor_context_runx_s(self, own, runx, self), 0, NULL, own, 1, 0);
    posts("runx_name", qor_context_runx_name(self, "n", runx, self), drawn, "n", drawn, 1, 0);
    posts("x_run_full", qor_context_x_run_full(self, "n", own, run, self), 0, "n", own, 0, 0);
    posts("x_run", qor_context_x_run(self, run, self), drawn, NULL, drawn, 0, 0);
    posts("x_run_s", qor_context_x_run_s(self, own, run, self), 0, NULL, own, 0, 0);
    posts("x_run_name", qor_context_x_run_name(self, "n", run, self), drawn, "n", drawn, 0, 0);
    posts("x_runx_full", qor_context_x_runx_full(self, "n", own, runx, self), 0, "n", own, 0, 0);
    posts("x_runx", qor_context_x_runx(self, runx, self), drawn, NULL, drawn, 0, 0);
    posts("x_runx_s", qor_context_x_runx_s(self, own, runx, self), 0, NULL, own, 0, 0);
    posts("x_runx_name", qor_context_x_runx_name(self, "n", runx, self), drawn, "n", drawn, 0, 0);
}

static void check_timers(void)
{
    const int32_t drawn = DRAWN_SESSION, own = OWN_SESSION, ms = DELAY;

    posts("timer_full", qor_context_timer_full(self, "n", own, run, self, ms), 0, "n", own, 1, ms);
    posts("timer", qor_context_timer(self, run, self, ms), drawn, NULL, drawn, 1, ms);
    posts("timer_s", qor_context_timer_s(self, own, run, self, ms), 0, NULL, own, 1, ms);
    posts("timer_name", qor_context_timer_name(self, "n", run, self, ms), drawn, "n", drawn, 1, ms);
    posts("timerx_full", qor_context_timerx_full(self, "n", own, runx, self, ms), 0, "n", own, 1,
          ms);
    posts("timerx", qor_context_timerx(self, runx, self, ms), drawn, NULL, drawn, 1, ms);
    posts("timerx_s", qor_context_timerx_s(self, own, runx, self, ms), 0, NULL, own, 1, ms);
    posts("timerx_name", qor_context_timerx_name(self, "n", runx, self, ms), drawn, "n", drawn, 1,
          ms);
    posts("x_timer_full", qor_context_x_timer_full(self, "n", own, run, self, ms), 0, "n", own, 0,
          ms);
    posts("x_timer", qor_context_x_timer(self, run, self, ms), drawn, NULL, drawn, 0, ms);
    posts("x_timer_s", qor_context_x_timer_s(self, own, run, self, ms), 0, NULL, own, 0, ms);
    posts("x_timer_name", qor_context_x_timer_name(self, "n", run, self, ms), drawn, "n", drawn, 0,
          ms);
    posts("x_timerx_full", qor_context_x_timerx_full(self, "n", own, runx, self, ms), 0, "n", own,
          0, ms);
    posts("x_timerx", qor_context_x_timerx(self, runx, self, ms), drawn, NULL, drawn, 0, ms);
    posts("x_timerx_s", qor_context_x_timerx_s(self, own, runx, self, ms), 0, NULL, own, 0, ms);
    posts("x_timerx_name", qor_context_x_timerx_name(self, "n", runx, self, ms), drawn, "n", drawn,
          0, ms);
    check("timer_cancel", qor_context_timer_cancel(self, own) == 0 && reaches("cancel"));
    check("x_timer_cancel", qor_context_x_timer_cancel(self, own) == 0 && reaches("cancelx"));
}

void check_calls(void)
{
    recorder_init(&record);
    check_requests();
    check_runs();
    check_timers();
}
