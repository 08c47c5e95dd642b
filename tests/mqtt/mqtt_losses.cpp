/* SPDX-License-Identifier: Apache-2.0 */
/* Numbered messages while connections are cut and the broker is ended and started. */
#include "bridged.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace {

/* What becomes of numbered messages: one bridge sends them out, another takes them in again. Each
 * arrival is ticked off by its number. */
class MqttLosses : public Bridged {
protected:
    enum { MANY = 10000 };

    MqttLosses()
    {
        taker.handle = [](qor_context_t *, qor_context_msg_t *) { return 0; };
        asker.reg = [](qor_context_t *c) { qor_context_subscribe(c, ASKED, nullptr); };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
                arrived(std::stoi(text_of(msg->request)));
            }
            return 0;
        };
    }

    void arrived(int number)
    {
        std::lock_guard<std::mutex> lock(mutex);
        doubles += seen[static_cast<size_t>(number)]++ > 0;
        different += seen[static_cast<size_t>(number)] == 1;
    }

    /* Both bridges have kept sessions, and room for all. */
    void bridges_to(int out_port, int in_port)
    {
        config.clean_start = 0;
        config.session_expiry = 600;
        config.depth = config.out_messages = config.in_messages = MANY;
        config.out_bytes = config.in_bytes = 64 << 20;
        config.connect_time = 2000;
        qor_mqtt_route_t out = route("out", QOR_MQTT_OUT, TAKEN, "numbered");
        out.encode = sent_encode;
        out.arg = &sent;
        bridge_to(out_port, out, "sender");
        bridge_to(in_port, route("in", QOR_MQTT_IN, ASKED, "numbered"), "receiver");
    }

    /* Requests from..to go to the bus, none faster than the bridge takes them. */
    void number(int from, int to)
    {
        for (int i = from; i < to; i++) {
            ask(TAKEN, std::to_string(i), 0);
            if (i % 100 == 99) {
                ASSERT_TRUE(
                    await([&] { return status(0).accepted + 500 > static_cast<uint64_t>(i); }));
            }
        }
        ASSERT_TRUE(await([&] { return status(0).accepted == static_cast<uint64_t>(to); }));
    }

    int missing()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return MANY - different;
    }

    void expect_all()
    {
        EXPECT_TRUE(await([this] { return missing() == 0; })) << missing() << " are missing";
        EXPECT_TRUE(await([this] { return status(0).acknowledged == MANY; }));
        EXPECT_EQ(status(0).unseen, 0u);
        EXPECT_EQ(status(1).in_dropped, 0u);
        RecordProperty("doubles", doubles);
        RecordProperty("doubles_handed", static_cast<int>(status(1).in) - MANY);
        RecordProperty("connects", static_cast<int>(status(0).connects + status(1).connects));
    }

    qor_mqtt_encode_t sent_encode = nullptr; /* for the sender */
    std::vector<int> sent;                   /* what that has written, in order */
    std::mutex mutex;
    std::vector<int> seen = std::vector<int>(MANY);
    int different = 0, doubles = 0;

private:
    void bridge_to(int port, const qor_mqtt_route_t &only, const char *name)
    {
        config.name = config.client_id = name;
        config.port = port;
        config.routes = &only;
        config.route_count = 1;
        bridges.push_back(qor_mqtt_module_create(&config));
        ASSERT_TRUE(bridges.back());
    }
};

const char kept[] = "allow_anonymous true\nmax_queued_messages 0\npersistence true\n";

TEST_F(MqttLosses, NoneIsLostWhenConnectionsAreCut)
{
    constexpr int cuts = 30;
    const int port = free_port();
    const std::string cuts_path = broker.folder() / "cuts";
    Program proxy;
    broker.start(kept);
    proxy.start({"python3", QOR_PROXY, std::to_string(port), std::to_string(broker.port()), "1",
                 std::to_string(cuts), "40000"},
                cuts_path);
    ASSERT_TRUE(await([&] { return somebody_listens(port); }));
    bridges_to(port, port);
    start();
    ASSERT_TRUE(connected(1));

    number(0, MANY);
    expect_all();

    const std::string lines = text_of(cuts_path);
    EXPECT_GE(std::count(lines.begin(), lines.end(), '\n'), cuts); /* the last may take both */
    end();
}

