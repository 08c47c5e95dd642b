/* SPDX-License-Identifier: Apache-2.0 */
/* What comes from the broker. The network thread sorts it, a task of the module makes requests of
 * it: a request may wait for the start of who is to handle it. */
#include "mqtt_arrivals.hpp"

#include <mqtt_protocol.h>

#include "mqtt_outward.hpp"
#include "mqtt_properties.hpp"
#include "mqtt_topic.hpp"

namespace {

constexpr int32_t at_a_time = 64; /* messages in a task: others of the module have their turn */

/* Answers a request that was served. */
void answer_send(mqtt_bridge *bridge, const mqtt_route *route, const mqtt_return *answer,
                 int32_t ret, const void *payload, int32_t size)
{
    mqtt_letter_terms terms = {};
    if (!answer) {
        return;
    }
    terms.topic = answer->topic;
    terms.correlation = answer->correlation;
    terms.correlation_size = answer->correlation_size;
    terms.payload = size > 0 ? payload : nullptr;
    terms.size = size > 0 ? size : 0;
    terms.qos = route->terms.qos;
    terms.answers = 1;
    terms.ret = ret;
    mqtt_bridge_count(bridge, bridge->status.served);
    mqtt_bridge_send(bridge, terms);
}

/* It ends without having been a request. */
void arrival_end(mqtt_bridge *bridge, mqtt_arrival *arrival, uint64_t &count)
{
    mqtt_bridge_count(bridge, count);
    answer_send(bridge, arrival->route, arrival->answer, -1, nullptr, 0);
    mqtt_arrival_free(arrival);
}

/* The first route that the topic is for, or NULL. */
const mqtt_route *route_find(const mqtt_config &config, const char *topic)
{
    for (int32_t i = 0; i < config.terms.route_count; i++) {
        const mqtt_route &route = config.routes[i];
        if (mqtt_route_takes(route) && mqtt_filter_matches(route.topic, topic)) {
            return &route;
        }
    }
    return nullptr;
}

mqtt_arrival *arrival_take_in(mqtt_bridge *bridge, const mqtt_route *route,
                              const qor_mqtt_message_t &seen, const mosquitto_property *properties)
{
    mqtt_arrival *arrival = mqtt_arrival_make(route, seen);
    mosquitto_property *copy = nullptr;
    if (!arrival || mqtt_properties_copy(copy, properties) < 0) {
        free(arrival);
        return nullptr;
    }
    arrival->properties = copy;
    arrival->message.properties = copy;
    arrival->hops = mqtt_property_number(copy, mqtt_hop_name, 0);
    if (route->terms.direction == QOR_MQTT_SERVE) {
        arrival->answer = mqtt_property_return(properties);
        if (!arrival->answer) {
            mqtt_bridge_count(bridge, bridge->status.unanswerable);
        }
    }
    return arrival;
}

/* Which count it belongs to when it goes no further; NULL: it does. */
uint64_t *arrival_refused(mqtt_bridge *bridge, const mqtt_arrival *arrival)
{
    const qor_mqtt_route_t &terms = arrival->route->terms;
    if (arrival->message.retained && (terms.skip_retained || terms.direction == QOR_MQTT_SERVE)) {
        return &bridge->status.in_skipped;
    }
    if (arrival->hops < 0 || arrival->hops >= mqtt_hops_most) {
        return &bridge->status.in_skipped;
    }
    mqtt_lock lock(bridge->mutex);
    const bool serves = terms.direction == QOR_MQTT_SERVE;
    if (serves && bridge->serve_open >= bridge->config.terms.open) {
        return &bridge->status.in_dropped;
    }
    return nullptr;
}

/* Whether a task will make a request of it. */
bool arrival_keep(mqtt_bridge *bridge, mqtt_arrival *arrival)
{
    const bool serves = arrival->route->terms.direction == QOR_MQTT_SERVE;
    mqtt_lock lock(bridge->mutex);
    if (!bridge->context || !mqtt_inbox_add(serves ? bridge->serve : bridge->in, arrival)) {
        return false;
    }
    bridge->serve_open += serves;
    mqtt_pump_post_locked(bridge);
    return true;
}

/* Writes the request part, and gives its size or -1. */
int32_t request_decode(const mqtt_arrival *arrival, void *buf)
{
    const qor_mqtt_route_t &terms = arrival->route->terms;
    if (terms.decode) {
        const int32_t size = terms.decode(terms.arg, &arrival->message, buf, terms.room);
        return size <= terms.room ? size : -1;
    }
    return arrival->message.size;
}

/* Publishes a request that the table knows already, because listeners see it at once. */
bool request_publish(mqtt_bridge *bridge, mqtt_arrival *arrival, void *buf, int32_t size)
{
    const qor_mqtt_route_t &terms = arrival->route->terms;
    int32_t session = 0;
    if (size < 0 || qor_context_session(bridge->context, &session) < 0) {
        return false;
    }
    mqtt_routed_entry entry = {};
    entry.route = arrival->route;
    entry.answer = arrival->answer;
    entry.session = session;
    entry.hops = arrival->hops;
    entry.points = mqtt_outward_points(bridge->config, terms.bus_topic);
    {
        mqtt_lock lock(bridge->mutex);
        mqtt_routed_add(bridge->routed, entry);
    }
    if (qor_context_req_ret_s(bridge->context, session, terms.bus_topic, size ? buf : nullptr, size,
                              terms.response) < 0) {
        mqtt_lock lock(bridge->mutex);
        mqtt_routed_failed(bridge->routed, session, QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE,
                           util_timestamp());
        return false;
    }
    arrival->answer = nullptr;
    return true;
}

void serve_over(mqtt_bridge *bridge, const mqtt_route *route)
{
    if (route->terms.direction == QOR_MQTT_SERVE) {
        mqtt_lock lock(bridge->mutex);
        bridge->serve_open--;
    }
}

void request_make(mqtt_bridge *bridge, mqtt_arrival *arrival)
{
    const qor_mqtt_route_t &terms = arrival->route->terms;
    void *room = terms.decode ? malloc(static_cast<size_t>(terms.room)) : nullptr;
    void *buf = terms.decode ? room : const_cast<void *>(arrival->message.payload);
    const int32_t size = terms.decode && !room ? -1 : request_decode(arrival, buf);
    if (request_publish(bridge, arrival, buf, size)) {
        mqtt_arrival_free(arrival);
    } else {
        serve_over(bridge, arrival->route);
        arrival_end(bridge, arrival, bridge->status.in_failed);
    }
    free(room);
}

/* The next one that may become a request. */
mqtt_arrival *arrival_next(mqtt_bridge *bridge)
{
    mqtt_lock lock(bridge->mutex);
    mqtt_arrival *arrival = mqtt_inbox_take(bridge->serve);
    if (!arrival && bridge->routed.in_count < bridge->config.terms.in_open &&
        mqtt_routed_free(bridge->routed, util_timestamp()) > bridge->config.terms.open) {
        arrival = mqtt_inbox_take(bridge->in);
    }
    return arrival;
}

/* Tells the status on the bus, one request at a time. */
void status_tell(mqtt_bridge *bridge)
{
    const qor_context_topic_t topic = bridge->config.terms.status_bus_topic;
    qor_topic_core_t *topics = qor_bus_topic_core_get(bridge->bus, QOR_BUS_ROLE_USER);
    qor_mqtt_status_t status;
    {
        mqtt_lock lock(bridge->mutex);
        if (topic < 0 || !bridge->status_changed || bridge->status_open) {
            return;
        }
        bridge->status_changed = false;
        if (!qor_topic_core_someone_subscribed(topics, topic)) {
            return;
        }
        bridge->status_open = true;
    }
    mqtt_bridge_status(bridge, status);
    if (qor_context_req(bridge->context, topic, &status, sizeof(status)) < 0) {
        mqtt_lock lock(bridge->mutex);
        bridge->status_open = false;
    }
}

/* Where arrivals become requests. Posted as long as there may be one. */
void *qor_mqtt_pump(void *arg)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    {
        mqtt_lock lock(bridge->mutex);
        bridge->pump_posted = false;
    }
    status_tell(bridge);
    for (int32_t i = 0; i < at_a_time; i++) {
        mqtt_arrival *arrival = arrival_next(bridge);
        if (!arrival) {
            return nullptr;
        }
        request_make(bridge, arrival);
    }
    mqtt_lock lock(bridge->mutex);
    mqtt_pump_post_locked(bridge);
    return nullptr;
}

