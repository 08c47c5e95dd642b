/* SPDX-License-Identifier: Apache-2.0 */
/* Requests from module to module, with filters. */
#include <cstring>
#include <optional>

#include <gtest/gtest.h>

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "requests_fixture.hpp"

TEST_F(Requests, AFilterSeesThemBeforeAndAfter)
{
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(4),
              "observer:filter_before server:request observer:filter_after client:response");
}

TEST_F(Requests, AFilterSeesThePointsThatItAskedFor)
{
    be_up();
    qor_context_topic_attr_t before = at(QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE);
    qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    ASSERT_EQ(qor_context_filter(observer.context(), topic, &before), 0);
    ASSERT_EQ(qor_context_filter(server.context(), topic, &after), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(4),
              "observer:filter_before server:request server:filter_after client:response");
}

TEST_F(Requests, AFilterMayChangeThem)
{
    observer.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE) {
            std::memcpy(msg->request.buf, "PING?", 5);
        } else {
            std::memcpy(msg->response.buf, "PONG", 4);
            msg->ret = 9;
        }
        return -1; /* of no consequence */
    };
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), topic, nullptr), 0);
    char buffer[] = "ping!";

    qor_context_req_ret(client.context(), topic, buffer, 5, 4);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(request, "PING?");
    EXPECT_EQ(response, "PONG");
    EXPECT_EQ(ret, 9);
}

TEST_F(Requests, FiltersAreCalledEvenWithoutSubscriber)
{
    be_up();
    ASSERT_EQ(qor_context_filter(observer.context(), 1, nullptr), 0);

    EXPECT_EQ(qor_context_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(journal.text(), "observer:filter_before");
}

TEST_F(Requests, AFilterWithoutItsOwnRequestsSeesOnlyThoseOfOthers)
{
    be_up();
    qor_context_topic_attr_t others =
        at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF);
    ASSERT_EQ(qor_context_filter(observer.context(), topic, &others), 0);

    qor_context_req(observer.context(), topic, ping, 5);
    EXPECT_EQ(noted(2), "server:request observer:response");
    journal.clear();

    qor_context_req(client.context(), topic, ping, 5);
    EXPECT_EQ(noted(4),
              "observer:filter_before server:request observer:filter_after client:response");
}
