/* SPDX-License-Identifier: Apache-2.0 */
/* Two modules that have readings: the sampler takes one at fixed times and answers at once from
 * what it has; the meter asks a slow device, and answers when the device does. */
#include "daemon.h"

#include <stdio.h>

enum { SAMPLE_MS = 200, DEVICE_MS = 100, PATIENCE_MS = 5000, JOBS = 8 };

/* The sampler. */
static struct status samples;

static void sampler_tick(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    (void)self, (void)session, (void)arg;
    FILE *file = fopen("/proc/loadavg", "r");
    samples.missed += missed;
    if (file) {
        samples.samples += fscanf(file, "%lf", &samples.load) == 1;
        fclose(file);
    }
}

static void sampler_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_STATUS, NULL);
}

static void sampler_unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC_STATUS);
}

static int32_t sampler_init(qor_context_t *self, void *arg)
{
    (void)arg;
    return qor_context_every(self, sampler_tick, NULL, NULL, SAMPLE_MS); /* ends with the bus */
}

static int32_t sampler_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    if (msg->response.size < (int32_t)sizeof(samples)) {
        return -1;
    }
    memcpy(msg->response.buf, &samples, sizeof(samples)); /* never beside the tick */
    return 0;
}

qor_context_module_t sampler_module = {
    .name = "sampler",
    .pure = 1, /* comes up in the first of two phases */
    .reg = sampler_reg,
    .unreg = sampler_unreg,
    .init = sampler_init,
    .uninit = service_nothing,
    .handle_message = sampler_handle,
};

/* The meter. Its handler never waits for the device: it hands the request's token to the device's
 * thread and returns. */
static struct {
    qor_que_t *jobs; /* tokens for the device; NULL unless its thread is there */
    pthread_t device;
} meter;

/* Stands for a device that takes its time. */
static double device_read(void)
{
    static int count;
    const struct timespec pause = {.tv_nsec = DEVICE_MS * 1000000L};
    nanosleep(&pause, NULL);
    return 20.0 + count++ % 10 / 10.0;
}

static void *device_work(void *arg)
{
    (void)arg;
    for (qor_que_node_t *job; (job = qor_que_deque_block(meter.jobs, -1));) { /* until it quits */
        uint64_t token;
        memcpy(&token, qor_que_node_body(job), sizeof(token));
        qor_que_node_destroy(job, NULL);
        const double degrees = device_read();
        /* Refused, with a line, when it comes too late. */
        qor_deferred_complete(token, 0, &degrees, sizeof(degrees));
    }
    return NULL;
}

static void meter_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_MEASURE, NULL);
}

static int32_t meter_init(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    meter.jobs = qor_que_create(JOBS, NULL);
    if (meter.jobs && pthread_create(&meter.device, NULL, device_work, NULL) != 0) {
        qor_que_destroy(meter.jobs);
        meter.jobs = NULL;
    }
    return meter.jobs ? 0 : -1;
}

/* Also called when init has failed, or was never called. */
static void meter_unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC_MEASURE);
    if (meter.jobs) {
        qor_que_quit(meter.jobs);
    }
}

static void meter_uninit(qor_context_t *self)
{
    (void)self;
    if (meter.jobs) {
        pthread_join(meter.device, NULL);
        qor_que_destroy(meter.jobs);
        meter.jobs = NULL;
    }
}

static int32_t meter_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    uint64_t token;
    qor_que_node_t *job = qor_que_node_create(0, sizeof(token));
    if (!job) {
        return -1;
    }
    if (qor_context_defer(self, msg, PATIENCE_MS, &token) != 0) {
        qor_que_node_destroy(job, NULL);
        return -1;
    }
    memcpy(qor_que_node_body(job), &token, sizeof(token));
    if (qor_que_enque(meter.jobs, job) != 0) {
        qor_que_node_destroy(job, NULL);
        return -1; /* the device hangs; this completes the request */
    }
    return 0;
}

qor_context_module_t meter_module = {
    .name = "meter",
    .pure = 1,
    .reg = meter_reg,
    .unreg = meter_unreg,
    .init = meter_init,
    .uninit = meter_uninit,
    .handle_message = meter_handle,
};
