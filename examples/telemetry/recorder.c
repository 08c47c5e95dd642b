/* SPDX-License-Identifier: Apache-2.0 */
/* The recorder listens: it is shown every sample after it was answered, and keeps the figures. */
#include "telemetry.h"

#include <stdlib.h>
#include <string.h>

/* Makes room for a number. Doubling keeps the copying low on a watch of hours. */
static int recorder_grow(struct recorder *r, int32_t number)
{
    if (number < r->room) {
        return 0;
    }
    const int32_t room = number < 512 ? 1024 : 2 * number;
    struct point *series = realloc(r->series, (size_t)room * sizeof(*series));
    if (!series) {
        return -1;
    }
    memset(series + r->room, 0, (size_t)(room - r->room) * sizeof(*series));
    r->series = series;
    r->room = room;
    return 0;
}

static int recorder_add(struct recorder *r, const struct sample *sample, const struct verdict *v)
{
    if (recorder_grow(r, sample->number) != 0) {
        return -1;
    }
    const int settling = v->kind == VERDICT_SETTLING;
    r->series[sample->number] = (struct point){
        .at_ms = v->at_ms, .load = settling ? -1 : v->load, .headroom = v->headroom, .known = 1};
    spread_add(&r->own_kb, sample->reading.own_kb);
    spread_add(&r->headroom, v->headroom);
    if (!settling) {
        spread_add(&r->load, v->load);
    }
    r->seen++;
    if (sample->last) {
        r->total = sample->number + 1;
    }
    return 0;
}

static int32_t recorder_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    struct recorder *r = &t->recorder;
    const int64_t began = trace_now();
    struct sample sample;
    struct verdict verdict;
    if (msg->type != QOR_CONTEXT_MSG_LISTEN_AFTER ||
        payload_read(&msg->request, &sample, sizeof(sample)) != 0 ||
        payload_answer(msg, &verdict, sizeof(verdict)) != 0) {
        return 0;
    }
    pthread_mutex_lock(&r->mutex);
    const int failed = recorder_add(r, &sample, &verdict) != 0;
    const int over = r->seen == r->total;
    pthread_mutex_unlock(&r->mutex);
    trace_add(&t->trace, LANE_RECORDER, RUN_LISTEN, sample.number, began);
    if (failed) {
        telemetry_fail(t);
    } else if (over) {
        telemetry_done(t);
    }
    return 0;
}

static void recorder_reg(qor_context_t *context)
{
    qor_context_topic_attr_t after = {.mask = QOR_CONTEXT_TOPIC_ATTR_POINT,
                                      .point = QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER};
    qor_context_listen(context, TOPIC_SAMPLE, &after);
}

qor_context_module_t recorder_module = {
    .name = "recorder",
    .pure = 1,
    .reg = recorder_reg,
    .unreg = telemetry_nothing, /* a listener is taken down with its context */
    .init = telemetry_attach,
    .uninit = telemetry_nothing,
    .handle_message = recorder_message,
};
