/* SPDX-License-Identifier: Apache-2.0 */
/* The start-up routine. */
#include "qor_main.h"

#include <string>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus_module.h"
#include "qor_context.h"
#include "qor_impl_context.h"
#include "qor_mng_module.h"
#include "qor_monitor_module.h"
#include "qor_sched_delegate.h"
#include "qor_topic_core.h"
#include "still_bus.hpp"

namespace {

/* The system contexts from the front, as "3:qor_mng_module ...". */
std::string listed()
{
    std::string all;
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        auto *context = reinterpret_cast<qor_context_t *>(reinterpret_cast<char *>(link) -
                                                          offsetof(qor_context_t, node));
        all += std::to_string(context->id) + ":" + context->module->name + " ";
    }
    return all;
}

qor_context_t *system_context(int32_t id)
{
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        auto *context = reinterpret_cast<qor_context_t *>(reinterpret_cast<char *>(link) -
                                                          offsetof(qor_context_t, node));
        if (context->id == id) {
            return context;
        }
    }
    return nullptr;
}

class Main : public testing::Test {
protected:
    Output out;
    StillBus bus;
};

} // namespace

TEST_F(Main, NothingIsUpBeforeTheFirstTaskRuns)
{
    EXPECT_EQ(listed(), "");
    EXPECT_EQ(qor_bus_module.arg, nullptr);
    EXPECT_EQ(qor_mng_module.arg, nullptr);
}

TEST_F(Main, TheFirstTaskBringsTheSystemContextsUp)
{
    EXPECT_EQ(bus.run_next().substr(0, 5), "task:");

    EXPECT_EQ(listed(), "3:qor_mng_module 2:qor_monitor_module 1:qor_bus_module ");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Main, TheDescriptorsReceiveTheBusAndItsModules)
{
    bus.run_next();

    EXPECT_EQ(qor_bus_module.arg, bus.get());
    EXPECT_EQ(qor_mng_module.arg, bus.table());
    EXPECT_EQ(qor_monitor_module.arg, nullptr);
    EXPECT_EQ(qor_context_priv_data_get(system_context(1)), bus.get());
}

TEST_F(Main, TheContextsAreSystemContextsWithADelegateOfTheSystemRole)
{
    bus.run_next();

    for (int32_t id = 1; id <= 3; id++) {
        qor_context_t *context = system_context(id);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->cls, &qor_impl_context_class);
        auto *delegate = static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(context));
        EXPECT_EQ(delegate->bus, bus.get());
        EXPECT_EQ(delegate->role, QOR_BUS_ROLE_SYS);
        EXPECT_EQ(delegate->context, context);
    }
}

TEST_F(Main, EachSystemTopicHasItsModule)
{
    bus.run_next();

    const char *const served_by[QOR_SYS_NUM] = {"qor_mng_module", "qor_mng_module",
                                                "qor_bus_module", "qor_monitor_module"};
    for (int32_t topic = 0; topic < QOR_SYS_NUM; topic++) {
        qor_topic_node_t *node =
            qor_topic_core_subscriber_node_next(bus.get()->sys_topic_core, topic, nullptr);
        ASSERT_NE(node, nullptr) << topic;
        EXPECT_STREQ(node->context->module->name, served_by[topic]);
        EXPECT_EQ(qor_topic_core_subscriber_node_next(bus.get()->sys_topic_core, topic, node),
                  nullptr);
    }
}

TEST_F(Main, TheMonitorHasAConsole)
{
    bus.run_next();

    EXPECT_NE(qor_context_resource_get(system_context(2)), nullptr);
    EXPECT_EQ(qor_context_resource_get(system_context(1)), nullptr);
    EXPECT_EQ(qor_context_resource_get(system_context(3)), nullptr);
}

TEST_F(Main, CloseTakesTheSystemContextsDownSilently)
{
    bus.run_next();

    bus.close();

    EXPECT_EQ(listed(), "");
    EXPECT_EQ(qor_bus_module.arg, nullptr);
    EXPECT_EQ(qor_mng_module.arg, nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(Main, AnotherBusComesUpAfterTheFirstIsClosed)
{
    bus.run_next();
    bus.close();
    StillBus second;

    second.run_next();

    EXPECT_EQ(listed(), "3:qor_mng_module 2:qor_monitor_module 1:qor_bus_module ");
    EXPECT_EQ(qor_bus_module.arg, second.get());
}

TEST_F(Main, ABusThatNeverRanIsClosedSilently)
{
    bus.close();

    EXPECT_EQ(out.printed(), "");
}

TEST_F(Main, ClosingABusThatNeverRanLeavesTheDescriptorsOfAnother)
{
    StillBus second;
    bus.run_next();

    second.close();

    EXPECT_EQ(qor_bus_module.arg, bus.get());
    EXPECT_EQ(qor_mng_module.arg, bus.table());
    EXPECT_EQ(listed(), "3:qor_mng_module 2:qor_monitor_module 1:qor_bus_module ");
}
