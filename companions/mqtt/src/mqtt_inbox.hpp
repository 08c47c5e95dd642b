/* SPDX-License-Identifier: Apache-2.0 */
/* The incoming queue: messages that wait until a worker makes requests of them. */
#ifndef MQTT_INBOX_HPP
#define MQTT_INBOX_HPP

#include "mqtt_config.hpp"
#include "qor_hal.h"

/* What a request is answered to: a block of its own, or none. */
struct mqtt_return {
    const char *topic;       /* in this block */
    const void *correlation; /* in this block; NULL when there is none */
    uint16_t correlation_size;
};

/* A message that has come: one block, but for what it owns. */
struct mqtt_arrival {
    list_head node; /* first */
    const mqtt_route *route;
    qor_mqtt_message_t message;
    void *properties;    /* of libmosquitto; owned */
    mqtt_return *answer; /* of one to be served; owned; NULL: without an answer */
    int32_t hops;        /* bridges that it has passed */
    size_t bytes;
};

/* NULL without memory. The arrival owns neither properties nor answer yet. */
mqtt_arrival *mqtt_arrival_make(const mqtt_route *route, const qor_mqtt_message_t &message);
void mqtt_arrival_free(mqtt_arrival *arrival);

/* NULL without memory. */
mqtt_return *mqtt_return_make(const char *topic, const void *correlation, uint16_t size);

/* The queue. The bridge's mutex guards it. */
struct mqtt_inbox {
    list_head head;
    size_t max_count, max_bytes;
    size_t count, bytes;
};

void mqtt_inbox_init(mqtt_inbox &box, size_t max_count, size_t max_bytes);

/* Whether there was room. */
bool mqtt_inbox_add(mqtt_inbox &box, mqtt_arrival *arrival);

/* The oldest, or NULL. */
mqtt_arrival *mqtt_inbox_take(mqtt_inbox &box);

#endif /* MQTT_INBOX_HPP */
