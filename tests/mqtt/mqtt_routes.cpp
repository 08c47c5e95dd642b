/* SPDX-License-Identifier: Apache-2.0 */
/* Out and in routes, with a broker that stays. */
#include "bridged.hpp"

#include <atomic>

namespace {

class MqttRoutes : public Bridged {};

TEST_F(MqttRoutes, ARequestOnTheBusIsSeenOnItsTopic)
{
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "site/{module}/{topic}")};
    start_connected();
    Peer peer(broker.port(), "site/#");

    ask(TAKEN, "one");

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.got()[0].topic, "site/mqtt/0");
    EXPECT_EQ(peer.got()[0].payload, "one");
    EXPECT_TRUE(await([this] { return status().acknowledged == 1; }));
    EXPECT_EQ(status().accepted, 1u);
}

TEST_F(MqttRoutes, AfterwardsTheResponsePartIsSeen)
{
    taker.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        std::memcpy(msg->response.buf, "done", 4);
        return 0;
    };
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "after")};
    routes[0].when = QOR_MQTT_AFTER;
    start_connected();
    Peer peer(broker.port(), "after");

    ask(TAKEN, "one", 4);

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.payloads(), "done");
}

TEST_F(MqttRoutes, TwoRoutesOfOneTopicEachSendOnce)
{
    routes = {route("one", QOR_MQTT_OUT, TAKEN, "t/one"),
              route("two", QOR_MQTT_OUT, TAKEN, "t/two"),
              route("after", QOR_MQTT_OUT, TAKEN, "t/after")};
    routes[2].when = QOR_MQTT_AFTER;
    start_connected();
    Peer peer(broker.port(), "t/#");

    ask(TAKEN, "x", 1);
    ASSERT_TRUE(await([this] { return status().acknowledged == 3; }));

    ASSERT_TRUE(peer.await_count(3));
    EXPECT_EQ(status().accepted, 3u);
}

TEST_F(MqttRoutes, EncodeWritesThePayload)
{
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "t")};
    routes[0].encode = [](void *arg, const qor_mqtt_part_t *part, void *buf, int32_t room) {
        EXPECT_STREQ(static_cast<const char *>(arg), "arg");
        return static_cast<int32_t>(snprintf(static_cast<char *>(buf), static_cast<size_t>(room),
                                             "<%.*s>", part->size,
                                             static_cast<const char *>(part->data)));
    };
    routes[0].arg = const_cast<char *>("arg");
    start_connected();
    Peer peer(broker.port(), "t");

    ask(TAKEN, "one");

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.payloads(), "<one>");
}

TEST_F(MqttRoutes, WhatIsNotEncodedIsCountedAndNotSent)
{
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "t")};
    routes[0].encode = [](void *, const qor_mqtt_part_t *, void *, int32_t) { return -1; };
    start_connected();

    ask(TAKEN, "one");

    EXPECT_TRUE(await([this] { return status().failed == 1; }));
    EXPECT_EQ(status().accepted, 0u);
}

TEST_F(MqttRoutes, AMessageBecomesARequest)
{
    routes = {route("taken", QOR_MQTT_IN, TAKEN, "in/+/x/#")};
    start_connected();
    Peer peer(broker.port());

    peer.send("in/a/x/b/c", "one");
    peer.send("in/a/y", "not this");
    peer.send("in/b/x", "two");

    ASSERT_TRUE(taken.await(2));
    EXPECT_EQ(taken.text(), "one two");
    EXPECT_EQ(status().in, 2u);
}

TEST_F(MqttRoutes, ASharedSubscriptionTakesMessagesOfItsFilter)
{
    routes = {route("shared", QOR_MQTT_IN, TAKEN, "$share/group/in/+")};
    start_connected();
    Peer peer(broker.port());

    peer.send("in/a", "one");

    ASSERT_TRUE(taken.await(1));
    EXPECT_EQ(taken.text(), "one");
    EXPECT_EQ(status().in, 1u);
}

