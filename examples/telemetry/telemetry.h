/* SPDX-License-Identifier: Apache-2.0 */
/* What the modules share: the topics, the payloads, and one record with a part for each module.
 *
 * main() owns the record and hands it to every module as its argument. A module writes its own part
 * only; the others read it when the bus is closed. */
#ifndef TELEMETRY_H
#define TELEMETRY_H

#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>

#include "qor.h"

#include "recording.h"
#include "spread.h"
#include "trace.h"

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
    FILE *record;        /* NULL when nothing is recorded */
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

/* Copies a payload out of a message, whose parts need not be aligned, and into it. Both return -1
 * when the part is too small for the record. */
int payload_read(const qor_context_request_t *from, void *record, int32_t size);
int payload_answer(const qor_context_msg_t *from, void *record, int32_t size);
int payload_write(qor_context_response_t *to, const void *record, int32_t size);

/* Callbacks for modules that have nothing else to do there: every one must be present. The first
 * makes the shared record the module's private data. */
int32_t telemetry_attach(qor_context_t *context, void *arg);
void telemetry_nothing(qor_context_t *context);

#endif /* TELEMETRY_H */