/* Writes the payload of an answer and sends it. */
void response_answer(mqtt_bridge *bridge, const mqtt_routed_entry &entry,
                     const qor_context_msg_t *msg)
{
    const qor_mqtt_route_t &terms = entry.route->terms;
    const int32_t room = terms.encode ? terms.room : 0;
    const qor_mqtt_part_t part = {msg->topic, msg->session, msg->ret, msg->response.size,
                                  msg->response.buf};
    void *buf = room ? malloc(static_cast<size_t>(room)) : msg->response.buf;
    int32_t size = msg->response.size;
    if (terms.encode) {
        size = buf ? terms.encode(terms.arg, &part, buf, room) : -1;
    }
    if (size < 0 || (terms.encode && size > room)) {
        mqtt_bridge_count(bridge, bridge->status.failed);
        answer_send(bridge, entry.route, entry.answer, -1, nullptr, 0);
    } else {
        answer_send(bridge, entry.route, entry.answer, msg->ret, buf, size);
    }
    if (room) {
        free(buf);
    }
}

} // namespace

void mqtt_pump_post_locked(mqtt_bridge *bridge)
{
    if (!bridge->context || bridge->pump_posted) {
        return;
    }
    /* A timer is taken even where the module's queue is full. */
    bridge->pump_posted =
        qor_context_x_run_name(bridge->context, "mqtt_in", qor_mqtt_pump, bridge) >= 0 ||
        qor_context_x_timer_name(bridge->context, "mqtt_in", qor_mqtt_pump, bridge, 1) >= 0;
}

