/* SPDX-License-Identifier: Apache-2.0 */
/* Watches the machine while a command runs: a bus of five modules, a table, a picture. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "command.h"
#include "options.h"
#include "picture.h"
#include "proc.h"
#include "report.h"
#include "signals.h"
#include "telemetry.h"

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 };

static FILE *open_output(const char *path)
{
    FILE *file = fopen(path, "w");
    if (!file) {
        fprintf(stderr, "telemetry: cannot write %s: %s\n", path, strerror(errno));
    }
    return file;
}

static int close_output(FILE *file, const char *path)
{
    if (!file) {
        return 0;
    }
    const int bad = ferror(file);
    if (fclose(file) != 0 || bad) {
        fprintf(stderr, "telemetry: %s is incomplete: %s\n", path, strerror(errno));
        return -1;
    }
    return 0;
}

/* Where the samples come from and are kept: a mistake there ends the program before it begins. */
static int open_samples(struct sampler *s, const struct options *options)
{
    if (options->input) {
        if (recording_open(&s->input, options->input) != 0) {
            return -1;
        }
        if (!recording_next(&s->input, &s->next)) {
            fprintf(stderr, "telemetry: no readings in %s\n", options->input);
            return -1;
        }
    } else if (proc_read(&s->next) != 0) {
        fprintf(stderr, "telemetry: cannot read the machine's state from /proc\n");
        return -1;
    }
    if (options->record) {
        s->record = open_output(options->record);
        if (!s->record) {
            return -1;
        }
        recording_write_head(s->record);
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
    trace_init(&t->trace);
}

/* From the creation of the bus to its end. The command runs in between. */
static int watch(struct telemetry *t, const struct options *options, struct command *command)
{
    qor_context_module_t *modules[] = {
        &sampler_module, &guard_module, &judge_module, &recorder_module, &alarm_module, NULL, NULL};
    static struct signals signals;
    int status = STATUS_FAILED;
    modules[5] = options->hog ? &hog_module : NULL;
    for (int i = 0; modules[i]; i++) {
        modules[i]->arg = t;
    }
    signals_block(&signals);
    t->bus = qor_bus_create(modules, TOPICS);
    if (!t->bus) {
        return STATUS_FAILED;
    }
    if (options->command && command_start(command, options->command, &signals.before) != 0) {
        status = STATUS_USAGE;
    } else if (signals_start(&signals, t, command) == 0) {
        const int32_t looped = qor_bus_loop(t->bus); /* until qor_bus_quit() */
        signals_end(&signals);
        status = looped != 0 || atomic_load(&t->failed) ? STATUS_FAILED : 0;
    }
    qor_bus_close(t->bus);
    command_stop(command);
    return status;
}

static int finish(struct telemetry *t, const struct options *options, struct command *command,
                  FILE *svg)
{
    int failed = command_failed(command);
    report(t, command);
    if (svg) {
        picture_draw(svg, t);
    }
    failed |= close_output(svg, options->svg) != 0;
    failed |= close_output(t->sampler.record, options->record) != 0;
    return failed ? STATUS_FAILED : 0;
}

int main(int argc, char **argv)
{
    static struct telemetry t;
    struct options options;
    struct command command = {.pid = 0};
    FILE *svg = NULL;
    if (options_read(&options, argc, argv) != 0) {
        return STATUS_USAGE;
    }
    if (options.help) {
        options_help();
        return 0;
    }
    if (open_samples(&t.sampler, &options) != 0 ||
        (options.svg && !(svg = open_output(options.svg)))) {
        return STATUS_USAGE;
    }
    prepare(&t, &options);
    int status = watch(&t, &options, &command);
    if (status == 0) {
        status = finish(&t, &options, &command, svg);
    }
    recording_close(&t.sampler.input);
    free(t.recorder.series);
    return status;
}
