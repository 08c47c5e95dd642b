/* SPDX-License-Identifier: Apache-2.0 */
/* The call families of modules: each call is a record on the stack and one dispatcher. */
#include "qor_context_module.h"

#include "qor_context_forward.hpp"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_diag.hpp"

namespace {

constexpr char file_tag[] = "qor_context_module";

/* Values of a task's async: taken from a user context's own queue, or given a run of its own. */
constexpr int32_t in_line = 0;
constexpr int32_t own_run = 1;

constexpr int32_t no_delay = 0;

int32_t module_session(qor_context_t *context)
{
    int32_t session = 0;
    /* Deliberate: a draw that fails is ignored and leaves session 0; the call goes on and fails, if
     * it does, at its own dispatcher. Test: ContextModule.FailedDrawLeavesSessionZero. */
    qor_context_session(context, &session);
    return session;
}

int32_t module_session_unless_failed(int32_t result, int32_t session)
{
    return result < 0 ? -1 : session;
}

int32_t module_publish(qor_context_t *context, int32_t ss, qor_context_topic_t topic, void *req_buf,
                       int32_t req_size, int32_t res_size)
{
    qor_context_msg_t msg = {};
    qor_context_msg_fill_full(&msg, ss, topic, req_buf, req_size, nullptr, res_size);
    return module_session_unless_failed(qor_context_publish(context, &msg), ss);
}

int32_t module_publishx(qor_context_t *context, int32_t ss, qor_context_topic_t topic,
                        void *req_buf, int32_t req_size, void *res_buf, int32_t res_size)
{
    qor_context_msg_t msg = {};
    qor_context_msg_fill_full(&msg, ss, topic, req_buf, req_size, res_buf, res_size);
    return qor_context_publishx(context, &msg);
}

/* The bodies that the requests share have the names that their checks print. */
int32_t _qor_context_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                         int32_t req_size, int32_t res_size)
{
    QOR_CHECK(_this, -1);
    return module_publish(_this, module_session(_this), topic, req_buf, req_size, res_size);
}

int32_t _qor_context_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                           void *req_buf, int32_t req_size, int32_t res_size)
{
    QOR_CHECK(_this, -1);
    return module_publish(_this, ss, topic, req_buf, req_size, res_size);
}

int32_t _qor_context_x_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                           int32_t req_size, void *res_buf, int32_t res_size)
{
    QOR_CHECK(_this, -1);
    return module_publishx(_this, module_session(_this), topic, req_buf, req_size, res_buf,
                           res_size);
}

int32_t _qor_context_x_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                             void *req_buf, int32_t req_size, void *res_buf, int32_t res_size)
{
    QOR_CHECK(_this, -1);
    return module_publishx(_this, ss, topic, req_buf, req_size, res_buf, res_size);
}

int32_t module_post(qor_context_t *context, qor_context_task_t *task, int32_t async, int32_t delay)
{
    qor_context_task_set_async(task, async);
    qor_context_task_set_delay(task, delay);
    return qor_context_post(context, task);
}

int32_t module_post_run(qor_context_t *context, const char *name, int32_t ss,
                        qor_context_run_t func, void *arg, int32_t async, int32_t delay)
{
    qor_context_task_t task = {};
    qor_context_task_init(&task, context, name, ss, func, arg);
    return module_post(context, &task, async, delay);
}

int32_t module_post_runx(qor_context_t *context, const char *name, int32_t ss,
                         qor_context_runx_t func, void *arg, int32_t async, int32_t delay)
{
    qor_context_task_t task = {};
    qor_context_taskx_init(&task, context, name, ss, func, arg);
    return module_post(context, &task, async, delay);
}

} // namespace

int32_t qor_context_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                        int32_t req_size)
{
    return _qor_context_req(_this, topic, req_buf, req_size, 0);
}

int32_t qor_context_req_ret(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                            int32_t req_size, int32_t res_size)
{
    return _qor_context_req(_this, topic, req_buf, req_size, res_size);
}

int32_t qor_context_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                          void *req_buf, int32_t req_size)
{
    return _qor_context_req_s(_this, ss, topic, req_buf, req_size, 0);
}

int32_t qor_context_req_ret_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                              void *req_buf, int32_t req_size, int32_t res_size)
{
    return _qor_context_req_s(_this, ss, topic, req_buf, req_size, res_size);
}

int32_t qor_context_x_req(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                          int32_t req_size)
{
    return _qor_context_x_req(_this, topic, req_buf, req_size, nullptr, 0);
}

int32_t qor_context_x_req_ret(qor_context_t *_this, qor_context_topic_t topic, void *req_buf,
                              int32_t req_size, void *res_buf, int32_t res_size)
{
    return _qor_context_x_req(_this, topic, req_buf, req_size, res_buf, res_size);
}

int32_t qor_context_x_req_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                            void *req_buf, int32_t req_size)
{
    return _qor_context_x_req_s(_this, ss, topic, req_buf, req_size, nullptr, 0);
}

int32_t qor_context_x_req_ret_s(qor_context_t *_this, int32_t ss, qor_context_topic_t topic,
                                void *req_buf, int32_t req_size, void *res_buf, int32_t res_size)
{
    return _qor_context_x_req_s(_this, ss, topic, req_buf, req_size, res_buf, res_size);
}

int32_t qor_context_run_full(qor_context_t *_this, const char *name, int32_t ss,
                             qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    /* Deliberate: by way of the queue, as x_run and unlike the other families without the x_:
     * modules count on these tasks to wait there. Test: ContextModule.PlainRunIsInLine. */
    return module_post_run(_this, name, ss, func, arg, in_line, no_delay);
}

