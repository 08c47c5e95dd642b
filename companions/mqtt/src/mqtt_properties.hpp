/* SPDX-License-Identifier: Apache-2.0 */
/* Reading the properties of messages. */
#ifndef MQTT_PROPERTIES_HPP
#define MQTT_PROPERTIES_HPP

#include <mosquitto.h>

#include "mqtt_inbox.hpp"

/* The value of the first user property of that name, the caller's to free; NULL when there is none.
 */
char *mqtt_property_text(const mosquitto_property *properties, const char *name);

/* The same as a decimal number: absent when there is none, INT32_MIN when it is none. */
int32_t mqtt_property_number(const mosquitto_property *properties, const char *name,
                             int32_t absent);

/* A copy of the user properties, for mosquitto_property_free_all(): 0, or -1 without memory and
 * nothing in copy. */
int32_t mqtt_properties_copy(mosquitto_property *&copy, const mosquitto_property *properties);

/* Where to answer; NULL without a usable response topic, or without memory. */
mqtt_return *mqtt_property_return(const mosquitto_property *properties);

#endif /* MQTT_PROPERTIES_HPP */
