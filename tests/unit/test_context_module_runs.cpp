/* SPDX-License-Identifier: Apache-2.0 */
/* The run and timer families of calls: what each puts into its task. */
#include "qor_context_module.h"

#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "context_module_fixture.hpp"
#include "output.hpp"
#include "recording_context.hpp"

namespace {

constexpr int32_t some_delay = 250;
char some_arg;

void *run(void *)
{
    return nullptr;
}
void *runx(qor_context_t *, int32_t, void *)
{
    return nullptr;
}

/* Calls a member; if it is a timer's, with the delay behind the other arguments. */
template <typename F, typename... Args> int32_t invoke(F member, Args... args)
{
    if constexpr (std::is_invocable_v<F, Args..., int32_t>) {
        return member(args..., some_delay);
    } else {
        return member(args...);
    }
}

template <auto member, auto func> int32_t call_full(qor_context_t *context, bool with_func)
{
    return invoke(member, context, "mine", own_session, with_func ? func : nullptr, &some_arg);
}

template <auto member, auto func> int32_t call_plain(qor_context_t *context, bool with_func)
{
    return invoke(member, context, with_func ? func : nullptr, &some_arg);
}

template <auto member, auto func> int32_t call_s(qor_context_t *context, bool with_func)
{
    return invoke(member, context, own_session, with_func ? func : nullptr, &some_arg);
}

template <auto member, auto func> int32_t call_name(qor_context_t *context, bool with_func)
{
    return invoke(member, context, "mine", with_func ? func : nullptr, &some_arg);
}

struct Member {
    std::string family;
    std::string suffix;
    int32_t (*call)(qor_context_t *, bool with_func);
    bool named;
    bool draws;
    int32_t fun_type;
    int32_t async;
    int32_t delay;

