/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_handler.h"

#include <string>

#include <gtest/gtest.h>

#include "../../src/contexts/qor_context_forward.hpp"
#include "actor.hpp"
#include "output.hpp"
#include "qor_topic_core.h"
#include "recording_context.hpp"
#include "still_bus.hpp"

namespace {

constexpr char tag[] = "qor_context_handler";
constexpr qor_context_topic_t some_topic = 12;
constexpr int32_t some_session = 34;

int32_t drawn_session;
qor_context_topic_attr_t some_attr;
qor_context_msg_t some_msg;
qor_context_task_t some_task;

using Context = qor_context_t;
using Handler = qor_context_handler_t;

/* The arguments that a call of each kind passes, and how to see that they have arrived. */

template <auto function> int32_t draw(Context *c)
{
    return function(c, &drawn_session);
}
template <auto function> int32_t on_attr(Context *c)
{
    return function(c, some_topic, &some_attr);
}
template <auto function> int32_t on_topic(Context *c)
{
    return function(c, some_topic);
}
template <auto function> int32_t on_msg(Context *c)
{
    return function(c, &some_msg);
}
template <auto function> int32_t on_task(Context *c)
{
    return function(c, &some_task);
}
template <auto function> int32_t on_session(Context *c)
{
    return function(c, some_session);
}

void drawn(const RecordingContext &seen)
{
    EXPECT_EQ(seen.session_at, &drawn_session);
}

void attr_seen(const RecordingContext &seen)
{
    EXPECT_EQ(seen.topic, some_topic);
    EXPECT_EQ(seen.attr, &some_attr);
}

void topic_seen(const RecordingContext &seen)
{
    EXPECT_EQ(seen.topic, some_topic);
}
void msg_seen(const RecordingContext &seen)
{
    EXPECT_EQ(seen.msg_at, &some_msg);
}
void task_seen(const RecordingContext &seen)
{
    EXPECT_EQ(seen.task_at, &some_task);
}
void session_seen(const RecordingContext &seen)
{
    EXPECT_EQ(seen.session, some_session);
}

template <auto slot> void empty(Handler &handler)
{
    handler.*slot = nullptr;
}

/* One call: its name, the dispatcher that it ends in, and the slot. */
struct Call {
    const char *name;
    const char *slot;
    int32_t (*call)(Context *);
    void (*empty)(Handler &);
    void (*arrived)(const RecordingContext &);

