/* SPDX-License-Identifier: Apache-2.0 */
/* Messages that nobody would send on purpose. */
#include "bridged.hpp"

#include <random>

namespace {

class MqttBadInput : public Bridged {
protected:
    std::string any(size_t most)
    {
        std::string text(chance() % (most + 1), '\0');
        for (char &letter : text) {
            letter = static_cast<char>(chance());
        }
        return text;
    }

    /* One of a few texts that are nearly right, or none. */
    std::string one_of(const std::vector<std::string> &texts)
    {
        return texts[chance() % texts.size()];
    }

    std::minstd_rand chance{1};
};

TEST_F(MqttBadInput, EveryMessageIsAccountedForAndTheBridgeGoesOn)
{
    constexpr uint64_t many = 1000;
    routes = {route("in", QOR_MQTT_IN, TAKEN, "in/#"),
              route("serve", QOR_MQTT_SERVE, TAKEN, "ask/#"),
              route("call", QOR_MQTT_CALL, ASKED, "far")};
    routes[0].decode = [](void *, const qor_mqtt_message_t *message, void *buf, int32_t room) {
        char hop[2];
        if (message->size < 4 || message->size > room) {
            return -1;
        }
        qor_mqtt_property(message, "qor-hop", hop, sizeof(hop));
        std::memcpy(buf, message->payload, static_cast<size_t>(message->size));
        return message->size;
    };
    config.payload = 200;
    routes[0].room = routes[1].room = routes[2].room = 100;
    config.in_messages = static_cast<int32_t>(many);
    start_connected();
    Peer peer(broker.port(), "far");
    ask(ASKED, "x");
    ASSERT_TRUE(peer.await_count(1));
    const Got asked = peer.got()[0];

    uint64_t answers_sent = 0;
    for (uint64_t i = 0; i < many; i++) {
        const std::string topic = one_of({"in/a", "in/", "ask/b", "ask/", asked.response_topic});
        answers_sent += topic == asked.response_topic;
        peer.send(topic, any(300), one_of({"", "back", "$SYS/x", asked.response_topic}),
                  one_of({"", any(60), asked.correlation + "1", asked.correlation.substr(1)}),
                  one_of({"", "x", "-", "99999999999", "1 "}), false,
                  one_of({"", "0", "-1", "4", "two", "99999999999"}));
    }

    /* What is answered to the response topic of the call comes back as an answer, too. */
    ASSERT_TRUE(await([&] { return status().in + answers_sent >= many; }));
    peer.send(asked.response_topic, "right", "", asked.correlation, "5");
    ASSERT_TRUE(await([this] { return answers.text() == "5:right"; })) << answers.text();
    EXPECT_EQ(status().in, many - answers_sent);
    EXPECT_GE(status().stray, answers_sent);
    EXPECT_EQ(status().connects, 1u);
    EXPECT_GT(status().in_failed, 0u);
    EXPECT_GT(status().in_skipped, 0u);
}

/* A client that speaks for itself: libmosquitto's own fall over what it is to send. */
class RawClient {
public:
    explicit RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        char greeting[5] = "";
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        /* version 5, a clean start, no properties */
        packet('\x10', text("MQTT") + std::string("\x05\x02\0\x3c\0", 5) + text("raw"));
        EXPECT_EQ(recv(fd_, greeting, sizeof(greeting), MSG_WAITALL), 5);
        EXPECT_EQ(greeting[0], '\x20');
        EXPECT_EQ(greeting[3], '\0') << "refused";
    }
    ~RawClient() { close(fd_); }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    void publish(const std::string &topic, const std::string &properties)
    {
        packet('\x30', text(topic) + static_cast<char>(properties.size()) + properties + "payload");
    }

    /* As in a packet: its length, then the text. */
    static std::string text(const std::string &text)
    {
        return std::string(1, '\0') + static_cast<char>(text.size()) + text;
    }

private:
    void packet(char kind, const std::string &rest) const
    {
        const std::string whole = kind + std::string(1, static_cast<char>(rest.size())) + rest;
        EXPECT_EQ(send(fd_, whole.data(), whole.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(whole.size()));
    }

    int fd_;
};

/* libmosquitto has no text at all for an empty one, and its way to copy one ends the process. */
TEST_F(MqttBadInput, EmptyPropertiesAreTakenAsTheyAre)
{
    const std::string nothing = RawClient::text("");
    const char content_type = '\x03', response_topic = '\x08', correlation = '\x09',
               user_property = '\x26';
    routes = {route("in", QOR_MQTT_IN, TAKEN, "in"), route("serve", QOR_MQTT_SERVE, TAKEN, "ask")};
    start_connected();
    RawClient client(broker.port());

    client.publish("in", user_property + nothing + nothing);
    client.publish("in", user_property + RawClient::text("qor-hop") + nothing);
    client.publish("in", content_type + nothing);
    client.publish("ask", correlation + nothing);
    client.publish("in", "");

    ASSERT_TRUE(taken.await(4));
    EXPECT_EQ(status().in, 5u);
    EXPECT_EQ(status().in_skipped, 1u); /* a number of bridges that is none */
    EXPECT_EQ(status().unanswerable, 1u);
    client.publish("ask", response_topic + nothing); /* which the broker may refuse */
    EXPECT_TRUE(await([this] {
        return status().unanswerable == 2 ||
               broker.log().find("Client raw disconnected") != std::string::npos;
    }));
    EXPECT_EQ(status().connects, 1u);
}

} // namespace
