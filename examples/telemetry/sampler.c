/* SPDX-License-Identifier: Apache-2.0 */
/* The sampler publishes readings: of this machine every 100 ms, or those of a recording as fast as
 * the judge answers. It begins when the alarm has said that it is ready. */
#include "telemetry.h"

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

enum { PERIOD_MS = 100, FIELDS = 6, LINE_MAX_BYTES = 256 };

const char recording_format[] =
    "A recording is a text file with one reading a line: six whole numbers, separated by blanks,\n"
    "  MS BUSY TOTAL MEMORY FREE OWN\n"
    "MS milliseconds since the first reading, never fewer than in the line before; BUSY and TOTAL\n"
    "processor ticks since boot, all processors together; MEMORY, FREE and OWN in kB: memory of\n"
    "the machine, what is still available of it, and what this program occupies. Empty lines and\n"
    "lines that begin with # are passed over. A malformed line is reported, counted and skipped.\n"
    "Behind the readings stands what the modules made of them, for telemetry-draw; a replay "
    "passes\n"
    "over it. Such a line begins with a word:\n"
    "  sample NUMBER MS LOAD HEADROOM           tenths of a percent; LOAD is -1 while settling\n"
    "  alarm FROM TO NUMBER                     milliseconds, and the sample that raised it\n"
    "  watch REQUESTS ALARMS LEAST MEAN MOST    of a request's round trip, microseconds\n";

/* The first line of /proc/stat sums up all processors. The two guest kinds that follow the eight
 * read here are contained in user and nice. */
static int read_cpu(struct reading *reading)
{
    int64_t user, nice, system, idle, iowait, irq, softirq, steal;
    FILE *file = fopen("/proc/stat", "r");
    if (!file) {
        return -1;
    }
    const int found = fscanf(file,
                             "cpu %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64
                             " %" SCNd64 " %" SCNd64 " %" SCNd64,
                             &user, &nice, &system, &idle, &iowait, &irq, &softirq, &steal);
    fclose(file);
    if (found != 8) {
        return -1;
    }
    reading->cpu_busy = user + nice + system + irq + softirq + steal;
    reading->cpu_total = reading->cpu_busy + idle + iowait;
    return 0;
}

/* Finds "NAME: number kB" in a file of such lines. */
static int read_kb(const char *path, const char *name, int64_t *kb)
{
    char line[256];
    int found = -1;
    FILE *file = fopen(path, "r");
    if (!file) {
        return -1;
    }
    while (found != 0 && fgets(line, sizeof(line), file)) {
        const size_t length = strlen(name);
        if (strncmp(line, name, length) == 0 && line[length] == ':') {
            found = sscanf(line + length + 1, "%" SCNd64, kb) == 1 ? 0 : -1;
        }
    }
    fclose(file);
    return found;
}

/* Reads processor and memory; at_ms is left alone. Returns -1 when a file cannot be read or lacks
 * what is looked for. */
static int proc_read(struct reading *reading)
{
    struct reading now = *reading;
    if (read_cpu(&now) != 0 || read_kb("/proc/meminfo", "MemTotal", &now.mem_total_kb) != 0 ||
        read_kb("/proc/meminfo", "MemAvailable", &now.mem_free_kb) != 0 ||
        read_kb("/proc/self/status", "VmRSS", &now.own_kb) != 0) {
        return -1;
    }
    *reading = now;
    return 0;
}

static const char *skip_blanks(const char *text)
{
    return text + strspn(text, " \t\r\n");
}

/* Reads one line without its end. Returns 1, or 0 at the end of the file. What is longer than the
 * buffer is read and dropped, so that the next line is the next line; *whole tells. */
static int read_line(FILE *file, char *line, int *whole)
{
    if (!fgets(line, LINE_MAX_BYTES, file)) {
        return 0;
    }
    *whole = strchr(line, '\n') != NULL || strlen(line) < LINE_MAX_BYTES - 1;
    for (int c = *whole ? '\n' : 0; c != '\n' && c != EOF;) {
        c = fgetc(file);
    }
    line[strcspn(line, "\r\n")] = '\0';
    return 1;
}

