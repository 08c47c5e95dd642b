/* SPDX-License-Identifier: Apache-2.0 */
/* What the bridge relies on in libmosquitto, which does not promise it. */
#include <chrono>

#include "broker.hpp"
#include "peer.hpp"

namespace {

/* A client with a loop of the test's own, whose callback looks for up to a second whether the
 * broker has the acknowledgement of the message that the callback is called for. */
class MqttClient : public ::testing::Test {
protected:
    ~MqttClient() override
    {
        mosquitto_destroy(client_);
        mosquitto_lib_cleanup();
    }

    void receive_one(bool threaded)
    {
        broker_.start();
        mosquitto_lib_init();
        client_ = mosquitto_new("looker", true, this);
        mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        if (threaded) {
            ASSERT_EQ(mosquitto_threaded_set(client_, true), 0);
        }
        mosquitto_message_v5_callback_set(
            client_, [](mosquitto *, void *self, const mosquitto_message *,
                        const mosquitto_property *) { static_cast<MqttClient *>(self)->look(); });
        ASSERT_EQ(mosquitto_connect(client_, "127.0.0.1", broker_.port(), 60), 0);
        ASSERT_EQ(mosquitto_subscribe(client_, nullptr, "t", 1), 0);
        ASSERT_TRUE(turn_until([this] { return in_log("Sending SUBACK to looker"); }));
        Peer(broker_.port()).send("t", "x");
        ASSERT_TRUE(turn_until([this] { return looked_; }));
        EXPECT_TRUE(turn_until([this] { return acknowledged(); }));
    }

    bool acknowledged() const { return in_log("Received PUBACK from looker"); }

    bool during_callback_ = false;

private:
    bool in_log(const char *text) const { return broker_.log().find(text) != std::string::npos; }

    void look()
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        while (!during_callback_ && std::chrono::steady_clock::now() < until) {
            during_callback_ = acknowledged();
        }
        looked_ = true;
    }

    template <typename C> bool turn_until(C condition)
    {
        return await([&] {
            EXPECT_EQ(mosquitto_loop_read(client_, 1), 0);
            EXPECT_EQ(mosquitto_loop_write(client_, 1), 0);
            return condition();
        });
    }

    Broker broker_;
    mosquitto *client_ = nullptr;
    bool looked_ = false;
};

TEST_F(MqttClient, WithAThreadOfOursTheAcknowledgementFollowsTheCallback)
{
    receive_one(true);

    EXPECT_FALSE(during_callback_);
}

TEST_F(MqttClient, WithoutItTheAcknowledgementIsWrittenBeforeTheCallback)
{
    receive_one(false);

    EXPECT_TRUE(during_callback_);
}

} // namespace
