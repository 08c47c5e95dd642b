/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_task.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"
#include "qor_context_msg.h"

namespace {

/* Contexts are only handed through here, so any address will do. */
int context_place;
qor_context_t *const context = reinterpret_cast<qor_context_t *>(&context_place);

struct Destroy {
    void operator()(qor_context_task_t *task) const { qor_context_task_destroy(task); }
};
using Created = std::unique_ptr<qor_context_task_t, Destroy>;

void *run_back(void *arg)
{
    return arg;
}

struct Seen {
    qor_context_t *context = nullptr;
    int32_t session = -1;
    int calls = 0;
};

void *runx_note(qor_context_t *from, int32_t session, void *arg)
{
    Seen *seen = static_cast<Seen *>(arg);
    seen->context = from;
    seen->session = session;
    seen->calls++;
    return &seen->calls;
}

void count_up(void *arg)
{
    ++*static_cast<int *>(arg);
}

/* Every byte set, so that a field that is not filled shows. */
qor_context_task_t dirty_task()
{
    qor_context_task_t task;
    memset(&task, '#', sizeof(task));
    return task;
}

std::string address_name(const void *address)
{
    char name[32];
    snprintf(name, sizeof(name), "task:%p", address);
    return name;
}

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_context_msg", function, text);
}

const std::string long_name = "0123456789012345678901234567890123456789";

} // namespace

TEST(ContextTask, KindsHaveTheirNumbers)
{
    EXPECT_EQ(QOR_CONTEXT_FUN_RUN, 0);
    EXPECT_EQ(QOR_CONTEXT_FUN_RUNX, 1);
}

