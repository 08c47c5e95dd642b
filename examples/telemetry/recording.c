/* SPDX-License-Identifier: Apache-2.0 */
#include "recording.h"

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

enum { FIELDS = 6, LINE_MAX_BYTES = 256 };

const char recording_format[] =
    "A recording is a text file with one reading a line: six whole numbers, separated by blanks,\n"
    "  MS BUSY TOTAL MEMORY FREE OWN\n"
    "MS milliseconds since the first reading, never fewer than in the line before; BUSY and TOTAL\n"
    "processor ticks since boot, all processors together; MEMORY, FREE and OWN in kB: memory of\n"
    "the machine, what is still available of it, and what this program occupies. Empty lines and\n"
    "lines that begin with # are passed over. A malformed line is reported, counted and skipped.\n";

int recording_open(struct recording *recording, const char *path)
{
    *recording = (struct recording){.file = fopen(path, "r"), .path = path};
    if (!recording->file) {
        fprintf(stderr, "telemetry: cannot read %s: %s\n", path, strerror(errno));
        return -1;
    }
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

int recording_next(struct recording *recording, struct reading *reading)
{
    char line[LINE_MAX_BYTES];
    int whole;
    while (read_line(recording->file, line, &whole)) {
        recording->line++;
        const char *text = skip_blanks(line);
        if (*text == '\0' || *text == '#') {
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

void recording_close(struct recording *recording)
{
    if (recording->file) {
        fclose(recording->file);
        recording->file = NULL;
    }
}

void recording_write_head(FILE *file)
{
    fputs("# ms busy total memory_kb free_kb own_kb\n", file);
}

void recording_write(FILE *file, const struct reading *r)
{
    fprintf(file, "%" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 "\n",
            r->at_ms, r->cpu_busy, r->cpu_total, r->mem_total_kb, r->mem_free_kb, r->own_kb);
}