int32_t qor_context_run(qor_context_t *_this, qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_run_name(_this, nullptr, func, arg);
}

int32_t qor_context_run_s(qor_context_t *_this, int32_t ss, qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    /* Deliberate: the result of the post, 0 on the bus, and not ss, in every family.
     * Test: ContextModule.MembersWithSessionReturnTheResultOfThePost. */
    return qor_context_run_full(_this, nullptr, ss, func, arg);
}

int32_t qor_context_run_name(qor_context_t *_this, const char *name, qor_context_run_t func,
                             void *arg)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_run_full(_this, name, session, func, arg);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_runx_full(qor_context_t *_this, const char *name, int32_t ss,
                              qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_runx(_this, name, ss, func, arg, own_run, no_delay);
}

int32_t qor_context_runx(qor_context_t *_this, qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_runx_name(_this, nullptr, func, arg);
}

int32_t qor_context_runx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_runx_full(_this, nullptr, ss, func, arg);
}

int32_t qor_context_runx_name(qor_context_t *_this, const char *name, qor_context_runx_t func,
                              void *arg)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_runx_full(_this, name, session, func, arg);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_x_run_full(qor_context_t *_this, const char *name, int32_t ss,
                               qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_run(_this, name, ss, func, arg, in_line, no_delay);
}

int32_t qor_context_x_run(qor_context_t *_this, qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_run_name(_this, nullptr, func, arg);
}

int32_t qor_context_x_run_s(qor_context_t *_this, int32_t ss, qor_context_run_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_run_full(_this, nullptr, ss, func, arg);
}

int32_t qor_context_x_run_name(qor_context_t *_this, const char *name, qor_context_run_t func,
                               void *arg)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_x_run_full(_this, name, session, func, arg);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_x_runx_full(qor_context_t *_this, const char *name, int32_t ss,
                                qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_runx(_this, name, ss, func, arg, in_line, no_delay);
}

int32_t qor_context_x_runx(qor_context_t *_this, qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_runx_name(_this, nullptr, func, arg);
}

int32_t qor_context_x_runx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func, void *arg)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_runx_full(_this, nullptr, ss, func, arg);
}

int32_t qor_context_x_runx_name(qor_context_t *_this, const char *name, qor_context_runx_t func,
                                void *arg)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_x_runx_full(_this, name, session, func, arg);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_timer_full(qor_context_t *_this, const char *name, int32_t ss,
                               qor_context_run_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_run(_this, name, ss, func, arg, own_run, delay);
}

int32_t qor_context_timer(qor_context_t *_this, qor_context_run_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_timer_name(_this, nullptr, func, arg, delay);
}

int32_t qor_context_timer_s(qor_context_t *_this, int32_t ss, qor_context_run_t func, void *arg,
                            int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_timer_full(_this, nullptr, ss, func, arg, delay);
}

int32_t qor_context_timer_name(qor_context_t *_this, const char *name, qor_context_run_t func,
                               void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_timer_full(_this, name, session, func, arg, delay);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_timerx_full(qor_context_t *_this, const char *name, int32_t ss,
                                qor_context_runx_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_runx(_this, name, ss, func, arg, own_run, delay);
}

int32_t qor_context_timerx(qor_context_t *_this, qor_context_runx_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_timerx_name(_this, nullptr, func, arg, delay);
}

int32_t qor_context_timerx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func, void *arg,
                             int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_timerx_full(_this, nullptr, ss, func, arg, delay);
}

int32_t qor_context_timerx_name(qor_context_t *_this, const char *name, qor_context_runx_t func,
                                void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_timerx_full(_this, name, session, func, arg, delay);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_x_timer_full(qor_context_t *_this, const char *name, int32_t ss,
                                 qor_context_run_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_run(_this, name, ss, func, arg, in_line, delay);
}

int32_t qor_context_x_timer(qor_context_t *_this, qor_context_run_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_timer_name(_this, nullptr, func, arg, delay);
}

int32_t qor_context_x_timer_s(qor_context_t *_this, int32_t ss, qor_context_run_t func, void *arg,
                              int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_timer_full(_this, nullptr, ss, func, arg, delay);
}

int32_t qor_context_x_timer_name(qor_context_t *_this, const char *name, qor_context_run_t func,
                                 void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_x_timer_full(_this, name, session, func, arg, delay);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_x_timerx_full(qor_context_t *_this, const char *name, int32_t ss,
                                  qor_context_runx_t func, void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    QOR_CHECK(func, -1);
    return module_post_runx(_this, name, ss, func, arg, in_line, delay);
}

int32_t qor_context_x_timerx(qor_context_t *_this, qor_context_runx_t func, void *arg,
                             int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_timerx_name(_this, nullptr, func, arg, delay);
}

int32_t qor_context_x_timerx_s(qor_context_t *_this, int32_t ss, qor_context_runx_t func, void *arg,
                               int32_t delay)
{
    QOR_CHECK(_this, -1);
    return qor_context_x_timerx_full(_this, nullptr, ss, func, arg, delay);
}

int32_t qor_context_x_timerx_name(qor_context_t *_this, const char *name, qor_context_runx_t func,
                                  void *arg, int32_t delay)
{
    QOR_CHECK(_this, -1);
    const int32_t session = module_session(_this);
    const int32_t result = qor_context_x_timerx_full(_this, name, session, func, arg, delay);
    return module_session_unless_failed(result, session);
}

int32_t qor_context_timer_cancel(qor_context_t *_this, int32_t ss)
{
    return qor_context_cancel(_this, ss);
}

int32_t qor_context_x_timer_cancel(qor_context_t *_this, int32_t ss)
{
    return qor_context_cancelx(_this, ss);
}