TEST_F(MqttRoutes, DecodeSeesTopicAndProperties)
{
    routes = {route("taken", QOR_MQTT_IN, TAKEN, "in/#")};
    routes[0].decode = [](void *, const qor_mqtt_message_t *message, void *buf, int32_t room) {
        char hop[4];
        EXPECT_EQ(qor_mqtt_property(message, "none", nullptr, 0), -1);
        EXPECT_EQ(qor_mqtt_property(message, "qor-hop", hop, sizeof(hop)), 1);
        return static_cast<int32_t>(snprintf(static_cast<char *>(buf), static_cast<size_t>(room),
                                             "%s=%.*s,%s", message->topic, message->size,
                                             static_cast<const char *>(message->payload), hop));
    };
    start_connected();
    Peer peer(broker.port());

    peer.send("in/a", "1", "", "", "", false, "2");

    ASSERT_TRUE(taken.await(1));
    EXPECT_EQ(taken.text(), "in/a=1,2");
}

TEST_F(MqttRoutes, WhatIsNotDecodedOrTooLongIsCounted)
{
    routes = {route("odd", QOR_MQTT_IN, TAKEN, "odd"), route("long", QOR_MQTT_IN, TAKEN, "long")};
    routes[0].decode = [](void *, const qor_mqtt_message_t *, void *, int32_t) { return -1; };
    routes[0].room = 4;
    config.payload = 4;
    routes[1].room = 4;
    start_connected();
    Peer peer(broker.port());

    peer.send("odd", "x");
    peer.send("long", "12345");
    peer.send("long", "1234");

    ASSERT_TRUE(taken.await(1));
    EXPECT_EQ(taken.text(), "1234");
    EXPECT_TRUE(await([this] { return status().in_failed == 2; }));
    EXPECT_EQ(status().in, 3u);
}

TEST_F(MqttRoutes, WithoutASubscriberAMessageIsCounted)
{
    routes = {route("lost", QOR_MQTT_IN, ASKED, "in"), route("taken", QOR_MQTT_IN, TAKEN, "then")};
    start_connected();
    Peer peer(broker.port());

    peer.send("in", "x");
    peer.send("then", "y");

    ASSERT_TRUE(taken.await(1));
    EXPECT_TRUE(await([this] { return status().in_failed == 1; }));
}

TEST_F(MqttRoutes, RetainedMessagesAreMarkedOrSkipped)
{
    routes = {route("marked", QOR_MQTT_IN, TAKEN, "kept/marked"),
              route("skipped", QOR_MQTT_IN, TAKEN, "kept/skipped")};
    routes[0].decode = [](void *, const qor_mqtt_message_t *message, void *buf, int32_t) {
        std::memcpy(buf, message->retained ? "old" : "new", 3);
        return 3;
    };
    routes[1].skip_retained = 1;
    broker.start();
    Peer peer(broker.port());
    peer.send("kept/marked", "x", "", "", "", true);
    peer.send("kept/skipped", "skipped", "", "", "", true);
    ASSERT_TRUE(await([&] { return peer.sent() == 2; }));
    start();
    ASSERT_TRUE(taken.await(1));

    peer.send("kept/skipped", "fresh");
    ASSERT_TRUE(taken.await(2));

    EXPECT_EQ(taken.text(), "old fresh");
}

TEST_F(MqttRoutes, QualityIsThatOfTheRoute)
{
    routes = {route("zero", QOR_MQTT_OUT, TAKEN, "q/0"), route("two", QOR_MQTT_OUT, TAKEN, "q/2")};
    routes[0].qos = 0;
    routes[1].qos = 2;
    start_connected();
    Peer peer(broker.port(), "q/#", 2);

    ask(TAKEN, "x");

    ASSERT_TRUE(peer.await_count(2));
    EXPECT_TRUE(await([this] { return status().acknowledged == 2; }));
    EXPECT_NE(broker.log().find("Received PUBREL"), std::string::npos);
}

/* That of encoding: in which order the bus shows requests of several workers is its own affair. */
TEST_F(MqttRoutes, ManyMessagesKeepTheirOrder)
{
    constexpr int many = 2000;
    Journal encoded;
    routes = {route("out", QOR_MQTT_OUT, TAKEN, "order")};
    routes[0].encode = [](void *arg, const qor_mqtt_part_t *part, void *buf, int32_t) {
        const std::string text(static_cast<const char *>(part->data),
                               static_cast<size_t>(part->size));
        static_cast<Journal *>(arg)->add(text);
        std::memcpy(buf, text.data(), text.size());
        return part->size;
    };
    routes[0].arg = &encoded;
    config.depth = config.out_messages = many;
    start_connected();
    Peer peer(broker.port(), "order");

    for (int i = 0; i < many; i++) {
        ASSERT_GE(ask(TAKEN, std::to_string(i), 0), 0);
    }

    ASSERT_TRUE(peer.await_count(many));
    EXPECT_TRUE(await([this] { return status().acknowledged == many; }));
    EXPECT_TRUE(peer.payloads() == encoded.text());
    end();
}

