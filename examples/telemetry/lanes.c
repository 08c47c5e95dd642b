/* SPDX-License-Identifier: Apache-2.0 */
/* The modules at work: a lane each, a box for every handler run, arrows between the runs of a
 * request. A run takes microseconds and samples are 100 ms apart, so a few samples are shown, a
 * column each, and the idle time between them is left out. */
#include "picture.h"

#include <string.h>

#include "svg.h"

enum { COLUMNS = 3, COLUMN_GAP = 18, LANE_HEIGHT = 36, BOX = 22, FOOT = 98 };

static const char *const lane_names[LANES] = {"sampler", "guard",    "judge",
                                              "alarm",   "recorder", "hog"};
static const char *const kind_classes[RUN_KINDS] = {"publish", "filter",   "request", "call",
                                                    "listen",  "response", "task"};

struct column {
    int32_t sample;
    const struct run *runs[RUN_KINDS]; /* of this sample, by kind; NULL where there is none */
    int64_t from_us;
    int64_t to_us;
    struct area area;
    double top_us; /* what the width stands for */
};

static int lane_count(const struct telemetry *t)
{
    for (uint32_t i = 0; i < trace_kept(&t->trace); i++) {
        if (trace_run(&t->trace, i)->lane == LANE_HOG) {
            return LANES;
        }
    }
    return LANE_HOG;
}

double lanes_height(const struct telemetry *t)
{
    return lane_count(t) * LANE_HEIGHT + FOOT;
}

/* Gathers what is known of a sample. Returns 0 when that is not all: the trace has forgotten it, or
 * the bus was stopped in a hurry. */
static int column_find(struct column *column, const struct telemetry *t, int32_t sample)
{
    *column = (struct column){.sample = sample};
    for (uint32_t i = 0; i < trace_kept(&t->trace); i++) {
        const struct run *run = trace_run(&t->trace, i);
        if (run->sample == sample) {
            column->runs[run->kind] = run;
            column->to_us = run->ended_us > column->to_us ? run->ended_us : column->to_us;
        }
    }
    if (!column->runs[RUN_PUBLISH] || !column->runs[RUN_REQUEST] || !column->runs[RUN_RESPONSE] ||
        !column->runs[RUN_LISTEN]) {
        return 0;
    }
    column->from_us = column->runs[RUN_PUBLISH]->began_us;
    return 1;
}

/* The sample that raised the newest alarm, or -1 when the trace has it no longer. */
static int32_t alarm_sample(const struct telemetry *t)
{
    struct column column;
    const int32_t sample = t->alarm.now.first;
    return t->alarm.raised > 0 && column_find(&column, t, sample) ? sample : -1;
}

/* Picks the samples to show: around the newest alarm, or the last ones. */
static int columns_choose(struct column *columns, const struct telemetry *t)
{
    const int32_t samples = t->sampler.requests;
    const int32_t alarm = alarm_sample(t);
    int32_t first = samples - COLUMNS;
    int count = 0;
    if (alarm > 0 && alarm - 1 < first) {
        first = alarm - 1;
    }
    for (int32_t i = first < 0 ? 0 : first; i < samples && count < COLUMNS; i++) {
        count += column_find(&columns[count], t, i);
    }
    return count;
}

static double run_x(const struct column *c, int64_t us)
{
    const double at = (double)(us - c->from_us) / c->top_us;
    return c->area.x + (at < 0 ? 0 : at > 1 ? 1 : at) * c->area.width;
}

static double lane_y(const struct column *c, int32_t lane)
{
    return c->area.y + lane * LANE_HEIGHT + (LANE_HEIGHT - BOX) / 2.0;
}

static void draw_run(FILE *file, const struct column *c, const struct run *run)
{
    const double x = run_x(c, run->began_us);
    const double width = run_x(c, run->ended_us) - x;
    svg_box(file, kind_classes[run->kind], x, lane_y(c, run->lane), width < 2 ? 2 : width, BOX);
    if (width > 30 && run->kind != RUN_TASK) {
        svg_text(file, "inside", x + width / 2, lane_y(c, run->lane) + 15, "%d",
                 (int)(run->ended_us - run->began_us));
    }
}

/* An arrow from one run's edge at a moment to the beginning of another run. */
static void draw_arrow(FILE *file, const char *cls, const struct column *c, const struct run *from,
                       int64_t at_us, const struct run *to)
{
    if (from && to) {
        const int down = to->lane > from->lane;
        svg_line(file, cls, run_x(c, at_us), lane_y(c, from->lane) + (down ? BOX : 0),
                 run_x(c, to->began_us) + 1, lane_y(c, to->lane) + (down ? 0 : BOX));
    }
}

