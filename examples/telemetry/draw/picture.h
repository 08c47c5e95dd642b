/* SPDX-License-Identifier: Apache-2.0 */
/* The picture: a chart of load and memory over time. */
#ifndef PICTURE_H
#define PICTURE_H

#include "recording.h"

struct area {
    double x;
    double y;
    double width;
    double height;
};

/* Draws everything. Errors stay in the file for ferror(). */
void picture_draw(FILE *file, const struct recording *r);

/* A step for at most `count` labels on a scale up to `top`: 1, 2 or 5 times a power of ten. */
double picture_step(double top, int count);

/* Its chart. */
void chart_draw(FILE *file, const struct recording *r, struct area area);

#endif /* PICTURE_H */
