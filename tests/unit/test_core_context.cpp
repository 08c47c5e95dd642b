/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_core_context.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "core_context_fixture.hpp"
#include "output.hpp"
#include "qor_context_core.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_impl_context.h"
#include "recording_context.hpp"

namespace {

qor_context_cls_t &cls = qor_core_context_class;

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_core_context", function, text);
}

} // namespace

/* ---- class and creation ---- */

TEST_F(CoreContext, ClassHasNoNameTheDefaultIdAndIsNotRegistered)
{
    EXPECT_STREQ(cls.name, "");
    EXPECT_EQ(cls.id, 0);
    EXPECT_EQ(cls.node.next, nullptr);
    EXPECT_EQ(cls.node.prev, nullptr);
}

TEST_F(CoreContext, ClassFillsEverySlot)
{
    EXPECT_TRUE(cls.create && cls.destroy && cls.reg && cls.unreg && cls.start && cls.stop &&
                cls.resume && cls.pause && cls.init && cls.uninit && cls.handle_message &&
                cls.handle_task && cls.loop);
}

TEST_F(CoreContext, IsCreatedInInitWithAnEmptyQueue)
{
    EXPECT_EQ(wrapper->cls, &cls);
    EXPECT_EQ(wrapper->module, &module.descriptor);
    EXPECT_EQ(wrapper->id, 0);
    EXPECT_EQ(wrapper->node.prev, nullptr);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    EXPECT_EQ(core->active_refcount, 0);
    EXPECT_EQ(core->refcount, 0);
    ASSERT_NE(core->que, nullptr);
    EXPECT_EQ(core->que->count, 0);
    EXPECT_EQ(core->que->max_count, 50u);
    EXPECT_EQ(reinterpret_cast<void (*)()>(core->que->recycle),
              reinterpret_cast<void (*)()>(qor_context_task_uninit));
}

TEST_F(CoreContext, IsCreatedWithAnInnerContextOfTheModulesClass)
{
    EXPECT_EQ(inner->cls, &qor_impl_context_class);
    EXPECT_EQ(inner->module, &module.descriptor);
    EXPECT_NE(inner->handler, nullptr);
    EXPECT_EQ(inner->pub_data, wrapper);
    EXPECT_EQ(inner->pub_data_recycle, nullptr);
}

TEST(CoreContextCreation, LeavesTheWrappersHandlerEmpty)
{
    Module module{"gauge"};
    qor_context_t *wrapper = cls.create(&module.descriptor);
    qor_context_t *inner = qor_core_context_type(wrapper)->context;

    EXPECT_EQ(wrapper->handler, nullptr);
    EXPECT_EQ(wrapper->pub_data, nullptr);

    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
}

TEST(CoreContextCreation, ReportsAMissingModule)
{
    Output out;

    EXPECT_EQ(cls.create(nullptr), nullptr);

    EXPECT_EQ(out.printed(), line("qor_core_context_create", "!(module) == true."));
}

TEST(CoreContextCreation, FailsForAnIdThatNoClassServes)
{
    Module module{"gauge"};
    module.descriptor.id = 4711;
    Output out;

    EXPECT_EQ(cls.create(&module.descriptor), nullptr);

    EXPECT_EQ(out.printed(), line("qor_core_context_constructor", "create context failed.") +
                                 line("qor_core_context_create",
                                      "\"qor_core_context_constructor\" called failed.\n"));
}

TEST(CoreContextCreation, TakesTheInnerContextFromTheClassOfTheModulesId)
{
    Module module{"gauge"};
    module.descriptor.id = 9;
    static qor_context_t special;
    static qor_context_cls_t special_cls = qor_impl_context_class;
    special_cls.id = 9;
    special_cls.node = {};
    special_cls.create = [](qor_context_module_t *m) {
        return qor_context_constructor(&special, &special_cls, m);
    };
    special_cls.destroy = [](qor_context_t *) {};
    qor_context_core_class_register(qor_context_core_instance_get(), &special_cls);

    qor_context_t *wrapper = cls.create(&module.descriptor);

    EXPECT_EQ(qor_core_context_type(wrapper)->context, &special);
    EXPECT_EQ(special.pub_data, wrapper);
    qor_context_core_class_unregister(qor_context_core_instance_get(), &special_cls);
    qor_context_uninit(wrapper);
    qor_context_destroy(wrapper);
}

namespace {

struct RefcountCase {
    const char *name;
    int32_t given;
    uint32_t kept;
};

} // namespace

class CoreContextRefcount : public CoreContext, public testing::WithParamInterface<RefcountCase> {
protected:
    CoreContextRefcount() : CoreContext(GetParam().given) {}
};