TEST(ContextTask, InitFillsEveryFieldOfARun)
{
    qor_context_task_t task = dirty_task();
    int arg = 0;

    EXPECT_EQ(qor_context_task_init(&task, context, "blink", 42, run_back, &arg), 0);

    EXPECT_STREQ(task.name, "blink");
    EXPECT_EQ(task.context, context);
    EXPECT_EQ(task.session, 42);
    EXPECT_EQ(task.async, 0);
    EXPECT_EQ(task.delay, 0);
    EXPECT_EQ(task.arg, &arg);
    EXPECT_EQ(task.recycle, nullptr);
    EXPECT_EQ(task.fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(task.fun.run, run_back);
}

TEST(ContextTask, TaskxInitFillsEveryFieldOfARunx)
{
    qor_context_task_t task = dirty_task();
    Seen seen;

    EXPECT_EQ(qor_context_taskx_init(&task, context, "blink", 42, runx_note, &seen), 0);

    EXPECT_STREQ(task.name, "blink");
    EXPECT_EQ(task.context, context);
    EXPECT_EQ(task.session, 42);
    EXPECT_EQ(task.async, 0);
    EXPECT_EQ(task.delay, 0);
    EXPECT_EQ(task.arg, &seen);
    EXPECT_EQ(task.recycle, nullptr);
    EXPECT_EQ(task.fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(task.fun.runx, runx_note);
}

TEST(ContextTask, RunMayLackContextAndFunction)
{
    Output out;
    qor_context_task_t task = dirty_task();

    EXPECT_EQ(qor_context_task_init(&task, nullptr, "n", 1, nullptr, nullptr), 0);

    EXPECT_EQ(task.context, nullptr);
    EXPECT_EQ(task.fun.run, nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST(ContextTask, NamelessRunIsNamedAfterItsFunction)
{
    qor_context_task_t task = dirty_task();

    qor_context_task_init(&task, nullptr, nullptr, 1, run_back, nullptr);

    EXPECT_EQ(task.name, address_name(reinterpret_cast<void *>(run_back)));
}

TEST(ContextTask, NamelessRunxIsNamedAfterItsFunction)
{
    qor_context_task_t task = dirty_task();

    qor_context_taskx_init(&task, context, nullptr, 1, runx_note, nullptr);

    EXPECT_EQ(task.name, address_name(reinterpret_cast<void *>(runx_note)));
}

TEST(ContextTask, LongNameIsCutTo31Characters)
{
    qor_context_task_t task = {};

    qor_context_task_init(&task, nullptr, long_name.c_str(), 1, run_back, nullptr);

    EXPECT_EQ(task.name, long_name.substr(0, 31));
}

TEST(ContextTask, LastByteOfTheNameIsLeftAlone)
{
    qor_context_task_t filled = dirty_task();
    qor_context_task_t renamed = dirty_task();

    qor_context_task_init(&filled, nullptr, long_name.c_str(), 1, run_back, nullptr);
    qor_context_task_set_name(&renamed, "short");

    EXPECT_EQ(std::string(filled.name, 32), long_name.substr(0, 31) + "#");
    EXPECT_EQ(std::string(renamed.name, 32), "short" + std::string(26, '\0') + "#");
}

TEST(ContextTask, TaskxInitChecksTheContextBeforeTheRecord)
{
    Output out;

    EXPECT_EQ(qor_context_taskx_init(nullptr, nullptr, "n", 1, runx_note, nullptr), -1);

    EXPECT_EQ(out.printed(), line("qor_context_taskx_init", "!(context) == true."));
}

TEST(ContextTask, RefusedInitChangesNothing)
{
    qor_context_task_t task = dirty_task();
    const qor_context_task_t before = task;
    Output out;

    EXPECT_EQ(qor_context_taskx_init(&task, nullptr, "n", 1, runx_note, nullptr), -1);

    EXPECT_EQ(memcmp(&task, &before, sizeof(task)), 0);
}

TEST(ContextTask, CreateGivesAFilledRun)
{
    int arg = 0;

    Created task(qor_context_task_create(context, "blink", 42, run_back, &arg));

    ASSERT_NE(task, nullptr);
    EXPECT_STREQ(task->name, "blink");
    EXPECT_EQ(task->context, context);
    EXPECT_EQ(task->session, 42);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUN);
    EXPECT_EQ(qor_context_task_excute(task.get()), &arg);
}

TEST(ContextTask, TaskxCreateGivesAFilledRunx)
{
    Seen seen;

    Created task(qor_context_taskx_create(context, "blink", 42, runx_note, &seen));

    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->fun_type, QOR_CONTEXT_FUN_RUNX);
    EXPECT_EQ(qor_context_task_excute(task.get()), &seen.calls);
    EXPECT_EQ(seen.context, context);
    EXPECT_EQ(seen.session, 42);
}

TEST(ContextTask, CreatedTaskIsZeroBehindItsName)
{
    Created task(qor_context_task_create(context, long_name.c_str(), 1, run_back, nullptr));

    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->name[31], '\0');
}

TEST(ContextTask, RunReceivesItsArgumentAndGivesItsResult)
{
    qor_context_task_t task;
    int arg = 0;
    qor_context_task_init(&task, nullptr, "n", 1, run_back, &arg);

    EXPECT_EQ(qor_context_task_excute(&task), &arg);
}

TEST(ContextTask, ExecutingDoesNotRecycle)
{
    qor_context_task_t task;
    int recycled = 0;
    qor_context_task_init(&task, nullptr, "n", 1, run_back, &recycled);
    qor_context_task_set_recycle(&task, count_up);

    qor_context_task_excute(&task);

    EXPECT_EQ(recycled, 0);
}

TEST(ContextTask, UnknownKindRunsAsRunx)
{
    qor_context_task_t task;
    Seen seen;
    qor_context_taskx_init(&task, context, "n", 9, runx_note, &seen);
    task.fun_type = 7;

    EXPECT_EQ(qor_context_task_excute(&task), &seen.calls);

    EXPECT_EQ(seen.context, context);
    EXPECT_EQ(seen.session, 9);
}

TEST(ContextTask, RunxWithoutContextIsRefused)
{
    Output out;
    qor_context_task_t task;
    Seen seen;
    qor_context_taskx_init(&task, context, "n", 1, runx_note, &seen);
    task.context = nullptr;

    EXPECT_EQ(qor_context_task_excute(&task), nullptr);

    EXPECT_EQ(seen.calls, 0);
    EXPECT_EQ(out.printed(), line("qor_context_task_excute", "!(_this->context) == true."));
}

TEST(ContextTask, UnknownKindWithoutContextIsRefused)
{
    Output out;
    qor_context_task_t task;
    Seen seen;
    qor_context_taskx_init(&task, context, "n", 1, runx_note, &seen);
    task.fun_type = -1;
    task.context = nullptr;

    EXPECT_EQ(qor_context_task_excute(&task), nullptr);

    EXPECT_EQ(out.printed(), line("qor_context_task_excute", "!(_this->context) == true."));
}

TEST(ContextTask, CopyCarriesEveryField)
{
    qor_context_task_t source = dirty_task();
    qor_context_task_t copy = {};

    EXPECT_EQ(qor_context_task_copy(&copy, &source), 0);

    EXPECT_EQ(std::string(copy.name, 32), std::string(32, '#'));
    EXPECT_EQ(copy.context, source.context);
    EXPECT_EQ(copy.session, source.session);
    EXPECT_EQ(copy.async, source.async);
    EXPECT_EQ(copy.delay, source.delay);
    EXPECT_EQ(copy.arg, source.arg);
    EXPECT_EQ(copy.recycle, source.recycle);
    EXPECT_EQ(copy.fun_type, source.fun_type);
    EXPECT_EQ(copy.fun.run, source.fun.run);
}

TEST(ContextTask, ReleasingBothCopiesRecyclesTwice)
{
    qor_context_task_t source, copy;
    int recycled = 0;
    qor_context_task_init(&source, nullptr, "n", 1, run_back, &recycled);
    qor_context_task_set_recycle(&source, count_up);
    qor_context_task_copy(&copy, &source);

    qor_context_task_uninit(&source);
    qor_context_task_uninit(&copy);

    EXPECT_EQ(recycled, 2);
}

TEST(ContextTask, UninitTwiceRecyclesTwice)
{
    qor_context_task_t task;
    int recycled = 0;
    qor_context_task_init(&task, nullptr, "n", 1, run_back, &recycled);
    qor_context_task_set_recycle(&task, count_up);

    qor_context_task_uninit(&task);
    qor_context_task_uninit(&task);

    EXPECT_EQ(recycled, 2);
    EXPECT_EQ(task.recycle, count_up);
    EXPECT_EQ(task.arg, &recycled);
}

TEST(ContextTask, UninitWithoutRecycleDoesNothing)
{
    Output out;
    qor_context_task_t task;
    int arg = 0;
    qor_context_task_init(&task, nullptr, "n", 1, run_back, &arg);

    qor_context_task_uninit(&task);

    EXPECT_EQ(arg, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST(ContextTask, DestroyRecyclesTheArgumentOnce)
{
    int recycled = 0;
    qor_context_task_t *task = qor_context_task_create(nullptr, "n", 1, run_back, &recycled);
    ASSERT_NE(task, nullptr);
    qor_context_task_set_recycle(task, count_up);

    qor_context_task_destroy(task);

    EXPECT_EQ(recycled, 1);
}

TEST(ContextTask, DestroyWithoutRecycleFreesOnlyTheRecord)
{
    int arg = 7;
    qor_context_task_t *task = qor_context_task_create(nullptr, "n", 1, run_back, &arg);
    ASSERT_NE(task, nullptr);

    qor_context_task_destroy(task); /* a leak is the sanitizers' to find */

    EXPECT_EQ(arg, 7);
}

TEST(ContextTask, ReleasesTheCloneThatItCarries)
{
    char request[] = "abc";
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, request, 3);
    qor_context_task_t task;
    qor_context_task_init(&task, nullptr, "n", 1, run_back, qor_context_msg_clone(&msg));
    ASSERT_NE(task.arg, nullptr);
    qor_context_task_set_recycle(&task,
                                 reinterpret_cast<qor_context_recycle_t>(qor_context_msg_destroy));
    Output out;

    qor_context_task_uninit(&task);

    EXPECT_EQ(out.printed(), "");
}

TEST(ContextTask, SetNameReplacesTheWholeName)
{
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "a rather long name", 1, run_back, nullptr);

    EXPECT_EQ(qor_context_task_set_name(&task, "new"), 0);

    EXPECT_EQ(std::string(task.name, 32), "new" + std::string(29, '\0'));
}

TEST(ContextTask, SetNameKeeps31Characters)
{
    qor_context_task_t task = {};

    EXPECT_EQ(qor_context_task_set_name(&task, long_name.c_str()), 0);

    EXPECT_EQ(task.name, long_name.substr(0, 31));
}

struct NameCase {
    const char *name;
    const char *task_name;
    int32_t len;
    std::string left; /* of a buffer of 40 '#' */
};
class ContextTaskGetName : public testing::TestWithParam<NameCase> {};

TEST_P(ContextTaskGetName, CopiesAtMostLenCharacters)
{
    qor_context_task_t task = {};
    qor_context_task_set_name(&task, GetParam().task_name);
    std::string buffer(40, '#');

    EXPECT_EQ(qor_context_task_get_name(&task, buffer.data(), GetParam().len), 0);

    EXPECT_EQ(buffer, GetParam().left + std::string(40 - GetParam().left.size(), '#'));
}

INSTANTIATE_TEST_SUITE_P(
    All, ContextTaskGetName,
    testing::Values(NameCase{"FitsWithZeroesBehind", "abc", 6, std::string("abc\0\0\0", 6)},
                    NameCase{"ExactlyFullIsNotTerminated", "abc", 3, "abc"},
                    NameCase{"CutIsNotTerminated", "abcdef", 4, "abcd"},
                    NameCase{"LongerThanTheField", "abc", 40, "abc" + std::string(37, '\0')},
                    NameCase{"NoRoom", "abc", 0, ""}, NameCase{"NegativeRoom", "abc", -5, ""}),
    case_name<NameCase>);

TEST(ContextTask, GetNameStopsAtTheEndOfAnUnterminatedField)
{
    qor_context_task_t task = dirty_task();
    std::string buffer(40, 'x');

    EXPECT_EQ(qor_context_task_get_name(&task, buffer.data(), 40), 0);

    EXPECT_EQ(buffer, std::string(32, '#') + std::string(8, '\0'));
}

TEST(ContextTask, AsyncIsReadBackAsSet)
{
    qor_context_task_t task = {};
    int32_t async = -1;

    EXPECT_EQ(qor_context_task_set_async(&task, 3), 0);
    EXPECT_EQ(qor_context_task_get_async(&task, &async), 0);

    EXPECT_EQ(async, 3);
    EXPECT_EQ(task.async, 3);
}

TEST(ContextTask, DelayIsReadBackAsSet)
{
    qor_context_task_t task = {};
    int32_t delay = -1;

    EXPECT_EQ(qor_context_task_set_delay(&task, 1500), 0);
    EXPECT_EQ(qor_context_task_get_delay(&task, &delay), 0);

    EXPECT_EQ(delay, 1500);
    EXPECT_EQ(task.delay, 1500);
}

TEST(ContextTask, RecycleIsReadBackAsSet)
{
    qor_context_task_t task = {};

    EXPECT_EQ(qor_context_task_set_recycle(&task, count_up), 0);

    EXPECT_EQ(qor_context_task_get_recycle(&task), count_up);
    EXPECT_EQ(task.recycle, count_up);
}

TEST(ContextTask, RecycleMayBeTakenAway)
{
    Output out;
    qor_context_task_t task = {};
    qor_context_task_set_recycle(&task, count_up);

    EXPECT_EQ(qor_context_task_set_recycle(&task, nullptr), 0);

    EXPECT_EQ(qor_context_task_get_recycle(&task), nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST(ContextTask, PrintsUnderTheTagOfMessages)
{
    Output out;

    qor_context_task_uninit(nullptr);

    EXPECT_EQ(out.printed(), "[qor_context_msg][err][qor_context_task_uninit]:!(_this) == true.\n");
}

namespace {

/* A call that must be refused, giving -1 or NULL, with one line. */
struct RefusedCase {
    const char *name;
    const char *function;
    const char *text;
    std::function<bool()> refused;
};

qor_context_task_t some_task;
int32_t some_number;
char some_name[4];

const RefusedCase refused_cases[] = {
    {"InitOfNull", "_qor_context_task_init", "!(_this) == true.",
     [] { return qor_context_task_init(nullptr, nullptr, "n", 1, run_back, nullptr) == -1; }},
    {"TaskxInitOfNull", "_qor_context_task_init", "!(_this) == true.",
     [] { return qor_context_taskx_init(nullptr, context, "n", 1, runx_note, nullptr) == -1; }},
    {"TaskxInitWithoutContext", "qor_context_taskx_init", "!(context) == true.",
     [] { return qor_context_taskx_init(&some_task, nullptr, "n", 1, runx_note, nullptr) == -1; }},
    {"TaskxCreateWithoutContext", "qor_context_taskx_create", "!(context) == true.",
     [] { return qor_context_taskx_create(nullptr, "n", 1, runx_note, nullptr) == nullptr; }},
    {"CopyToNull", "qor_context_task_copy", "!(_this) == true.",
     [] { return qor_context_task_copy(nullptr, nullptr) == -1; }},
    {"CopyFromNull", "qor_context_task_copy", "!(src) == true.",
     [] { return qor_context_task_copy(&some_task, nullptr) == -1; }},
    {"ExcuteOfNull", "qor_context_task_excute", "!(_this) == true.",
     [] { return qor_context_task_excute(nullptr) == nullptr; }},
    {"UninitOfNull", "qor_context_task_uninit", "!(_this) == true.",
     [] { return qor_context_task_uninit(nullptr), true; }},
    {"DestroyOfNull", "qor_context_task_destroy", "!(_this) == true.",
     [] { return qor_context_task_destroy(nullptr), true; }},
    {"SetNameOfNull", "qor_context_task_set_name", "!(_this && name) == true.",
     [] { return qor_context_task_set_name(nullptr, "n") == -1; }},
    {"SetNameToNull", "qor_context_task_set_name", "!(_this && name) == true.",
     [] { return qor_context_task_set_name(&some_task, nullptr) == -1; }},
    {"GetNameOfNull", "qor_context_task_get_name", "!(_this && name) == true.",
     [] { return qor_context_task_get_name(nullptr, some_name, 4) == -1; }},
    {"GetNameIntoNull", "qor_context_task_get_name", "!(_this && name) == true.",
     [] { return qor_context_task_get_name(&some_task, nullptr, 4) == -1; }},
    {"SetAsyncOfNull", "qor_context_task_set_async", "!(_this) == true.",
     [] { return qor_context_task_set_async(nullptr, 1) == -1; }},
    {"GetAsyncOfNull", "qor_context_task_get_async", "!(_this && async) == true.",
     [] { return qor_context_task_get_async(nullptr, &some_number) == -1; }},
    {"GetAsyncIntoNull", "qor_context_task_get_async", "!(_this && async) == true.",
     [] { return qor_context_task_get_async(&some_task, nullptr) == -1; }},
    {"SetDelayOfNull", "qor_context_task_set_delay", "!(_this) == true.",
     [] { return qor_context_task_set_delay(nullptr, 1) == -1; }},
    {"GetDelayOfNull", "qor_context_task_get_delay", "!(_this && delay) == true.",
     [] { return qor_context_task_get_delay(nullptr, &some_number) == -1; }},
    {"GetDelayIntoNull", "qor_context_task_get_delay", "!(_this && delay) == true.",
     [] { return qor_context_task_get_delay(&some_task, nullptr) == -1; }},
    {"SetRecycleOfNull", "qor_context_task_set_recycle", "!(_this) == true.",
     [] { return qor_context_task_set_recycle(nullptr, count_up) == -1; }},
    {"GetRecycleOfNull", "qor_context_task_get_recycle", "!(_this) == true.",
     [] { return qor_context_task_get_recycle(nullptr) == nullptr; }},
};

} // namespace

class ContextTaskRefuses : public testing::TestWithParam<RefusedCase> {};

TEST_P(ContextTaskRefuses, WithOneLine)
{
    Output out;

    EXPECT_TRUE(GetParam().refused());

    EXPECT_EQ(out.printed(), line(GetParam().function, GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(All, ContextTaskRefuses, testing::ValuesIn(refused_cases),
                         case_name<RefusedCase>);

TEST(ContextTask, ANamelessTaskIsNamedAfterAnyAddress)
{
    qor_context_task_t task = {};
    const uintptr_t addresses[] = {0, 1, 0x10, UINTPTR_MAX};
    for (const uintptr_t address : addresses) {
        const auto func = reinterpret_cast<qor_context_run_t>(address);
        ASSERT_EQ(qor_context_task_init(&task, nullptr, nullptr, 1, func, nullptr), 0);
        EXPECT_EQ(task.name,
                  address_name(reinterpret_cast<void *>(address)).substr(0, sizeof(task.name) - 1));
    }
}
