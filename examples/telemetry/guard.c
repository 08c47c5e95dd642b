/* SPDX-License-Identifier: Apache-2.0 */
/* The guard sees every sample before it is handled, on the thread that publishes it, and takes
 * impossible values out of it. */
#include "telemetry.h"

#include <string.h>

static int32_t clamp(int64_t *value, int64_t least, int64_t most)
{
    const int64_t was = *value;
    *value = was < least ? least : was > most ? most : was;
    return *value != was;
}

/* Counters never run backwards, processors are not busier than there is time, and there is not more
 * memory free than there is. Returns how many values were put right. */
static int32_t guard_clamp(const struct reading *before, struct reading *now)
{
    int32_t wrong = clamp(&now->cpu_total, before->cpu_total, INT64_MAX);
    wrong += clamp(&now->cpu_busy, before->cpu_busy,
                   before->cpu_busy + (now->cpu_total - before->cpu_total));
    wrong += clamp(&now->mem_total_kb, 1, INT64_MAX);
    wrong += clamp(&now->mem_free_kb, 0, now->mem_total_kb);
    wrong += clamp(&now->own_kb, 0, now->mem_total_kb);
    return wrong;
}

static int32_t guard_message(qor_context_t *context, qor_context_msg_t *msg)
{
    struct telemetry *t = qor_context_priv_data_get(context);
    struct guard *g = &t->guard;
    struct sample sample;
    if (msg->type != QOR_CONTEXT_MSG_FILTER_BEFORE ||
        payload_read(&msg->request, &sample, sizeof(sample)) != 0) {
        return 0;
    }
    /* The first reading has nothing before it. The counters then only have to be in range. */
    if (g->seen++ == 0) {
        g->before = (struct reading){.cpu_busy = 0};
    }
    if (guard_clamp(&g->before, &sample.reading) > 0) {
        g->clamped++;
        memcpy(msg->request.buf, &sample, sizeof(sample)); /* a filter may change the request */
    }
    g->before = sample.reading;
    return 0;
}

static void guard_reg(qor_context_t *context)
{
    qor_context_topic_attr_t before = {.mask = QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       .point = QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE};
    qor_context_filter(context, TOPIC_SAMPLE, &before);
}

static void guard_unreg(qor_context_t *context)
{
    qor_context_unfilter(context, TOPIC_SAMPLE);
}

qor_context_module_t guard_module = {
    .name = "guard",
    .pure = 1,
    .reg = guard_reg,
    .unreg = guard_unreg,
    .init = telemetry_attach,
    .uninit = telemetry_nothing,
    .handle_message = guard_message,
};
