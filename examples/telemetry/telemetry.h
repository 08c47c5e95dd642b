/* SPDX-License-Identifier: Apache-2.0 */
/* What the modules share: the topics, the payloads, and one record with a part for each module.
 *
 * main() owns the record and hands it to every module as its argument. A module writes its own part
 * only; the others read it when the bus is closed. */
#ifndef TELEMETRY_H
#define TELEMETRY_H

#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include "qor.h"

/* Where the bus's recorder writes. */
struct trace {
    void *memory; /* NULL: it does not */
    size_t size;
};

/* What the sampler reads each time. Signed, so that an impossible value can be seen. */
struct reading {
    int64_t at_ms;        /* since the watch began */
    int64_t cpu_busy;     /* ticks of all processors since boot, idle and waiting not counted */
    int64_t cpu_total;    /* the same with idle and waiting */
    int64_t mem_total_kb; /* memory of the machine */
    int64_t mem_free_kb;  /* what programs could still have */
    int64_t own_kb;       /* resident memory of this program */
};

/* A recording that is being replayed. */
struct recording {
    FILE *file; /* NULL when there is none */
    const char *path;
    int32_t line;    /* the last one read */
    int32_t skipped; /* malformed ones */
    int64_t last_ms; /* of the last good one: time must not run backwards */
};

/* Least, mean and greatest of a series of numbers, without keeping the numbers. */
struct spread {
    int64_t count;
    int64_t min;
    int64_t max;
    int64_t sum;
};

static inline void spread_add(struct spread *spread, int64_t value)
{
    if (spread->count == 0 || value < spread->min) {
        spread->min = value;
    }
    if (spread->count == 0 || value > spread->max) {
        spread->max = value;
    }
    spread->sum += value;
    spread->count++;
}

/* Served by the sampler, the judge and the alarm, in this order. */
enum { TOPIC_READY, TOPIC_SAMPLE, TOPIC_ALARM, TOPICS };

/* Request of TOPIC_SAMPLE. */
struct sample {
    int32_t number; /* from 0 */
    int32_t last;   /* no other follows */
    int64_t sent_us;
    struct reading reading;
};

enum verdict_kind { VERDICT_SETTLING, VERDICT_CALM, VERDICT_CPU, VERDICT_MEMORY, VERDICT_BOTH };
enum { VERDICTS = VERDICT_BOTH + 1 };

/* Response of TOPIC_SAMPLE, request of TOPIC_ALARM. Shares are in tenths of a percent. */
struct verdict {
    int32_t kind;
    int32_t number; /* of the sample */
    int64_t at_ms;  /* of the sample */
    int32_t load;
    int32_t headroom;
};

/* Response of TOPIC_ALARM. */
struct alarm_answer {
    int32_t raised; /* alarms so far */
};

enum stop_reason { STOP_NOT, STOP_SAMPLES, STOP_RECORDING, STOP_COMMAND, STOP_SIGNAL };

struct sampler {
    pthread_mutex_t mutex; /* guards the counters: a response may be handled beside the timer */
    struct recording input;
    FILE *record;        /* where the readings are kept, or NULL */
    int32_t limit;       /* samples to take, or 0 */
    int64_t zero_ms;     /* when the watch began */
    int64_t due_ms;      /* when the next sample is due */
    struct reading next; /* the last one taken, or of a recording the line read ahead */
    int32_t requests;
    int32_t responses;
    int32_t last_sent;
    int32_t verdicts[VERDICTS];
    struct spread round_trip_us;
};

struct guard {
    struct reading before;
    int32_t seen;
    int32_t clamped; /* samples with an impossible value */
};

enum { WINDOW = 10 };

struct judge {
    struct reading window[WINDOW + 1]; /* ten steps have eleven ends */
    int32_t count;                     /* readings ever judged */
};

enum { ALARMS_KEPT = 256 };

struct alarm_episode {
    int64_t from_ms;
    int64_t to_ms;
    int32_t first; /* numbers of the samples */
    int32_t last;
};

struct alarm {
    int32_t calls;
    int32_t raised; /* episodes; the first ALARMS_KEPT are kept */
    struct alarm_episode episodes[ALARMS_KEPT];
    struct alarm_episode now;
};

