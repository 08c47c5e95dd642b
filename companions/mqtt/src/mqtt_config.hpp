/* SPDX-License-Identifier: Apache-2.0 */
/* The bridge's own copy of a configuration, checked. */
#ifndef MQTT_CONFIG_HPP
#define MQTT_CONFIG_HPP

#include "qor_mqtt.h"

/* A route. */
struct mqtt_route {
    qor_mqtt_route_t terms; /* texts are the copy's own */
    char *topic;            /* terms.mqtt_topic, filled in */
    const mqtt_route *pair; /* the route that terms.pair names, or NULL */
};

/* A configuration; only read once it is made. */
struct mqtt_config {
    qor_mqtt_config_t terms; /* texts are the copy's own */
    mqtt_route *routes;      /* terms.route_count */
};

/* Copies and checks: 0, or -1 with one line and nothing kept. */
int32_t mqtt_config_copy(mqtt_config &config, const qor_mqtt_config_t &from);

void mqtt_config_free(mqtt_config &config);

/* Whether the connection is encrypted. */
bool mqtt_config_tls(const mqtt_config &config);

/* Whether messages come on the route. */
inline bool mqtt_route_takes(const mqtt_route &route)
{
    return route.terms.direction == QOR_MQTT_IN || route.terms.direction == QOR_MQTT_SERVE;
}

#endif /* MQTT_CONFIG_HPP */
