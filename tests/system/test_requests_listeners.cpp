/* SPDX-License-Identifier: Apache-2.0 */
/* Requests from module to module, with listeners. */
#include <cstring>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "requests_fixture.hpp"

TEST_F(Requests, AListenerHearsThemBeforeAndAfter)
{
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    const std::string text = noted(4); /* listeners run beside the request */
    for (const char *part :
         {"observer:before", "observer:after", "server:request", "client:response"}) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
}

TEST_F(Requests, AListenerHearsTheResultAndTheResponseAfterwards)
{
    std::string heard;
    int32_t result = 0;
    observer.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        heard = text_of(msg->response.buf, msg->response.size);
        result = msg->ret;
        journal.add("heard");
        return 0;
    };
    be_up();
    answer = 4;
    qor_context_topic_attr_t after = at(QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    ASSERT_EQ(qor_context_listen(observer.context(), topic, &after), 0);

    qor_context_req_ret(client.context(), topic, ping, 5, 4);

    noted(3);
    EXPECT_EQ(heard, "pong");
    EXPECT_EQ(result, 4);
}

TEST_F(Requests, AListenerThatIsHeldUpDoesNotDelayTheResponse)
{
    observer.handle = [this](qor_context_t *, qor_context_msg_t *) { return door.pass() ? 0 : -1; };
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    door.open();
}

TEST_F(Requests, AListenersChangesStayItsOwn)
{
    observer.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
        std::memset(msg->request.buf, 'x', 5);
        journal.add("heard");
        return 0;
    };
    be_up();
    ASSERT_EQ(qor_context_listen(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    noted(4);
    EXPECT_EQ(request, "ping!");
}

TEST_F(Requests, AListenerWithoutItsOwnRequestsHearsOnlyThoseOfOthers)
{
    be_up();
    qor_context_topic_attr_t others =
        at(QOR_CONTEXT_TOPIC_ATTR_POINT_AROUND | QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF);
    ASSERT_EQ(qor_context_listen(observer.context(), topic, &others), 0);

    qor_context_req(observer.context(), topic, ping, 5);
    noted(2);
    qor_context_req(client.context(), topic, ping, 5);

    const std::string text = noted(6);
    size_t heard = 0;
    for (size_t at = 0; (at = text.find("observer:", at)) != std::string::npos; at++) {
        heard += text.compare(at, 15, "observer:before") == 0 ||
                 text.compare(at, 14, "observer:after") == 0;
    }
    EXPECT_EQ(heard, 2u) << text;
}
