/* SPDX-License-Identifier: Apache-2.0 */
/* The client of libmosquitto. Its callbacks run on the network thread, inside of what that calls.
 */
#include "mqtt_client.hpp"

#include <mqtt_protocol.h>
#include <signal.h>
#include <sys/random.h>

#include "mqtt_arrivals.hpp"
#include "mqtt_topic.hpp"

namespace {

constexpr char file_tag[] = "qor_mqtt";
constexpr char online[] = "online", offline[] = "offline";

/* Setting up libmosquitto is not safe for threads of its own. */
hal_thread_mutex_t library_mutex = PTHREAD_MUTEX_INITIALIZER;

/* libmosquitto ignores SIGPIPE for the whole process when it makes a client. That is not a
 * library's to decide, and the network thread has the signal blocked anyway. */
struct mosquitto *client_new(const char *id, bool clean, mqtt_bridge *bridge)
{
    struct sigaction before;
    mqtt_lock lock(library_mutex);
    sigaction(SIGPIPE, nullptr, &before);
    mosquitto_lib_init();
    struct mosquitto *client = mosquitto_new(id, clean, bridge);
    if (!client) {
        mosquitto_lib_cleanup();
    }
    sigaction(SIGPIPE, &before, nullptr);
    return client;
}

/* What libmosquitto has refused, or nullptr. */
const char *tls_set(struct mosquitto *client, const qor_mqtt_config_t &terms)
{
    if (terms.psk) {
        return mosquitto_tls_psk_set(client, terms.psk, terms.psk_identity, nullptr) == 0 ? nullptr
                                                                                          : "psk";
    }
    if (terms.system_cas) {
        return mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1) == 0 ? nullptr
                                                                               : "system_cas";
    }
    if (!terms.ca_file) {
        return nullptr;
    }
    return mosquitto_tls_set(client, terms.ca_file, nullptr, terms.certificate, terms.key,
                             nullptr) == 0
               ? nullptr
               : "ca_file";
}

const char *options_set(struct mosquitto *client, const qor_mqtt_config_t &terms)
{
    if (mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5) != 0 ||
        mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, terms.inflight) != 0 ||
        mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1) != 0) {
        return "inflight";
    }
    /* Without this it would write the acknowledgement of a message before it calls us. */
    if (mosquitto_threaded_set(client, true) != 0) {
        return "thread";
    }
    if (terms.user && mosquitto_username_pw_set(client, terms.user, terms.password) != 0) {
        return "user";
    }
    if (terms.status_topic && mosquitto_will_set_v5(client, terms.status_topic, sizeof(offline) - 1,
                                                    offline, 1, true, nullptr) != 0) {
        return "status_topic";
    }
    return tls_set(client, terms);
}

void status_change(mqtt_bridge *bridge, bool connected)
{
    mqtt_lock lock(bridge->mutex);
    bridge->status.connected = connected;
    bridge->status.since = util_timestamp();
    bridge->status.connects += connected;
    if (!connected) {
        mqtt_outbox_disconnect(bridge->outbox);
    }
    bridge->status_changed = true;
    mqtt_pump_post_locked(bridge);
}

void birth_send(mqtt_bridge *bridge)
{
    mqtt_letter_terms terms = {};
    terms.topic = bridge->config.terms.status_topic;
    terms.payload = online;
    terms.size = sizeof(online) - 1;
    terms.qos = terms.retain = 1;
    mqtt_letter *letter = terms.topic ? mqtt_letter_make(terms) : nullptr;
    if (letter) {
        mqtt_lock lock(bridge->mutex);
        mqtt_outbox_add_first(bridge->outbox, letter);
    }
}

