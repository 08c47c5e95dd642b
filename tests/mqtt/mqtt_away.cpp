/* SPDX-License-Identifier: Apache-2.0 */
/* What happens while the broker is away, slow or full, and at the end. */
#include "bridged.hpp"

namespace {

class MqttAway : public Bridged {
protected:
    void shown(int32_t qos = 1)
    {
        routes = {route("shown", QOR_MQTT_OUT, TAKEN, "t")};
        routes[0].qos = qos;
    }

    /* Sends numbered requests, one after the other. */
    void ask_many(int from, int to)
    {
        for (int i = from; i < to; i++) {
            const uint64_t before = status().accepted;
            ask(TAKEN, std::to_string(i), 0);
            ASSERT_TRUE(await([&] { return status().accepted > before; }));
        }
    }
};

TEST_F(MqttAway, MessagesWaitForTheBrokerInTheirOrder)
{
    shown();
    start();
    ask_many(0, 5);
    EXPECT_EQ(status().waiting, 5u);

    broker.start();

    ASSERT_TRUE(await([this] { return status().acknowledged == 5; }));
    EXPECT_EQ(status().connects, 1u);
}

TEST_F(MqttAway, AtQualityZeroMessagesAreDroppedMeanwhile)
{
    shown(0);
    start();

    ask_many(0, 3);

    EXPECT_EQ(status().dropped, 3u);
    EXPECT_EQ(status().waiting, 0u);
}

TEST_F(MqttAway, TheOldestMakeRoom)
{
    shown();
    config.out_messages = 2;
    start();
    ask_many(0, 5);
    EXPECT_EQ(status().dropped, 3u);

    broker.start();
    Peer peer(broker.port(), "t"); /* the bridge pauses at most 0.1 s, so it may be first */
    ASSERT_TRUE(await([this] { return status().acknowledged == 2; }));
    end();
}

TEST_F(MqttAway, BytesAreBoundedToo)
{
    shown();
    config.out_bytes = 1000;
    start();

    ask(TAKEN, std::string(600, 'a'), 0);
    ask(TAKEN, std::string(600, 'b'), 0);
    ask(TAKEN, std::string(2000, 'c'), 0);

    ASSERT_TRUE(await([this] { return status().accepted == 3; }));
    EXPECT_EQ(status().dropped, 3u);
}

TEST_F(MqttAway, WhatHasExpiredIsNotSent)
{
    shown();
    routes[0].expiry = 1;
    start();
    ask_many(0, 2);
    const int64_t begin = hal_timestamp();
    ASSERT_TRUE(await([&] { return hal_timestamp() > begin + 1100; }));

    broker.start();

    EXPECT_TRUE(await([this] { return status().expired == 2; }));
    EXPECT_EQ(status().acknowledged, 0u);
}

TEST_F(MqttAway, AfterEachConnectAllFiltersAreSubscribedAnew)
{
    routes = {route("taken", QOR_MQTT_IN, TAKEN, "in")};
    start_connected();
    broker.stop();
    ASSERT_TRUE(await([this] { return status().connected == 0; }));
    broker.start();
    ASSERT_TRUE(connected());
    Peer peer(broker.port());

    peer.send("in", "again");

    ASSERT_TRUE(taken.await(1));
    EXPECT_EQ(status().connects, 2u);
    EXPECT_GE(output.count("disconnected: "), 1);
}

TEST_F(MqttAway, ASubscriptionThatIsRefusedMakesALine)
{
    broker.port();
    std::ofstream(broker.folder() / "rights.json")
        << "{\"defaultACLAccess\": {\"publishClientSend\": true, \"publishClientReceive\": true, "
           "\"subscribe\": false, \"unsubscribe\": true}}";
    routes = {route("denied", QOR_MQTT_IN, TAKEN, "bad/#")};
    start_connected("allow_anonymous true\nplugin " QOR_BROKER_RIGHTS "\nplugin_opt_config_file " +
                    (broker.folder() / "rights.json") + "\n");

    EXPECT_TRUE(output.await("route \"denied\": the broker refuses the subscription: "));
}

TEST_F(MqttAway, WhatTheBrokerRefusesIsCounted)
{
    broker.port();
    std::ofstream(broker.folder() / "acl") << "topic readwrite good\n";
    shown();
    start_connected("allow_anonymous true\nacl_file " + (broker.folder() / "acl") + "\n");

    ask_many(0, 2);

    EXPECT_TRUE(await([this] { return status().refused == 2; }));
    EXPECT_EQ(status().acknowledged, 0u);
}

TEST_F(MqttAway, NoMoreAreUnderWayThanTheBrokerTakes)
{
    constexpr int many = 200;
    shown();
    config.inflight = 50;
    config.out_messages = many;
    start_connected("allow_anonymous true\nmax_inflight_messages 3\n");

    ask_many(0, many);

    EXPECT_TRUE(await([this] { return status().acknowledged == many; }));
    EXPECT_EQ(broker.log().find("receive maximum exceeded"), std::string::npos);
    EXPECT_EQ(status().connects, 1u);
}

TEST_F(MqttAway, AWrongPasswordMakesALineAndTheBridgeGoesOn)
{
    config.user = "user";
    config.password = "wordless";
    broker.start("allow_anonymous false\n");
    start();

    ASSERT_TRUE(output.await("refuses: "));

    EXPECT_EQ(output.count("wordless"), 0);
    EXPECT_EQ(status().connected, 0);
}

TEST_F(MqttAway, WhatIsToBeSentIsSentBeforeTheEnd)
{
    shown();
    config.linger = 20000;
    config.depth = config.out_messages = 500;
    start_connected("allow_anonymous true\nmax_inflight_messages 1\n");
    Peer peer(broker.port(), "t");
    ask_many(0, 500);
    const int64_t begin = hal_timestamp();

    quit();
    qor_bus_close(bus);
    bus = nullptr;

    EXPECT_EQ(status().acknowledged, 500u);
    EXPECT_LT(hal_timestamp() - begin, 20000);
    ASSERT_TRUE(peer.await_count(500));
}

/* A port that accepts connections and says nothing. */
class Silent {
public:
    Silent()
    {
        struct sockaddr_in address = {};
        socklen_t size = sizeof(address);
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    ~Silent() { close(fd_); }
    int port() const { return port_; }

    /* Whether somebody comes. */
    bool visited() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) >= 0; }

private:
    int fd_, port_;
};

