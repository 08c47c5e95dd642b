/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_impl_context.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "await.hpp"
#include "case_name.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "que_holder.hpp"
#include "sleeper.hpp"

namespace {

/* The sanitizers run threads on larger stacks than asked for. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool stacks_are_exact = false;
#elif defined(__has_feature)
constexpr bool stacks_are_exact =
    !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool stacks_are_exact = true;
#endif

qor_context_cls_t &cls = qor_impl_context_class;

/* What the callbacks of a module were called with. */
struct Called {
    std::string by; /* the callbacks' names, each followed by a blank */
    qor_context_t *context = nullptr;
    void *arg = nullptr;
    qor_context_msg_t *msg = nullptr;
    qor_context_task_t *task = nullptr;
} called;

void note(const char *callback, qor_context_t *context)
{
    called.by += std::string(callback) + " ";
    called.context = context;
}

/* A module with every callback but console. */
qor_context_module_t full_module()
{
    return {"gauge",
            /* id */ 0,
            /* pure */ 0,
            /* refcount */ 0,
            /* priority */ 0,
            /* stack_size */ 0,
            /* arg */ &called,
            /* reg */ [](qor_context_t *c) { note("reg", c); },
            /* unreg */ [](qor_context_t *c) { note("unreg", c); },
            /* init */
            [](qor_context_t *c, void *arg) {
                note("init", c);
                called.arg = arg;
                return int32_t{21};
            },
            /* uninit */ [](qor_context_t *c) { note("uninit", c); },
            /* console */ nullptr,
            /* handle_message */
            [](qor_context_t *c, qor_context_msg_t *msg) {
                note("handle_message", c);
                called.msg = msg;
                return int32_t{-22};
            }};
}

qor_context_module_t empty_module()
{
    return {"bare", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
}

class ImplContext : public testing::Test {
protected:
    explicit ImplContext(qor_context_module_t m = full_module())
        : module(m), context(qor_context_create(&cls, &module))
    {
        called = Called{};
    }
    ~ImplContext() override { qor_context_destroy(context); }

    qor_context_module_t module;
    qor_context_t *context;
    Output out;
};

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_impl_context", function, text);
}

} // namespace

TEST_F(ImplContext, ClassHasItsNameAndTheDefaultId)
{
    EXPECT_STREQ(cls.name, "qor_impl_context");
    EXPECT_EQ(cls.id, 0);
}

TEST_F(ImplContext, ClassLeavesResumePauseAndLoopEmpty)
{
    EXPECT_EQ(cls.resume, nullptr);
    EXPECT_EQ(cls.pause, nullptr);
    EXPECT_EQ(cls.loop, nullptr);
}

TEST_F(ImplContext, IsCreatedEmpty)
{
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->cls, &cls);
    EXPECT_EQ(context->module, &module);
    EXPECT_EQ(context->handler, nullptr);
    EXPECT_EQ(context->id, 0);
    EXPECT_EQ(context->node.next, nullptr);
    EXPECT_EQ(context->node.prev, nullptr);
    EXPECT_EQ(context->resource, nullptr);
    EXPECT_EQ(context->pub_data, nullptr);
    EXPECT_EQ(context->priv_data, nullptr);
    EXPECT_EQ(context->pub_data_recycle, nullptr);
}

TEST_F(ImplContext, RegisterCallsTheModule)
{
    qor_context_register(context);

    EXPECT_EQ(called.by, "reg ");
    EXPECT_EQ(called.context, context);
}

TEST_F(ImplContext, UnregisterCallsTheModule)
{
    qor_context_unregister(context);

    EXPECT_EQ(called.by, "unreg ");
    EXPECT_EQ(called.context, context);
}

TEST_F(ImplContext, InitHandsTheModuleItsArgumentAndGivesItsResult)
{
    EXPECT_EQ(qor_context_init(context), 21);

    EXPECT_EQ(called.by, "init ");
    EXPECT_EQ(called.context, context);
    EXPECT_EQ(called.arg, &called);
}

TEST_F(ImplContext, UninitCallsTheModule)
{
    qor_context_uninit(context);

    EXPECT_EQ(called.by, "uninit ");
    EXPECT_EQ(called.context, context);
}

