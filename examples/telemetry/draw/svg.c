/* SPDX-License-Identifier: Apache-2.0 */
#include "svg.h"

#include <stdarg.h>

static const char styles[] =
    "text{font-family:Helvetica,Arial,sans-serif;font-size:12px;fill:#333}"
    ".title{font-size:17px;font-weight:bold}.sub{fill:#666}.head{font-weight:bold}"
    ".right{text-anchor:end}.mid{text-anchor:middle}"
    ".page{fill:#fff}.area{fill:#fafafa}"
    ".grid{stroke:#ddd}.axis{stroke:#888}.limit{stroke:#c44;stroke-dasharray:5 4}"
    ".low{stroke:#2a8a57;stroke-dasharray:5 4}.alarmed{fill:#c44;fill-opacity:.13}"
    ".mark{fill:#c22}.load{fill:none;stroke:#2166ac;stroke-width:1.6}"
    ".memory{fill:none;stroke:#2a8a57;stroke-width:1.6}";

void svg_begin(FILE *file, double width, double height)
{
    fprintf(file,
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\""
            " viewBox=\"0 0 %.0f %.0f\">\n<style>%s</style>\n",
            width, height, width, height, styles);
    svg_box(file, "page", 0, 0, width, height);
}

void svg_end(FILE *file)
{
    fputs("</svg>\n", file);
}

void svg_box(FILE *file, const char *cls, double x, double y, double width, double height)
{
    fprintf(file, "<rect class=\"%s\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n",
            cls, x, y, width, height);
}

void svg_line(FILE *file, const char *cls, double x1, double y1, double x2, double y2)
{
    fprintf(file, "<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", cls, x1,
            y1, x2, y2);
}

void svg_text(FILE *file, const char *cls, double x, double y, const char *format, ...)
{
    va_list values;
    fprintf(file, "<text class=\"%s\" x=\"%.1f\" y=\"%.1f\">", cls, x, y);
    va_start(values, format);
    vfprintf(file, format, values); /* numbers and words of our own: nothing to escape */
    va_end(values);
    fputs("</text>\n", file);
}

void svg_mark(FILE *file, const char *cls, double x, double y)
{
    fprintf(file, "<path class=\"%s\" d=\"M%.1f %.1fl-5 -9h10z\"/>\n", cls, x, y);
}

void svg_curve_begin(FILE *file, const char *cls)
{
    fprintf(file, "<polyline class=\"%s\" points=\"", cls);
}

void svg_curve_to(FILE *file, double x, double y)
{
    fprintf(file, "%.1f,%.1f ", x, y);
}

void svg_curve_end(FILE *file)
{
    fputs("\"/>\n", file);
}
