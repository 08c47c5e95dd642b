/* SPDX-License-Identifier: Apache-2.0 */
/* The client of libmosquitto: made from a configuration, and what it calls. */
#ifndef MQTT_CLIENT_HPP
#define MQTT_CLIENT_HPP

#include "mqtt_bridge.hpp"

/* Makes the client: 0, or -1 with a line. */
int32_t mqtt_client_make(mqtt_bridge *bridge);
void mqtt_client_destroy(mqtt_bridge *bridge);

/* Connects, waiting for the resolver and for the broker's machine: what libmosquitto says. */
int mqtt_client_connect(mqtt_bridge *bridge, bool again);

/* The connection is gone, for one of libmosquitto's reasons or the broker's. Once is enough. */
void mqtt_client_lost(mqtt_bridge *bridge, int reason);

/* Gives the client a letter that counts as handed over. */
void mqtt_client_publish(mqtt_bridge *bridge, mqtt_letter *letter);

/* Up to most - 1, any as likely as another. */
uint32_t mqtt_random(uint32_t most);

#endif /* MQTT_CLIENT_HPP */
