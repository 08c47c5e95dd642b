/* SPDX-License-Identifier: Apache-2.0 */
/* Watches the machine while a command runs: a bus of five modules, a table, a recording. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "telemetry.h"

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 };
enum { SAMPLES = 50 }; /* 5 s */

struct options {
    const char *record;
    const char *input;
    const char *trace;
    int32_t samples; /* 0: no limit */
    int32_t hog;
    int32_t help;
    char **command; /* NULL when there is none */
};

static const char usage[] = "usage: telemetry [--record FILE] [--input FILE] [--trace FILE]\n"
                            "                 [--samples N] [--hog] [-- COMMAND...]\n";

static const char help[] =
    "\n"
    "Runs COMMAND and watches the machine's processors and memory meanwhile, ten times a second.\n"
    "Prints a table at the end.\n"
    "\n"
    "  --record FILE  keep the readings, and what the judge said of them: telemetry-draw\n"
    "                 FILE PICTURE draws load, memory and alarms\n"
    "  --input FILE   replay such a file, as fast as it goes\n"
    "  --trace FILE   keep what each module did and when: qor-trace FILE tells and draws it\n"
    "  --samples N    end after N samples (50 when there is neither COMMAND nor --input)\n"
    "  --hog          add a module that blocks its thread for 7 s, to see the monitor's warnings\n"
    "  --help         print this\n"
    "\n"
    "SIGINT and SIGTERM end the watch in good order; a second one is more hasty.\n"
    "Exit status: 0; 1 when COMMAND failed or the recording could not be written; 2 when an "
    "option\n"
    "is wrong, or a file or COMMAND is missing.\n"
    "\n";

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
    const char **file = strcmp(name, "--record") == 0  ? &options->record
                        : strcmp(name, "--input") == 0 ? &options->input
                        : strcmp(name, "--trace") == 0 ? &options->trace
                                                       : NULL;
    if (file) {
        *file = value;
        return value ? 0 : complain("a file name must follow ", name);
    }
    if (strcmp(name, "--samples") != 0) {
        return complain("unknown option ", name);
    }
    return value ? read_count(value, &options->samples) : complain("a number must follow ", name);
}

static int same_file(const char *a, const char *b)
{
    struct stat first, second;
    return stat(a, &first) == 0 && stat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

static int options_check(struct options *options)
{
    if (options->input && options->command) {
        return complain("a replay runs no command", "");
    }
    if (options->input && options->record && same_file(options->input, options->record)) {
        return complain("a recording is not replayed into itself", "");
    }
    if (!options->input && !options->command && options->samples == 0) {
        options->samples = SAMPLES;
    }
    return 0;
}

static int options_read(struct options *options, int argc, char **argv)
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
    return options_check(options);
}

/* A mistake in a file's name ends the program before the watch begins. */
static int open_files(struct sampler *s, const struct options *options)
{
    if (sampler_open(s, options->input) != 0) {
        return -1;
    }
    if (options->record) {
        s->record = fopen(options->record, "w");
        if (!s->record) {
            fprintf(stderr, "telemetry: cannot write %s: %s\n", options->record, strerror(errno));
            return -1;
        }
        fputs("# ms busy total memory_kb free_kb own_kb\n", s->record);
    }
    s->limit = options->samples;
    return 0;
}

static void prepare(struct telemetry *t, const struct options *options)
{
    atomic_init(&t->stop, STOP_NOT);
    atomic_init(&t->failed, 0);
    /* the alarm's word to the sampler, the last response, the last sample recorded, the hog */
    atomic_init(&t->open, options->hog ? 4 : 3);
    pthread_mutex_init(&t->sampler.mutex, NULL);
    pthread_mutex_init(&t->recorder.mutex, NULL);
    t->recorder.total = -1;
}

/* From the creation of the bus to its end. The command runs in between. */
static int watch(struct telemetry *t, const struct options *options)
{
    qor_context_module_t *modules[] = {
        &sampler_module, &guard_module, &judge_module, &recorder_module, &alarm_module, NULL, NULL};
    int status = STATUS_FAILED;
    modules[5] = options->hog ? &hog_module : NULL;
    for (int i = 0; modules[i]; i++) {
        modules[i]->arg = t;
    }
    signals_block(&t->command);
    t->bus = qor_bus_create(modules, TOPICS);
    if (!t->bus) {
        return STATUS_FAILED;
    }
    if ((options->trace && trace_start(&t->trace, t->bus, options->trace) != 0) ||
        (options->command && command_start(&t->command, options->command) != 0)) {
        status = STATUS_USAGE;
    } else if (signals_start(t) == 0) {
        const int32_t looped = qor_bus_loop(t->bus); /* until qor_bus_quit() */
        signals_end(&t->command);
        status = looped != 0 || atomic_load(&t->failed) ? STATUS_FAILED : 0;
    }
    qor_bus_close(t->bus);
    trace_end(&t->trace);
    command_stop(&t->command);
    return status;
}

/* Prints the table and ends the recording. */
static int finish(struct telemetry *t, const struct options *options)
{
    FILE *record = t->sampler.record;
    recorder_report(t);
    if (record) {
        recorder_write(record, t);
        const int bad = ferror(record);
        if (fclose(record) != 0 || bad) {
            fprintf(stderr, "telemetry: %s is incomplete: %s\n", options->record, strerror(errno));
            return STATUS_FAILED;
        }
    }
    return command_failed(&t->command) ? STATUS_FAILED : 0;
}

int main(int argc, char **argv)
{
    static struct telemetry t;
    struct options options;
    if (options_read(&options, argc, argv) != 0) {
        return STATUS_USAGE;
    }
    if (options.help) {
        printf("%s%s%s", usage, help, recording_format);
        return 0;
    }
    if (open_files(&t.sampler, &options) != 0) {
        return STATUS_USAGE;
    }
    prepare(&t, &options);
    int status = watch(&t, &options);
    if (status == 0) {
        status = finish(&t, &options);
    }
    if (t.sampler.input.file) {
        fclose(t.sampler.input.file);
    }
    free(t.recorder.series);
    return status;
}
