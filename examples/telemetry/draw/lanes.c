/* SPDX-License-Identifier: Apache-2.0 */
/* The modules at work: a lane each, a box for every handler run, arrows between the runs of a
 * request. A run takes microseconds and samples are 100 ms apart, so a few samples are shown, a
 * column each, and the idle time between them is left out. */
#include "picture.h"

#include <string.h>

#include "svg.h"

enum { COLUMNS = 3, COLUMN_GAP = 18, LANE_HEIGHT = 36, BOX = 22, FOOT = 98 };

struct column {
    const struct sample *sample;
    const struct run *runs[RUN_KINDS]; /* of this sample, by kind; NULL where there is none */
    int64_t from_us;
    int64_t to_us;
    struct area area;
    double top_us; /* what the width stands for */
};

static int lane_count(const struct recording *r)
{
    for (size_t i = 0; i < r->runs.count; i++) {
        if (recording_run(r, i)->module == MODULE_HOG) {
            return MODULES;
        }
    }
    return MODULE_HOG;
}

double lanes_height(const struct recording *r)
{
    return lane_count(r) * LANE_HEIGHT + FOOT;
}

/* Gathers what is known of a sample. Returns 0 when that is not all: the trace had forgotten it, or
 * the bus was stopped in a hurry. */
static int column_find(struct column *column, const struct recording *r,
                       const struct sample *sample)
{
    *column = (struct column){.sample = sample};
    for (size_t i = 0; i < r->runs.count; i++) {
        const struct run *run = recording_run(r, i);
        if (run->sample == sample->number) {
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

/* The place of the sample that raised the newest alarm; -1 when the trace has it no longer. */
static int32_t alarm_place(const struct recording *r)
{
    struct column column;
    if (r->alarms.count == 0) {
        return -1;
    }
    const int32_t number = recording_alarm(r, r->alarms.count - 1)->sample;
    for (size_t i = r->samples.count; i-- > 0;) {
        const struct sample *sample = recording_sample(r, i);
        if (sample->number == number) {
            return column_find(&column, r, sample) ? (int32_t)i : -1;
        }
    }
    return -1;
}

/* Picks the samples to show: around the newest alarm, or the last ones. */
static int columns_choose(struct column *columns, const struct recording *r)
{
    const int32_t samples = (int32_t)r->samples.count;
    const int32_t alarm = alarm_place(r);
    int32_t first = samples - COLUMNS;
    int count = 0;
    if (alarm > 0 && alarm - 1 < first) {
        first = alarm - 1;
    }
    for (int32_t i = first < 0 ? 0 : first; i < samples && count < COLUMNS; i++) {
        count += column_find(&columns[count], r, recording_sample(r, (size_t)i));
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
    svg_box(file, run_kind_names[run->kind], x, lane_y(c, run->module), width < 2 ? 2 : width, BOX);
    if (width > 30 && run->kind != RUN_TASK) {
        svg_text(file, "inside", x + width / 2, lane_y(c, run->module) + 15, "%d",
                 (int)(run->ended_us - run->began_us));
    }
}

/* An arrow from one run's edge at a moment to the beginning of another run. */
static void draw_arrow(FILE *file, const char *cls, const struct column *c, const struct run *from,
                       int64_t at_us, const struct run *to)
{
    if (from && to) {
        const int down = to->module > from->module;
        svg_line(file, cls, run_x(c, at_us), lane_y(c, from->module) + (down ? BOX : 0),
                 run_x(c, to->began_us) + 1, lane_y(c, to->module) + (down ? 0 : BOX));
    }
}

static void column_arrows(FILE *file, const struct column *c)
{
    const struct run *const *runs = c->runs;
    /* the request leaves the publishing run when the filter has seen it */
    draw_arrow(file, "ask", c, runs[RUN_PUBLISH],
               runs[RUN_FILTER] ? runs[RUN_FILTER]->ended_us : c->from_us, runs[RUN_REQUEST]);
    draw_arrow(file, "answer", c, runs[RUN_REQUEST], runs[RUN_REQUEST]->ended_us,
               runs[RUN_RESPONSE]);
    draw_arrow(file, "copy", c, runs[RUN_REQUEST], runs[RUN_REQUEST]->ended_us, runs[RUN_LISTEN]);
    if (runs[RUN_CALL]) {
        draw_arrow(file, "invoke", c, runs[RUN_REQUEST], runs[RUN_CALL]->began_us, runs[RUN_CALL]);
    }
}

static void column_frame(FILE *file, const struct column *c, const struct recording *r)
{
    const struct area *a = &c->area;
    const double step = picture_step(c->top_us, 5);
    for (int i = 0; i < lane_count(r); i++) {
        svg_box(file, i % 2 ? "even" : "odd", a->x, a->y + i * LANE_HEIGHT, a->width, LANE_HEIGHT);
    }
    for (double at = 0; at <= c->top_us; at += step) {
        const double x = a->x + at / c->top_us * a->width;
        svg_line(file, "grid", x, a->y, x, a->y + a->height + 4);
        svg_text(file, "mid small", x, a->y + a->height + 16, "%.0f", at);
    }
    svg_line(file, "axis", a->x, a->y + a->height, a->x + a->width, a->y + a->height);
    svg_text(file, "head", a->x, a->y - 8, "sample %d, at %.1f s", c->sample->number,
             (double)c->sample->at_ms / 1000.0);
}

static void column_draw(FILE *file, const struct column *c, const struct recording *r)
{
    column_frame(file, c, r);
    for (size_t i = 0; i < r->runs.count; i++) {
        const struct run *run = recording_run(r, i);
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
        svg_box(file, run_kind_names[kind], x, y - 10, 12, 12);
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

void lanes_draw(FILE *file, const struct recording *r, struct area area)
{
    struct column columns[COLUMNS];
    const int count = columns_choose(columns, r);
    const int lanes = lane_count(r);
    const double width = (area.width - (COLUMNS - 1) * COLUMN_GAP) / COLUMNS;
    svg_text(file, "head", 24, area.y - 62, "What each module did with a sample");
    svg_text(file, "sub", 24, area.y - 44,
             "Shown are %d of the %d samples%s, each on a scale of its own: \302\265s since the"
             " sampler began.",
             count, r->requests, alarm_place(r) >= 0 ? ", around the last alarm" : "");
    for (int i = 0; i < lanes; i++) {
        svg_text(file, "right", area.x - 8, area.y + i * LANE_HEIGHT + LANE_HEIGHT / 2.0 + 4, "%s",
                 module_names[i]);
    }
    for (int i = 0; i < count; i++) {
        struct column *c = &columns[i];
        c->area =
            (struct area){area.x + i * (width + COLUMN_GAP), area.y, width, lanes * LANE_HEIGHT};
        c->top_us = (double)(c->to_us - c->from_us) * 1.04 + 1;
        column_draw(file, c, r);
    }
    runs_legend(file, area.x, area.y + lanes * LANE_HEIGHT + 54);
    arrows_legend(file, area.x, area.y + lanes * LANE_HEIGHT + 78);
}
