/* SPDX-License-Identifier: Apache-2.0 */
/* Encrypted connections, with certificates made on the spot. */
#include "bridged.hpp"

namespace {

class MqttTls : public Bridged {
protected:
    MqttTls()
    {
        routes = {route("taken", QOR_MQTT_IN, TAKEN, "in")};
        broker.port();
    }

    std::string path(const std::string &name) const { return broker.folder() / name; }

    void openssl(const std::string &words)
    {
        const std::string command = "openssl " + words + " >/dev/null 2>&1";
        ASSERT_EQ(system(command.c_str()), 0) << command;
    }

    void ca_make(const std::string &name)
    {
        openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" +
                name + " -keyout " + path(name + ".key") + " -out " + path(name + ".pem"));
    }

    /* A key and a certificate for a host, from that authority. */
    void certificate_make(const std::string &name, const std::string &ca, const std::string &host,
                          const std::string &days = "2")
    {
        std::ofstream(path(name + ".ext")) << "subjectAltName=" << host << "\n";
        openssl("req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name +
                " -keyout " + path(name + ".key") + " -out " + path(name + ".csr"));
        openssl("x509 -req -in " + path(name + ".csr") + " -CA " + path(ca + ".pem") + " -CAkey " +
                path(ca + ".key") + " -CAcreateserial -days " + days + " -extfile " +
                path(name + ".ext") + " -out " + path(name + ".pem"));
    }

    std::string broker_with(const std::string &name, const std::string &more = "")
    {
        return "allow_anonymous true\ncertfile " + path(name + ".pem") + "\nkeyfile " +
               path(name + ".key") + "\n" + more;
    }

    /* The bridge trusts ca.pem; the broker has a certificate for the host. */
    void start_trusting(const std::string &host, const std::string &days = "2")
    {
        ca_make("ca");
        certificate_make("server", "ca", host, days);
        broker.start(broker_with("server"));
        ca_path = path("ca.pem");
        config.ca_file = ca_path.c_str();
        start();
    }

    /* Attempts end, and none of them has led to a connection. */
    void expect_refused()
    {
        EXPECT_TRUE(output.await("does not come about: "));
        ASSERT_TRUE(await([this] {
            return broker.log().find("OpenSSL Error") != std::string::npos ||
                   broker.log().find("Socket error") != std::string::npos ||
                   broker.log().find("Protocol error") != std::string::npos;
        }));
        EXPECT_EQ(status().connects, 0u);
    }

    std::string ca_path, key_path, certificate_path;
};

TEST_F(MqttTls, ACertificateOfATrustedAuthorityIsTaken)
{
    start_trusting("IP:127.0.0.1");

    EXPECT_TRUE(connected());
}

TEST_F(MqttTls, AnotherAuthorityIsRefused)
{
    ca_make("other");
    ca_path = path("other.pem");
    ca_make("ca");
    certificate_make("server", "ca", "IP:127.0.0.1");
    broker.start(broker_with("server"));
    config.ca_file = ca_path.c_str();
    start();

    expect_refused();
}

TEST_F(MqttTls, AnotherHostNameIsRefused)
{
    start_trusting("DNS:other.example");

    expect_refused();
}

TEST_F(MqttTls, AnExpiredCertificateIsRefused)
{
    start_trusting("IP:127.0.0.1", "-1");

    expect_refused();
}

TEST_F(MqttTls, ACertificateThatHasChangedIsLookedAtAgain)
{
    start_trusting("IP:127.0.0.1");
    ASSERT_TRUE(connected());
    broker.stop();
    ca_make("other");
    certificate_make("changed", "other", "IP:127.0.0.1");
    broker.start(broker_with("changed"));

    ASSERT_TRUE(await([this] { return broker.log().find("OpenSSL Error") != std::string::npos; }));
    EXPECT_EQ(status().connects, 1u);
    broker.stop();
    broker.start(broker_with("server"));
    EXPECT_TRUE(await([this] { return status().connects == 2; }));
}

TEST_F(MqttTls, TheBrokerMayAskForACertificate)
{
    ca_make("ca");
    certificate_make("server", "ca", "IP:127.0.0.1");
    certificate_make("client", "ca", "DNS:client");
    broker.start(
        broker_with("server", "require_certificate true\ncafile " + path("ca.pem") + "\n"));
    ca_path = path("ca.pem");
    certificate_path = path("client.pem");
    key_path = path("client.key");
    config.ca_file = ca_path.c_str();
    config.certificate = certificate_path.c_str();
    config.key = key_path.c_str();

    start();

    EXPECT_TRUE(connected());
}

TEST_F(MqttTls, AKeyMayBeSharedBeforehand)
{
    std::ofstream(path("keys")) << "me:abcdef\n";
    broker.start("allow_anonymous true\npsk_hint here\npsk_file " + path("keys") + "\n");
    config.psk = "abcdef";
    config.psk_identity = "me";

    start();

    EXPECT_TRUE(connected());
    EXPECT_EQ(output.count("abcdef"), 0);
}

TEST_F(MqttTls, AnotherKeyIsRefused)
{
    std::ofstream(path("keys")) << "me:abcdef\n";
    broker.start("allow_anonymous true\npsk_hint here\npsk_file " + path("keys") + "\n");
    config.psk = "fedcba";
    config.psk_identity = "me";

    start();

    expect_refused();
}

TEST_F(MqttTls, AnOldVersionIsRefused)
{
    Program server;
    const std::string log = path("server.log");
    ca_make("ca");
    certificate_make("server", "ca", "IP:127.0.0.1");
    server.start({"openssl", "s_server", "-accept", std::to_string(broker.port()), "-cert",
                  path("server.pem"), "-key", path("server.key"), "-www", "-tls1_1", "-cipher",
                  "DEFAULT@SECLEVEL=0"},
                 log);
    ASSERT_TRUE(await([this] { return somebody_listens(broker.port()); }));
    ca_path = path("ca.pem");
    config.ca_file = ca_path.c_str();

    start();

    EXPECT_TRUE(await([&] {
        return text_of(log).find("unsupported protocol") != std::string::npos ||
               text_of(log).find("alert protocol version") != std::string::npos;
    })) << text_of(log);
    EXPECT_EQ(status().connects, 0u);
}

} // namespace
