/* SPDX-License-Identifier: Apache-2.0 */
/* The alarm is called by the judge, on the judge's thread, for every bad verdict. Calls for samples
 * in a row are one alarm. It comes up in the second phase and tells the sampler then. */
#include "telemetry.h"

static void alarm_keep(struct alarm *a)
{
    if (a->raised > 0 && a->raised <= ALARMS_KEPT) {
        a->episodes[a->raised - 1] = a->now;
    }
}

static void alarm_raise(struct alarm *a, const struct verdict *v)
{
    static const char *const what[VERDICTS] = {
        [VERDICT_CPU] = "processors busy",
        [VERDICT_MEMORY] = "memory short",
        [VERDICT_BOTH] = "processors busy and memory short",
    };
    a->raised++;
    a->now = (struct alarm_episode){.from_ms = v->at_ms, .first = v->number};
    hal_printf("alarm %d at %.1f s: %s (load %.1f %%, headroom %.1f %%)\n", a->raised,
               (double)v->at_ms / 1000.0, what[v->kind], v->load / 10.0, v->headroom / 10.0);
}

static int32_t alarm_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    struct alarm *a = &t->alarm;
    struct verdict v;
    if (msg->type == QOR_CONTEXT_MSG_RESPONSE) { /* the sampler knows */
        telemetry_done(t);
        return 0;
    }
    if (payload_read(&msg->request, &v, sizeof(v)) != 0) {
        return 0;
    }
    a->calls++;
    if (a->raised == 0 || v.number != a->now.last + 1) {
        alarm_raise(a, &v);
    }
    a->now.to_ms = v.at_ms;
    a->now.last = v.number;
    alarm_keep(a);
    const struct alarm_answer answer = {.raised = a->raised};
    payload_write(&msg->response, &answer, sizeof(answer));
    return 0;
}

static void alarm_reg(qor_context_t *context)
{
    qor_context_subscribe(context, TOPIC_ALARM, NULL);
}

static void alarm_unreg(qor_context_t *context)
{
    qor_context_unsubscribe(context, TOPIC_ALARM);
}

static int32_t alarm_init(qor_context_t *context, void *arg)
{
    telemetry_attach(context, arg);
    const int32_t session = qor_context_req(context, TOPIC_READY, NULL, 0);
    if (session < 0) { /* nobody would ever begin */
        telemetry_fail(arg);
    }
    return session;
}

qor_context_module_t alarm_module = {
    .name = "alarm",
    .pure = 0,
    .reg = alarm_reg,
    .unreg = alarm_unreg,
    .init = alarm_init,
    .uninit = telemetry_nothing,
    .handle_message = alarm_message,
};