/* Returns what is wrong with a line, or NULL. */
static const char *parse(const char *line, struct reading *reading)
{
    int64_t *const fields[FIELDS] = {&reading->at_ms,       &reading->cpu_busy,
                                     &reading->cpu_total,   &reading->mem_total_kb,
                                     &reading->mem_free_kb, &reading->own_kb};
    for (int i = 0; i < FIELDS; i++) {
        char *end;
        errno = 0;
        *fields[i] = strtoimax(line, &end, 10);
        if (end == line || (*end != '\0' && skip_blanks(end) == end)) {
            return "is not six whole numbers";
        }
        if (errno == ERANGE) {
            return "has a number out of range";
        }
        line = end;
    }
    return *skip_blanks(line) ? "is not six whole numbers" : NULL;
}

/* Whether a line tells what the modules made of the readings. */
static int is_outcome(const char *text)
{
    static const char *const words[] = {"sample ", "alarm ", "watch "};
    for (size_t i = 0; i < sizeof(words) / sizeof(words[0]); i++) {
        if (strncmp(text, words[i], strlen(words[i])) == 0) {
            return 1;
        }
    }
    return 0;
}

/* Reads the next well-formed line. Returns 1, or 0 at the end. Each line that is skipped is counted
 * and reported on standard error. */
static int recording_next(struct recording *recording, struct reading *reading)
{
    char line[LINE_MAX_BYTES];
    int whole;
    while (read_line(recording->file, line, &whole)) {
        recording->line++;
        const char *text = skip_blanks(line);
        if (*text == '\0' || *text == '#' || is_outcome(text)) {
            continue;
        }
        const char *wrong = whole ? parse(text, reading) : "is too long";
        if (!wrong && reading->at_ms < recording->last_ms) {
            wrong = "is older than the line before";
        }
        if (!wrong) {
            recording->last_ms = reading->at_ms;
            return 1;
        }
        recording->skipped++;
        fprintf(stderr, "telemetry: %s:%d: line %s: \"%.40s\"\n", recording->path, recording->line,
                wrong, text);
    }
    return 0;
}

static void recording_write(FILE *file, const struct reading *r)
{
    fprintf(file, "%" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 "\n",
            r->at_ms, r->cpu_busy, r->cpu_total, r->mem_total_kb, r->mem_free_kb, r->own_kb);
}

int sampler_open(struct sampler *s, const char *path)
{
    if (!path) {
        if (proc_read(&s->next) != 0) {
            fprintf(stderr, "telemetry: cannot read the machine's state from /proc\n");
            return -1;
        }
        return 0;
    }
    s->input = (struct recording){.file = fopen(path, "r"), .path = path};
    if (!s->input.file) {
        fprintf(stderr, "telemetry: cannot read %s: %s\n", path, strerror(errno));
        return -1;
    }
    if (!recording_next(&s->input, &s->next)) {
        fprintf(stderr, "telemetry: no readings in %s\n", path);
        return -1;
    }
    return 0;
}

static void *sampler_tick(qor_context_t *context, int32_t session, void *arg);

/* Sends a reading. Never runs twice at once: each call is made from the timer that the last one
 * armed, or from the response to the last sample. */
static void sampler_publish(qor_context_t *context, struct telemetry *t,
                            const struct reading *reading, int32_t last)
{
    struct sampler *s = &t->sampler;
    if (s->record) {
        recording_write(s->record, reading);
    }
    struct sample sample = {.last = last, .sent_us = now_us(), .reading = *reading};
    pthread_mutex_lock(&s->mutex);
    sample.number = s->requests++;
    s->last_sent = last;
    pthread_mutex_unlock(&s->mutex);
    if (qor_context_req_ret(context, TOPIC_SAMPLE, &sample, sizeof(sample),
                            sizeof(struct verdict)) < 0) {
        telemetry_fail(t);
    }
}

