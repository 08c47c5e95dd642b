/* SPDX-License-Identifier: Apache-2.0 */
/* The hog blocks a worker thread so long that the bus's monitor warns of it: after 5, 6 and 7 s. */
#include "telemetry.h"

#include <time.h>

enum { BUSY_MS = 7200 }; /* a little over 7 s, so that the third warning comes as a rule */

static void *hog_work(void *arg)
{
    struct telemetry *t = arg;
    const struct timespec step = {.tv_nsec = 100 * 1000000L};
    const int64_t until = util_timestamp() + BUSY_MS;
    while (util_timestamp() < until && atomic_load(&t->stop) != STOP_SIGNAL) {
        nanosleep(&step, NULL);
    }
    telemetry_done(t);
    return NULL;
}

static int32_t hog_init(qor_context_t *context, void *arg)
{
    telemetry_attach(context, arg);
    return qor_context_run_name(context, "hog", hog_work, arg);
}

static int32_t hog_message(qor_context_t *context, qor_context_msg_t *msg)
{
    (void)context, (void)msg; /* it has joined no topic */
    return 0;
}

qor_context_module_t hog_module = {
    .name = "hog",
    .pure = 0,
    .reg = telemetry_nothing,
    .unreg = telemetry_nothing,
    .init = hog_init,
    .uninit = telemetry_nothing,
    .handle_message = hog_message,
};
