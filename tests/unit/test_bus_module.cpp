/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_bus_module.h"

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_impl_context.h"
#include "qor_sched_delegate.h"
#include "qor_topic_core.h"
#include "recording_context.hpp"
#include "still_bus.hpp"

namespace {

std::string wrn_line(const std::string &function)
{
    return "[qor_bus_module][wrn][" + function + "]:not support type.\n";
}

/* The module in a context of the test's, on a bus whose tasks never run. */
class BusModule : public testing::Test {
protected:
    BusModule() : served(qor_context_create(&qor_impl_context_class, &module.descriptor))
    {
        EXPECT_EQ(qor_bus_module.init(own.get(), bus.get()), 0);
        request.context = served;
        qor_context_msg_fill(&msg, 1, QOR_SYS_BUS_REGISTER, &request, sizeof(request));
    }

    ~BusModule() override
    {
        bus.close();
        qor_context_destroy(served);
    }

    qor_sched_delegate_t *delegate() const
    {
        return static_cast<qor_sched_delegate_t *>(qor_context_pub_data_get(served));
    }

    Module module{"gauge"};
    StillBus bus;
    RecordingContext own;
    qor_context_t *served;
    qor_sys_bus_register_request_t request;
    std::unique_ptr<qor_context_msg_t> held{new qor_context_msg_t}; /* no member: it has a tail */
    qor_context_msg_t &msg = *held;
    Output out;
};

} // namespace

TEST_F(BusModule, DescribesASystemModuleWithoutConsoleAndUninit)
{
    EXPECT_STREQ(qor_bus_module.name, "qor_bus_module");
    EXPECT_EQ(qor_bus_module.id, 0);
    EXPECT_EQ(qor_bus_module.pure, 0u);
    EXPECT_EQ(qor_bus_module.refcount, -1);
    EXPECT_EQ(qor_bus_module.priority, 0);
    EXPECT_EQ(qor_bus_module.stack_size, 0);
    EXPECT_EQ(qor_bus_module.arg, nullptr);
    EXPECT_EQ(qor_bus_module.uninit, nullptr);
    EXPECT_EQ(qor_bus_module.console, nullptr);
}

TEST_F(BusModule, RegSubscribesItsTopic)
{
    qor_bus_module.reg(own.get());

    EXPECT_EQ(own.slots, "subscribe");
    EXPECT_EQ(own.topic, QOR_SYS_BUS_REGISTER);
    EXPECT_EQ(own.attr, nullptr);
}

TEST_F(BusModule, UnregUnsubscribesItsTopic)
{
    qor_bus_module.unreg(own.get());

    EXPECT_EQ(own.slots, "unsubscribe");
    EXPECT_EQ(own.topic, QOR_SYS_BUS_REGISTER);
}

TEST_F(BusModule, InitKeepsItsArgument)
{
    EXPECT_EQ(qor_bus_module.init(own.get(), &module), 0);

    EXPECT_EQ(qor_context_priv_data_get(own.get()), &module);
}

TEST_F(BusModule, ARequestAttachesItsContext)
{
    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);

    ASSERT_NE(delegate(), nullptr);
    EXPECT_EQ(delegate()->bus, bus.get());
    EXPECT_EQ(delegate()->role, QOR_BUS_ROLE_USER);
    EXPECT_EQ(delegate()->context, served);
    EXPECT_EQ(reinterpret_cast<void (*)()>(served->pub_data_recycle),
              reinterpret_cast<void (*)()>(qor_sched_delegate_destroy));
    EXPECT_EQ(out.printed(), "");
}

TEST_F(BusModule, AnAttachedContextSubscribesAndPublishesOnTheApplicationsTopics)
{
    static int handled;
    handled = 0;
    module.handle = [](qor_context_t *, qor_context_msg_t *) {
        handled++;
        return 6;
    };
    ASSERT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);

    EXPECT_EQ(qor_context_subscribe(served, 3, nullptr), 0);
    EXPECT_EQ(qor_context_x_req(served, 3, nullptr, 0), 6);

    EXPECT_EQ(handled, 1);
    EXPECT_EQ(qor_topic_core_someone_subscribed(bus.get()->user_topic_core, 3), 1);
    EXPECT_EQ(qor_topic_core_someone_subscribed(bus.get()->sys_topic_core, 3), 0);
}

TEST_F(BusModule, TheRequestNeedNotBeAligned)
{
    char buffer[sizeof(request) + 1];
    std::memcpy(buffer + 1, &request, sizeof(request));
    msg.request.buf = buffer + 1;

    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);

    EXPECT_NE(delegate(), nullptr);
}

TEST_F(BusModule, TheRequestsSizeIsNotChecked)
{
    msg.request.size = 0;

    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);

    EXPECT_NE(delegate(), nullptr);
}

TEST_F(BusModule, ASecondRegistrationReplacesTheDelegate)
{
    ASSERT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);
    const qor_sched_delegate_t *first = delegate();
    ASSERT_EQ(qor_context_subscribe(served, 3, nullptr), 0);

    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), 0);

    EXPECT_NE(delegate(), first);
    EXPECT_TRUE(list_empty(&delegate()->subscriber_head));
    EXPECT_EQ(qor_topic_core_someone_subscribed(bus.get()->user_topic_core, 3), 1);
}

TEST_F(BusModule, TheRequestFunctionDoesNotLookAtTheType)
{
    msg.type = QOR_CONTEXT_MSG_RESPONSE;

    EXPECT_EQ(qor_bus_module_handle_request_message(own.get(), &msg), 0);

    EXPECT_NE(delegate(), nullptr);
}

namespace {

struct RefusedCase {
    const char *name;
    int32_t type;
    int32_t topic;
    const char *function;
};

const char by_type[] = "qor_bus_module_handle_message";
const char by_topic[] = "qor_bus_module_handle_request_message";

const RefusedCase refused_cases[] = {
    {"Response", QOR_CONTEXT_MSG_RESPONSE, QOR_SYS_BUS_REGISTER, by_type},
    {"ListenBefore", QOR_CONTEXT_MSG_LISTEN_BEFORE, QOR_SYS_BUS_REGISTER, by_type},
    {"ListenAfter", QOR_CONTEXT_MSG_LISTEN_AFTER, QOR_SYS_BUS_REGISTER, by_type},
    {"FilterBefore", QOR_CONTEXT_MSG_FILTER_BEFORE, QOR_SYS_BUS_REGISTER, by_type},
    {"FilterAfter", QOR_CONTEXT_MSG_FILTER_AFTER, QOR_SYS_BUS_REGISTER, by_type},
    {"TypeBeforeTopic", QOR_CONTEXT_MSG_RESPONSE, 99, by_type},
    {"ManagersTopic", QOR_CONTEXT_MSG_REQUEST, QOR_SYS_MNG_CONTEXT_REGISTER, by_topic},
    {"MonitorsTopic", QOR_CONTEXT_MSG_REQUEST, QOR_SYS_MONITOR_TASK, by_topic},
    {"NegativeTopic", QOR_CONTEXT_MSG_REQUEST, -1, by_topic},
};

} // namespace

class BusModuleRefused : public BusModule, public testing::WithParamInterface<RefusedCase> {};

TEST_P(BusModuleRefused, GivesAWarning)
{
    msg.type = GetParam().type;
    msg.topic = GetParam().topic;

    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), -1);

    EXPECT_EQ(delegate(), nullptr);
    EXPECT_EQ(out.printed(), wrn_line(GetParam().function));
}

INSTANTIATE_TEST_SUITE_P(All, BusModuleRefused, testing::ValuesIn(refused_cases),
                         case_name<RefusedCase>);
