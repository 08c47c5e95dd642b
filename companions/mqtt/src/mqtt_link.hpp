/* SPDX-License-Identifier: Apache-2.0 */
/* The connection to the broker, and the thread that keeps it. */
#ifndef MQTT_LINK_HPP
#define MQTT_LINK_HPP

#include "mqtt_bridge.hpp"

/* Makes the client and starts the thread: 0, or -1 with a line and nothing kept. */
int32_t mqtt_link_start(mqtt_bridge *bridge);

/* Ends the thread within the configuration's linger, or leaves it behind with a line. */
void mqtt_link_stop(mqtt_bridge *bridge);

/* There is something to do for the thread. */
void mqtt_link_wake(mqtt_bridge *bridge);

#endif /* MQTT_LINK_HPP */
