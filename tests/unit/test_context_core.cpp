/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_context_core.h"

#include <atomic>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_context.h"
#include "qor_context_module.h"
#include "qor_impl_context.h"
#include "thread.hpp"

namespace {

/* A registry of its own, so that default_core stays as the first test found it. */
class Registry {
public:
    Registry() : core_(qor_context_core_create()) {}
    ~Registry() { qor_context_core_destroy(core_); }
    Registry(const Registry &) = delete;
    Registry &operator=(const Registry &) = delete;
    qor_context_core_t *get() const { return core_; }

private:
    qor_context_core_t *core_;
};

/* Contexts that tell which of the test's classes made them, and for which module. */
qor_context_t made[3];
qor_context_module_t *made_for[3];

template <int n> qor_context_t *create(qor_context_module_t *module)
{
    made_for[n] = module;
    return &made[n];
}

qor_context_cls_t class_of(int32_t id, qor_context_cls_create_t create_slot)
{
    return {"test",  id,      {},      create_slot, nullptr, nullptr, nullptr, nullptr,
            nullptr, nullptr, nullptr, nullptr,     nullptr, nullptr, nullptr, nullptr};
}

qor_context_module_t module_of(int32_t id)
{
    return {"module", id,      0,       0,       0,       0,      nullptr,
            nullptr,  nullptr, nullptr, nullptr, nullptr, nullptr};
}

} // namespace

TEST(ContextCore, InstanceIsAllZeroBeforeItsFirstUse)
{
    const qor_context_core_t zero = {};

    EXPECT_EQ(memcmp(&default_core, &zero, sizeof(zero)), 0);
}

TEST(ContextCore, FirstUseConstructsTheInstanceWithTheSystemClass)
{
    EXPECT_EQ(qor_context_core_instance_get(), &default_core);

    EXPECT_EQ(default_core.initialized, 1);
    EXPECT_EQ(default_core.head.next, &qor_impl_context_class.node);
    EXPECT_EQ(default_core.head.prev, &qor_impl_context_class.node);
}

TEST(ContextCore, LaterUsesGiveTheInstanceAsItIs)
{
    qor_context_core_t *first = qor_context_core_instance_get();
    qor_context_cls_t cls = class_of(5, create<0>);
    qor_context_core_class_register(first, &cls);

    EXPECT_EQ(qor_context_core_instance_get(), first);

    EXPECT_EQ(first->head.next, &cls.node);
    qor_context_core_class_unregister(first, &cls);
}

TEST(ContextCore, CreatedRegistryHoldsTheSystemClassOnly)
{
    Registry core;

    ASSERT_NE(core.get(), nullptr);
    EXPECT_EQ(core.get()->initialized, 1);
    EXPECT_EQ(core.get()->head.next, &qor_impl_context_class.node);
    EXPECT_EQ(core.get()->head.prev, &qor_impl_context_class.node);
}

TEST(ContextCore, ConstructorDoesNotCareWhatTheMemoryHeld)
{
    qor_context_core_t core;
    memset(&core, '#', sizeof(core));

    EXPECT_EQ(qor_context_core_constructor(&core), &core);

    EXPECT_EQ(core.initialized, 1);
    EXPECT_EQ(core.head.next, &qor_impl_context_class.node);
    EXPECT_EQ(pthread_mutex_trylock(&core.lock), 0);
    pthread_mutex_unlock(&core.lock);
    pthread_mutex_destroy(&core.lock);
}

TEST(ContextCore, SystemClassServesIdZero)
{
    Registry core;
    qor_context_module_t module = module_of(0);

    qor_context_t *context = qor_context_core_create_context(core.get(), &module);

    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->cls, &qor_impl_context_class);
    EXPECT_EQ(context->module, &module);
    qor_context_destroy(context);
}

TEST(ContextCore, RegisteredClassServesTheModulesOfItsId)
{
    Registry core;
    qor_context_cls_t five = class_of(5, create<0>), minus = class_of(-7, create<1>);
    EXPECT_EQ(qor_context_core_class_register(core.get(), &five), 0);
    EXPECT_EQ(qor_context_core_class_register(core.get(), &minus), 0);
    qor_context_module_t of_five = module_of(5), of_minus = module_of(-7);

    EXPECT_EQ(qor_context_core_create_context(core.get(), &of_five), &made[0]);
    EXPECT_EQ(qor_context_core_create_context(core.get(), &of_minus), &made[1]);

    EXPECT_EQ(made_for[0], &of_five);
    EXPECT_EQ(made_for[1], &of_minus);
}

TEST(ContextCore, RegisteredClassStandsInFront)
{
    Registry core;
    qor_context_cls_t first = class_of(1, create<0>), second = class_of(2, create<1>);

    qor_context_core_class_register(core.get(), &first);
    qor_context_core_class_register(core.get(), &second);

    EXPECT_EQ(core.get()->head.next, &second.node);
    EXPECT_EQ(second.node.next, &first.node);
    EXPECT_EQ(first.node.next, &qor_impl_context_class.node);
}

