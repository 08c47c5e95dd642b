/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the built-in modules share: the descriptor, a message, and what is refused. */
#ifndef QOR_TESTS_SYSTEM_MODULE_HPP
#define QOR_TESTS_SYSTEM_MODULE_HPP

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_sys.h"
#include "recording_context.hpp"

/* A message that a built-in module refuses with a warning. */
struct RefusedMessage {
    const char *name;
    int32_t type;
    int32_t topic;
    const char *step; /* the function that refuses it is named after the module and this */
};

/* What a module refuses that serves the first of these topics and not the others. */
inline std::vector<RefusedMessage> refused_messages(int32_t served, int32_t other, int32_t another)
{
    const char *const type = "handle_message";
    const char *const topic = "handle_request_message";
    return {{"Response", QOR_CONTEXT_MSG_RESPONSE, served, type},
            {"ListenBefore", QOR_CONTEXT_MSG_LISTEN_BEFORE, served, type},
            {"ListenAfter", QOR_CONTEXT_MSG_LISTEN_AFTER, served, type},
            {"FilterBefore", QOR_CONTEXT_MSG_FILTER_BEFORE, served, type},
            {"FilterAfter", QOR_CONTEXT_MSG_FILTER_AFTER, served, type},
            {"TypeBeforeTopic", QOR_CONTEXT_MSG_RESPONSE, 99, type},
            {"OtherTopic", QOR_CONTEXT_MSG_REQUEST, other, topic},
            {"AnotherTopic", QOR_CONTEXT_MSG_REQUEST, another, topic},
            {"TopicBehindTheLast", QOR_CONTEXT_MSG_REQUEST, QOR_SYS_NUM, topic},
            {"NegativeTopic", QOR_CONTEXT_MSG_REQUEST, -1, topic}};
}

/* The module in a context of the test's. */
class SystemModule : public testing::Test {
protected:
    explicit SystemModule(const qor_context_module_t &tested) : module_(tested) {}

    /* All but its priority, its stack and its console. */
    void expect_plain_descriptor(const std::string &name) const
    {
        EXPECT_EQ(module_.name, name);
        EXPECT_EQ(module_.id, 0);
        EXPECT_EQ(module_.pure, 0u);
        EXPECT_EQ(module_.refcount, -1);
        EXPECT_EQ(module_.arg, nullptr);
        EXPECT_EQ(module_.uninit, nullptr);
    }

    void expect_refused(const RefusedMessage &refused)
    {
        const std::string name = module_.name;
        msg.type = refused.type;
        msg.topic = refused.topic;

        EXPECT_EQ(module_.handle_message(own.get(), &msg), -1);

        EXPECT_EQ(out.printed(),
                  "[" + name + "][wrn][" + name + "_" + refused.step + "]:not support type.\n");
    }

    RecordingContext own;
    std::unique_ptr<qor_context_msg_t> held{new qor_context_msg_t}; /* no member: it has a tail */
    qor_context_msg_t &msg = *held;
    Output out;

private:
    const qor_context_module_t &module_;
};

#endif /* QOR_TESTS_SYSTEM_MODULE_HPP */
