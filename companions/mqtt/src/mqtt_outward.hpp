/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus shows to out routes and asks of call routes. */
#ifndef MQTT_OUTWARD_HPP
#define MQTT_OUTWARD_HPP

#include "mqtt_bridge.hpp"

/* The points at which out routes see a bus topic. */
int32_t mqtt_outward_points(const mqtt_config &config, qor_context_topic_t topic);

/* Listens and subscribes for all routes. */
void mqtt_outward_reg(mqtt_bridge *bridge, qor_context_t *context);

/* Sends what a listener sees. In a task of the module's. */
void mqtt_outward_seen(mqtt_bridge *bridge, const qor_context_msg_t *msg);

/* Handles a request on a call route: the handler's result. */
int32_t mqtt_call_make_of(mqtt_bridge *bridge, qor_context_t *self, qor_context_msg_t *msg);

/* An answer has come: on the network thread. */
void mqtt_call_answered(mqtt_bridge *bridge, const qor_mqtt_message_t &message);

/* A request was not sent. */
void mqtt_call_fail(mqtt_bridge *bridge, uint64_t number);

/* Ends the requests whose time is over. */
void mqtt_calls_expire(mqtt_bridge *bridge);

/* Ends all, because the bridge does. */
void mqtt_calls_close(mqtt_bridge *bridge);

#endif /* MQTT_OUTWARD_HPP */