TEST_F(MqttRoutes, ABirthAndAWillTellWhoIsThere)
{
    config.status_topic = "up";
    routes = {route("taken", QOR_MQTT_IN, TAKEN, "in")};
    broker.start();
    Peer peer(broker.port(), "up");
    start();
    ASSERT_TRUE(peer.await_count(1));

    end();

    ASSERT_TRUE(peer.await_count(2));
    EXPECT_EQ(peer.payloads(), "online offline");
}

TEST_F(MqttRoutes, ChangesOfTheConnectionAppearOnTheBus)
{
    std::vector<int32_t> seen;
    std::atomic<size_t> count{0};
    config.status_bus_topic = STATUS;
    taker.reg = [](qor_context_t *c) { qor_context_subscribe(c, STATUS, nullptr); };
    taker.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        qor_mqtt_status_t status;
        EXPECT_EQ(msg->request.size, static_cast<int32_t>(sizeof(status)));
        std::memcpy(&status, msg->request.buf, sizeof(status));
        seen.push_back(status.connected);
        count = seen.size();
        return 0;
    };
    start_connected();
    ASSERT_TRUE(await([&] { return count == 1; }));

    broker.stop();
    ASSERT_TRUE(await([&] { return count == 2; }));
    end();

    EXPECT_EQ(seen, (std::vector<int32_t>{1, 0}));
}

TEST_F(MqttRoutes, ARequestThatCameInGoesOutOnOtherRoutesOnly)
{
    routes = {route("in", QOR_MQTT_IN, TAKEN, "mirror"),
              route("back", QOR_MQTT_OUT, TAKEN, "mirror"), route("on", QOR_MQTT_OUT, TAKEN, "on")};
    routes[1].pair = "in";
    start_connected();
    Peer peer(broker.port(), "#");

    peer.send("mirror", "x");
    ASSERT_TRUE(peer.await_count(2)); /* its own, and the one on the other route */
    ask(TAKEN, "y");
    ASSERT_TRUE(peer.await_count(4));

    EXPECT_EQ(peer.payloads(), "x x y y");
    EXPECT_EQ(peer.got()[1].topic, "on");
    EXPECT_EQ(peer.got()[1].hop, "1");
    ASSERT_TRUE(taken.await(2));
    EXPECT_EQ(taken.text(), "x y");
}

TEST_F(MqttRoutes, TwoBridgesThatMirrorATopicEachTakeAMessageOnce)
{
    routes = {route("in", QOR_MQTT_IN, TAKEN, "mirror"),
              route("out", QOR_MQTT_OUT, TAKEN, "mirror")};
    routes[1].pair = "in";
    config.name = "one";
    broker.start();
    bridge_add();
    routes[0].bus_topic = routes[1].bus_topic = ASKED;
    config.name = "two";
    bridge_add();
    asker.reg = [](qor_context_t *c) { qor_context_subscribe(c, ASKED, nullptr); };
    asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
            answers.add(text_of(msg->request));
        }
        return 0;
    };
    start();
    ASSERT_TRUE(connected(0) && connected(1));
    Peer peer(broker.port(), "mirror");

    peer.send("mirror", "x");
    ASSERT_TRUE(taken.await(1));
    ASSERT_TRUE(answers.await(1));
    ask(TAKEN, "y"); /* on the first one's topic: goes out, and comes to the second one */
    ASSERT_TRUE(answers.await(2));
    ASSERT_TRUE(peer.await_count(2));

    ASSERT_TRUE(taken.await(2));
    EXPECT_EQ(taken.text(), "x y");
    EXPECT_EQ(answers.text(), "x y");
    EXPECT_EQ(peer.payloads(), "x y");
}

TEST_F(MqttRoutes, AMessageThatHasPassedManyBridgesEndsHere)
{
    routes = {route("in", QOR_MQTT_IN, TAKEN, "in")};
    start_connected();
    Peer peer(broker.port());

    peer.send("in", "gone", "", "", "", false, "4");
    peer.send("in", "odd", "", "", "", false, "many");
    peer.send("in", "taken", "", "", "", false, "3");

    ASSERT_TRUE(taken.await(1));
    EXPECT_EQ(taken.text(), "taken");
    EXPECT_EQ(status().in_skipped, 2u);
}

} // namespace