TEST(ContextCore, NewestClassOfAnIdServes)
{
    Registry core;
    qor_context_cls_t older = class_of(5, create<0>), newer = class_of(5, create<1>);
    qor_context_core_class_register(core.get(), &older);
    qor_context_core_class_register(core.get(), &newer);
    qor_context_module_t module = module_of(5);

    EXPECT_EQ(qor_context_core_create_context(core.get(), &module), &made[1]);
}

TEST(ContextCore, ClassOfIdZeroShadowsTheSystemClassUntilUnregistered)
{
    Registry core;
    qor_context_cls_t cls = class_of(0, create<0>);
    qor_context_module_t module = module_of(0);

    qor_context_core_class_register(core.get(), &cls);
    EXPECT_EQ(qor_context_core_create_context(core.get(), &module), &made[0]);

    qor_context_core_class_unregister(core.get(), &cls);
    qor_context_t *context = qor_context_core_create_context(core.get(), &module);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->cls, &qor_impl_context_class);
    qor_context_destroy(context);
}

TEST(ContextCore, UnregisteredClassHasNullLinks)
{
    Registry core;
    qor_context_cls_t cls = class_of(5, create<0>);
    qor_context_core_class_register(core.get(), &cls);

    qor_context_core_class_unregister(core.get(), &cls);

    EXPECT_EQ(cls.node.next, nullptr);
    EXPECT_EQ(cls.node.prev, nullptr);
    EXPECT_EQ(core.get()->head.next, &qor_impl_context_class.node);
}

TEST(ContextCore, UnregisteredClassMayComeBack)
{
    Registry core;
    qor_context_cls_t cls = class_of(5, create<0>);
    qor_context_module_t module = module_of(5);
    qor_context_core_class_register(core.get(), &cls);
    qor_context_core_class_unregister(core.get(), &cls);

    qor_context_core_class_register(core.get(), &cls);

    EXPECT_EQ(qor_context_core_create_context(core.get(), &module), &made[0]);
}

TEST(ContextCore, UnservedIdCreatesNothingSilently)
{
    Registry core;
    qor_context_cls_t cls = class_of(5, create<0>);
    qor_context_core_class_register(core.get(), &cls);
    qor_context_module_t module = module_of(6);
    Output out;

    EXPECT_EQ(qor_context_core_create_context(core.get(), &module), nullptr);

    EXPECT_EQ(out.text(), "");
}

TEST(ContextCore, FailureOfTheClassIsPassedOnSilently)
{
    Registry core;
    qor_context_cls_t cls =
        class_of(5, [](qor_context_module_t *) -> qor_context_t * { return nullptr; });
    qor_context_core_class_register(core.get(), &cls);
    qor_context_module_t module = module_of(5);
    Output out;

    EXPECT_EQ(qor_context_core_create_context(core.get(), &module), nullptr);

    EXPECT_EQ(out.text(), "");
}

TEST(ContextCore, LockIsFreeWhileTheClassCreates)
{
    static qor_context_core_t *busy;
    static int locked;
    Registry core;
    busy = core.get();
    qor_context_cls_t cls = class_of(5, [](qor_context_module_t *) {
        locked = pthread_mutex_trylock(&busy->lock);
        pthread_mutex_unlock(&busy->lock);
        return &made[0];
    });
    qor_context_core_class_register(core.get(), &cls);
    qor_context_module_t module = module_of(5);
    locked = -1;

    qor_context_core_create_context(core.get(), &module);

    EXPECT_EQ(locked, 0);
}

TEST(ContextCore, SecondRegistryTakesTheSystemClassAway)
{
    Registry first, second;

    EXPECT_EQ(second.get()->head.next, &qor_impl_context_class.node);
    EXPECT_EQ(qor_impl_context_class.node.next, &second.get()->head);
    EXPECT_EQ(first.get()->head.next,
              &qor_impl_context_class.node); /* which the link does not return to */
}

TEST(ContextCore, DestroyLeavesTheLinksOfItsClasses)
{
    qor_context_cls_t cls = class_of(5, create<0>);
    list_head links;
    {
        Registry core;
        qor_context_core_class_register(core.get(), &cls);
        links = cls.node;
    }

    EXPECT_EQ(cls.node.next, links.next);
    EXPECT_EQ(cls.node.prev, links.prev);
    EXPECT_NE(cls.node.next, nullptr);
}

TEST(ContextCore, ClassesComeAndGoWhileContextsAreCreated)
{
    Registry core;
    qor_context_cls_t steady = class_of(5, create<0>);
    qor_context_core_class_register(core.get(), &steady);
    std::atomic<bool> done{false};
    Thread registrar([&] {
        qor_context_cls_t cls = class_of(6, create<1>);
        while (!done) {
            qor_context_core_class_register(core.get(), &cls);
            qor_context_core_class_unregister(core.get(), &cls);
        }
    });
    qor_context_module_t module = module_of(5);
    int served = 0;

    for (int i = 0; i < 2000; i++) {
        served += qor_context_core_create_context(core.get(), &module) == &made[0];
    }
    done = true;
    registrar.join();

    EXPECT_EQ(served, 2000);
}
