/* SPDX-License-Identifier: Apache-2.0 */
/* The incoming queue. */
#include "mqtt_inbox.hpp"

#include <mosquitto.h>

#include "mqtt_base.hpp"

mqtt_arrival *mqtt_arrival_make(const mqtt_route *route, const qor_mqtt_message_t &message)
{
    const size_t size = static_cast<size_t>(message.size);
    const size_t topic = strlen(message.topic) + 1;
    mqtt_arrival *arrival = mqtt_new<mqtt_arrival>(size + topic);
    if (!arrival) {
        return nullptr;
    }
    char *room = reinterpret_cast<char *>(arrival + 1);
    arrival->route = route;
    arrival->bytes = sizeof(*arrival) + size + topic;
    arrival->message = message;
    arrival->message.topic = room + size;
    arrival->message.payload = size ? room : nullptr;
    memcpy(room + size, message.topic, topic);
    if (size) {
        memcpy(room, message.payload, size);
    }
    return arrival;
}

void mqtt_arrival_free(mqtt_arrival *arrival)
{
    mosquitto_property *properties = static_cast<mosquitto_property *>(arrival->properties);
    mosquitto_property_free_all(&properties);
    free(arrival->answer);
    free(arrival);
}

mqtt_return *mqtt_return_make(const char *topic, const void *correlation, uint16_t size)
{
    const size_t length = strlen(topic) + 1;
    mqtt_return *answer = mqtt_new<mqtt_return>(length + size);
    if (!answer) {
        return nullptr;
    }
    char *room = reinterpret_cast<char *>(answer + 1);
    memcpy(room, topic, length);
    answer->topic = room;
    if (correlation) {
        memcpy(room + length, correlation, size);
        answer->correlation = room + length;
        answer->correlation_size = size;
    }
    return answer;
}

void mqtt_inbox_init(mqtt_inbox &box, size_t max_count, size_t max_bytes)
{
    box = {};
    INIT_LIST_HEAD(&box.head);
    box.max_count = max_count;
    box.max_bytes = max_bytes;
}

bool mqtt_inbox_add(mqtt_inbox &box, mqtt_arrival *arrival)
{
    if (box.count >= box.max_count || box.bytes + arrival->bytes > box.max_bytes) {
        return false;
    }
    list_add_tail(&arrival->node, &box.head);
    box.count++;
    box.bytes += arrival->bytes;
    return true;
}

mqtt_arrival *mqtt_inbox_take(mqtt_inbox &box)
{
    if (list_empty(&box.head)) {
        return nullptr;
    }
    list_head *node = box.head.next;
    mqtt_arrival *arrival = reinterpret_cast<mqtt_arrival *>(node); /* node is the first field */
    list_del(node);
    box.count--;
    box.bytes -= arrival->bytes;
    return arrival;
}
