/* SPDX-License-Identifier: Apache-2.0 */
/* A bus with a bridge to a broker, and two modules that tests write. */
#ifndef QOR_TESTS_MQTT_BRIDGED_HPP
#define QOR_TESTS_MQTT_BRIDGED_HPP

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "await.hpp"
#include "broker.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "output.hpp"
#include "peer.hpp"
#include "qor.h"
#include "qor_mqtt.h"
#include "thread.hpp"

inline std::string text_of(const qor_context_request_t &part)
{
    return part.size > 0
               ? std::string(static_cast<const char *>(part.buf), static_cast<size_t>(part.size))
               : "";
}

inline std::string response_of(const qor_context_msg_t *msg)
{
    return msg->response.size > 0 ? std::string(static_cast<const char *>(msg->response.buf),
                                                static_cast<size_t>(msg->response.size))
                                  : "";
}

inline qor_mqtt_route_t route(const char *name, int32_t direction, int32_t bus_topic,
                              const char *mqtt_topic)
{
    qor_mqtt_route_t made = {};
    made.name = name;
    made.direction = direction;
    made.bus_topic = bus_topic;
    made.mqtt_topic = mqtt_topic;
    made.qos = 1;
    made.wait_time = direction == QOR_MQTT_CALL ? 30000 : 0;
    return made;
}

/* The bus has two modules beside the bridges: one takes requests on TAKEN and notes them, the other
 * asks and notes responses. */
class Bridged : public ::testing::Test {
protected:
    enum { TAKEN, ASKED, STATUS, TOPICS = 8 };

    Bridged()
    {
        qor_mqtt_config_init(&config);
        config.host = "127.0.0.1";
        config.reconnect_min = 20;
        config.reconnect_max = 100;
        config.linger = 500;
        taker.reg = [](qor_context_t *c) { qor_context_subscribe(c, TAKEN, nullptr); };
        taker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            taken.add(text_of(msg->request));
            return 0;
        };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
                answers.add(std::to_string(msg->ret) + ":" + response_of(msg));
            }
            return 0;
        };
    }

    void TearDown() override { end(); }

    /* Makes a bridge with those routes; before start(). */
    qor_context_module_t *bridge_add()
    {
        config.port = broker.port();
        config.routes = routes.data();
        config.route_count = static_cast<int32_t>(routes.size());
        qor_context_module_t *made = qor_mqtt_module_create(&config);
        EXPECT_TRUE(made) << output.text();
        bridges.push_back(made);
        return made;
    }

    /* Loops with the bridges that were added, or with one for config and routes. */
    void start()
    {
        if (bridges.empty()) {
            bridge_add();
        }
        table = bridges;
        table.push_back(&taker.descriptor);
        table.push_back(&asker.descriptor);
        table.push_back(nullptr);
        bus = qor_bus_create(table.data(), TOPICS);
        for (qor_context_module_t *bridge : bridges) {
            ASSERT_EQ(qor_mqtt_module_contract(bus, bridge), 0);
        }
        loop = Thread([this] { qor_bus_loop(bus); });
        ASSERT_EQ(qor_bus_wait_up(bus, 60000, nullptr), 0);
    }

    /* The same, with a broker that is there and connected to. */
    void start_connected(const std::string &lines = "allow_anonymous true\n")
    {
        broker.start(lines);
        start();
        ASSERT_TRUE(connected());
    }

    bool connected(size_t bridge = 0, const Where &where = Where::here())
    {
        return await([&] { return status(bridge).connected == 1; }, where);
    }

    qor_mqtt_status_t status(size_t bridge = 0)
    {
        qor_mqtt_status_t copy = {};
        copy.size = sizeof(copy);
        EXPECT_EQ(qor_mqtt_status(bridges.at(bridge), &copy), 0);
        EXPECT_EQ(copy.accepted,
                  copy.acknowledged + copy.refused + copy.dropped + copy.expired + copy.waiting);
        return copy;
    }

    /* Sends a request of the asker's. */
    int32_t ask(int32_t topic, const std::string &text, int32_t room = 64)
    {
        return qor_context_req_ret(asker.context(), topic, const_cast<char *>(text.data()),
                                   static_cast<int32_t>(text.size()), room);
    }

    void quit()
    {
        if (loop.joinable()) {
            qor_bus_quit(bus);
            loop.join();
        }
    }

    void end()
    {
        quit();
        if (bus) {
            qor_bus_close(bus);
            bus = nullptr;
        }
        for (qor_context_module_t *bridge : bridges) {
            qor_mqtt_module_destroy(bridge);
        }
        bridges.clear();
    }

    Output output;
    Broker broker;
    Module taker{"taker"}, asker{"asker"};
    Journal taken, answers;
    qor_mqtt_config_t config;
    std::vector<qor_mqtt_route_t> routes;
    std::vector<qor_context_module_t *> bridges, table;
    qor_bus_t *bus = nullptr;
    Thread loop;
};

#endif /* QOR_TESTS_MQTT_BRIDGED_HPP */