static void column_arrows(FILE *file, const struct column *c)
{
    const struct run *const *r = c->runs;
    /* the request leaves the publishing run when the filter has seen it */
    draw_arrow(file, "ask", c, r[RUN_PUBLISH], r[RUN_FILTER] ? r[RUN_FILTER]->ended_us : c->from_us,
               r[RUN_REQUEST]);
    draw_arrow(file, "answer", c, r[RUN_REQUEST], r[RUN_REQUEST]->ended_us, r[RUN_RESPONSE]);
    draw_arrow(file, "copy", c, r[RUN_REQUEST], r[RUN_REQUEST]->ended_us, r[RUN_LISTEN]);
    if (r[RUN_CALL]) {
        draw_arrow(file, "invoke", c, r[RUN_REQUEST], r[RUN_CALL]->began_us, r[RUN_CALL]);
    }
}

static void column_frame(FILE *file, const struct column *c, const struct telemetry *t)
{
    const struct area *a = &c->area;
    const double step = picture_step(c->top_us, 5);
    for (int i = 0; i < lane_count(t); i++) {
        svg_box(file, i % 2 ? "even" : "odd", a->x, a->y + i * LANE_HEIGHT, a->width, LANE_HEIGHT);
    }
    for (double at = 0; at <= c->top_us; at += step) {
        const double x = a->x + at / c->top_us * a->width;
        svg_line(file, "grid", x, a->y, x, a->y + a->height + 4);
        svg_text(file, "mid small", x, a->y + a->height + 16, "%.0f", at);
    }
    svg_line(file, "axis", a->x, a->y + a->height, a->x + a->width, a->y + a->height);
    svg_text(file, "head", a->x, a->y - 8, "sample %d, at %.1f s", c->sample,
             (double)t->recorder.series[c->sample].at_ms / 1000.0);
}

static void column_draw(FILE *file, const struct column *c, const struct telemetry *t)
{
    column_frame(file, c, t);
    for (uint32_t i = 0; i < trace_kept(&t->trace); i++) {
        const struct run *run = trace_run(&t->trace, i);
        if (run->sample < 0 && run->began_us <= c->from_us && run->ended_us > c->from_us) {
            draw_run(file, c, run);
        }
    }
    for (int kind = 0; kind < RUN_KINDS; kind++) {
        if (c->runs[kind]) {
            draw_run(file, c, c->runs[kind]);
        }
    }
    column_arrows(file, c);
}

static void runs_legend(FILE *file, double x, double y)
{
    static const char *const texts[RUN_KINDS] = {"takes and publishes a sample",
                                                 "filters",
                                                 "judges it",
                                                 "is called by the judge",
                                                 "listens",
                                                 "receives the verdict",
                                                 "a task of its own"};
    for (int kind = 0; kind < RUN_KINDS; kind++) {
        svg_box(file, kind_classes[kind], x, y - 10, 12, 12);
        svg_text(file, "", x + 17, y, "%s", texts[kind]);
        x += 32 + 6.2 * (double)strlen(texts[kind]);
    }
}

static void arrows_legend(FILE *file, double x, double y)
{
    static const char *const entries[][2] = {{"ask", "request"},
                                             {"answer", "response"},
                                             {"invoke", "call on the judge's own thread"},
                                             {"copy", "copy for the listener"}};
    for (size_t i = 0; i < sizeof(entries) / sizeof(entries[0]); i++) {
        svg_line(file, entries[i][0], x, y - 4, x + 26, y - 4);
        svg_text(file, "", x + 34, y, "%s", entries[i][1]);
        x += 56 + 6.2 * (double)strlen(entries[i][1]);
    }
}

void lanes_draw(FILE *file, const struct telemetry *t, struct area area)
{
    struct column columns[COLUMNS];
    const int count = columns_choose(columns, t);
    const int lanes = lane_count(t);
    const double width = (area.width - (COLUMNS - 1) * COLUMN_GAP) / COLUMNS;
    svg_text(file, "head", 24, area.y - 62, "What each module did with a sample");
    svg_text(file, "sub", 24, area.y - 44,
             "Shown are %d of the %d samples%s, each on a scale of its own: \302\265s since the"
             " sampler began.",
             count, t->sampler.requests, alarm_sample(t) >= 0 ? ", around the last alarm" : "");
    for (int i = 0; i < lanes; i++) {
        svg_text(file, "right", area.x - 8, area.y + i * LANE_HEIGHT + LANE_HEIGHT / 2.0 + 4, "%s",
                 lane_names[i]);
    }
    for (int i = 0; i < count; i++) {
        struct column *c = &columns[i];
        c->area =
            (struct area){area.x + i * (width + COLUMN_GAP), area.y, width, lanes * LANE_HEIGHT};
        c->top_us = (double)(c->to_us - c->from_us) * 1.04 + 1;
        column_draw(file, c, t);
    }
    runs_legend(file, area.x, area.y + lanes * LANE_HEIGHT + 54);
    arrows_legend(file, area.x, area.y + lanes * LANE_HEIGHT + 78);
}
