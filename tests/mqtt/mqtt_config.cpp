/* SPDX-License-Identifier: Apache-2.0 */
/* Configurations that contradict themselves are refused with one line; the life of a bridge. */
#include "bridged.hpp"

#include <fstream>

namespace {

constexpr char create[] = "qor_mqtt_module_create";

/* A configuration with a route in each direction. */
struct Whole {
    Whole()
    {
        qor_mqtt_config_init(&config);
        config.host = "localhost";
        config.routes = routes;
        config.route_count = 4;
    }
    qor_mqtt_route_t routes[4] = {
        route("out", QOR_MQTT_OUT, 0, "out/{topic}"), route("in", QOR_MQTT_IN, 0, "in/#"),
        route("serve", QOR_MQTT_SERVE, 0, "serve/+"), route("call", QOR_MQTT_CALL, 0, "call")};
    qor_mqtt_config_t config;
};

struct Wrong {
    const char *name;
    void (*spoil)(Whole &);
    const char *text;
};

class MqttConfig : public ::testing::TestWithParam<Wrong> {};

TEST_P(MqttConfig, IsRefusedWithALine)
{
    Output output;
    Whole whole;
    GetParam().spoil(whole);

    EXPECT_EQ(qor_mqtt_module_create(&whole.config), nullptr);

    EXPECT_EQ(output.printed(), err_line("qor_mqtt", create, GetParam().text));
}

#define QOR_WRONG(name, spoil, text)        \
    Wrong                                   \
    {                                       \
        name, [](Whole &w) { spoil; }, text \
    }

const Wrong wrongs[] = {
    QOR_WRONG("Size", w.config.size = 8, "configuration: size: not known."),
    QOR_WRONG("RouteSize", w.config.route_size = 8, "configuration: route_size: not known."),
    QOR_WRONG("Reserved", w.config.reserved[6] = 1, "configuration: reserved: not 0."),
    QOR_WRONG("NoHost", w.config.host = nullptr, "configuration: host: missing."),
    QOR_WRONG("NoName", w.config.name = "", "configuration: name: not 1 to 19 characters."),
    QOR_WRONG("LongName", w.config.name = "abcdefghijklmnopqrst",
              "configuration: name: not 1 to 19 characters."),
    QOR_WRONG("Port", w.config.port = 65536, "configuration: port: out of range."),
    QOR_WRONG("Pauses", w.config.reconnect_max = 1,
              "configuration: reconnect_max: below reconnect_min."),
    QOR_WRONG("KeptSession", w.config.session_expiry = 1,
              "configuration: session_expiry: a kept session needs a client_id."),
    QOR_WRONG("PasswordAlone", w.config.password = "secret",
              "configuration: password: without a user."),
    QOR_WRONG("TwoKindsOfCa", (w.config.ca_file = "/none", w.config.system_cas = 1),
              "configuration: system_cas: not with ca_file."),
    QOR_WRONG("CaFile", w.config.ca_file = "/none",
              "configuration: ca_file: cannot be read, or has no PEM in it."),
    QOR_WRONG("KeyAlone", w.config.key = "/none",
              "configuration: key: certificate and key go together."),
    QOR_WRONG("CertificateWithoutCa", w.config.key = w.config.certificate = "/none",
              "configuration: certificate: needs a ca_file."),
    QOR_WRONG("KeyAndCa",
              (w.config.psk = "ab", w.config.psk_identity = "me", w.config.system_cas = 1),
              "configuration: psk: not with certificates."),
    QOR_WRONG("KeyWithoutName", w.config.psk = "ab",
              "configuration: psk_identity: psk and psk_identity go together."),
    QOR_WRONG("KeyNotHexadecimal", (w.config.psk = "secret", w.config.psk_identity = "me"),
              "configuration: psk: not hexadecimal."),
    QOR_WRONG("StatusTopic", w.config.status_topic = "a/#",
              "configuration: status_topic: not a topic."),
    QOR_WRONG("NoRoutes", w.config.routes = nullptr, "configuration: routes: missing."),
    QOR_WRONG("RouteName", w.routes[1].name = nullptr, "route \"\": name: missing."),
    QOR_WRONG("RouteNameTwice", w.routes[1].name = "out", "route \"out\": name: used before."),
    QOR_WRONG("Direction", w.routes[0].direction = 5, "route \"out\": direction: out of range."),
    QOR_WRONG("BusTopic", w.routes[0].bus_topic = -1, "route \"out\": bus_topic: out of range."),
    QOR_WRONG("Qos", w.routes[0].qos = 3, "route \"out\": qos: out of range."),
    QOR_WRONG("FilterInAnOutRoute", w.routes[0].mqtt_topic = "a/+",
              "route \"out\": mqtt_topic: not a topic to send to."),
    QOR_WRONG("OddFilter", w.routes[1].mqtt_topic = "a/#/b",
              "route \"in\": mqtt_topic: not a filter."),
    QOR_WRONG("NoTopic", w.routes[1].mqtt_topic = "", "route \"in\": mqtt_topic: missing."),
    QOR_WRONG("FilterTwice", w.routes[2].mqtt_topic = "in/#",
              "route \"serve\": mqtt_topic: an earlier route has this filter."),
    QOR_WRONG("CallTwice", (w.routes[0] = w.routes[3], w.routes[0].name = "first"),
              "route \"call\": bus_topic: an earlier call route has it."),
    QOR_WRONG("NoPair", w.routes[0].pair = "serve",
              "route \"out\": pair: there is no in route of that name."),
    QOR_WRONG("PairInAnInRoute", w.routes[1].pair = "in",
              "route \"in\": pair: not in this direction."),
    QOR_WRONG("NoTime", w.routes[3].wait_time = 0, "route \"call\": wait_time: below 1 ms."),
    QOR_WRONG("Room", w.routes[1].room = w.config.payload + 1,
              "route \"in\": room: above the configuration's payload."),
};
INSTANTIATE_TEST_SUITE_P(Fields, MqttConfig, ::testing::ValuesIn(wrongs),
                         [](const auto &wrong) { return std::string(wrong.param.name); });

class MqttLife : public Bridged {};

TEST_F(MqttLife, AnUnreadableCertificateIsRefused)
{
    Folder folder;
    const std::string path = folder / "ca.pem";
    std::ofstream(path) << "no certificate\n";
    config.ca_file = path.c_str();

    EXPECT_EQ(qor_mqtt_module_create(&config), nullptr);

    EXPECT_EQ(output.printed(),
              err_line("qor_mqtt", create,
                       "configuration: ca_file: cannot be read, or has no PEM in it."));
}

TEST_F(MqttLife, APasswordWithoutTlsMakesAWarningThatDoesNotShowIt)
{
    config.user = "user";
    config.password = "wordless";
    config.host = "broker.example";

    qor_context_module_t *made = qor_mqtt_module_create(&config);

    ASSERT_TRUE(made);
    EXPECT_EQ(output.count("[wrn]"), 1);
    EXPECT_EQ(output.count("wordless"), 0);
    output.clear();
    qor_mqtt_module_destroy(made);
    config.host = "127.0.0.1";
    made = qor_mqtt_module_create(&config);
    EXPECT_EQ(output.text(), "");
    qor_mqtt_module_destroy(made);
}

TEST_F(MqttLife, TextsAreCopied)
{
    std::string name = "copied", topic = "t/{module}";
    config.name = name.c_str();
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, topic.c_str())};
    bridge_add();
    name.assign("xxxxxx");
    topic.assign("xxxxxxxxxx");
    start_connected();
    Peer peer(broker.port(), "t/#");

    ask(TAKEN, "one");

    ASSERT_TRUE(peer.await_count(1));
    EXPECT_EQ(peer.got()[0].topic, "t/copied");
}

