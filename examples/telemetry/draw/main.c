/* SPDX-License-Identifier: Apache-2.0 */
/* Draws a recording of telemetry's: load, memory and alarms. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "picture.h"

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 };

static FILE *open_file(const char *path, const char *mode)
{
    FILE *file = fopen(path, mode);
    if (!file) {
        fprintf(stderr, "telemetry-draw: cannot %s %s: %s\n", *mode == 'r' ? "read" : "write", path,
                strerror(errno));
    }
    return file;
}

static int draw(const struct recording *recording, const char *path)
{
    FILE *file = open_file(path, "w");
    if (!file) {
        return STATUS_USAGE;
    }
    picture_draw(file, recording);
    const int bad = ferror(file);
    if (fclose(file) != 0 || bad) {
        fprintf(stderr, "telemetry-draw: %s is incomplete: %s\n", path, strerror(errno));
        return STATUS_FAILED;
    }
    return 0;
}

int main(int argc, char **argv)
{
    struct recording recording;
    if (argc != 3) {
        fprintf(stderr, "usage: telemetry-draw RECORDING PICTURE\n"
                        "\n"
                        "Draws as SVG what `telemetry --record RECORDING` has written.\n");
        return STATUS_USAGE;
    }
    FILE *file = open_file(argv[1], "r");
    if (!file) {
        return STATUS_USAGE;
    }
    const int status =
        recording_read(&recording, file, argv[1]) == 0 ? draw(&recording, argv[2]) : STATUS_USAGE;
    fclose(file);
    recording_free(&recording);
    return status;
}
