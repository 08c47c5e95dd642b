/* SPDX-License-Identifier: Apache-2.0 */
/* The sampler publishes readings: of this machine every 100 ms, or those of a recording as fast as
 * the judge answers. It begins when the alarm has said that it is ready. */
#include "telemetry.h"

#include "proc.h"

enum { PERIOD_MS = 100 };

static void *sampler_tick(qor_context_t *context, int32_t session, void *arg);

/* Sends a reading. Never runs twice at once: each call is made from the timer that the last one
 * armed, or from the response to the last sample. */
static void sampler_publish(qor_context_t *context, struct telemetry *t,
                            const struct reading *reading, int32_t last, int64_t began_us)
{
    struct sampler *s = &t->sampler;
    struct sample sample = {.last = last, .sent_us = trace_now(), .reading = *reading};
    pthread_mutex_lock(&s->mutex);
    sample.number = s->requests++;
    s->last_sent = last;
    pthread_mutex_unlock(&s->mutex);
    if (qor_context_req_ret(context, TOPIC_SAMPLE, &sample, sizeof(sample),
                            sizeof(struct verdict)) < 0) {
        telemetry_fail(t);
    }
    trace_add(&t->trace, LANE_SAMPLER, RUN_PUBLISH, sample.number, began_us);
}

static void sampler_arm(qor_context_t *context, struct telemetry *t)
{
    struct sampler *s = &t->sampler;
    const int64_t now = util_timestamp();
    s->due_ms += PERIOD_MS; /* from the due time, so that lateness does not add up */
    if (s->due_ms <= now) {
        s->due_ms = now + 1;
    }
    if (qor_context_timerx(context, sampler_tick, t, (int32_t)(s->due_ms - now)) < 0) {
        telemetry_fail(t);
    }
}

static int32_t sampler_is_last(struct telemetry *t, int32_t at_end)
{
    struct sampler *s = &t->sampler;
    if (s->limit > 0 && s->requests + 1 >= s->limit) {
        telemetry_stop(t, STOP_SAMPLES);
    } else if (at_end) {
        telemetry_stop(t, STOP_RECORDING);
    }
    return atomic_load(&t->stop) != STOP_NOT;
}

/* Takes a reading of the machine. A file of /proc that cannot be read leaves the last one. */
static void *sampler_tick(qor_context_t *context, int32_t session, void *arg)
{
    struct telemetry *t = arg;
    struct sampler *s = &t->sampler;
    const int64_t began = trace_now();
    (void)session;
    proc_read(&s->next);
    s->next.at_ms = util_timestamp() - s->zero_ms;
    if (s->record) {
        recording_write(s->record, &s->next);
    }
    const int32_t last = sampler_is_last(t, 0);
    sampler_publish(context, t, &s->next, last, began);
    if (!last) {
        sampler_arm(context, t);
    }
    return NULL;
}

/* Sends the line of the recording that was read ahead. */
static void sampler_replay(qor_context_t *context, struct telemetry *t)
{
    struct sampler *s = &t->sampler;
    const struct reading reading = s->next;
    const int64_t began = trace_now();
    const int more = recording_next(&s->input, &s->next);
    sampler_publish(context, t, &reading, sampler_is_last(t, !more), began);
}

static void sampler_begin(qor_context_t *context, struct telemetry *t)
{
    if (t->sampler.input.file) {
        sampler_replay(context, t);
    } else {
        t->sampler.zero_ms = t->sampler.due_ms = util_timestamp();
        sampler_tick(context, 0, t);
    }
}

/* Counts a response. Returns 1 when another line of the recording is to be sent. */
static int sampler_count(struct telemetry *t, const struct sample *sample,
                         const struct verdict *verdict, int64_t now_us)
{
    struct sampler *s = &t->sampler;
    pthread_mutex_lock(&s->mutex);
    s->responses++;
    s->verdicts[verdict->kind]++;
    spread_add(&s->round_trip_us, now_us - sample->sent_us);
    const int over = s->last_sent && s->responses == s->requests;
    const int more = !s->last_sent && s->input.file != NULL;
    pthread_mutex_unlock(&s->mutex);
    if (over) {
        telemetry_done(t);
    }
    return more;
}

static int32_t sampler_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    const int64_t began = trace_now();
    struct sample sample;
    struct verdict verdict;
    if (msg->type == QOR_CONTEXT_MSG_REQUEST && msg->topic == TOPIC_READY) {
        sampler_begin(context, t);
        return 0;
    }
    if (msg->type != QOR_CONTEXT_MSG_RESPONSE || msg->ret < 0 ||
        payload_read(&msg->request, &sample, sizeof(sample)) != 0 ||
        payload_answer(msg, &verdict, sizeof(verdict)) != 0) {
        telemetry_fail(t);
        return 0;
    }
    const int more = sampler_count(t, &sample, &verdict, began);
    trace_add(&t->trace, LANE_SAMPLER, RUN_RESPONSE, sample.number, began);
    if (more) {
        sampler_replay(context, t);
    }
    return 0;
}

static void sampler_reg(qor_context_t *context)
{
    qor_context_subscribe(context, TOPIC_READY, NULL);
}

static void sampler_unreg(qor_context_t *context)
{
    qor_context_unsubscribe(context, TOPIC_READY);
}

qor_context_module_t sampler_module = {
    .name = "sampler",
    .pure = 1,
    .reg = sampler_reg,
    .unreg = sampler_unreg,
    .init = telemetry_attach,
    .uninit = telemetry_nothing,
    .handle_message = sampler_message,
};
