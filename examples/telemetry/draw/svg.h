/* SPDX-License-Identifier: Apache-2.0 */
/* The few shapes that the picture is made of. A class names a style in svg.c. */
#ifndef SVG_H
#define SVG_H

#include <stdio.h>

void svg_begin(FILE *file, double width, double height);
void svg_end(FILE *file);
void svg_box(FILE *file, const char *cls, double x, double y, double width, double height);
void svg_line(FILE *file, const char *cls, double x1, double y1, double x2, double y2);
void svg_text(FILE *file, const char *cls, double x, double y, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

/* A triangle that points down to (x, y). */
void svg_mark(FILE *file, const char *cls, double x, double y);

/* A line through many points. */
void svg_curve_begin(FILE *file, const char *cls);
void svg_curve_to(FILE *file, double x, double y);
void svg_curve_end(FILE *file);

#endif /* SVG_H */