struct point {
    int64_t at_ms;
    int32_t load; /* -1 while settling */
    int32_t headroom;
    int32_t known;
};

struct recorder {
    pthread_mutex_t mutex; /* guards the rest: two listener tasks may run at once */
    struct point *series;  /* by number of the sample */
    int32_t room;
    int32_t seen;
    int32_t total; /* samples to come in all, once the last has been seen; else -1 */
    struct spread load;
    struct spread headroom;
    struct spread own_kb;
};

/* The command that is watched, and the thread that takes signals. */
struct command {
    pid_t pid;       /* 0 when there is none */
    int ended;       /* its end has been seen */
    int status;      /* as waitpid() gives it, once ended */
    int stopped;     /* it was still running at the end of the watch and was told to stop */
    sigset_t taken;  /* the signals that the thread waits for */
    sigset_t before; /* the mask that the program was started with */
    pthread_t thread;
    atomic_int over; /* the thread is to end */
};

struct telemetry {
    qor_bus_t *bus;
    atomic_int stop;   /* why the watch is to end; set by anybody, obeyed by the sampler */
    atomic_int open;   /* what has to be done before the bus may stop */
    atomic_int failed; /* the program cannot go on and ends with status 1 */
    struct sampler sampler;
    struct guard guard;
    struct judge judge;
    struct alarm alarm;
    struct recorder recorder;
    struct trace trace;
    struct command command;
};

extern qor_context_module_t sampler_module, guard_module, judge_module, alarm_module,
    recorder_module, hog_module;

/* Asks for the end of the watch; the first reason counts. Any thread. */
void telemetry_stop(struct telemetry *t, enum stop_reason reason);

/* Says that one of the things that the bus waits for is done. The last one stops the bus, so that
 * no request is under way then and nothing is lost. */
void telemetry_done(struct telemetry *t);

/* Stops the bus at once, because something failed that has been reported. */
void telemetry_fail(struct telemetry *t);

/* Monotonic microseconds. */
int64_t now_us(void);

/* Creates a file and has the bus recorded in it, for qor-trace to read: during the watch,
 * afterwards, and also if the program is killed. Returns -1 after a line on standard error. */
int trace_start(struct trace *trace, qor_bus_t *bus, const char *path);

/* Lets go of the file; after the bus is closed. */
void trace_end(struct trace *trace);

/* Copies a payload out of a message, whose parts need not be aligned, and into it. Both return -1
 * when the part is too small for the record. */
int payload_read(const qor_context_request_t *from, void *record, int32_t size);
int payload_answer(const qor_context_msg_t *from, void *record, int32_t size);
int payload_write(qor_context_response_t *to, const void *record, int32_t size);

/* Callbacks for modules that have nothing else to do there: every one must be present. The first
 * makes the shared record the module's private data. */
int32_t telemetry_attach(qor_context_t *context, void *arg);
void telemetry_nothing(qor_context_t *context);

/* The format of a recording, as --help prints it. */
extern const char recording_format[];

/* Opens what is to be replayed, or NULL for this machine, and takes the first reading. Returns -1
 * after a line on standard error. */
int sampler_open(struct sampler *s, const char *path);

/* The table at the end, and what a recording has behind its readings; after the bus is closed. */
void recorder_report(const struct telemetry *t);
void recorder_write(FILE *record, const struct telemetry *t);

/* Blocks the signals, so that every later thread has them blocked and only ours takes them. */
void signals_block(struct command *command);

/* Starts that thread. The first SIGINT or SIGTERM ends the watch in good order, a second one stops
 * the bus at once; the end of the command ends the watch. Returns -1 when there is no thread. */
int signals_start(struct telemetry *t);

/* Ends the thread; after the loop has returned, before the bus is closed. */
void signals_end(struct command *command);

/* Runs a command. Returns -1 after a line on standard error. */
int command_start(struct command *command, char **argv);

/* Stops the command if it still runs. */
void command_stop(struct command *command);

/* Says in words how it ended. */
void command_describe(const struct command *command, char *text, size_t size);

/* Tells whether it ended by itself and with another status than 0. */
int command_failed(const struct command *command);

#endif /* TELEMETRY_H */
