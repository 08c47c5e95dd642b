/* SPDX-License-Identifier: Apache-2.0 */
/* What a module calls on its own context, and how that reaches the wrapper. */
#include "qor_core_context.h"

#include <functional>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "core_context_fixture.hpp"
#include "core_context_lines.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "recording_context.hpp"

namespace {

/* A call on the inner context, the slot of the wrapper's table where it arrives, its result. */
struct ForwardCase {
    const char *name;
    const char *slot;
    std::function<int32_t(qor_context_t *)> call;
    std::function<bool(const RecordingContext &)> carried;
};

int32_t session_drawn;
qor_context_topic_attr_t some_attr;
qor_context_msg_t some_msg;

const auto topic_5_and_attr = [](const RecordingContext &r) {
    return r.topic == 5 && r.attr == &some_attr;
};
const auto topic_5 = [](const RecordingContext &r) { return r.topic == 5; };
const auto the_msg = [](const RecordingContext &r) { return r.msg_at == &some_msg; };

const ForwardCase forward_cases[] = {
    {"Session", "session",
     [](qor_context_t *c) { return qor_context_handler_session(c, &session_drawn); },
     [](const RecordingContext &r) { return r.session_at == &session_drawn; }},
    {"Subscribe", "subscribe",
     [](qor_context_t *c) { return qor_context_handler_subscribe(c, 5, &some_attr); },
     topic_5_and_attr},
    {"Unsubscribe", "unsubscribe",
     [](qor_context_t *c) { return qor_context_handler_unsubscribe(c, 5); }, topic_5},
    {"Listen", "listen",
     [](qor_context_t *c) { return qor_context_handler_listen(c, 5, &some_attr); },
     topic_5_and_attr},
    {"Filter", "filter",
     [](qor_context_t *c) { return qor_context_handler_filter(c, 5, &some_attr); },
     topic_5_and_attr},
    {"Unfilter", "unfilter", [](qor_context_t *c) { return qor_context_handler_unfilter(c, 5); },
     topic_5},
    {"Publish", "publish",
     [](qor_context_t *c) { return qor_context_handler_publish(c, &some_msg); }, the_msg},
    {"Publishx", "publishx",
     [](qor_context_t *c) { return qor_context_handler_publishx(c, &some_msg); }, the_msg},
    {"Cancel", "cancel", [](qor_context_t *c) { return qor_context_handler_cancel(c, 77); },
     [](const RecordingContext &r) { return r.session == 77; }},
    {"Cancelx", "cancelx", [](qor_context_t *c) { return qor_context_handler_cancelx(c, 77); },
     [](const RecordingContext &r) { return r.session == 77; }},
};

} // namespace

class CoreContextForward : public CoreContext, public testing::WithParamInterface<ForwardCase> {
protected:
    CoreContextForward()
    {
        qor_context_resource_set(wrapper, &recording);
        qor_context_handler_set(wrapper, &recording.handler);
    }
    RecordingContext recording;
};

TEST_P(CoreContextForward, ReachesTheSlotOfTheWrapper)
{
    recording.result = recording.draw_result = -15;

    EXPECT_EQ(GetParam().call(inner), -15);

    EXPECT_EQ(recording.slots, GetParam().slot);
    EXPECT_TRUE(GetParam().carried(recording));
    EXPECT_EQ(out.printed(), "");
}

INSTANTIATE_TEST_SUITE_P(All, CoreContextForward, testing::ValuesIn(forward_cases),
                         case_name<ForwardCase>);

TEST_F(CoreContext, UnlistenUnsubscribes)
{
    RecordingContext recording;
    qor_context_resource_set(wrapper, &recording);
    qor_context_handler_set(wrapper, &recording.handler);
    recording.result = 3;

    EXPECT_EQ(qor_context_handler_unlisten(inner, 5), 3);

    EXPECT_EQ(recording.slots, "unsubscribe");
    EXPECT_EQ(recording.topic, 5);
}

TEST_F(CoreContext, ModulesHaveNoSystemCalls)
{
    EXPECT_EQ(qor_context_handler_syscall(inner, &some_msg), -1);
    EXPECT_EQ(qor_context_handler_syscallx(inner, &some_msg), -1);

    EXPECT_EQ(out.printed(), err_line("qor_context_handler", "qor_context_handler_syscall",
                                      "!(handler->syscall) == true.") +
                                 err_line("qor_context_handler", "qor_context_handler_syscallx",
                                          "!(handler->syscallx) == true."));
}

TEST_F(CoreContext, PostAndPostxQueueATask)
{
    qor_context_task_t first = task("a", 1);
    qor_context_task_t second = task("b", 2);

    EXPECT_EQ(qor_context_handler_post(inner, &first), 0);
    EXPECT_EQ(qor_context_handler_postx(inner, &second), 0);

    EXPECT_EQ(core->que->count, 2);
}
