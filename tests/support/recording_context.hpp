/* SPDX-License-Identifier: Apache-2.0 */
/* A context for tests whose handler table writes down what arrives instead of passing it on. */
#ifndef QOR_TESTS_RECORDING_CONTEXT_HPP
#define QOR_TESTS_RECORDING_CONTEXT_HPP

#include <cstring>
#include <string>

#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"

/* For one thread. The test may empty slots of `handler`. The records that arrive are only valid
 * during the call and so are copied. */
class RecordingContext {
public:
    RecordingContext()
    {
        context.handler = &handler;
        context.resource = this;
    }
    RecordingContext(const RecordingContext &) = delete;
    RecordingContext &operator=(const RecordingContext &) = delete;

    qor_context_t *get() { return &context; }

    /* What the test sets. */
    int32_t result = 0;           /* of every slot but session */
    int32_t draw_result = 0;      /* of session; if negative, *session stays as it is */
    int32_t next_session = 41;    /* drawn by the first call, then one more each */
    const char *answer = nullptr; /* written into the response part that publishx receives */

    /* What has arrived: the names of the slots in order ("session publish") and the arguments. */
    std::string slots;
    int32_t *session_at = nullptr;
    qor_context_topic_t topic = -1;
    qor_context_topic_attr_t *attr = nullptr;
    qor_context_msg_t *msg_at = nullptr;
    struct {
        int32_t type, session, ret;
        qor_context_topic_t topic;
        qor_context_request_t request;
        qor_context_response_t response;
    } msg = {};
    qor_context_task_t *task_at = nullptr;
    qor_context_task_t task = {};
    int32_t session = -1; /* argument of cancel */

    qor_context_t context = {};
    qor_context_handler_t handler = {
        /* 1 session */ draw,
        /* 2 subscribe */ on_attr<1>,
        /* 3 unsubscribe */ on_topic<2>,
        /* 4 listen */ on_attr<3>,
        /* 5 unlisten */ on_topic<4>,
        /* 6 filter */ on_attr<5>,
        /* 7 unfilter */ on_topic<6>,
        /* 8 publish */ on_msg<7>,
        /* 9 publishx */ on_msg<8>,
        /* 10 syscall */ on_msg<9>,
        /* 11 syscallx */ on_msg<10>,
        /* 12 post */ on_task<11>,
        /* 13 postx */ on_task<12>,
        /* 14 cancel */ on_session<13>,
        /* 15 cancelx */ on_session<14>,
    };

private:
    static constexpr const char *names[] = {"session",  "subscribe", "unsubscribe", "listen",
                                            "unlisten", "filter",    "unfilter",    "publish",
                                            "publishx", "syscall",   "syscallx",    "post",
                                            "postx",    "cancel",    "cancelx"};

    static RecordingContext &note(qor_context_t *context, const char *slot)
    {
        RecordingContext &self = *static_cast<RecordingContext *>(context->resource);
        self.slots += self.slots.empty() ? slot : std::string(" ") + slot;
        return self;
    }

    static int32_t draw(qor_context_t *context, int32_t *session)
    {
        RecordingContext &self = note(context, "session");
        self.session_at = session;
        if (self.draw_result >= 0 && session) {
            *session = self.next_session++;
        }
        return self.draw_result;
    }

    template <int slot>
    static int32_t on_attr(qor_context_t *context, qor_context_topic_t topic,
                           qor_context_topic_attr_t *attr)
    {
        RecordingContext &self = note(context, names[slot]);
        self.topic = topic;
        self.attr = attr;
        return self.result;
    }

    template <int slot> static int32_t on_topic(qor_context_t *context, qor_context_topic_t topic)
    {
        RecordingContext &self = note(context, names[slot]);
        self.topic = topic;
        return self.result;
    }

    template <int slot> static int32_t on_msg(qor_context_t *context, qor_context_msg_t *msg)
    {
        RecordingContext &self = note(context, names[slot]);
        self.msg_at = msg;
        if (msg) {
            self.msg = {msg->type, msg->session, msg->ret, msg->topic, msg->request, msg->response};
            if (self.answer) {
                std::memcpy(msg->response.buf, self.answer,
                            static_cast<size_t>(msg->response.size));
            }
        }
        return self.result;
    }

    template <int slot> static int32_t on_task(qor_context_t *context, qor_context_task_t *task)
    {
        RecordingContext &self = note(context, names[slot]);
        self.task_at = task;
        if (task) {
            self.task = *task;
        }
        return self.result;
    }

    template <int slot> static int32_t on_session(qor_context_t *context, int32_t session)
    {
        RecordingContext &self = note(context, names[slot]);
        self.session = session;
        return self.result;
    }
};

#endif /* QOR_TESTS_RECORDING_CONTEXT_HPP */
