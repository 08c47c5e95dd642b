/* SPDX-License-Identifier: Apache-2.0 */
/* Requests on a topic with two subscribers. */
#include <optional>

#include <gtest/gtest.h>

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "requests_fixture.hpp"

TEST_F(Requests, TheNewestSubscriberAloneReceivesThem)
{
    be_up();
    ASSERT_EQ(qor_context_subscribe(observer.context(), topic, nullptr), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "observer:request client:response");
}

TEST_F(Requests, TheOlderSubscriberReceivesThemOnceTheNewerHasLeft)
{
    be_up();
    ASSERT_EQ(qor_context_subscribe(observer.context(), topic, nullptr), 0);
    ASSERT_EQ(qor_context_unsubscribe(observer.context(), topic), 0);

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
}

TEST_F(Requests, AHandlerMayRemoveItsOwnSubscription)
{
    server.handle = [this](qor_context_t *c, qor_context_msg_t *msg) {
        note(c, msg);
        return qor_context_unsubscribe(c, topic);
    };
    be_up();

    qor_context_req(client.context(), topic, ping, 5);

    EXPECT_EQ(noted(2), "server:request client:response");
    EXPECT_EQ(qor_context_req(client.context(), topic, ping, 5), -1);
}
