/* SPDX-License-Identifier: Apache-2.0 */
/* What the bus shows to out routes and asks of call routes. */
#include "mqtt_outward.hpp"

#include <mqtt_protocol.h>
#include <pthread.h>

#include "mqtt_arrivals.hpp"
#include "mqtt_properties.hpp"

namespace {

constexpr int64_t look_again = 50; /* for who waits: whether the bus quits, ms */

/* A payload: a part as it is, or written by the route's encode into a buffer. */
struct outward_payload {
    void *room; /* to free; NULL for a part as it is */
    const void *data;
    int32_t size; /* -1: there is none */
};

outward_payload payload_make(mqtt_bridge *bridge, const qor_mqtt_route_t &terms,
                             const qor_mqtt_part_t &part)
{
    outward_payload made = {nullptr, part.data, part.size};
    if (terms.encode) {
        made.room = malloc(static_cast<size_t>(terms.room));
        made.data = made.room;
        made.size = made.room ? terms.encode(terms.arg, &part, made.room, terms.room) : -1;
        made.size = made.size <= terms.room ? made.size : -1;
    }
    if (made.size > bridge->config.terms.payload) {
        made.size = -1;
    }
    if (made.size < 0) {
        mqtt_bridge_count(bridge, bridge->status.failed);
    }
    return made;
}

int32_t point_of(const mqtt_route &route)
{
    return route.terms.when == QOR_MQTT_AFTER ? QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER
                                              : QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE;
}

/* Whether no out route before this one has its topic. */
bool first_of_topic(const mqtt_config &config, const mqtt_route *route)
{
    for (const mqtt_route *other = config.routes; other < route; other++) {
        if (other->terms.direction == QOR_MQTT_OUT &&
            other->terms.bus_topic == route->terms.bus_topic) {
            return false;
        }
    }
    return true;
}

void seen_send(mqtt_bridge *bridge, const mqtt_route &route, const qor_mqtt_part_t &part,
               int32_t hops)
{
    mqtt_letter_terms terms = {};
    outward_payload payload = payload_make(bridge, route.terms, part);
    if (payload.size >= 0) {
        terms.topic = route.topic;
        terms.payload = payload.data;
        terms.size = payload.data ? payload.size : 0;
        terms.qos = route.terms.qos;
        terms.retain = route.terms.retain;
        terms.hops = hops + 1;
        if (route.terms.expiry) {
            terms.deadline = util_timestamp() + static_cast<int64_t>(route.terms.expiry) * 1000;
        }
        mqtt_bridge_send(bridge, terms);
    }
    free(payload.room);
}

/* Over which route a request came that a listener sees now; its route is NULL: over none. */
mqtt_routed_entry routed_seen(mqtt_bridge *bridge, int32_t session, int32_t point)
{
    mqtt_lock lock(bridge->mutex);
    const mqtt_routed_entry entry = mqtt_routed_seen(bridge->routed, session, point);
    if (entry.route && bridge->in.count > 0) {
        mqtt_pump_post_locked(bridge); /* there may be a place for the next one */
    }
    return entry;
}

const mqtt_route *call_route(const mqtt_config &config, qor_context_topic_t topic)
{
    for (int32_t i = 0; i < config.terms.route_count; i++) {
        const qor_mqtt_route_t &terms = config.routes[i].terms;
        if (terms.direction == QOR_MQTT_CALL && terms.bus_topic == topic) {
            return &config.routes[i];
        }
    }
    return nullptr;
}

/* Whether the publisher waits for the handler: its message is then on its stack, which is this
 * one. What a task handles is a copy on the heap. */
bool message_is_callers(const qor_context_msg_t *msg)
{
    pthread_attr_t attr;
    void *start = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) {
        return false;
    }
    pthread_attr_getstack(&attr, &start, &size);
    pthread_attr_destroy(&attr);
    const uintptr_t at = reinterpret_cast<uintptr_t>(msg);
    const uintptr_t from = reinterpret_cast<uintptr_t>(start);
    return at >= from && at - from < size;
}

