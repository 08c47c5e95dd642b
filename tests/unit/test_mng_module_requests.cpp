/* SPDX-License-Identifier: Apache-2.0 */
/* The manager's descriptor and its own requests. */
#include "qor_mng_module.h"

#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "mng_module_fixture.hpp"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_msg.h"
#include "still_bus.hpp"
#include "system_module.hpp"

namespace {

class MngModuleMessage : public SystemModule {
protected:
    MngModuleMessage() : SystemModule(qor_mng_module)
    {
        qor_context_msg_fill(&msg, 1, QOR_SYS_MNG_MODULE_REGISTER, nullptr, 0);
        topics = "";
        own.handler.subscribe = [](qor_context_t *, qor_context_topic_t topic,
                                   qor_context_topic_attr_t *attr) {
            topics += "+" + std::to_string(topic) + (attr ? " with attributes " : " ");
            return int32_t{0};
        };
        own.handler.unsubscribe = [](qor_context_t *, qor_context_topic_t topic) {
            topics += "-" + std::to_string(topic) + " ";
            return int32_t{0};
        };
    }

    static std::string topics; /* subscribed and unsubscribed: "+0 +1 -0 " */
};

std::string MngModuleMessage::topics;

} // namespace

TEST_F(MngModuleMessage, DescribesASystemModuleWithoutConsoleAndUninit)
{
    expect_plain_descriptor("qor_mng_module");
    EXPECT_EQ(qor_mng_module.priority, 0);
    EXPECT_EQ(qor_mng_module.stack_size, 0);
    EXPECT_EQ(qor_mng_module.console, nullptr);
}

TEST_F(MngModuleMessage, RegSubscribesBothTopicsInOrder)
{
    qor_mng_module.reg(own.get());

    EXPECT_EQ(topics, "+0 +1 ");
}

TEST_F(MngModuleMessage, UnregUnsubscribesBothTopicsInOrder)
{
    qor_mng_module.unreg(own.get());

    EXPECT_EQ(topics, "-0 -1 ");
}

TEST_F(MngModuleMessage, WithoutStateAMessageIsRefused)
{
    msg.type = QOR_CONTEXT_MSG_RESPONSE; /* the state is looked at first */

    EXPECT_EQ(qor_mng_module.handle_message(own.get(), &msg), -1);

    EXPECT_EQ(out.printed(), err_line("qor_mng_module", "qor_mng_module_handle_message",
                                      "!(mng_module) == true."));
}

TEST_F(MngModule, RegisterRequestsAreIgnored)
{
    StillBus bus({&a});
    bus.run_all();
    called.clear();
    out.clear();
    qor_context_t *wrapper = &a.core()->base;
    qor_context_msg_t msg;
    for (int32_t topic : {QOR_SYS_MNG_MODULE_REGISTER, QOR_SYS_MNG_CONTEXT_REGISTER}) {
        qor_context_msg_fill(&msg, 1, topic, nullptr, 0);

        EXPECT_EQ(qor_context_handler_syscallx(wrapper, &msg), 0);
    }

    EXPECT_EQ(called, "");
    EXPECT_EQ(out.printed(), "");
    EXPECT_EQ(bus.run_next(), "");
}

TEST_F(MngModuleMessage, TheRequestFunctionLooksAtTheTopicAlone)
{
    msg.type = QOR_CONTEXT_MSG_RESPONSE;

    EXPECT_EQ(qor_mng_module_handle_request_message(own.get(), &msg), 0);

    EXPECT_EQ(out.printed(), "");
}

class MngModuleRefused : public MngModuleMessage,
                         public testing::WithParamInterface<RefusedMessage> {};

TEST_P(MngModuleRefused, GivesAWarning)
{
    int state;
    qor_context_priv_data_set(own.get(), &state);

    expect_refused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, MngModuleRefused,
                         testing::ValuesIn(refused_messages(QOR_SYS_MNG_MODULE_REGISTER,
                                                            QOR_SYS_BUS_REGISTER,
                                                            QOR_SYS_MONITOR_TASK)),
                         case_name<RefusedMessage>);
