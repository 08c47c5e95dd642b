/* SPDX-License-Identifier: Apache-2.0 */
/* Requests from module to module, and their answers. */
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "requests_fixture.hpp"

TEST_F(Requests, TheResponseCarriesSessionResultAndPayload)
{
    be_up();
    answer = 17;

    const int32_t drawn = qor_context_req_ret(client.context(), topic, ping, 5, 4);

    EXPECT_GT(drawn, 0);
    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(session, drawn);
    EXPECT_EQ(ret, 17);
    EXPECT_EQ(request, "ping!");
    EXPECT_EQ(response, "pong");
}

TEST_F(Requests, ARequestWithoutResponsePartIsAnsweredWithTheResultAlone)
{
    be_up();
    answer = 3;

    EXPECT_GT(qor_context_req(client.context(), topic, ping, 5), 0);

    noted(2);
    EXPECT_EQ(ret, 3);
    EXPECT_EQ(request, "ping!");
    EXPECT_EQ(response, "");
}

TEST_F(Requests, TheCallersSessionIsKept)
{
    be_up();

    EXPECT_EQ(qor_context_req_ret_s(client.context(), 123456, topic, ping, 5, 4), 123456);

    noted(2);
    EXPECT_EQ(session, 123456);
}

TEST_F(Requests, TheCallersBufferMayBeChangedAtOnce)
{
    be_up();
    char buffer[] = "ping!";

    qor_context_req_ret(client.context(), topic, buffer, 5, 4);
    std::memset(buffer, 'x', 5);

    noted(2);
    EXPECT_EQ(request, "ping!");
}

TEST_F(Requests, AFailedHandlerStillGivesAResponse)
{
    be_up();
    answer = -5;

    const int32_t drawn = qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(ret, -5);
    EXPECT_EQ(out.count("handle message failed, ret = -5 source = client, topic = 5, session = " +
                        std::to_string(drawn) + "\n"),
              1);
}

TEST_F(Requests, WithoutSubscriberNothingComesBack)
{
    be_up();

    EXPECT_EQ(qor_context_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(out.count("[qor_sched_delegate][err][qor_sched_delegate_publish]:no one subscribe, "
                        "source:client, topic:1, session="),
              1);
    EXPECT_EQ(journal.text(), "");
}

TEST_F(Requests, ASynchronousRequestIsHandledOnTheCallersThread)
{
    std::thread::id handled_by;
    server.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        handled_by = std::this_thread::get_id();
        std::memcpy(msg->response.buf, "pong", 4);
        return 8;
    };
    be_up();
    char buffer[5] = "";

    EXPECT_EQ(qor_context_x_req_ret(client.context(), topic, ping, 5, buffer, 4), 8);

    EXPECT_STREQ(buffer, "pong");
    EXPECT_EQ(handled_by, std::this_thread::get_id());
    EXPECT_EQ(journal.text(), "");
}

TEST_F(Requests, ASynchronousRequestWithoutSubscriberFails)
{
    be_up();

    EXPECT_EQ(qor_context_x_req(client.context(), 1, ping, 5), -1);

    EXPECT_EQ(out.count("handle message failed, ret = -1 source = client, topic = 1, session = "),
              1);
}

TEST_F(Requests, AModuleMayServeItself)
{
    be_up();

    EXPECT_GT(qor_context_req_ret(server.context(), topic, ping, 5, 4), 0);

    EXPECT_EQ(noted(2), "server:request server:response");
    EXPECT_EQ(response, "pong");
}