TEST_P(CoreContextRefcount, IsTheLimitOfLoopRuns)
{
    EXPECT_EQ(core->refcount_max, GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(All, CoreContextRefcount,
                         testing::Values(RefcountCase{"NoneMeansOne", 0, 1},
                                         RefcountCase{"One", 1, 1}, RefcountCase{"Three", 3, 3},
                                         RefcountCase{"NegativeMeansNoLimit", -1, UINT32_MAX}),
                         case_name<RefcountCase>);

/* ---- destruction ---- */

TEST_F(CoreContext, IsNotDestroyedBeforeItsUninit)
{
    ASSERT_EQ(qor_context_init(wrapper), 0);

    qor_context_destroy(wrapper);

    EXPECT_EQ(out.printed(), line("qor_core_context_destroy", "context is not ready to destroy."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    EXPECT_EQ(post(task("t", 7)), 0);
    loop();
    EXPECT_EQ(behind.happened, "start 7 over ");
}

TEST(CoreContextDestruction, IsRefusedInEveryStateButDestroy)
{
    Module module{"gauge"};
    Output out;
    qor_context_t *wrapper = cls.create(&module.descriptor);
    qor_core_context_t *core = qor_core_context_type(wrapper);
    qor_context_t *inner = core->context;
    for (int32_t state = QOR_USER_CONTEXT_LIFECYCLE_INIT;
         state < QOR_USER_CONTEXT_LIFECYCLE_DESTROY; state++) {
        core->lifecycle = state;

        qor_context_destroy(wrapper);
    }
    EXPECT_EQ(out.count("context is not ready to destroy."), 6);

    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_DESTROY;
    qor_context_destroy(wrapper);
    qor_context_destroy(inner);
    EXPECT_EQ(out.count("context is not ready to destroy."), 6);
}

TEST_F(CoreContext, DestroyLeavesTheInnerContext)
{
    destroy();

    EXPECT_STREQ(qor_context_module_name_get(inner), "gauge");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(CoreContext, DestroyReleasesTheTasksThatWait)
{
    for (int32_t session = 0; session < 3; session++) {
        ASSERT_EQ(post(task("t", session)), 0);
    }

    destroy();

    EXPECT_EQ(recycled, 3);
    EXPECT_EQ(behind.happened, "");
}

/* ---- the class's operations reach the module ---- */

TEST_F(CoreContext, RegisterAndUnregisterReachTheModuleWithTheInnerContext)
{
    std::string called;
    module.reg = [&](qor_context_t *c) { called += c == inner ? "reg " : "wrong "; };
    module.unreg = [&](qor_context_t *c) { called += c == inner ? "unreg " : "wrong "; };

    qor_context_register(wrapper);
    qor_context_unregister(wrapper);

    EXPECT_EQ(called, "reg unreg ");
}

TEST_F(CoreContext, InitGivesTheModulesResult)
{
    module.init = [&](qor_context_t *c) { return c == inner ? 12 : -1; };

    EXPECT_EQ(qor_context_init(wrapper), 12);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_CREATE);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(CoreContext, FailedInitIsReportedAndStops)
{
    module.init = [](qor_context_t *) { return -12; };

    EXPECT_EQ(qor_context_init(wrapper), -12);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    EXPECT_EQ(out.printed(), line("qor_core_context_init", "context init failed."));
}

TEST_F(CoreContext, UninitReachesTheModuleBeforeTheLifecycleChanges)
{
    int32_t lifecycle = -1;
    module.uninit = [&](qor_context_t *c) { lifecycle = c == inner ? module.lifecycle() : -2; };
    qor_context_register(wrapper);

    qor_context_uninit(wrapper);

    EXPECT_EQ(lifecycle, QOR_USER_CONTEXT_LIFECYCLE_INIT);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

TEST_F(CoreContext, UninitOfAModuleWithoutItIsReportedAndDestroys)
{
    module.descriptor.uninit = nullptr;

    qor_context_uninit(wrapper);

    EXPECT_EQ(out.printed(), err_line("qor_impl_context", "qor_impl_context_uninit",
                                      "!(_this->module->uninit) == true."));
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

TEST_F(CoreContext, MessagesReachTheModuleAndItsResultComesBack)
{
    static qor_context_msg_t msg;
    module.handle = [this](qor_context_t *c, qor_context_msg_t *m) {
        return c == inner && m == &msg ? -33 : 0;
    };

    EXPECT_EQ(qor_context_handle_message(wrapper, &msg), -33);
}

TEST_F(CoreContext, EnteringAndLeavingDoesNotReachTheModule)
{
    qor_context_cls_t strict = *inner->cls;
    strict.resume = strict.pause = [](qor_context_t *) {
        ADD_FAILURE() << "the inner context was told";
        return int32_t{-1};
    };
    inner->cls = &strict;
    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_START;

    EXPECT_EQ(qor_context_resume(wrapper), 0);
    EXPECT_EQ(qor_context_pause(wrapper), 0);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, StartGivesTheInnerResultAndStartsAllTheSame)
{
    qor_context_cls_t failing = *inner->cls;
    failing.start = [](qor_context_t *) { return int32_t{-9}; };
    inner->cls = &failing;

    EXPECT_EQ(qor_context_start(wrapper), -9);

    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_START);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, StopStopsTheInnerContextFirst)
{
    static int32_t seen;
    seen = -1;
    qor_context_cls_t watching = *inner->cls;
    watching.stop = [](qor_context_t *c) { seen = Module::of(c).lifecycle(); };
    inner->cls = &watching;
    qor_context_register(wrapper);
    core->lifecycle = QOR_USER_CONTEXT_LIFECYCLE_PAUSE;

    qor_context_stop(wrapper);

    EXPECT_EQ(seen, QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
    EXPECT_EQ(core->lifecycle, QOR_USER_CONTEXT_LIFECYCLE_STOP);
    inner->cls = &qor_impl_context_class;
}

TEST_F(CoreContext, TypeIsTheContextItself)
{
    EXPECT_EQ(static_cast<void *>(qor_core_context_type(wrapper)), static_cast<void *>(wrapper));
    EXPECT_EQ(qor_core_context_type(nullptr), nullptr);
}

/* ---- the module's way to the wrapper ---- */

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