static void sampler_arm(qor_context_t *context, struct telemetry *t)
{
    struct sampler *s = &t->sampler;
    const int64_t now = util_timestamp();
    s->due_ms += PERIOD_MS; /* from the due time, so that lateness does not add up */
    if (s->due_ms <= now) {
        s->due_ms = now + 1;
    }
    if (qor_context_timerx(context, sampler_tick, t, (int32_t)(s->due_ms - now)) < 0) {
        telemetry_fail(t);
    }
}

static int32_t sampler_is_last(struct telemetry *t, int32_t at_end)
{
    struct sampler *s = &t->sampler;
    if (s->limit > 0 && s->requests + 1 >= s->limit) {
        telemetry_stop(t, STOP_SAMPLES);
    } else if (at_end) {
        telemetry_stop(t, STOP_RECORDING);
    }
    return atomic_load(&t->stop) != STOP_NOT;
}

/* Takes a reading of the machine. A file of /proc that cannot be read leaves the last one. */
static void *sampler_tick(qor_context_t *context, int32_t session, void *arg)
{
    struct telemetry *t = arg;
    struct sampler *s = &t->sampler;
    (void)session;
    proc_read(&s->next);
    s->next.at_ms = util_timestamp() - s->zero_ms;
    const int32_t last = sampler_is_last(t, 0);
    sampler_publish(context, t, &s->next, last);
    if (!last) {
        sampler_arm(context, t);
    }
    return NULL;
}

/* Sends the line of the recording that was read ahead. */
static void sampler_replay(qor_context_t *context, struct telemetry *t)
{
    struct sampler *s = &t->sampler;
    const struct reading reading = s->next;
    const int more = recording_next(&s->input, &s->next);
    sampler_publish(context, t, &reading, sampler_is_last(t, !more));
}

static void sampler_begin(qor_context_t *context, struct telemetry *t)
{
    if (t->sampler.input.file) {
        sampler_replay(context, t);
    } else {
        t->sampler.zero_ms = t->sampler.due_ms = util_timestamp();
        sampler_tick(context, 0, t);
    }
}

/* Counts a response. Returns 1 when another line of the recording is to be sent. */
static int sampler_count(struct telemetry *t, const struct sample *sample,
                         const struct verdict *verdict, int64_t now_us)
{
    struct sampler *s = &t->sampler;
    pthread_mutex_lock(&s->mutex);
    s->responses++;
    s->verdicts[verdict->kind]++;
    spread_add(&s->round_trip_us, now_us - sample->sent_us);
    const int over = s->last_sent && s->responses == s->requests;
    const int more = !s->last_sent && s->input.file != NULL;
    pthread_mutex_unlock(&s->mutex);
    if (over) {
        telemetry_done(t);
    }
    return more;
}

static int32_t sampler_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    const int64_t now = now_us();
    struct sample sample;
    struct verdict verdict;
    if (msg->type == QOR_CONTEXT_MSG_REQUEST && msg->topic == TOPIC_READY) {
        sampler_begin(context, t);
        return 0;
    }
    if (msg->type != QOR_CONTEXT_MSG_RESPONSE || msg->ret < 0 ||
        payload_read(&msg->request, &sample, sizeof(sample)) != 0 ||
        payload_answer(msg, &verdict, sizeof(verdict)) != 0) {
        telemetry_fail(t);
        return 0;
    }
    if (sampler_count(t, &sample, &verdict, now)) {
        sampler_replay(context, t);
    }
    return 0;
}

static void sampler_reg(qor_context_t *context)
{
    qor_context_subscribe(context, TOPIC_READY, NULL);
}

static void sampler_unreg(qor_context_t *context)
{
    qor_context_unsubscribe(context, TOPIC_READY);
}

qor_context_module_t sampler_module = {
    .name = "sampler",
    .pure = 1,
    .reg = sampler_reg,
    .unreg = sampler_unreg,
    .init = telemetry_attach,
    .uninit = telemetry_nothing,
    .handle_message = sampler_message,
};
