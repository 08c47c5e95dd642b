/* SPDX-License-Identifier: Apache-2.0 */
#include "recording.h"

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

enum { LINE_MAX_BYTES = 256 };

const struct sample *recording_sample(const struct recording *r, size_t i)
{
    return (const struct sample *)r->samples.items + i;
}

const struct alarm *recording_alarm(const struct recording *r, size_t i)
{
    return (const struct alarm *)r->alarms.items + i;
}

static int list_add(struct list *list, const void *item, size_t size)
{
    if (list->count == list->room) {
        const size_t room = list->room ? 2 * list->room : 256;
        void *items = realloc(list->items, room * size);
        if (!items) {
            return -1;
        }
        list->items = items;
        list->room = room;
    }
    memcpy((char *)list->items + list->count++ * size, item, size);
    return 0;
}

static int read_sample(struct recording *r, const char *text)
{
    struct sample s;
    return sscanf(text, "%" SCNd32 "%" SCNd64 "%" SCNd32 "%" SCNd32, &s.number, &s.at_ms, &s.load,
                  &s.headroom) == 4
               ? list_add(&r->samples, &s, sizeof(s))
               : -1;
}

static int read_alarm(struct recording *r, const char *text)
{
    struct alarm a;
    return sscanf(text, "%" SCNd64 "%" SCNd64 "%" SCNd32, &a.from_ms, &a.to_ms, &a.sample) == 3
               ? list_add(&r->alarms, &a, sizeof(a))
               : -1;
}

static int read_watch(struct recording *r, const char *text)
{
    return sscanf(text, "%" SCNd32 "%" SCNd32 "%" SCNd64 "%" SCNd64 "%" SCNd64, &r->requests,
                  &r->raised, &r->trip_least_us, &r->trip_mean_us, &r->trip_most_us) == 5
               ? 0
               : -1;
}

/* Reads one line; the readings themselves and whatever else there is are passed over. */
static int read_line(struct recording *r, const char *line)
{
    static const struct {
        const char *word;
        int (*read)(struct recording *r, const char *text);
    } kinds[] = {{"sample ", read_sample}, {"alarm ", read_alarm}, {"watch ", read_watch}};
    for (size_t i = 0; i < sizeof(kinds) / sizeof(kinds[0]); i++) {
        const size_t length = strlen(kinds[i].word);
        if (strncmp(line, kinds[i].word, length) == 0) {
            return kinds[i].read(r, line + length);
        }
    }
    return 0;
}

int recording_read(struct recording *r, FILE *file, const char *path)
{
    char line[LINE_MAX_BYTES];
    *r = (struct recording){.requests = 0};
    for (int number = 1; fgets(line, sizeof(line), file); number++) {
        line[strcspn(line, "\r\n")] = '\0';
        if (read_line(r, line) != 0) {
            fprintf(stderr, "telemetry-draw: %s:%d: cannot use \"%.40s\"\n", path, number, line);
            return -1;
        }
    }
    if (r->samples.count == 0) {
        fprintf(stderr, "telemetry-draw: no samples in %s\n", path);
        return -1;
    }
    return 0;
}

void recording_free(struct recording *r)
{
    free(r->samples.items);
    free(r->alarms.items);
}