TEST_F(MqttLife, NullPointersAreReported)
{
    qor_mqtt_message_t message = {};
    qor_mqtt_config_init(nullptr);
    EXPECT_EQ(qor_mqtt_module_create(nullptr), nullptr);
    EXPECT_EQ(qor_mqtt_module_contract(nullptr, nullptr), -1);
    EXPECT_EQ(qor_mqtt_status(nullptr, nullptr), -1);
    EXPECT_EQ(qor_mqtt_property(nullptr, "x", nullptr, 0), -1);
    EXPECT_EQ(qor_mqtt_property(&message, nullptr, nullptr, 0), -1);
    EXPECT_EQ(qor_mqtt_property(&message, "x", nullptr, 1), -1);
    qor_mqtt_module_destroy(nullptr);

    EXPECT_EQ(output.printed(),
              err_line("qor_mqtt", "qor_mqtt_config_init", "!(config) == true.") +
                  err_line("qor_mqtt", create, "!(config) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_module_contract", "!(bus) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_status", "!(module) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_property", "!(message) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_property", "!(name) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_property", "!(value || room == 0) == true.") +
                  err_line("qor_mqtt", "qor_mqtt_module_destroy", "!(module) == true."));
}

TEST_F(MqttLife, WithoutAContractTheInitFails)
{
    qor_start_entry_t entries[1];
    qor_start_report_t report = {entries, 1, 0};
    table = {bridge_add(), nullptr};
    bus = qor_bus_create(table.data(), TOPICS);
    loop = Thread([this] { qor_bus_loop(bus); });

    EXPECT_EQ(qor_bus_wait_up(bus, 60000, &report), 1);

    EXPECT_EQ(entries[0].state, QOR_START_INIT_FAILED);
    EXPECT_EQ(output.count("\"mqtt\": no contract: call qor_mqtt_module_contract() before"), 1);
}