/* What a broker is asked for with a filter. */
int subscription_options(const mqtt_route &route)
{
    if (route.terms.direction == QOR_MQTT_SERVE) {
        return MQTT_SUB_OPT_SEND_RETAIN_NEVER; /* who asked is gone */
    }
    const bool shared = mqtt_filter_shared(route.topic); /* these cannot be without */
    return (route.terms.skip_retained ? MQTT_SUB_OPT_SEND_RETAIN_NEVER : 0) |
           (route.terms.local || shared ? 0 : MQTT_SUB_OPT_NO_LOCAL);
}

void all_subscribe(mqtt_bridge *bridge)
{
    mqtt_link &link = bridge->link;
    const int32_t count = bridge->config.terms.route_count;
    bool calls = false;
    for (int32_t i = 0; i < count; i++) {
        const mqtt_route &route = bridge->config.routes[i];
        calls |= route.terms.direction == QOR_MQTT_CALL;
        if (mqtt_route_takes(route)) {
            mosquitto_subscribe_v5(link.client, &link.mids[i], route.topic, route.terms.qos,
                                   subscription_options(route), nullptr);
        }
    }
    if (calls) {
        mosquitto_subscribe_v5(link.client, &link.mids[count], link.reply_topic, 2,
                               MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
    }
}

void on_connect(struct mosquitto *, void *arg, int reason, int,
                const mosquitto_property *properties)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    const qor_mqtt_config_t &terms = bridge->config.terms;
    uint16_t most = UINT16_MAX;
    if (reason != 0) {
        MQTT_WRN("\"%s\": %s, port %d, refuses: %s", terms.name, terms.host, terms.port,
                 mosquitto_reason_string(reason));
        return;
    }
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &most, false);
    bridge->link.inflight = static_cast<size_t>(most < terms.inflight ? most : terms.inflight);
    bridge->link.greeted = true;
    MQTT_INF("\"%s\": connected to %s, port %d.", terms.name, terms.host, terms.port);
    all_subscribe(bridge); /* before anything is sent that could be answered */
    birth_send(bridge);
    status_change(bridge, true);
}

void on_disconnect(struct mosquitto *, void *arg, int reason, const mosquitto_property *)
{
    mqtt_client_lost(static_cast<mqtt_bridge *>(arg), reason);
}

void on_publish(struct mosquitto *, void *arg, int mid, int reason, const mosquitto_property *)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    {
        mqtt_lock lock(bridge->mutex);
        mqtt_letter *letter = mqtt_outbox_find(bridge->outbox, mid);
        if (letter) {
            mqtt_outbox_end(bridge->outbox, letter,
                            reason > 0x7f ? mqtt_refused : mqtt_acknowledged);
        }
    }
    mqtt_bridge_over(bridge);
}

void on_subscribe(struct mosquitto *, void *arg, int mid, int count, const int *granted,
                  const mosquitto_property *)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    const int32_t routes = bridge->config.terms.route_count;
    for (int32_t i = 0; i <= routes; i++) {
        if (bridge->link.mids[i] == mid && count > 0 && granted[0] > 0x7f) {
            MQTT_WRN("\"%s\": route \"%s\": the broker refuses the subscription: %s",
                     bridge->config.terms.name,
                     i < routes ? bridge->config.routes[i].terms.name : "answers",
                     mosquitto_reason_string(granted[0]));
        }
    }
}

void on_message(struct mosquitto *, void *arg, const struct mosquitto_message *message,
                const mosquitto_property *properties)
{
    mqtt_arrived(static_cast<mqtt_bridge *>(arg), message, properties);
}

void number_add(mosquitto_property *&properties, const char *name, int32_t number)
{
    char text[16];
    hal_snprintf(text, sizeof(text), "%d", number);
    mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, name, text);
}

mosquitto_property *properties_make(const mqtt_letter_terms &terms)
{
    mosquitto_property *properties = nullptr;
    if (terms.deadline) {
        const int64_t left = terms.deadline - util_timestamp();
        mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     static_cast<uint32_t>(left > 0 ? (left + 999) / 1000 : 1));
    }
    if (terms.response_topic) {
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, terms.response_topic);
    }
    if (terms.correlation) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, terms.correlation,
                                      terms.correlation_size);
    }
    if (terms.answers) {
        number_add(properties, mqtt_ret_name, terms.ret);
    }
    if (terms.hops) {
        number_add(properties, mqtt_hop_name, terms.hops);
    }
    return properties;
}

