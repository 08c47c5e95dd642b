/* SPDX-License-Identifier: Apache-2.0 */
/* Objects with locks: each mutex, condition and attribute in turn cannot be had. */
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "fault.h"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_core.h"
#include "qor_context_module.h"
#include "qor_core_context.h"
#include "qor_impl_context.h"
#include "qor_mng_module.h"
#include "qor_que.h"
#include "qor_sched_delegate.h"
#include "qor_thread_pool.h"
#include "qor_topic_core.h"
#include "recording_context.hpp"
#include "still_bus.hpp"

namespace {

qor_context_module_t gauge = {"gauge", 0,       0,       0,       0,       0,      nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

/* So many initialisations that are followed by these lines when one of them fails. */
struct Step {
    int number;
    std::string lines;
};

/* Makes an object and releases it at once; tells whether it was made. */
using Make = std::function<bool()>;

/* How often a kind of call is made for an object that is made and released. */
int calls_of(const Make &make, fault_kind kind)
{
    Output out;
    fault_arm(kind, -1);
    EXPECT_TRUE(make());
    return fault_calls(kind);
}

/* Fails the initialisations of one kind in turn, in the order of the steps. */
void expect_to_undo_itself(const Make &make, fault_kind kind, const std::vector<Step> &steps)
{
    const int locks = fault_locks();
    int nth = 0;
    for (const Step &step : steps) {
        for (const int end = nth + step.number; nth < end; nth++) {
            SCOPED_TRACE("kind " + std::to_string(kind) + ", number " + std::to_string(nth));
            Output out;
            fault_arm(FAULT_ALLOC, -1);
            fault_arm(kind, nth);

            EXPECT_FALSE(make());

            EXPECT_EQ(fault_fired(kind), 1);
            EXPECT_EQ(out.printed(), step.lines);
            EXPECT_EQ(fault_live(), 0);
            EXPECT_EQ(fault_locks(), locks);
        }
    }
    fault_arm(kind, -1);
}

/* The same where there are no others. */
void expect_all_to_undo_themselves(const Make &make, fault_kind kind,
                                   const std::vector<Step> &steps)
{
    expect_to_undo_itself(make, kind, steps);
    int number = 0;
    for (const Step &step : steps) {
        number += step.number;
    }
    EXPECT_EQ(calls_of(make, kind), number);
}

bool make_bus()
{
    qor_context_module_t *modules[] = {nullptr};
    qor_bus_t *bus = qor_bus_create(modules, /* id_max */ 1);
    if (bus) {
        qor_bus_close(bus);
    }
    return bus != nullptr;
}

bool make_time_que()
{
    qor_time_que_t *que = qor_time_que_create(1, nullptr);
    qor_time_que_destroy(que);
    return true;
}

bool make_table()
{
    qor_topic_core_t *table = qor_topic_core_create(/* id_max */ 3);
    if (table) {
        qor_topic_core_destroy(table);
    }
    return table != nullptr;
}

bool make_user_context()
{
    qor_context_t *context = qor_core_context_class.create(&gauge);
    if (context) {
        qor_context_t *inner = qor_core_context_type(context)->context;
        qor_core_context_lifecycle_change(qor_core_context_type(context),
                                          QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
        qor_context_destroy(context);
        qor_context_destroy(inner);
    }
    return context != nullptr;
}

const std::string topics_line = err_line("qor_topic_core", "qor_topic_core_create",
                                         "malloc a lots of \"qor_topic_t\" failed.\n");
const std::string user_context_line = err_line("qor_core_context", "qor_core_context_create",
                                               "malloc for \"qor_core_context_t\" failed.\n");
const std::string construction_line = err_line("qor_core_context", "qor_core_context_create",
                                               "\"qor_core_context_constructor\" called failed.\n");
const std::string no_time_que_lines =
    err_line("qor_time_que", "qor_time_que_create", "!(_this) == true.") + construction_line;

constexpr int locks_of_a_topic = 4; /* one for each kind of registration, one for the epochs */

} // namespace

TEST(InitFaults, OfABusUndoItself)
{
    const auto line = [](const std::string &text) {
        return err_line("qor_bus", "qor_bus_init", text);
    };
    const std::string head = line("head create failed.");
    const std::string no_que = err_line("qor_que", "qor_que_create", "!(_this) == true.") +
                               line("create \"qor_que_t\" failed.");
    const auto unnoticed = [](fault_kind kind) { return calls_of(make_time_que, kind); };

    expect_to_undo_itself(
        make_bus, FAULT_MUTEX,
        {{3, head}, /* the private one, the one for sessions, that of the periodic timers */
         {locks_of_a_topic, topics_line + line("user_topic_core create failed.")},
         {QOR_SYS_NUM * locks_of_a_topic, topics_line + line("sys_topic_core create failed.")},
         {1, no_que}});
    EXPECT_EQ(calls_of(make_bus, FAULT_MUTEX),
              4 + (1 + QOR_SYS_NUM) * locks_of_a_topic + unnoticed(FAULT_MUTEX));
    expect_to_undo_itself(make_bus, FAULT_COND, {{2, head}, {4, no_que}});
    EXPECT_EQ(calls_of(make_bus, FAULT_COND), 6 + unnoticed(FAULT_COND));
    expect_to_undo_itself(make_bus, FAULT_ATTR, {{1, head}, {4, no_que}});
    EXPECT_EQ(calls_of(make_bus, FAULT_ATTR), 5 + unnoticed(FAULT_ATTR));
}

TEST(InitFaults, OfATopicTableUndoItself)
{
    expect_all_to_undo_themselves(make_table, FAULT_MUTEX, {{3 * locks_of_a_topic, topics_line}});
}

TEST(InitFaults, OfADelegateUndoItself)
{
    StillBus bus(StillBus::bare);
    qor_context_module_t module = gauge;
    qor_context_t *context = qor_context_create(&qor_impl_context_class, &module);
    const std::string line = err_line("qor_sched_delegate", "qor_sched_delegate_create",
                                      "malloc for \"qor_sched_delegate_t\" failed.\n");

    expect_to_undo_itself(
        [&] { return qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, context) != nullptr; },
        FAULT_MUTEX, {{3, line}});

    EXPECT_EQ(qor_context_pub_data_get(context), nullptr);
    EXPECT_EQ(qor_context_handler_get(context), nullptr);
    fault_arm(FAULT_MUTEX, -1);
    EXPECT_NE(qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, context), nullptr);
    EXPECT_EQ(fault_calls(FAULT_MUTEX), 3);
    qor_context_destroy(context);
}