    std::string name() const { return family + suffix; }
    int32_t session() const { return draws ? drawn_session : own_session; }
    friend std::ostream &operator<<(std::ostream &os, const Member &m) { return os << m.name(); }
};

template <auto full, auto plain, auto s, auto name, auto func>
void add_family(std::vector<Member> &members, const char *family, int32_t async, int32_t delay)
{
    const int32_t type = std::is_same_v<decltype(func), qor_context_runx_t> ? QOR_CONTEXT_FUN_RUNX
                                                                            : QOR_CONTEXT_FUN_RUN;
    members.push_back({family, "_full", call_full<full, func>, true, false, type, async, delay});
    members.push_back({family, "", call_plain<plain, func>, false, true, type, async, delay});
    members.push_back({family, "_s", call_s<s, func>, false, false, type, async, delay});
    members.push_back({family, "_name", call_name<name, func>, true, true, type, async, delay});
}

std::vector<Member> all_members()
{
    std::vector<Member> all;
    add_family<qor_context_run_full, qor_context_run, qor_context_run_s, qor_context_run_name, run>(
        all, "run", 0, 0);
    add_family<qor_context_runx_full, qor_context_runx, qor_context_runx_s, qor_context_runx_name,
               runx>(all, "runx", 1, 0);
    add_family<qor_context_x_run_full, qor_context_x_run, qor_context_x_run_s,
               qor_context_x_run_name, run>(all, "x_run", 0, 0);
    add_family<qor_context_x_runx_full, qor_context_x_runx, qor_context_x_runx_s,
               qor_context_x_runx_name, runx>(all, "x_runx", 0, 0);
    add_family<qor_context_timer_full, qor_context_timer, qor_context_timer_s,
               qor_context_timer_name, run>(all, "timer", 1, some_delay);
    add_family<qor_context_timerx_full, qor_context_timerx, qor_context_timerx_s,
               qor_context_timerx_name, runx>(all, "timerx", 1, some_delay);
    add_family<qor_context_x_timer_full, qor_context_x_timer, qor_context_x_timer_s,
               qor_context_x_timer_name, run>(all, "x_timer", 0, some_delay);
    add_family<qor_context_x_timerx_full, qor_context_x_timerx, qor_context_x_timerx_s,
               qor_context_x_timerx_name, runx>(all, "x_timerx", 0, some_delay);
    return all;
}

struct AnyMember : testing::TestWithParam<Member> {
    Output out;
    RecordingContext context;
};

TEST_P(AnyMember, PostsAFilledTask)
{
    const Member &member = GetParam();

    member.call(context.get(), true);

    const qor_context_task_t &task = context.task;
    EXPECT_EQ(context.slots, member.draws ? "session post" : "post");
    EXPECT_EQ(task.context, context.get());
    EXPECT_EQ(task.session, member.session());
    EXPECT_EQ(task.async, member.async);
    EXPECT_EQ(task.delay, member.delay);
    EXPECT_EQ(task.arg, &some_arg);
    EXPECT_EQ(task.recycle, nullptr);
    EXPECT_EQ(task.fun_type, member.fun_type);
    if (member.fun_type == QOR_CONTEXT_FUN_RUN) {
        EXPECT_EQ(task.fun.run, run);
    } else {
        EXPECT_EQ(task.fun.runx, runx);
    }
    EXPECT_EQ(out.printed(), "");
}

TEST_P(AnyMember, PostsUnderTheGivenOrTheDefaultName)
{
    const Member &member = GetParam();
    char default_name[32];
    snprintf(default_name, sizeof(default_name), "task:%p",
             member.fun_type == QOR_CONTEXT_FUN_RUN ? reinterpret_cast<void *>(run)
                                                    : reinterpret_cast<void *>(runx));

    member.call(context.get(), true);

    EXPECT_STREQ(context.task.name, member.named ? "mine" : default_name);
}

TEST_P(AnyMember, ReturnsTheDrawnSessionOrTheResult)
{
    for (int32_t result : {0, 5}) {
        context.next_session = drawn_session;
        context.result = result;

        EXPECT_EQ(GetParam().call(context.get(), true), GetParam().draws ? drawn_session : result);
    }
}

TEST_P(AnyMember, ReturnsMinusOneOrTheNegativeResult)
{
    context.result = -7;

    EXPECT_EQ(GetParam().call(context.get(), true), GetParam().draws ? -1 : -7);
}

TEST_P(AnyMember, ReportsANullContextUnderItsOwnName)
{
    EXPECT_EQ(GetParam().call(nullptr, false), -1);

    EXPECT_EQ(out.printed(),
              err_line(tag, "qor_context_" + GetParam().name(), "!(_this) == true."));
}

TEST_P(AnyMember, ReportsANullFunctionUnderTheFullMember)
{
    EXPECT_EQ(GetParam().call(context.get(), false), -1);

    EXPECT_EQ(context.slots, GetParam().draws ? "session" : "");
    EXPECT_EQ(out.printed(),
              err_line(tag, "qor_context_" + GetParam().family + "_full", "!(func) == true."));
}

const auto member_name = [](const auto &info) { return info.param.name(); };

INSTANTIATE_TEST_SUITE_P(ContextModule, AnyMember, testing::ValuesIn(all_members()), member_name);

TEST(ContextModule, PlainRunIsInLine)
{
    RecordingContext context;

    qor_context_run(context.get(), run, nullptr);
    EXPECT_EQ(context.task.async, 0);

    qor_context_runx(context.get(), runx, nullptr);
    EXPECT_EQ(context.task.async, 1);
}

TEST(ContextModule, MembersWithSessionReturnTheResultOfThePost)
{
    RecordingContext context;

    EXPECT_EQ(qor_context_run_s(context.get(), own_session, run, nullptr), 0);
    EXPECT_EQ(qor_context_run(context.get(), run, nullptr), drawn_session);
}

TEST(ContextModule, FailedDrawLeavesSessionZero)
{
    RecordingContext context;
    context.draw_result = -1;

    EXPECT_EQ(qor_context_req(context.get(), some_topic, nullptr, 0), 0);
    EXPECT_EQ(context.msg.session, 0);
    EXPECT_EQ(qor_context_timer(context.get(), run, nullptr, some_delay), 0);
    EXPECT_EQ(context.task.session, 0);

    EXPECT_EQ(context.slots, "session publish session post");
}

TEST(ContextModule, DelaysBelowOneAreHandedOn)
{
    RecordingContext context;

    for (int32_t delay : {0, -1}) {
        EXPECT_EQ(qor_context_timer_s(context.get(), own_session, run, nullptr, delay), 0);
        EXPECT_EQ(context.task.delay, delay);
    }
}

TEST(ContextModule, PostsNeverUseTheSecondEntry)
{
    RecordingContext context;
    context.handler.postx = nullptr; /* as in the delegate's table */

    for (const Member &member : all_members()) {
        EXPECT_GE(member.call(context.get(), true), 0) << member.name();
    }
}

TEST(ContextModule, CancelsGoToTheirOwnEntries)
{
    RecordingContext context;
    context.result = -7;

    EXPECT_EQ(qor_context_timer_cancel(context.get(), 5), -7);
    EXPECT_EQ(context.session, 5);
    EXPECT_EQ(qor_context_x_timer_cancel(context.get(), 6), -7);
    EXPECT_EQ(context.session, 6);

    EXPECT_EQ(context.slots, "cancel cancelx");
}

TEST(ContextModule, CancelsTestNothingThemselves)
{
    Output out;
    RecordingContext context;
    context.handler.cancelx = nullptr;

    EXPECT_EQ(qor_context_timer_cancel(nullptr, 5), -1);
    EXPECT_EQ(qor_context_x_timer_cancel(nullptr, 5), -1);
    EXPECT_EQ(qor_context_x_timer_cancel(context.get(), 5), -1);

    EXPECT_EQ(
        out.printed(),
        err_line("qor_context_handler", "qor_context_handler_cancel", "!(_this) == true.") +
            err_line("qor_context_handler", "qor_context_handler_cancelx", "!(_this) == true.") +
            err_line("qor_context_handler", "qor_context_handler_cancelx",
                     "!(handler->cancelx) == true."));
}

} // namespace
