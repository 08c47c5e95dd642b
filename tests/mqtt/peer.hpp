/* SPDX-License-Identifier: Apache-2.0 */
/* A client of the test's own at the broker, without a bus. */
#ifndef QOR_TESTS_MQTT_PEER_HPP
#define QOR_TESTS_MQTT_PEER_HPP

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "await.hpp"

/* A message as a peer has got it. */
struct Got {
    std::string topic, payload, response_topic, correlation, ret, hop;
    bool retained;
};

class Peer {
public:
    explicit Peer(int port, const std::string &filter = "", int qos = 1)
    {
        mosquitto_lib_init();
        client_ = mosquitto_new(nullptr, true, this);
        mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_subscribe_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int, const int *,
                        const mosquitto_property *) { static_cast<Peer *>(self)->subscribed_++; });
        mosquitto_connect_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int, const mosquitto_property *) {
                static_cast<Peer *>(self)->connected_ = true;
            });
        mosquitto_publish_v5_callback_set(
            client_, [](mosquitto *, void *self, int, int, const mosquitto_property *) {
                static_cast<Peer *>(self)->sent_++;
            });
        mosquitto_message_v5_callback_set(client_, on_message);
        EXPECT_EQ(mosquitto_connect(client_, "127.0.0.1", port, 60), 0);
        EXPECT_EQ(mosquitto_loop_start(client_), 0);
        EXPECT_TRUE(await([this] { return connected_.load(); }));
        if (!filter.empty()) {
            subscribe(filter, qos);
        }
    }
    ~Peer()
    {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
        mosquitto_lib_cleanup();
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    void subscribe(const std::string &filter, int qos = 1)
    {
        const int before = subscribed_;
        EXPECT_EQ(mosquitto_subscribe(client_, nullptr, filter.c_str(), qos), 0);
        EXPECT_TRUE(await([&] { return subscribed_ > before; }));
    }

    /* Properties that are empty are left out. */
    void send(const std::string &topic, const std::string &payload,
              const std::string &response_topic = "", const std::string &correlation = "",
              const std::string &ret = "", bool retain = false, const std::string &hop = "",
              int qos = 1)
    {
        mosquitto_property *properties = nullptr;
        if (!response_topic.empty()) {
            mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC,
                                          response_topic.c_str());
        }
        if (!correlation.empty()) {
            mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                          correlation.data(),
                                          static_cast<uint16_t>(correlation.size()));
        }
        pair_add(properties, "qor-ret", ret);
        pair_add(properties, "qor-hop", hop);
        EXPECT_EQ(mosquitto_publish_v5(client_, nullptr, topic.c_str(),
                                       static_cast<int>(payload.size()), payload.data(), qos,
                                       retain, properties),
                  0);
        mosquitto_property_free_all(&properties);
    }

    /* How many of those are with the broker. */
    int sent() const { return sent_; }

    size_t count() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_.size();
    }
    std::vector<Got> got() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }
    bool await_count(size_t count, const Where &where = Where::here()) const
    {
        return await([&] { return this->count() >= count; }, where);
    }

    /* All payloads, with a blank between each two. */
    std::string payloads() const
    {
        std::string all;
        for (const Got &one : got()) {
            all += (all.empty() ? "" : " ") + one.payload;
        }
        return all;
    }

private:
    static void pair_add(mosquitto_property *&properties, const char *name,
                         const std::string &value)
    {
        if (!value.empty()) {
            mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, name,
                                               value.c_str());
        }
    }

    static void on_message(mosquitto *, void *self, const mosquitto_message *message,
                           const mosquitto_property *properties)
    {
        Got got;
        char *text = nullptr, *name = nullptr;
        void *data = nullptr;
        uint16_t size = 0;
        got.topic = message->topic;
        got.payload.assign(static_cast<const char *>(message->payload),
                           static_cast<size_t>(message->payloadlen));
        got.retained = message->retain;
        if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &text, false)) {
            got.response_topic = text;
            free(text);
        }
        if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size,
                                           false)) {
            got.correlation.assign(static_cast<const char *>(data), size);
            free(data);
        }
        bool next = false;
        for (const mosquitto_property *at = properties;
             at && (at = mosquitto_property_read_string_pair(at, MQTT_PROP_USER_PROPERTY, &name,
                                                             &text, next));
             next = true) {
            (std::string(name) == "qor-ret" ? got.ret : got.hop) = text;
            free(name);
            free(text);
        }
        Peer *peer = static_cast<Peer *>(self);
        std::lock_guard<std::mutex> lock(peer->mutex_);
        peer->got_.push_back(got);
    }

    mosquitto *client_;
    std::atomic<bool> connected_{false};
    std::atomic<int> subscribed_{0}, sent_{0};
    mutable std::mutex mutex_;
    std::vector<Got> got_;
};

#endif /* QOR_TESTS_MQTT_PEER_HPP */
