/* SPDX-License-Identifier: Apache-2.0 */
#include "recorder.h"

#include <string.h>

static struct recorder *noted(qor_context_t *context, const char *slot)
{
    struct recorder *recorder = (struct recorder *)context;
    recorder->slot = slot;
    return recorder;
}

static int32_t draw(qor_context_t *context, int32_t *session)
{
    noted(context, "session");
    *session = DRAWN_SESSION;
    return 0;
}

static int32_t noted_topic(qor_context_t *context, const char *slot, qor_context_topic_t topic)
{
    noted(context, slot)->topic = topic;
    return 0;
}

static int32_t subscribe(qor_context_t *context, qor_context_topic_t topic,
                         qor_context_topic_attr_t *attr)
{
    (void)attr;
    return noted_topic(context, "subscribe", topic);
}

static int32_t unsubscribe(qor_context_t *context, qor_context_topic_t topic)
{
    return noted_topic(context, "unsubscribe", topic);
}

static int32_t listen_on(qor_context_t *context, qor_context_topic_t topic,
                         qor_context_topic_attr_t *attr)
{
    (void)attr;
    return noted_topic(context, "listen", topic);
}

static int32_t unlisten(qor_context_t *context, qor_context_topic_t topic)
{
    return noted_topic(context, "unlisten", topic);
}

static int32_t filter(qor_context_t *context, qor_context_topic_t topic,
                      qor_context_topic_attr_t *attr)
{
    (void)attr;
    return noted_topic(context, "filter", topic);
}

static int32_t unfilter(qor_context_t *context, qor_context_topic_t topic)
{
    return noted_topic(context, "unfilter", topic);
}

static int32_t noted_msg(qor_context_t *context, const char *slot, const qor_context_msg_t *msg,
                         int32_t result)
{
    noted(context, slot)->sent =
        (struct sent){msg->type, msg->session, msg->topic, msg->request.size, msg->response.size};
    return result;
}

static int32_t publish(qor_context_t *context, qor_context_msg_t *msg)
{
    return noted_msg(context, "publish", msg, HANDED_OVER);
}

static int32_t publishx(qor_context_t *context, qor_context_msg_t *msg)
{
    return noted_msg(context, "publishx", msg, HANDLED);
}

static int32_t system_call(qor_context_t *context, qor_context_msg_t *msg)
{
    return noted_msg(context, "syscall", msg, HANDED_OVER);
}

static int32_t system_callx(qor_context_t *context, qor_context_msg_t *msg)
{
    return noted_msg(context, "syscallx", msg, HANDLED);
}

static int32_t post(qor_context_t *context, qor_context_task_t *task)
{
    noted(context, "post")->task = *task;
    return HANDED_OVER;
}

static int32_t postx(qor_context_t *context, qor_context_task_t *task)
{
    noted(context, "postx")->task = *task;
    return HANDED_OVER;
}

static int32_t cancel(qor_context_t *context, int32_t session)
{
    noted(context, "cancel")->session = session;
    return 0;
}

static int32_t cancelx(qor_context_t *context, int32_t session)
{
    noted(context, "cancelx")->session = session;
    return 0;
}

static qor_context_handler_t handler = {
    /* session */ draw,
    /* subscribe */ subscribe,
    /* unsubscribe */ unsubscribe,
    /* listen */ listen_on,
    /* unlisten */ unlisten,
    /* filter */ filter,
    /* unfilter */ unfilter,
    /* publish */ publish,
    /* publishx */ publishx,
    /* syscall */ system_call,
    /* syscallx */ system_callx,
    /* post */ post,
    /* postx */ postx,
    /* cancel */ cancel,
    /* cancelx */ cancelx,
};

void recorder_init(struct recorder *recorder)
{
    memset(recorder, 0, sizeof(*recorder));
    recorder->slot = "";
    recorder->context.handler = &handler;
}