TEST(InitFaults, OfAUserContextUndoItself)
{
    qor_context_core_instance_get(); /* so that its lock is not among those that follow */

    expect_all_to_undo_themselves(make_user_context, FAULT_MUTEX,
                                  {{1, user_context_line}, {1, no_time_que_lines}});
    expect_all_to_undo_themselves(make_user_context, FAULT_COND,
                                  {{1, user_context_line}, {4, no_time_que_lines}});
    expect_all_to_undo_themselves(make_user_context, FAULT_ATTR, {{4, no_time_que_lines}});
}

TEST(InitFaults, OfTheManagerUndoItself)
{
    RecordingContext own;
    const Make make = [&] { return qor_mng_module.init(own.get(), nullptr) == 0; };

    expect_to_undo_itself(make, FAULT_MUTEX,
                          {{1, err_line("qor_mng_module", "qor_mng_module_init",
                                        "malloc \"qor_mng_module_t\" failed.")}});

    EXPECT_EQ(qor_context_priv_data_get(own.get()), nullptr);
}

TEST(InitFaults, OfARegistryUndoItself)
{
    const qor_context_core_t *registry = qor_context_core_instance_get();
    const Make make = [] { return qor_context_core_create() != nullptr; };

    expect_to_undo_itself(make, FAULT_MUTEX,
                          {{1, err_line("qor_context_core", "qor_context_core_create",
                                        "constructor \"qor_context_core_t\" failed.\n")}});

    EXPECT_EQ(registry->head.next, &qor_impl_context_class.node); /* not taken away */
    EXPECT_TRUE(make_user_context());
}

TEST(InitFaults, ARegistryWithoutItsLockIsNotConstructed)
{
    qor_context_core_t registry;
    memset(&registry, 0x5a, sizeof(registry));
    fault_arm(FAULT_MUTEX, 0);

    EXPECT_EQ(qor_context_core_constructor(&registry), nullptr);

    EXPECT_EQ(registry.initialized, 0);
}

TEST(InitFaults, TheRegistryOfTheProcessIsTriedAgain)
{
    Output out;
    default_core.initialized = 0; /* as before the first use */
    fault_arm(FAULT_MUTEX, 1);    /* behind the wrapper's own */
    EXPECT_FALSE(make_user_context());
    EXPECT_EQ(fault_fired(FAULT_MUTEX), 1);
    EXPECT_EQ(out.printed(), err_line("qor_core_context", "qor_core_context_constructor",
                                      "create context failed.") +
                                 construction_line);
    fault_arm(FAULT_MUTEX, 0);
    EXPECT_EQ(qor_context_core_instance_get(), nullptr);
    EXPECT_EQ(default_core.initialized, 0);

    EXPECT_EQ(qor_context_core_instance_get(), &default_core);

    EXPECT_TRUE(make_user_context());
}

/* A bus with a context on it, so that it has delegates, and with registrations. */
static bool make_delegate()
{
    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor actor(journal, "actor");
    actor.attach(bus.get(), QOR_BUS_ROLE_USER);
    EXPECT_EQ(qor_context_handler_subscribe(actor.get(), 0, nullptr), 0);
    bus.close();
    return true;
}

static bool make_que()
{
    qor_que_destroy(qor_que_create(1, nullptr));
    return true;
}

static bool make_pool()
{
    Output out;
    qor_thread_pool_destroy(qor_thread_pool_create(1, 1, 1, 128 * 1024, -1, 1));
    return true;
}

TEST(InitFaults, WhatIsReleasedLeavesNoLockBehind)
{
    const std::pair<const char *, Make> makes[] = {
        {"bus", make_bus},
        {"timed queue", make_time_que},
        {"queue", make_que},
        {"topics", make_table},
        {"delegate", make_delegate},
        {"pool", make_pool},
        {"user context", make_user_context},
    };
    for (const auto &[name, make] : makes) {
        SCOPED_TRACE(name);
        make(); /* what is made once for all */
        const int locks = fault_locks();

        EXPECT_TRUE(make());

        EXPECT_EQ(fault_locks(), locks);
    }
}
