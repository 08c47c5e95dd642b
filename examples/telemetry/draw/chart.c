/* SPDX-License-Identifier: Apache-2.0 */
/* Load and memory headroom over time, with the alarms. */
#include "picture.h"
#include "svg.h"

struct scale {
    struct area area;
    double to_ms;
};

static double at_x(const struct scale *s, int64_t ms)
{
    return s->area.x + (double)ms / s->to_ms * s->area.width;
}

static double at_y(const struct scale *s, double percent)
{
    return s->area.y + (100.0 - percent) / 100.0 * s->area.height;
}

static void chart_frame(FILE *file, const struct scale *s)
{
    const struct area *a = &s->area;
    const double seconds = s->to_ms / 1000.0;
    const double step = picture_step(seconds, 12);
    svg_box(file, "area", a->x, a->y, a->width, a->height);
    for (int percent = 0; percent <= 100; percent += 25) {
        svg_line(file, "grid", a->x, at_y(s, percent), a->x + a->width, at_y(s, percent));
        svg_text(file, "right", a->x - 8, at_y(s, percent) + 4, "%d %%", percent);
    }
    for (double at = 0; at <= seconds + step / 100; at += step) {
        const double x = at_x(s, (int64_t)(at * 1000));
        svg_line(file, "axis", x, a->y + a->height, x, a->y + a->height + 4);
        svg_text(file, "mid", x, a->y + a->height + 18, step < 1 ? "%.1f" : "%.0f", at);
    }
    svg_line(file, "axis", a->x, a->y + a->height, a->x + a->width, a->y + a->height);
    svg_text(file, "mid sub", a->x + a->width / 2, a->y + a->height + 36,
             "seconds since the watch began");
}

static double value(const struct sample *p, int memory)
{
    return (memory ? p->headroom : p->load) / 10.0;
}

/* Draws one curve. Of a long watch, several samples fall on one spot: then the least and the
 * greatest of them are drawn, so that no peak is lost. */
static void chart_curve(FILE *file, const struct scale *s, const struct recording *r, int memory)
{
    const size_t bundle = r->samples.count / 800 + 1;
    svg_curve_begin(file, memory ? "memory" : "load");
    for (size_t from = 0; from < r->samples.count; from += bundle) {
        const struct sample *least = NULL;
        const struct sample *most = NULL;
        for (size_t i = from; i < from + bundle && i < r->samples.count; i++) {
            const struct sample *p = recording_sample(r, i);
            if (value(p, memory) >= 0) {
                least = !least || value(p, memory) < value(least, memory) ? p : least;
                most = !most || value(p, memory) > value(most, memory) ? p : most;
            }
        }
        if (least) {
            const struct sample *first = least < most ? least : most;
            const struct sample *second = least < most ? most : least;
            svg_curve_to(file, at_x(s, first->at_ms), at_y(s, value(first, memory)));
            if (second != first) {
                svg_curve_to(file, at_x(s, second->at_ms), at_y(s, value(second, memory)));
            }
        }
    }
    svg_curve_end(file);
}

static void chart_alarms(FILE *file, const struct scale *s, const struct recording *r)
{
    for (size_t i = 0; i < r->alarms.count; i++) {
        const struct alarm *a = recording_alarm(r, i);
        const double from = at_x(s, a->from_ms);
        svg_box(file, "alarmed", from, s->area.y, at_x(s, a->to_ms) - from, s->area.height);
        svg_mark(file, "mark", from, s->area.y);
    }
}

static void chart_legend(FILE *file, const struct scale *s)
{
    double x = s->area.x;
    const double y = s->area.y - 22;
    svg_line(file, "load", x, y, x + 24, y);
    svg_text(file, "", x + 30, y + 4, "processor load");
    x += 140;
    svg_line(file, "memory", x, y, x + 24, y);
    svg_text(file, "", x + 30, y + 4, "memory headroom");
    x += 160;
    svg_mark(file, "mark", x + 10, y + 5);
    svg_box(file, "alarmed", x + 10, y - 6, 24, 12);
    svg_text(file, "", x + 40, y + 4, "alarm, from its call to its end");
    x += 240;
    svg_line(file, "limit", x, y, x + 24, y);
    svg_text(file, "", x + 30, y + 4, "load limit");
    x += 110;
    svg_line(file, "low", x, y, x + 24, y);
    svg_text(file, "", x + 30, y + 4, "headroom limit");
}

void chart_draw(FILE *file, const struct recording *r, struct area area)
{
    const double last_ms = (double)recording_sample(r, r->samples.count - 1)->at_ms;
    const struct scale s = {.area = area, .to_ms = last_ms > 100 ? last_ms : 100};
    chart_frame(file, &s);
    svg_line(file, "limit", area.x, at_y(&s, 90), area.x + area.width, at_y(&s, 90));
    svg_line(file, "low", area.x, at_y(&s, 10), area.x + area.width, at_y(&s, 10));
    chart_alarms(file, &s, r);
    chart_curve(file, &s, r, 1);
    chart_curve(file, &s, r, 0);
    chart_legend(file, &s);
}
