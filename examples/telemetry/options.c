/* SPDX-License-Identifier: Apache-2.0 */
#include "options.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "recording.h"

enum { SAMPLES = 50 }; /* 5 s */

static const char usage[] =
    "usage: telemetry [--svg FILE] [--record FILE] [--input FILE] [--samples N] [--hog]\n"
    "                 [-- COMMAND...]\n";

static const char help[] =
    "\n"
    "Runs COMMAND and watches the machine's processors and memory meanwhile, ten times a second.\n"
    "Prints a table at the end.\n"
    "\n"
    "  --svg FILE     draw load, memory, alarms and what each module did\n"
    "  --record FILE  keep the readings\n"
    "  --input FILE   replay a recording, as fast as it goes\n"
    "  --samples N    end after N samples (50 when there is neither COMMAND nor --input)\n"
    "  --hog          add a module that blocks its thread for 7 s, to see the monitor's warnings\n"
    "  --help         print this\n"
    "\n"
    "SIGINT and SIGTERM end the watch in good order; a second one is more hasty.\n"
    "Exit status: 0; 1 when COMMAND failed or a file could not be written; 2 when an option is\n"
    "wrong, or a file or COMMAND is missing.\n"
    "\n";

void options_help(void)
{
    printf("%s%s%s", usage, help, recording_format);
}

static int complain(const char *what, const char *which)
{
    fprintf(stderr, "telemetry: %s%s\n%s", what, which, usage);
    return -1;
}

static int read_count(const char *text, int32_t *count)
{
    char *end;
    errno = 0;
    const long number = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || number < 1 || number > 1000000000) {
        return complain("--samples needs a number from 1 on, not ", text);
    }
    *count = (int32_t)number;
    return 0;
}

/* Reads an option that takes a value. */
static int read_value(struct options *options, const char *name, const char *value)
{
    const struct {
        const char *name;
        const char **to;
    } files[] = {
        {"--svg", &options->svg}, {"--record", &options->record}, {"--input", &options->input}};
    const int known = strcmp(name, "--samples") == 0;
    for (int i = 0; i < 3; i++) {
        if (strcmp(name, files[i].name) == 0) {
            *files[i].to = value;
            return value ? 0 : complain("a file name must follow ", name);
        }
    }
    if (!known) {
        return complain("unknown option ", name);
    }
    return value ? read_count(value, &options->samples) : complain("a number must follow ", name);
}

static int check(struct options *options)
{
    if (options->input && options->command) {
        return complain("a replay runs no command", "");
    }
    if (options->input && options->record) {
        return complain("a replay is not recorded", "");
    }
    if (!options->input && !options->command && options->samples == 0) {
        options->samples = SAMPLES;
    }
    return 0;
}

int options_read(struct options *options, int argc, char **argv)
{
    *options = (struct options){.samples = 0};
    for (int i = 1; i < argc && !options->command; i++) {
        if (strcmp(argv[i], "--hog") == 0) {
            options->hog = 1;
        } else if (strcmp(argv[i], "--help") == 0) {
            options->help = 1;
        } else if (strcmp(argv[i], "--") == 0) {
            if (i + 1 == argc) {
                return complain("no command follows --", "");
            }
            options->command = &argv[i + 1];
        } else if (read_value(options, argv[i], argv[i + 1]) != 0) { /* argv ends in NULL */
            return -1;
        } else {
            i++;
        }
    }
    return check(options);
}