TEST_F(MqttLosses, NoneIsLostWhenTheBrokerIsEndedAndStarted)
{
    const std::string lines =
        kept + std::string("persistence_location ") + (broker.folder() / "") + "\n";
    broker.start(lines);
    bridges_to(broker.port(), broker.port());
    start();
    ASSERT_TRUE(connected(0) && connected(1));

    for (int part = 0; part < 4; part++) {
        number(part * MANY / 4, (part + 1) * MANY / 4);
        if (part < 3) {
            broker.stop(SIGTERM);
            broker.start(lines);
        }
    }

    expect_all();
    end();
}

/* A broker that is killed while the receiver is away. */
class MqttKilled : public MqttLosses {
protected:
    enum { PART = 500, KILLS = 3 };

    /* The sender, and a session for a receiver that comes and goes. */
    void start_sender()
    {
        receiver_start({"-E"});
        receiver.wait();
        sent_encode = [](void *arg, const qor_mqtt_part_t *message, void *buf, int32_t) {
            const std::string number(static_cast<const char *>(message->data),
                                     static_cast<size_t>(message->size));
            std::memcpy(buf, number.data(), number.size());
            static_cast<std::vector<int> *>(arg)->push_back(std::stoi(number));
            return message->size;
        };
        bridges_to(broker.port(), broker.port());
        qor_mqtt_module_destroy(bridges.back());
        bridges.pop_back();
        start();
        ASSERT_TRUE(connected(0));
    }

    /* Kills the broker while a part of the numbers is on its way, and starts it again: how many had
     * been acknowledged until then. */
    uint64_t kill_within(int kill, const std::string &lines)
    {
        const uint64_t before = status().acknowledged;
        for (int i = kill * PART; i < (kill + 1) * PART; i++) {
            ask(TAKEN, std::to_string(i), 0);
        }
        EXPECT_TRUE(await([&] { return status().acknowledged > before + PART / 2; }));
        broker.stop(SIGKILL);
        EXPECT_TRUE(await([&] { return status().connected == 0; }));
        const uint64_t acknowledged = status().acknowledged;
        EXPECT_LT(acknowledged, before + PART) << "killed too late";
        broker.start(lines);
        EXPECT_TRUE(await([&] { return status().acknowledged == before + PART; }));
        return acknowledged;
    }

    /* All that waits for the receiver; it is away again then. */
    std::vector<int> receive(int kill)
    {
        const std::string last = "last of " + std::to_string(kill) + "\n";
        const std::string path = broker.folder() / "received";
        Peer(broker.port()).send("numbered", last.substr(0, last.size() - 1));
        receiver_start({});
        EXPECT_TRUE(await([&] { return text_of(path).find(last) != std::string::npos; }));
        receiver.end(SIGTERM);
        std::vector<int> times(PART * KILLS);
        std::stringstream received(text_of(path));
        for (std::string line; std::getline(received, line);) {
            if (line[0] != 'l') {
                times[static_cast<size_t>(std::stoi(line))]++;
            }
        }
        return times;
    }

    Program receiver;

private:
    void receiver_start(const std::vector<std::string> &more)
    {
        std::vector<std::string> words = {"mosquitto_sub",
                                          "-V",
                                          "5",
                                          "-h",
                                          "127.0.0.1",
                                          "-p",
                                          std::to_string(broker.port()),
                                          "-i",
                                          "away",
                                          "-c",
                                          "-x",
                                          "600",
                                          "-q",
                                          "1",
                                          "-t",
                                          "numbered"};
        words.insert(words.end(), more.begin(), more.end());
        receiver.start(words, broker.folder() / "received");
    }
};

/* It may lose what it has acknowledged, but never what it has not: that is sent again. */
TEST_F(MqttKilled, OnlyWhatWasAcknowledgedIsLost)
{
    const std::string lines = kept +
                              std::string("autosave_on_changes true\nautosave_interval 1\n") +
                              "persistence_location " + (broker.folder() / "") + "\n";
    int lost = 0;
    broker.start(lines);
    start_sender();

    for (int kill = 0; kill < KILLS; kill++) {
        const uint64_t acknowledged = kill_within(kill, lines);
        const std::vector<int> times = receive(kill);
        /* They are acknowledged in the order in which they were encoded. */
        ASSERT_EQ(sent.size(), static_cast<size_t>((kill + 1) * PART));
        for (size_t i = static_cast<size_t>(kill) * PART; i < sent.size(); i++) {
            const bool there = times[static_cast<size_t>(sent[i])] > 0;
            EXPECT_TRUE(there || i < acknowledged) << "number " << sent[i] << ", kill " << kill;
            lost += !there;
        }
    }

    fprintf(stderr, "killed %d times: %d of %d acknowledged messages lost\n", KILLS, lost,
            PART * KILLS);
    RecordProperty("lost", lost);
    end();
}

} // namespace
