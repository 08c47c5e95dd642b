/* SPDX-License-Identifier: Apache-2.0 */
/* The book: one stretch after the other in which a station was there, or away. */
#include "book.h"

/* A stretch of time of one station. */
struct stretch {
    char station[NAME_SIZE];
    int32_t there;
    int64_t from_ms; /* since the centre's start */
    int64_t to_ms;   /* 0: it goes on */
    int32_t reports;
    int32_t first; /* numbers of the samples */
    int32_t last;
    int32_t alarms;
    int32_t load; /* the highest */
};

static struct {
    int64_t zero_ms;
    int32_t count; /* of the stretches; those beyond STRETCHES are not kept */
    struct stretch stretches[STRETCHES];
} book;

static int64_t since_start(void)
{
    return util_timestamp() - book.zero_ms;
}

/* The one that goes on, or NULL. */
static struct stretch *stretch_of(const char *station)
{
    for (int32_t i = book.count - 1; i >= 0; i--) {
        if (strcmp(book.stretches[i].station, station) == 0) {
            return &book.stretches[i];
        }
    }
    return NULL;
}

static struct stretch *stretch_begin(const char *station, int32_t there)
{
    const int64_t now = since_start();
    struct stretch *last = stretch_of(station);
    if (last) {
        last->to_ms = now;
    }
    if (book.count == STRETCHES) {
        return NULL;
    }
    struct stretch *next = &book.stretches[book.count++];
    *next = (struct stretch){.there = there, .from_ms = now};
    memcpy(next->station, station, NAME_SIZE);
    hal_printf("%5.1f s  %s is %s\n", (double)now / 1000.0, station, there ? "there" : "away");
    return next;
}

/* A station that comes back before it was missed has restarted: that is a stretch of its own. */
static void status_note(const struct status *status)
{
    const struct stretch *last = stretch_of(status->station);
    if (!last || last->there != status->there || (status->there && last->reports > 0)) {
        stretch_begin(status->station, status->there);
    }
}

static void report_note(const struct report *report)
{
    struct stretch *s = stretch_of(report->station);
    if (!s || !s->there) {
        s = stretch_begin(report->station, 1);
    }
    if (!s) {
        return;
    }
    s->first = s->reports == 0 || report->number < s->first ? report->number : s->first;
    s->last = s->reports == 0 || report->number > s->last ? report->number : s->last;
    s->load = report->load > s->load ? report->load : s->load;
    s->alarms += report->kind > 1;
    s->reports++;
}

static int32_t book_message(qor_context_t *self, qor_context_msg_t *msg)
{
    struct status status;
    struct report report;
    (void)self;
    if (msg->topic == TOPIC_STATUS && msg->request.size == sizeof(status)) {
        memcpy(&status, msg->request.buf, sizeof(status));
        status_note(&status);
    } else if (msg->topic == TOPIC_REPORT && msg->request.size == sizeof(report)) {
        memcpy(&report, msg->request.buf, sizeof(report));
        report_note(&report);
    }
    return 0;
}

static void book_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_STATUS, NULL);
    qor_context_subscribe(self, TOPIC_REPORT, NULL);
}

static void book_unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC_STATUS);
    qor_context_unsubscribe(self, TOPIC_REPORT);
}

static int32_t book_init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    book.zero_ms = util_timestamp();
    return 0;
}

static void book_uninit(qor_context_t *self)
{
    (void)self;
}

qor_context_module_t book_module = {
    .name = "book",
    .pure = 1,
    .reg = book_reg,
    .unreg = book_unreg,
    .init = book_init,
    .uninit = book_uninit,
    .handle_message = book_message,
};

static void stretch_print(const struct stretch *s, int64_t end_ms)
{
    const int64_t to_ms = s->to_ms > 0 ? s->to_ms : end_ms;
    printf("  %-10s%7.1f%7.1f  ", s->station, (double)s->from_ms / 1000.0, (double)to_ms / 1000.0);
    if (!s->there) {
        printf("away\n");
    } else if (s->reports == 0) {
        printf("there, silent\n");
    } else {
        printf("there %9d%7d%7d%8d%8d%8.1f %%\n", s->reports, s->first, s->last,
               s->last - s->first + 1 - s->reports, s->alarms, s->load / 10.0);
    }
}

/* Station after station, each in the order of its time. */
void book_print(void)
{
    const int64_t end_ms = since_start();
    printf("\n  %-10s%7s%7s  %-6s%9s%7s%7s%8s%8s%10s\n", "station", "from", "to", "", "verdicts",
           "first", "last", "missing", "alarms", "most load");
    for (int32_t i = 0; i < book.count; i++) {
        const struct stretch *head = &book.stretches[i];
        int32_t earlier = 0;
        for (int32_t k = 0; k < i; k++) {
            earlier |= strcmp(book.stretches[k].station, head->station) == 0;
        }
        for (int32_t k = i; !earlier && k < book.count; k++) {
            if (strcmp(book.stretches[k].station, head->station) == 0) {
                stretch_print(&book.stretches[k], end_ms);
            }
        }
    }
    fflush(stdout);
}
