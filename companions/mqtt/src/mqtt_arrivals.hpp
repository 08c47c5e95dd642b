/* SPDX-License-Identifier: Apache-2.0 */
/* What comes from the broker, until it has become requests on the bus and these are answered. */
#ifndef MQTT_ARRIVALS_HPP
#define MQTT_ARRIVALS_HPP

#include "mqtt_bridge.hpp"

/* Sorts a message: on the network thread, which it never holds up. */
void mqtt_arrived(mqtt_bridge *bridge, const struct mosquitto_message *message,
                  const mosquitto_property *properties);

/* Has a task of the module look at the inboxes and at the status. The caller holds the bridge's
 * mutex. */
void mqtt_pump_post_locked(mqtt_bridge *bridge);

/* Takes the response to a request that came over a route, or that told the status. In a task of the
 * module's. */
void mqtt_response(mqtt_bridge *bridge, const qor_context_msg_t *msg);

#endif /* MQTT_ARRIVALS_HPP */
