/* SPDX-License-Identifier: Apache-2.0 */
#include "picture.h"

#include <inttypes.h>

#include "svg.h"

enum { WIDTH = 1000, LEFT = 84, RIGHT = 30, CHART_TOP = 96, CHART_HEIGHT = 200, FOOT = 60 };

double picture_step(double top, int count)
{
    double step = 0.1;
    for (int i = 0; top / step > count; i++) {
        step *= i % 3 == 1 ? 2.5 : 2; /* 0.1, 0.2, 0.5, 1, 2, 5 ... */
    }
    return step;
}

void picture_draw(FILE *file, const struct recording *r)
{
    const struct area chart = {LEFT, CHART_TOP, WIDTH - LEFT - RIGHT, CHART_HEIGHT};
    svg_begin(file, WIDTH, CHART_TOP + CHART_HEIGHT + FOOT);
    svg_text(file, "title", 24, 32, "Telemetry: the machine as the judge saw it");
    svg_text(file, "sub", 24, 52,
             "Samples: %zu. Alarms: %d. From request to response: %" PRId64 " to %" PRId64
             " \302\265s, on average %" PRId64 " \302\265s.",
             r->samples.count, r->raised, r->trip_least_us, r->trip_most_us, r->trip_mean_us);
    chart_draw(file, r, chart);
    svg_end(file);
}
