/* SPDX-License-Identifier: Apache-2.0 */
/* What the modules do alike: ending the watch, reading and writing payloads, the clock. */
#include "telemetry.h"

#include <string.h>
#include <time.h>

void telemetry_stop(struct telemetry *t, enum stop_reason reason)
{
    int none = STOP_NOT;
    atomic_compare_exchange_strong(&t->stop, &none, (int)reason);
}

void telemetry_done(struct telemetry *t)
{
    if (atomic_fetch_sub(&t->open, 1) == 1) {
        qor_bus_quit(t->bus);
    }
}

void telemetry_fail(struct telemetry *t)
{
    if (qor_bus_quitting(t->bus) == 0) { /* one that quits refuses what is sent: no failure */
        atomic_store(&t->failed, 1);
        qor_bus_quit(t->bus);
    }
}

static int copy(void *to, int32_t room, const void *from, int32_t size)
{
    if (!to || !from || room < size) {
        return -1;
    }
    memcpy(to, from, (size_t)size);
    return 0;
}

int payload_read(const qor_context_request_t *from, void *record, int32_t size)
{
    return copy(record, from->size, from->buf, size);
}

int payload_answer(const qor_context_msg_t *from, void *record, int32_t size)
{
    return copy(record, from->response.size, from->response.buf, size);
}

int payload_write(qor_context_response_t *to, const void *record, int32_t size)
{
    return copy(to->buf, to->size, record, size);
}

int32_t telemetry_attach(qor_context_t *context, void *arg)
{
    qor_context_priv_data_set(context, arg);
    return 0;
}

void telemetry_nothing(qor_context_t *context)
{
    (void)context;
}

int64_t now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}
