/* SPDX-License-Identifier: Apache-2.0 */
#include "report.h"

#include <inttypes.h>
#include <string.h>

static void row(const char *name, int64_t value)
{
    printf("  %-22s%9" PRId64 "\n", name, value);
}

static void spread_row(const char *name, const struct spread *spread, double unit,
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

static void head(const struct telemetry *t)
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

static void verdicts(const struct sampler *s)
{
    static const char *const names[VERDICTS] = {
        [VERDICT_SETTLING] = "  settling",   [VERDICT_CALM] = "  calm",
        [VERDICT_CPU] = "  processors busy", [VERDICT_MEMORY] = "  memory short",
        [VERDICT_BOTH] = "  both",
    };
    row("verdicts", s->responses);
    for (int i = 0; i < VERDICTS; i++) {
        row(names[i], s->verdicts[i]);
    }
}

void report(const struct telemetry *t, const struct command *command)
{
    head(t);
    row("samples", t->recorder.seen);
    row("requests", t->sampler.requests);
    row("responses", t->sampler.responses);
    verdicts(&t->sampler);
    row("alarms", t->alarm.raised);
    row("  calls of the alarm", t->alarm.calls);
    row("impossible, clamped", t->guard.clamped);
    if (t->sampler.input.path) {
        row("malformed, skipped", t->sampler.input.skipped);
    }
    printf("\n  %-22s%9s%11s%11s\n", "", "min", "mean", "max");
    spread_row("processor load", &t->recorder.load, 10.0, "%");
    spread_row("memory headroom", &t->recorder.headroom, 10.0, "%");
    spread_row("own memory", &t->recorder.own_kb, 1024.0, "MiB");
    spread_row("round trip", &t->sampler.round_trip_us, 1.0, "us");
    if (command->pid != 0) {
        char text[80];
        command_describe(command, text, sizeof(text));
        printf("\n  the command %s\n", text);
    }
    fflush(stdout);
}
