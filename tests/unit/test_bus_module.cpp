/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_bus_module.h"

#include <cstring>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "qor_impl_context.h"
#include "qor_sched_delegate.h"
#include "qor_topic_core.h"
#include "still_bus.hpp"
#include "system_module.hpp"

namespace {

/* The module in a context of the test's, on a bus whose tasks never run. */
class BusModule : public SystemModule {
protected:
    BusModule()
        : SystemModule(qor_bus_module),
          served(qor_context_create(&qor_impl_context_class, &module.descriptor))
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
    qor_context_t *served;
    qor_sys_bus_register_request_t request;
};

} // namespace

TEST_F(BusModule, DescribesASystemModuleWithoutConsoleAndUninit)
{
    expect_plain_descriptor("qor_bus_module");
    EXPECT_EQ(qor_bus_module.priority, 0);
    EXPECT_EQ(qor_bus_module.stack_size, 0);
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

class BusModuleRefused : public BusModule, public testing::WithParamInterface<RefusedMessage> {};

TEST_P(BusModuleRefused, GivesAWarning)
{
    expect_refused(GetParam());

    EXPECT_EQ(delegate(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(All, BusModuleRefused,
                         testing::ValuesIn(refused_messages(QOR_SYS_BUS_REGISTER,
                                                            QOR_SYS_MNG_CONTEXT_REGISTER,
                                                            QOR_SYS_MONITOR_TASK)),
                         case_name<RefusedMessage>);