void mqtt_arrived(mqtt_bridge *bridge, const struct mosquitto_message *message,
                  const mosquitto_property *properties)
{
    const qor_mqtt_message_t seen = {message->topic, message->payload, message->payloadlen,
                                     message->qos,   message->retain,  0,
                                     properties};
    if (strcmp(message->topic, bridge->link.reply_topic) == 0) {
        mqtt_call_answered(bridge, seen);
        return;
    }
    const mqtt_route *route = route_find(bridge->config, message->topic);
    if (!route) {
        return; /* of a session in which there was one */
    }
    mqtt_bridge_count(bridge, bridge->status.in);
    qor_mqtt_message_t kept = seen;
    const bool too_long = kept.size > bridge->config.terms.payload;
    kept.size = too_long ? 0 : kept.size;
    mqtt_arrival *arrival = arrival_take_in(bridge, route, kept, properties);
    if (!arrival) {
        mqtt_bridge_count(bridge, bridge->status.in_dropped);
        return;
    }
    uint64_t *refused = too_long ? &bridge->status.in_failed : arrival_refused(bridge, arrival);
    if (refused) {
        arrival_end(bridge, arrival, *refused);
    } else if (!arrival_keep(bridge, arrival)) {
        arrival_end(bridge, arrival, bridge->status.in_dropped);
    }
}

void mqtt_response(mqtt_bridge *bridge, const qor_context_msg_t *msg)
{
    mqtt_routed_entry entry;
    {
        mqtt_lock lock(bridge->mutex);
        entry = mqtt_routed_answered(bridge->routed, msg->session, util_timestamp());
    }
    if (entry.route) {
        if (entry.answer) {
            response_answer(bridge, entry, msg);
        }
        serve_over(bridge, entry.route);
        free(entry.answer);
    }
    mqtt_lock lock(bridge->mutex);
    if (!entry.route && msg->topic == bridge->config.terms.status_bus_topic) {
        bridge->status_open = false;
    }
    if (bridge->in.count > 0 || bridge->status_changed) {
        mqtt_pump_post_locked(bridge);
    }
}