TEST_F(ImplContext, HandleMessageHandsItToTheModuleAndGivesItsResult)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, 2, nullptr, 0);

    EXPECT_EQ(qor_context_handle_message(context, &msg), -22);

    EXPECT_EQ(called.by, "handle_message ");
    EXPECT_EQ(called.context, context);
    EXPECT_EQ(called.msg, &msg);
}

TEST_F(ImplContext, HandleTaskPostsThroughTheHandler)
{
    qor_context_handler_t handler = {};
    handler.post = [](qor_context_t *c, qor_context_task_t *task) {
        note("post", c);
        called.task = task;
        return int32_t{33};
    };
    qor_context_handler_set(context, &handler);
    qor_context_task_t task = {};

    EXPECT_EQ(qor_context_handle_task(context, &task), 33);

    EXPECT_EQ(called.by, "post ");
    EXPECT_EQ(called.context, context);
    EXPECT_EQ(called.task, &task);
}

TEST_F(ImplContext, HandleTaskWithoutHandlerFails)
{
    qor_context_task_t task = {};

    EXPECT_EQ(qor_context_handle_task(context, &task), -1);

    EXPECT_EQ(out.printed(),
              err_line("qor_context_handler", "qor_context_handler_post", "!(handler) == true."));
}

TEST_F(ImplContext, ResumeAndPauseSucceedAndCallNothing)
{
    EXPECT_EQ(qor_context_resume(context), 0);
    EXPECT_EQ(qor_context_pause(context), 0);

    EXPECT_EQ(called.by, "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(ImplContext, NullMessageDoesNotReachTheModule)
{
    EXPECT_EQ(qor_context_handle_message(context, nullptr), -1);

    EXPECT_EQ(called.by, "");
    EXPECT_EQ(out.printed(), line("qor_impl_context_handle_message", "!(msg) == true."));
}

TEST_F(ImplContext, MessageIsCheckedBeforeTheCallback)
{
    module.handle_message = nullptr;

    EXPECT_EQ(qor_context_handle_message(context, nullptr), -1);

    EXPECT_EQ(out.printed(), line("qor_impl_context_handle_message", "!(msg) == true."));
}

TEST_F(ImplContext, StartAndStopWithoutConsoleDoNothing)
{
    EXPECT_EQ(qor_context_start(context), 0);
    EXPECT_EQ(qor_context_resource_get(context), nullptr);

    qor_context_stop(context);

    EXPECT_EQ(called.by, "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(ImplContext, StopWithoutConsoleLeavesAForeignResourceAlone)
{
    qor_context_resource_set(context, &called);

    qor_context_stop(context);

    EXPECT_EQ(qor_context_resource_get(context), &called);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(ImplContext, StopWithoutStartDoesNothing)
{
    module.console = [](qor_context_t *) { return int32_t{0}; };

    qor_context_stop(context);

    EXPECT_EQ(out.printed(), "");
}

namespace {

qor_context_msg_t some_msg;

/* A call straight to a slot of the class, giving -1, NULL or nothing, with one line. */
struct RefusedCase {
    const char *name;
    const char *function;
    const char *text;
    std::function<bool(qor_context_t *)> refused;
};

const RefusedCase null_cases[] = {
    {"Create", "qor_impl_context_create", "!(module) == true.",
     [](qor_context_t *) { return cls.create(nullptr) == nullptr; }},
    {"Destroy", "qor_impl_context_destroy", "!(_this) == true.",
     [](qor_context_t *c) { return cls.destroy(c), true; }},
    {"Register", "qor_impl_context_register", "!(_this) == true.",
     [](qor_context_t *c) { return cls.reg(c), true; }},
    {"Unregister", "qor_impl_context_unregister", "!(_this) == true.",
     [](qor_context_t *c) { return cls.unreg(c), true; }},
    {"Start", "qor_impl_context_start", "!(_this) == true.",
     [](qor_context_t *c) { return cls.start(c) == -1; }},
    {"Init", "qor_impl_context_init", "!(_this) == true.",
     [](qor_context_t *c) { return cls.init(c) == -1; }},
    {"Uninit", "qor_impl_context_uninit", "!(_this) == true.",
     [](qor_context_t *c) { return cls.uninit(c), true; }},
    {"HandleMessage", "qor_impl_context_handle_message", "!(_this) == true.",
     [](qor_context_t *c) { return cls.handle_message(c, nullptr) == -1; }},
};

const RefusedCase missing_cases[] = {
    {"Register", "qor_impl_context_register", "!(_this->module->reg) == true.",
     [](qor_context_t *c) { return qor_context_register(c), true; }},
    {"Unregister", "qor_impl_context_unregister", "!(_this->module->unreg) == true.",
     [](qor_context_t *c) { return qor_context_unregister(c), true; }},
    {"Init", "qor_impl_context_init", "!(_this->module->init) == true.",
     [](qor_context_t *c) { return qor_context_init(c) == -1; }},
    {"Uninit", "qor_impl_context_uninit", "!(_this->module->uninit) == true.",
     [](qor_context_t *c) { return qor_context_uninit(c), true; }},
    {"HandleMessage", "qor_impl_context_handle_message",
     "!(_this->module->handle_message) == true.",
     [](qor_context_t *c) { return qor_context_handle_message(c, &some_msg) == -1; }},
};

} // namespace

class ImplContextSlot : public testing::TestWithParam<RefusedCase> {};

TEST_P(ImplContextSlot, ReportsNull)
{
    Output out;

    EXPECT_TRUE(GetParam().refused(nullptr));

    EXPECT_EQ(out.printed(), line(GetParam().function, GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(All, ImplContextSlot, testing::ValuesIn(null_cases),
                         case_name<RefusedCase>);

class ImplContextCallback : public ImplContext, public testing::WithParamInterface<RefusedCase> {
protected:
    ImplContextCallback() : ImplContext(empty_module()) {}
};

TEST_P(ImplContextCallback, MissingIsReported)
{
    EXPECT_TRUE(GetParam().refused(context));

    EXPECT_EQ(out.printed(), line(GetParam().function, GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(All, ImplContextCallback, testing::ValuesIn(missing_cases),
                         case_name<RefusedCase>);

namespace {

/* What a console saw of its thread; written before it ends, read after stop. */
struct Console {
    qor_context_t *context = nullptr;
    pthread_t thread = 0;
    std::string name;
    size_t stack_size = 0;
    int policy = -1;
    int runs = 0;
} console;

int32_t console_look(qor_context_t *context)
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &console.stack_size);
    pthread_attr_destroy(&attr);
    sched_param param;
    pthread_getschedparam(pthread_self(), &console.policy, &param);
    console.context = context;
    console.thread = pthread_self();
    console.name = name;
    console.runs++;
    return -5;
}

class ImplContextConsole : public ImplContext {
protected:
    ImplContextConsole()
    {
        module.console = console_look;
        console = Console{};
    }

    /* The console's, once it has started. */
    pthread_t thread() const
    {
        void *resource = qor_context_resource_get(context);
        pthread_t handle;
        memcpy(&handle, &resource, sizeof(handle));
        return handle;
    }
};

} // namespace

TEST_F(ImplContextConsole, RunsOnAThreadOfItsOwnNamedAfterTheModule)
{
    EXPECT_EQ(qor_context_start(context), 0);
    qor_context_stop(context);

    EXPECT_EQ(console.runs, 1);
    EXPECT_EQ(console.context, context);
    EXPECT_EQ(console.name, "gauge");
    EXPECT_FALSE(pthread_equal(console.thread, pthread_self()));
    EXPECT_EQ(out.printed(), "");
}

TEST_F(ImplContextConsole, ThreadEndsWithItsResult)
{
    ASSERT_EQ(qor_context_start(context), 0);
    void *result = nullptr;

    ASSERT_EQ(pthread_join(thread(), &result), 0);

    EXPECT_EQ(reinterpret_cast<intptr_t>(result), -5);
    EXPECT_TRUE(pthread_equal(console.thread, thread()));
    qor_context_resource_set(context, nullptr);
}

TEST_F(ImplContextConsole, StopWaitsForItsReturn)
{
    static int returned;
    returned = 0;
    module.console = [](qor_context_t *) {
        usleep(50 * 1000); /* long enough that a stop that does not wait is ahead of it */
        returned = 1;
        return int32_t{0};
    };
    ASSERT_EQ(qor_context_start(context), 0);

    qor_context_stop(context);

    EXPECT_EQ(returned, 1);
}

TEST_F(ImplContextConsole, ThatIsCancelledGoesOn)
{
    static qor_que_t *que;
    static Sleeper *sleeper;
    Que held;
    Sleeper asleep;
    que = held;
    sleeper = &asleep;
    module.console = [](qor_context_t *) {
        sleeper->here();
        hal_printf("%s\n", free_and_name(qor_que_deque_block(que, -1)).c_str());
        return int32_t{0};
    };
    ASSERT_EQ(qor_context_start(context), 0);
    ASSERT_TRUE(await([&] { return asleep.sleeps(); }));

    pthread_cancel(thread());

    ASSERT_TRUE(await([] { /* one that has ended keeps the lock */
                           return pthread_mutex_trylock(&que->mutex) == 0;
    }));
    qor_que_unlock(que);
    qor_que_enque(que, new_node('a'));
    qor_context_stop(context);
    EXPECT_EQ(out.printed(), "a\n");
}

TEST_F(ImplContextConsole, ThatIsCancelledGoesOnPrinting)
{
    static std::atomic<bool> cancelled, returned;
    cancelled = returned = false;
    module.console = [](qor_context_t *) {
        while (!cancelled) {
        }
        hal_printf("still here\n");
        returned = true;
        return int32_t{0};
    };
    ASSERT_EQ(qor_context_start(context), 0);
    pthread_cancel(thread());
    cancelled = true;

    qor_context_stop(context);

    EXPECT_TRUE(returned);
    EXPECT_EQ(out.printed(), "still here\n");
}

TEST_F(ImplContextConsole, SecondStopJoinsNothing)
{
    ASSERT_EQ(qor_context_start(context), 0);
    qor_context_stop(context);
    EXPECT_EQ(qor_context_resource_get(context), nullptr);

    qor_context_stop(context);

    EXPECT_EQ(out.printed(), "");
}

TEST_F(ImplContextConsole, MayBeStartedAgain)
{
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(qor_context_start(context), 0);
        qor_context_stop(context);
    }

    EXPECT_EQ(console.runs, 2);
}

TEST_F(ImplContextConsole, InheritsTheStartersScheduling)
{
    module.priority = 50;
    int policy = -1;
    sched_param param;
    pthread_getschedparam(pthread_self(), &policy, &param);

    ASSERT_EQ(qor_context_start(context), 0);
    qor_context_stop(context);

    EXPECT_EQ(console.policy, policy);
}

struct StackCase {
    const char *name;
    int32_t asked;
    size_t given;
};

class ImplContextStack : public ImplContextConsole,
                         public testing::WithParamInterface<StackCase> {};

TEST_P(ImplContextStack, IsAWholeMultipleOf64KiB)
{
    module.stack_size = GetParam().asked;

    ASSERT_EQ(qor_context_start(context), 0);
    qor_context_stop(context);

    /* 64-bit ARM gives 128 KiB at the least. */
    if (stacks_are_exact && GetParam().given >= static_cast<size_t>(PTHREAD_STACK_MIN)) {
        EXPECT_EQ(console.stack_size, GetParam().given);
    } else {
        EXPECT_GE(console.stack_size, GetParam().given);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, ImplContextStack,
    testing::Values(StackCase{"Nothing", 0, 65536}, StackCase{"Negative", -70000, 65536},
                    StackCase{"Smallest", INT32_MIN, 65536}, StackCase{"OnePage", 4096, 65536},
                    StackCase{"OneUnit", 65536, 65536}, StackCase{"JustAbove", 65537, 131072},
                    StackCase{"BetweenUnits", 70000, 131072},
                    StackCase{"FourUnits", 262144, 262144}),
    case_name<StackCase>);