/* Gives the call a place and sends it: whether there was one. */
bool call_send(mqtt_bridge *bridge, mqtt_call *call, const outward_payload &payload)
{
    char correlation[mqtt_correlation_size];
    const qor_mqtt_route_t &route = call->route->terms;
    mqtt_letter_terms terms = {};
    {
        mqtt_lock lock(bridge->mutex);
        const bool can = bridge->status.connected || route.wait_connection;
        if (bridge->closing || !can || !mqtt_calls_add(bridge->calls, call)) {
            bridge->status.uncalled++;
            return false;
        }
        terms.call = call->number;
        terms.deadline = call->deadline;
    }
    mqtt_correlation_print(bridge->calls, terms.call, correlation);
    terms.topic = call->route->topic;
    terms.payload = payload.data;
    terms.size = payload.data ? payload.size : 0;
    terms.qos = route.qos;
    terms.keeps = route.wait_connection;
    terms.response_topic = bridge->link.reply_topic;
    terms.correlation = correlation;
    terms.correlation_size = static_cast<uint16_t>(strlen(correlation));
    mqtt_bridge_send(bridge, terms);
    return true;
}

/* Waits until the call is over, its time is, or the bus quits, whose loop would wait for a worker
 * in here: the handler's result. */
int32_t call_wait(mqtt_bridge *bridge, mqtt_call *call, qor_context_msg_t *msg)
{
    mqtt_lock lock(bridge->mutex);
    while (!call->over) {
        struct timespec until;
        const int64_t now = util_timestamp();
        const bool ends = now >= call->deadline || qor_bus_quitting(bridge->bus) == 1;
        if (ends && mqtt_calls_take(bridge->calls, call->number)) {
            bridge->status.uncalled++;
            return -1;
        }
        /* Who has taken it out of the table is about to end it. */
        const int64_t soon = now + look_again;
        util_timespec(ends || soon < call->deadline ? soon : call->deadline, &until);
        pthread_cond_timedwait(&bridge->calls.over, &bridge->mutex, &until);
    }
    if (call->counts && msg->response.buf) {
        memcpy(msg->response.buf, mqtt_call_buf(call), static_cast<size_t>(call->size));
        msg->response.size = call->size;
    }
    return call->ret;
}

int32_t call_synchronous(mqtt_bridge *bridge, mqtt_call *call, const outward_payload &payload,
                         qor_context_msg_t *msg)
{
    const int32_t ret = call_send(bridge, call, payload) ? call_wait(bridge, call, msg) : -1;
    free(call);
    return ret;
}

/* The record is the table's once it is sent. */
int32_t call_deferred(mqtt_bridge *bridge, mqtt_call *call, const outward_payload &payload,
                      qor_context_t *self, qor_context_msg_t *msg)
{
    if (qor_context_defer(self, msg, call->route->terms.wait_time, &call->token) < 0 ||
        !call_send(bridge, call, payload)) {
        free(call);
        return -1; /* which completes what was deferred */
    }
    return 0;
}

/* Ends a call that is out of the table. */
void call_end(mqtt_bridge *bridge, mqtt_call *call)
{
    if (call->token) {
        qor_deferred_complete(call->token, call->ret, call->counts ? mqtt_call_buf(call) : nullptr,
                              call->counts ? call->size : 0);
        free(call);
        return;
    }
    mqtt_lock lock(bridge->mutex);
    call->over = true;
    pthread_cond_broadcast(&bridge->calls.over);
}

/* Its time is over: that is told by the bus to who has sent it, by the wait to who waits. */
void call_late(mqtt_bridge *bridge, mqtt_call *call)
{
    call->ret = -1;
    if (call->token) {
        free(call);
    } else {
        call_end(bridge, call);
    }
}

/* Writes the response part; the result is the call's. */
void call_decode(mqtt_call *call, const qor_mqtt_message_t &message)
{
    const qor_mqtt_route_t &terms = call->route->terms;
    const int32_t ret = mqtt_property_number(
        static_cast<const mosquitto_property *>(message.properties), mqtt_ret_name, 0);
    call->size = message.size;
    if (terms.decode) {
        call->size = terms.decode(terms.arg, &message, mqtt_call_buf(call), call->room);
    } else if (message.size > 0 && message.size <= call->room) {
        memcpy(mqtt_call_buf(call), message.payload, static_cast<size_t>(message.size));
    }
    call->counts = call->size >= 0 && call->size <= call->room;
    call->ret = call->counts && ret > QOR_RET_GONE ? ret : -1;
}

} // namespace

int32_t mqtt_outward_points(const mqtt_config &config, qor_context_topic_t topic)
{
    int32_t points = 0;
    for (int32_t i = 0; i < config.terms.route_count; i++) {
        const mqtt_route &route = config.routes[i];
        if (route.terms.direction == QOR_MQTT_OUT && route.terms.bus_topic == topic) {
            points |= point_of(route);
        }
    }
    return points;
}