/* Whether the broker has said before that it takes no such message. */
bool refuses(int result)
{
    return result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_QOS_NOT_SUPPORTED ||
           result == MOSQ_ERR_RETAIN_NOT_SUPPORTED;
}

} // namespace

uint32_t mqtt_random(uint32_t most)
{
    uint32_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        return most / 2;
    }
    return number % most;
}

int32_t mqtt_client_make(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    char id[24];
    hal_snprintf(id, sizeof(id), "qor%s", bridge->calls.start);
    struct mosquitto *client =
        client_new(terms.client_id ? terms.client_id : id, terms.clean_start, bridge);
    const char *refused = client ? options_set(client, terms) : "memory";
    bridge->link.client = client;
    if (refused) {
        MQTT_ERR("\"%s\": libmosquitto refuses: %s", terms.name, refused);
        mqtt_client_destroy(bridge);
        return -1;
    }
    mosquitto_connect_v5_callback_set(client, on_connect);
    mosquitto_disconnect_v5_callback_set(client, on_disconnect);
    mosquitto_publish_v5_callback_set(client, on_publish);
    mosquitto_subscribe_v5_callback_set(client, on_subscribe);
    mosquitto_message_v5_callback_set(client, on_message);
    return 0;
}

void mqtt_client_destroy(mqtt_bridge *bridge)
{
    if (bridge->link.client) {
        mqtt_lock lock(library_mutex);
        mosquitto_destroy(bridge->link.client);
        mosquitto_lib_cleanup();
        bridge->link.client = nullptr;
    }
}

int mqtt_client_connect(mqtt_bridge *bridge, bool again)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    mosquitto_property *properties = nullptr;
    if (again) {
        return mosquitto_reconnect(bridge->link.client);
    }
    /* What comes without an acknowledgement comes twice when the connection is cut. */
    mosquitto_property_add_int16(&properties, MQTT_PROP_RECEIVE_MAXIMUM,
                                 static_cast<uint16_t>(terms.inflight));
    if (terms.session_expiry) {
        mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                     terms.session_expiry);
    }
    const int result = mosquitto_connect_bind_v5(bridge->link.client, terms.host, terms.port,
                                                 terms.keep_alive, nullptr, properties);
    mosquitto_property_free_all(&properties);
    return result;
}

void mqtt_client_lost(mqtt_bridge *bridge, int reason)
{
    if (!bridge->link.greeted) {
        return;
    }
    bridge->link.greeted = false;
    MQTT_INF("\"%s\": disconnected: %s", bridge->config.terms.name,
             reason > 0x7f ? mosquitto_reason_string(reason) : mosquitto_strerror(reason));
    status_change(bridge, false);
}

void mqtt_client_publish(mqtt_bridge *bridge, mqtt_letter *letter)
{
    const mqtt_letter_terms &terms = letter->terms;
    mosquitto_property *properties = properties_make(terms);
    const int result =
        mosquitto_publish_v5(bridge->link.client, &letter->mid, terms.topic, terms.size,
                             terms.payload, terms.qos, terms.retain, properties);
    mosquitto_property_free_all(&properties);
    /* Without a connection it keeps what is above QoS 0, and sends it after the next connect. */
    if (result == MOSQ_ERR_SUCCESS || (result == MOSQ_ERR_NO_CONN && terms.qos > 0)) {
        return;
    }
    MQTT_WRN("\"%s\": a message for %s is not sent: %s", bridge->config.terms.name, terms.topic,
             mosquitto_strerror(result));
    mqtt_lock lock(bridge->mutex);
    mqtt_outbox_end(bridge->outbox, letter, refuses(result) ? mqtt_refused : mqtt_dropped);
}
