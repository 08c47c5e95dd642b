/* SPDX-License-Identifier: Apache-2.0 */
/* The recorder listens: it is shown every sample after it was answered, and keeps the figures. In
 * the end it prints them and writes them down. */
#include "telemetry.h"

#include <inttypes.h>
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

static void report_row(const char *name, int64_t value)
{
    printf("  %-22s%9" PRId64 "\n", name, value);
}

static void report_spread(const char *name, const struct spread *spread, double unit,
                          const char *unit_name)
{
    if (spread->count == 0) {
        printf("  %-22s%9s\n", name, "-");
        return;
    }
    printf("  %-22s%9.1f%11.1f%11.1f  %s\n", name, (double)spread->min / unit,
           (double)spread->sum / (double)spread->count / unit, (double)spread->max / unit,
           unit_name);
}

static void report_head(const struct telemetry *t)
{
    static const char *const ends[] = {
        [STOP_NOT] = "by a failure",
        [STOP_SAMPLES] = "with the last sample asked for",
        [STOP_RECORDING] = "with the recording",
        [STOP_COMMAND] = "with the command",
        [STOP_SIGNAL] = "by a signal",
    };
    int64_t to_ms = 0;
    for (int32_t i = 0; i < t->recorder.room; i++) {
        to_ms = t->recorder.series[i].known ? t->recorder.series[i].at_ms : to_ms;
    }
    printf("\ntelemetry: %.1f s watched, ended %s\n\n", (double)to_ms / 1000.0,
           ends[atomic_load(&t->stop)]);
}

static void report_verdicts(const struct sampler *s)
{
    static const char *const names[VERDICTS] = {
        [VERDICT_SETTLING] = "  settling",   [VERDICT_CALM] = "  calm",
        [VERDICT_CPU] = "  processors busy", [VERDICT_MEMORY] = "  memory short",
        [VERDICT_BOTH] = "  both",
    };
    report_row("verdicts", s->responses);
    for (int i = 0; i < VERDICTS; i++) {
        report_row(names[i], s->verdicts[i]);
    }
}

void recorder_report(const struct telemetry *t)
{
    report_head(t);
    report_row("samples", t->recorder.seen);
    report_row("requests", t->sampler.requests);
    report_row("responses", t->sampler.responses);
    report_verdicts(&t->sampler);
    report_row("alarms", t->alarm.raised);
    report_row("  calls of the alarm", t->alarm.calls);
    report_row("impossible, clamped", t->guard.clamped);
    if (t->sampler.input.path) {
        report_row("malformed, skipped", t->sampler.input.skipped);
    }
    printf("\n  %-22s%9s%11s%11s\n", "", "min", "mean", "max");
    report_spread("processor load", &t->recorder.load, 10.0, "%");
    report_spread("memory headroom", &t->recorder.headroom, 10.0, "%");
    report_spread("own memory", &t->recorder.own_kb, 1024.0, "MiB");
    report_spread("round trip", &t->sampler.round_trip_us, 1.0, "us");
    if (t->command.pid != 0) {
        char text[80];
        command_describe(&t->command, text, sizeof(text));
        printf("\n  the command %s\n", text);
    }
    fflush(stdout);
}

static void write_alarms(FILE *record, const struct alarm *a)
{
    for (int32_t i = 0; i < a->raised && i < ALARMS_KEPT; i++) {
        const struct alarm_episode *e = &a->episodes[i];
        fprintf(record, "alarm %" PRId64 " %" PRId64 " %d\n", e->from_ms, e->to_ms, e->first);
    }
    if (a->raised > ALARMS_KEPT) { /* the newest is always told */
        fprintf(record, "alarm %" PRId64 " %" PRId64 " %d\n", a->now.from_ms, a->now.to_ms,
                a->now.first);
    }
}

void recorder_write(FILE *record, const struct telemetry *t)
{
    const struct spread *trip = &t->sampler.round_trip_us;
    for (int32_t i = 0; i < t->recorder.room; i++) {
        const struct point *p = &t->recorder.series[i];
        if (p->known) {
            fprintf(record, "sample %d %" PRId64 " %d %d\n", i, p->at_ms, p->load, p->headroom);
        }
    }
    write_alarms(record, &t->alarm);
    fprintf(record, "watch %d %d %" PRId64 " %" PRId64 " %" PRId64 "\n", t->sampler.requests,
            t->alarm.raised, trip->min, trip->count > 0 ? trip->sum / trip->count : 0, trip->max);
}