TEST_F(MqttLife, ATopicThatTheBusDoesNotHaveIsRefusedByTheContract)
{
    routes = {route("beyond", QOR_MQTT_OUT, TOPICS, "t")};
    table = {bridge_add(), nullptr};
    bus = qor_bus_create(table.data(), TOPICS);

    EXPECT_EQ(qor_mqtt_module_contract(bus, table[0]), -1);

    EXPECT_EQ(output.printed(), err_line("qor_mqtt", "qor_mqtt_module_contract",
                                         "route \"beyond\": bus_topic: out of range."));
}

TEST_F(MqttLife, DestroyIsRefusedUntilTheBusIsClosed)
{
    start_connected();
    output.clear();

    qor_mqtt_module_destroy(bridges[0]);

    EXPECT_EQ(output.printed(),
              err_line("qor_mqtt", "qor_mqtt_module_destroy", "the bus is not closed."));
}

TEST_F(MqttLife, ABusWithoutABrokerComesUpAndGoesDown)
{
    const int64_t begin = hal_timestamp();
    routes = {route("shown", QOR_MQTT_OUT, TAKEN, "t")};
    start(); /* nobody listens on the port */
    ask(TAKEN, "kept");
    ASSERT_TRUE(await([this] { return status().waiting == 1; }));

    end();

    EXPECT_LT(hal_timestamp() - begin, 20000);
    EXPECT_EQ(output.count("closed with 1 messages that were not acknowledged."), 1);
}

TEST_F(MqttLife, ABridgeServesOneBusAfterTheOther)
{
    routes = {route("taken", QOR_MQTT_IN, TAKEN, "in")};
    start_connected();
    Peer peer(broker.port());
    for (int i = 0; i < 2; i++) {
        peer.send("in", std::to_string(i));
        ASSERT_TRUE(taken.await(static_cast<size_t>(i + 1)));
        quit();
        qor_bus_close(bus);
        bus = nullptr;
        start();
        ASSERT_TRUE(connected());
    }
    EXPECT_EQ(taken.text(), "0 1");
}

TEST_F(MqttLife, TheSignalOfABrokenPipeIsLeftAsItWas)
{
    struct sigaction now;
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);

    start_connected();
    end();

    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

} // namespace