void mqtt_outward_reg(mqtt_bridge *bridge, qor_context_t *context)
{
    for (int32_t i = 0; i < bridge->config.terms.route_count; i++) {
        const mqtt_route *route = &bridge->config.routes[i];
        if (route->terms.direction == QOR_MQTT_CALL) {
            qor_context_subscribe(context, route->terms.bus_topic, nullptr);
        } else if (route->terms.direction == QOR_MQTT_OUT &&
                   first_of_topic(bridge->config, route)) {
            qor_context_topic_attr_t attr = {
                QOR_CONTEXT_TOPIC_ATTR_POINT,
                mqtt_outward_points(bridge->config, route->terms.bus_topic), 0};
            qor_context_listen(context, route->terms.bus_topic, &attr);
        }
    }
}

void mqtt_outward_seen(mqtt_bridge *bridge, const qor_context_msg_t *msg)
{
    const bool after = msg->type == QOR_CONTEXT_MSG_LISTEN_AFTER;
    const mqtt_routed_entry routed = routed_seen(bridge, msg->session,
                                                 after ? QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER
                                                       : QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE);
    const qor_mqtt_part_t part = {msg->topic, msg->session, after ? msg->ret : 0,
                                  after ? msg->response.size : msg->request.size,
                                  after ? msg->response.buf : msg->request.buf};
    for (int32_t i = 0; i < bridge->config.terms.route_count; i++) {
        const mqtt_route &route = bridge->config.routes[i];
        if (route.terms.direction == QOR_MQTT_OUT && route.terms.bus_topic == msg->topic &&
            (route.terms.when == QOR_MQTT_AFTER) == after &&
            !(routed.route && routed.route == route.pair)) {
            seen_send(bridge, route, part, routed.hops);
        }
    }
}

int32_t mqtt_call_make_of(mqtt_bridge *bridge, qor_context_t *self, qor_context_msg_t *msg)
{
    const mqtt_route *route = call_route(bridge->config, msg->topic);
    if (!route) {
        return -1;
    }
    const qor_mqtt_part_t part = {msg->topic, msg->session, 0, msg->request.size, msg->request.buf};
    outward_payload payload = payload_make(bridge, route->terms, part);
    mqtt_call *call = payload.size < 0 ? nullptr
                                       : mqtt_call_make(route, msg->response.size,
                                                        util_timestamp() + route->terms.wait_time);
    int32_t ret = -1;
    if (call) {
        ret = message_is_callers(msg) ? call_synchronous(bridge, call, payload, msg)
                                      : call_deferred(bridge, call, payload, self, msg);
    }
    free(payload.room);
    return ret;
}

void mqtt_call_answered(mqtt_bridge *bridge, const qor_mqtt_message_t &message)
{
    void *correlation = nullptr;
    uint16_t size = 0;
    mqtt_call *call;
    mosquitto_property_read_binary(static_cast<const mosquitto_property *>(message.properties),
                                   MQTT_PROP_CORRELATION_DATA, &correlation, &size, false);
    {
        mqtt_lock lock(bridge->mutex);
        const uint64_t number = mqtt_correlation_read(bridge->calls, correlation, size);
        call = number ? mqtt_calls_take(bridge->calls, number) : nullptr;
        (call ? bridge->status.called : bridge->status.stray)++;
    }
    free(correlation);
    if (call) {
        call_decode(call, message);
        call_end(bridge, call);
    }
}

void mqtt_call_fail(mqtt_bridge *bridge, uint64_t number)
{
    mqtt_call *call;
    {
        mqtt_lock lock(bridge->mutex);
        call = mqtt_calls_take(bridge->calls, number);
        bridge->status.uncalled += call != nullptr;
    }
    if (call) {
        call->ret = -1;
        call_end(bridge, call);
    }
}

void mqtt_calls_expire(mqtt_bridge *bridge)
{
    for (;;) {
        mqtt_call *call;
        {
            mqtt_lock lock(bridge->mutex);
            call = mqtt_calls_take_late(bridge->calls, util_timestamp());
            bridge->status.uncalled += call != nullptr;
        }
        if (!call) {
            return;
        }
        call_late(bridge, call);
    }
}

void mqtt_calls_close(mqtt_bridge *bridge)
{
    for (;;) {
        mqtt_call *call;
        {
            mqtt_lock lock(bridge->mutex);
            call = mqtt_calls_take_late(bridge->calls, INT64_MAX);
            bridge->status.uncalled += call != nullptr;
        }
        if (!call) {
            return;
        }
        call_late(bridge, call);
    }
}