class MqttSilent : public MqttAway, public ::testing::WithParamInterface<bool> {
protected:
    /* As bridge_add(), but for the port. */
    void bridge_to(int port)
    {
        config.routes = routes.data();
        config.route_count = static_cast<int32_t>(routes.size());
        config.port = port;
        bridges.push_back(qor_mqtt_module_create(&config));
        ASSERT_TRUE(bridges[0]);
    }
    bool tls() const { return GetParam(); }
};

TEST_P(MqttSilent, ABrokerThatNeverAnswersDoesNotHoldTheEnd)
{
    Silent silent;
    shown();
    config.linger = 300;
    config.system_cas = tls();
    bridge_to(silent.port());
    start();
    ASSERT_TRUE(silent.visited());
    const int64_t begin = hal_timestamp();

    end();

    EXPECT_LT(hal_timestamp() - begin, 300 + 200);
}

TEST_P(MqttSilent, ABrokerThatNeverAnswersIsGivenUp)
{
    Silent silent;
    shown();
    config.connect_time = 100;
    config.system_cas = tls();
    bridge_to(silent.port());
    start();

    ASSERT_TRUE(silent.visited());
    ASSERT_TRUE(silent.visited()); /* it has come again */

    EXPECT_TRUE(output.await("does not answer."));
}

INSTANTIATE_TEST_SUITE_P(Tls, MqttSilent, ::testing::Bool(),
                         [](const auto &on) { return std::string(on.param ? "On" : "Off"); });

} // namespace
