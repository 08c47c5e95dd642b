/* SPDX-License-Identifier: Apache-2.0 */
/* The judge answers every sample with a verdict on the last second: how busy the processors were,
 * and how much memory was left. It calls the alarm when either is bad. */
#include "telemetry.h"

enum { LOAD_LIMIT = 900, HEADROOM_LIMIT = 100 }; /* tenths of a percent */

static int32_t share(int64_t part, int64_t whole)
{
    return whole > 0 ? (int32_t)((double)part / (double)whole * 1000.0 + 0.5) : 0;
}

/* Requests come one at a time, and the window needs no lock: they are all that runs of this module,
 * its refcount is 0, it has no timers, and there are never 50 requests that wait. */
static struct verdict judge_verdict(struct judge *j, const struct sample *sample)
{
    const int32_t slots = WINDOW + 1;
    j->window[j->count % slots] = sample->reading;
    const int32_t oldest = j->count < slots ? 0 : j->count - WINDOW;
    const struct reading *from = &j->window[oldest % slots];
    const struct reading *to = &sample->reading;
    struct verdict v = {.kind = VERDICT_SETTLING,
                        .number = sample->number,
                        .at_ms = to->at_ms,
                        .load =
                            share(to->cpu_busy - from->cpu_busy, to->cpu_total - from->cpu_total)};
    int64_t headroom = 0;
    for (int32_t i = oldest; i <= j->count; i++) {
        const struct reading *r = &j->window[i % slots];
        headroom += share(r->mem_free_kb, r->mem_total_kb);
    }
    v.headroom = (int32_t)(headroom / (j->count - oldest + 1));
    if (j->count++ > 0) { /* a load needs two readings */
        const int32_t busy = v.load > LOAD_LIMIT;
        const int32_t tight = v.headroom < HEADROOM_LIMIT;
        v.kind = busy && tight ? VERDICT_BOTH
                 : busy        ? VERDICT_CPU
                 : tight       ? VERDICT_MEMORY
                               : VERDICT_CALM;
    }
    return v;
}

static int32_t judge_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    struct sample sample;
    if (msg->type != QOR_CONTEXT_MSG_REQUEST ||
        payload_read(&msg->request, &sample, sizeof(sample)) != 0) {
        return 0;
    }
    struct verdict verdict = judge_verdict(&t->judge, &sample);
    if (verdict.kind > VERDICT_CALM) {
        struct alarm_answer answer; /* written before the call returns */
        qor_context_x_req_ret(context, TOPIC_ALARM, &verdict, sizeof(verdict), &answer,
                              sizeof(answer));
    }
    payload_write(&msg->response, &verdict, sizeof(verdict));
    return 0;
}

static void judge_reg(qor_context_t *context)
{
    qor_context_subscribe(context, TOPIC_SAMPLE, NULL);
}

static void judge_unreg(qor_context_t *context)
{
    qor_context_unsubscribe(context, TOPIC_SAMPLE);
}

qor_context_module_t judge_module = {
    .name = "judge",
    .pure = 1,
    .reg = judge_reg,
    .unreg = judge_unreg,
    .init = telemetry_attach,
    .uninit = telemetry_nothing,
    .handle_message = judge_message,
};