    std::string dispatcher() const { return std::string("qor_context_handler_") + slot; }
    friend std::ostream &operator<<(std::ostream &os, const Call &c) { return os << c.name; }
};

const Call dispatchers[] = {
    {"session", "session", draw<qor_context_handler_session>, empty<&Handler::session>, drawn},
    {"subscribe", "subscribe", on_attr<qor_context_handler_subscribe>, empty<&Handler::subscribe>,
     attr_seen},
    {"unsubscribe", "unsubscribe", on_topic<qor_context_handler_unsubscribe>,
     empty<&Handler::unsubscribe>, topic_seen},
    {"listen", "listen", on_attr<qor_context_handler_listen>, empty<&Handler::listen>, attr_seen},
    {"unlisten", "unlisten", on_topic<qor_context_handler_unlisten>, empty<&Handler::unlisten>,
     topic_seen},
    {"filter", "filter", on_attr<qor_context_handler_filter>, empty<&Handler::filter>, attr_seen},
    {"unfilter", "unfilter", on_topic<qor_context_handler_unfilter>, empty<&Handler::unfilter>,
     topic_seen},
    {"publish", "publish", on_msg<qor_context_handler_publish>, empty<&Handler::publish>, msg_seen},
    {"publishx", "publishx", on_msg<qor_context_handler_publishx>, empty<&Handler::publishx>,
     msg_seen},
    {"syscall", "syscall", on_msg<qor_context_handler_syscall>, empty<&Handler::syscall>, msg_seen},
    {"syscallx", "syscallx", on_msg<qor_context_handler_syscallx>, empty<&Handler::syscallx>,
     msg_seen},
    {"post", "post", on_task<qor_context_handler_post>, empty<&Handler::post>, task_seen},
    {"postx", "postx", on_task<qor_context_handler_postx>, empty<&Handler::postx>, task_seen},
    {"cancel", "cancel", on_session<qor_context_handler_cancel>, empty<&Handler::cancel>,
     session_seen},
    {"cancelx", "cancelx", on_session<qor_context_handler_cancelx>, empty<&Handler::cancelx>,
     session_seen},
};

const Call shortcuts[] = {
    {"session", "session", draw<qor_context_session>, empty<&Handler::session>, drawn},
    {"subscribe", "subscribe", on_attr<qor_context_subscribe>, empty<&Handler::subscribe>,
     attr_seen},
    {"unsubscribe", "unsubscribe", on_topic<qor_context_unsubscribe>, empty<&Handler::unsubscribe>,
     topic_seen},
    {"listen", "listen", on_attr<qor_context_listen>, empty<&Handler::listen>, attr_seen},
    {"unlisten", "unsubscribe", on_topic<qor_context_unlisten>, empty<&Handler::unsubscribe>,
     topic_seen},
    {"filter", "filter", on_attr<qor_context_filter>, empty<&Handler::filter>, attr_seen},
    {"unfilter", "unfilter", on_topic<qor_context_unfilter>, empty<&Handler::unfilter>, topic_seen},
};

const Call forwards[] = {
    {"publish", "publish", on_msg<qor_context_publish>, empty<&Handler::publish>, msg_seen},
    {"publishx", "publishx", on_msg<qor_context_publishx>, empty<&Handler::publishx>, msg_seen},
    {"syscall", "syscall", on_msg<qor_context_syscall>, empty<&Handler::syscall>, msg_seen},
    {"syscallx", "syscallx", on_msg<qor_context_syscallx>, empty<&Handler::syscallx>, msg_seen},
    {"post", "post", on_task<qor_context_post>, empty<&Handler::post>, task_seen},
    {"postx", "post", on_task<qor_context_postx>, empty<&Handler::post>, task_seen},
    {"cancel", "cancel", on_session<qor_context_cancel>, empty<&Handler::cancel>, session_seen},
    {"cancelx", "cancelx", on_session<qor_context_cancelx>, empty<&Handler::cancelx>, session_seen},
};

struct HandlerCall : testing::TestWithParam<Call> {
    Output out;
    RecordingContext context;
};

TEST_P(HandlerCall, PassesItsArgumentsToTheSlot)
{
    EXPECT_EQ(GetParam().call(context.get()), 0);

    EXPECT_EQ(context.slots, GetParam().slot);
    GetParam().arrived(context);
    EXPECT_EQ(out.printed(), "");
}

TEST_P(HandlerCall, ReturnsTheResultOfTheSlot)
{
    for (int32_t result : {7, -7}) {
        context.result = context.draw_result = result;

        EXPECT_EQ(GetParam().call(context.get()), result);
    }

    EXPECT_EQ(out.printed(), "");
}

TEST_P(HandlerCall, ReportsANullContext)
{
    EXPECT_EQ(GetParam().call(nullptr), -1);

    EXPECT_EQ(out.printed(), err_line(tag, GetParam().dispatcher(), "!(_this) == true."));
}

TEST_P(HandlerCall, ReportsAContextWithoutTable)
{
    context.context.handler = nullptr;

    EXPECT_EQ(GetParam().call(context.get()), -1);

    EXPECT_EQ(out.printed(), err_line(tag, GetParam().dispatcher(), "!(handler) == true."));
}

TEST_P(HandlerCall, ReportsAnEmptySlot)
{
    GetParam().empty(context.handler);

    EXPECT_EQ(GetParam().call(context.get()), -1);

    const std::string text = std::string("!(handler->") + GetParam().slot + ") == true.";
    EXPECT_EQ(out.printed(), err_line(tag, GetParam().dispatcher(), text));
    EXPECT_EQ(context.slots, "");
}

const auto call_name = [](const auto &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(Dispatcher, HandlerCall, testing::ValuesIn(dispatchers), call_name);
INSTANTIATE_TEST_SUITE_P(Shortcut, HandlerCall, testing::ValuesIn(shortcuts), call_name);
INSTANTIATE_TEST_SUITE_P(Forward, HandlerCall, testing::ValuesIn(forwards), call_name);

TEST(ContextHandler, NullArgumentsAreHandedOn)
{
    Output out;
    RecordingContext context;

    for (auto draw_call : {qor_context_handler_session, qor_context_session}) {
        context.session_at = &drawn_session;
        EXPECT_EQ(draw_call(context.get(), nullptr), 0);
        EXPECT_EQ(context.session_at, nullptr);
    }
    for (auto attr_call :
         {qor_context_handler_subscribe, qor_context_handler_listen, qor_context_handler_filter,
          qor_context_subscribe, qor_context_listen, qor_context_filter}) {
        context.attr = &some_attr;
        EXPECT_EQ(attr_call(context.get(), -1, nullptr), 0);
        EXPECT_EQ(context.topic, -1);
        EXPECT_EQ(context.attr, nullptr);
    }
    for (auto msg_call : {qor_context_handler_publish, qor_context_handler_publishx,
                          qor_context_handler_syscall, qor_context_handler_syscallx}) {
        context.msg_at = &some_msg;
        EXPECT_EQ(msg_call(context.get(), nullptr), 0);
        EXPECT_EQ(context.msg_at, nullptr);
    }
    for (auto task_call : {qor_context_handler_post, qor_context_handler_postx}) {
        context.task_at = &some_task;
        EXPECT_EQ(task_call(context.get(), nullptr), 0);
        EXPECT_EQ(context.task_at, nullptr);
    }

    EXPECT_EQ(context.slots, "session session subscribe listen filter subscribe listen filter "
                             "publish publishx syscall syscallx post postx");
    EXPECT_EQ(out.printed(), "");
}

TEST(ContextHandler, UnlistenShortcutRemovesTheSubscription)
{
    RecordingContext context;

    EXPECT_EQ(qor_context_unlisten(context.get(), some_topic), 0);
    EXPECT_EQ(context.slots, "unsubscribe");

    EXPECT_EQ(qor_context_handler_unlisten(context.get(), some_topic), 0);
    EXPECT_EQ(context.slots, "unsubscribe unlisten");
}

TEST(ContextHandler, UnlistenOnTheBusLeavesTheListenerInPlace)
{
    Journal journal;
    Actor actor(journal, "a");
    StillBus bus{StillBus::bare};
    qor_sched_delegate_t *delegate = actor.attach(bus.get(), QOR_BUS_ROLE_USER);
    qor_topic_core_t *table = qor_bus_topic_core_get(bus.get(), QOR_BUS_ROLE_USER);
    ASSERT_EQ(qor_context_subscribe(actor.get(), 1, nullptr), 0);
    ASSERT_EQ(qor_context_listen(actor.get(), 1, nullptr), 0);

    EXPECT_EQ(qor_context_unlisten(actor.get(), 1), 0);

    EXPECT_EQ(qor_topic_core_someone_subscribed(table, 1), 0);
    EXPECT_EQ(qor_topic_core_someone_listened(table, 1), 1);
    qor_sched_delegate_destroy(delegate);
}

TEST(ContextHandler, PostxForwardGoesToPost)
{
    RecordingContext context;
    context.handler.postx = nullptr; /* as in the delegate's table */

    EXPECT_EQ(qor_context_postx(context.get(), &some_task), 0);

    EXPECT_EQ(context.slots, "post");
}

} // namespace
