/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of requests share: modules that answer and keep a journal. */
#ifndef QOR_TESTS_REQUESTS_FIXTURE_HPP
#define QOR_TESTS_REQUESTS_FIXTURE_HPP

#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"

constexpr int32_t topic = 5;

inline std::string text_of(const void *buf, int32_t size)
{
    return buf ? std::string(static_cast<const char *>(buf), static_cast<size_t>(size)) : "";
}

inline const char *type_name(int32_t type)
{
    static const char *const names[] = {"request", "response",      "before",
                                        "after",   "filter_before", "filter_after"};
    return names[type];
}

inline qor_context_topic_attr_t at(int32_t point)
{
    return {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
}

/* A client, a server of the topic, and an observer. Each writes down what reaches it as
 * "server:request"; the server answers with "pong". */
class Requests : public testing::Test {
protected:
    Requests()
    {
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
        server.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
            note(c, msg);
            if (msg->type == QOR_CONTEXT_MSG_REQUEST && msg->response.size >= 4) {
                std::memcpy(msg->response.buf, "pong", 4);
            }
            return msg->type == QOR_CONTEXT_MSG_REQUEST ? answer : 0;
        };
        client.handle = observer.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
            note(c, msg);
            return -99; /* nobody looks at it */
        };
    }

    void note(qor_context_t *context, const qor_context_msg_t *msg)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            session = msg->session;
            ret = msg->ret;
            request = text_of(msg->request.buf, msg->request.size);
            response = text_of(msg->response.buf, msg->response.size);
        }
        journal.add(std::string(context->module->name) + ":" + type_name(msg->type));
    }

    void be_up()
    {
        bus.emplace(std::initializer_list<Module *>{&server, &client, &observer});
        ASSERT_TRUE(bus->up());
    }

    /* Waits for that many notes; gives all that are there. */
    std::string noted(size_t count)
    {
        EXPECT_TRUE(journal.await(count)) << journal.text();
        return journal.text();
    }

    Output out;
    Journal journal;
    Door door; /* outlives the bus, whose workers may stand at it */
    std::mutex mutex;
    int32_t session = -1; /* of the last response, like the following */
    int32_t ret = -1;
    std::string request;
    std::string response;
    int32_t answer = 0;
    Module server{"server"}, client{"client"}, observer{"observer"};
    std::optional<RunningBus> bus;
};

inline char ping[] = "ping!";

#endif /* QOR_TESTS_REQUESTS_FIXTURE_HPP */
