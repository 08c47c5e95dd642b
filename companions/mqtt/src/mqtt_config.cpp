/* SPDX-License-Identifier: Apache-2.0 */
/* The bridge's own copy of a configuration: each check names the field, and the first to fail ends
 * it. */
#include "mqtt_config.hpp"

#include <stdio.h>

#include "mqtt_base.hpp"
#include "mqtt_topic.hpp"
#include "qor_context_module.h"

namespace {

constexpr char file_tag[] = "qor_mqtt";
constexpr char the_function[] = "qor_mqtt_module_create"; /* whose lines these are */
constexpr int32_t default_room = 4096;
constexpr int32_t no_limit = INT32_MAX;

using config_text = const char *qor_mqtt_config_t::*;
constexpr config_text config_texts[] = {
    &qor_mqtt_config_t::name,         &qor_mqtt_config_t::host,
    &qor_mqtt_config_t::client_id,    &qor_mqtt_config_t::user,
    &qor_mqtt_config_t::password,     &qor_mqtt_config_t::ca_file,
    &qor_mqtt_config_t::certificate,  &qor_mqtt_config_t::key,
    &qor_mqtt_config_t::psk,          &qor_mqtt_config_t::psk_identity,
    &qor_mqtt_config_t::status_topic, &qor_mqtt_config_t::reply_prefix,
};

using route_text = const char *qor_mqtt_route_t::*;
constexpr route_text route_texts[] = {&qor_mqtt_route_t::name, &qor_mqtt_route_t::mqtt_topic,
                                      &qor_mqtt_route_t::pair};

/* What a number may be. */
struct config_range {
    const char *name;
    int32_t qor_mqtt_config_t::*field;
    int32_t least, most;
};
constexpr config_range config_ranges[] = {
    {"port", &qor_mqtt_config_t::port, 1, 65535},
    {"keep_alive", &qor_mqtt_config_t::keep_alive, 5, 65535},
    {"clean_start", &qor_mqtt_config_t::clean_start, 0, 1},
    {"system_cas", &qor_mqtt_config_t::system_cas, 0, 1},
    {"status_bus_topic", &qor_mqtt_config_t::status_bus_topic, -1, no_limit},
    {"reconnect_min", &qor_mqtt_config_t::reconnect_min, 1, no_limit},
    {"reconnect_max", &qor_mqtt_config_t::reconnect_max, 1, no_limit},
    {"connect_time", &qor_mqtt_config_t::connect_time, 1, no_limit},
    {"linger", &qor_mqtt_config_t::linger, 0, no_limit},
    {"inflight", &qor_mqtt_config_t::inflight, 1, 65535},
    {"open", &qor_mqtt_config_t::open, 1, 65535},
    {"in_open", &qor_mqtt_config_t::in_open, 1, 65535},
    {"calls", &qor_mqtt_config_t::calls, 1, 65535},
    {"depth", &qor_mqtt_config_t::depth, 1, no_limit},
    {"out_messages", &qor_mqtt_config_t::out_messages, 1, no_limit},
    {"out_bytes", &qor_mqtt_config_t::out_bytes, 1, no_limit},
    {"in_messages", &qor_mqtt_config_t::in_messages, 1, no_limit},
    {"in_bytes", &qor_mqtt_config_t::in_bytes, 1, no_limit},
    {"payload", &qor_mqtt_config_t::payload, 1, 268435455}, /* the longest that MQTT has */
    {"stack_size", &qor_mqtt_config_t::stack_size, 1, no_limit},
    {"route_count", &qor_mqtt_config_t::route_count, 0, no_limit},
};

struct route_range {
    const char *name;
    int32_t qor_mqtt_route_t::*field;
    int32_t least, most;
};
constexpr route_range route_ranges[] = {
    {"direction", &qor_mqtt_route_t::direction, QOR_MQTT_OUT, QOR_MQTT_CALL},
    {"bus_topic", &qor_mqtt_route_t::bus_topic, 0, no_limit},
    {"qos", &qor_mqtt_route_t::qos, 0, 2},
    {"retain", &qor_mqtt_route_t::retain, 0, 1},
    {"skip_retained", &qor_mqtt_route_t::skip_retained, 0, 1},
    {"local", &qor_mqtt_route_t::local, 0, 1},
    {"when", &qor_mqtt_route_t::when, QOR_MQTT_BEFORE, QOR_MQTT_AFTER},
    {"expiry", &qor_mqtt_route_t::expiry, 0, no_limit},
    {"response", &qor_mqtt_route_t::response, 0, no_limit},
    {"wait_time", &qor_mqtt_route_t::wait_time, 0, no_limit},
    {"wait_connection", &qor_mqtt_route_t::wait_connection, 0, 1},
    {"room", &qor_mqtt_route_t::room, 0, no_limit},
};

bool config_wrong(const char *field, const char *what)
{
    MQTT_LINE("err", the_function, "configuration: %s: %s", field, what);
    return false;
}

bool route_wrong(const qor_mqtt_route_t &route, const char *field, const char *what)
{
    MQTT_LINE("err", the_function, "route \"%s\": %s: %s", route.name ? route.name : "", field,
              what);
    return false;
}

bool no_memory()
{
    MQTT_LINE("err", the_function, "no memory for a bridge.");
    return false;
}

bool all_zero(const uint32_t *words, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (words[i] != 0) {
            return false;
        }
    }
    return true;
}

/* Whether a file can be read and has PEM in it; the rest shows when a connection is made. */
bool pem_readable(const char *path)
{
    char line[256];
    bool found = false;
    FILE *file = fopen(path, "re");
    while (file && !found && fgets(line, sizeof(line), file)) {
        found = strncmp(line, "-----BEGIN ", 11) == 0;
    }
    if (file) {
        fclose(file);
    }
    return found;
}

bool ranges_right(const qor_mqtt_config_t &terms)
{
    for (const config_range &range : config_ranges) {
        if (terms.*range.field < range.least || terms.*range.field > range.most) {
            return config_wrong(range.name, "out of range.");
        }
    }
    return terms.reconnect_max >= terms.reconnect_min ||
           config_wrong("reconnect_max", "below reconnect_min.");
}

bool names_right(const qor_mqtt_config_t &terms)
{
    if (!terms.name || !*terms.name || strlen(terms.name) >= sizeof(qor_context_module::name)) {
        return config_wrong("name", "not 1 to 19 characters.");
    }
    if (!terms.host || !*terms.host) {
        return config_wrong("host", "missing.");
    }
    if (terms.client_id && !*terms.client_id) {
        return config_wrong("client_id", "empty.");
    }
    if (terms.session_expiry > 0 && !terms.client_id) {
        return config_wrong("session_expiry", "a kept session needs a client_id.");
    }
    if (terms.password && !terms.user) {
        return config_wrong("password", "without a user.");
    }
    if (terms.status_topic && !mqtt_topic_valid(terms.status_topic)) {
        return config_wrong("status_topic", "not a topic.");
    }
    return (terms.reply_prefix && mqtt_topic_valid(terms.reply_prefix)) ||
           config_wrong("reply_prefix", "not a topic.");
}

bool hexadecimal(const char *text)
{
    return *text && text[strspn(text, "0123456789abcdefABCDEF")] == '\0';
}

bool keys_right(const qor_mqtt_config_t &terms)
{
    if (terms.ca_file && terms.system_cas) {
        return config_wrong("system_cas", "not with ca_file.");
    }
    if (!terms.certificate != !terms.key) {
        return config_wrong(terms.key ? "key" : "certificate", "certificate and key go together.");
    }
    if (terms.certificate && !terms.ca_file) {
        return config_wrong("certificate", "needs a ca_file.");
    }
    if (terms.psk && (terms.ca_file || terms.system_cas)) {
        return config_wrong("psk", "not with certificates.");
    }
    if (!terms.psk != !terms.psk_identity) {
        return config_wrong("psk_identity", "psk and psk_identity go together.");
    }
    if (terms.psk && !hexadecimal(terms.psk)) {
        return config_wrong("psk", "not hexadecimal.");
    }
    constexpr struct {
        const char *name;
        config_text path;
    } files[] = {{"ca_file", &qor_mqtt_config_t::ca_file},
                 {"certificate", &qor_mqtt_config_t::certificate},
                 {"key", &qor_mqtt_config_t::key}};
    for (const auto &file : files) {
        if (terms.*file.path && !pem_readable(terms.*file.path)) {
            return config_wrong(file.name, "cannot be read, or has no PEM in it.");
        }
    }
    return true;
}

bool config_right(const qor_mqtt_config_t &terms)
{
    if (terms.size != sizeof(terms)) {
        return config_wrong("size", "not known.");
    }
    if (terms.route_size != sizeof(qor_mqtt_route_t)) {
        return config_wrong("route_size", "not known.");
    }
    if (terms.reserved0 != 0 || !all_zero(terms.reserved, 7)) {
        return config_wrong("reserved", "not 0.");
    }
    if (!ranges_right(terms) || !names_right(terms) || !keys_right(terms)) {
        return false;
    }
    return terms.route_count == 0 || terms.routes || config_wrong("routes", "missing.");
}

/* Fields that say something in other directions only. */
bool direction_right(const qor_mqtt_route_t &terms)
{
    const bool out = terms.direction == QOR_MQTT_OUT;
    const bool in = terms.direction == QOR_MQTT_IN;
    const bool call = terms.direction == QOR_MQTT_CALL;
    const struct {
        const char *name;
        bool wrong;
    } fields[] = {
        {"pair", terms.pair && !out},
        {"retain", terms.retain && !out},
        {"when", terms.when != QOR_MQTT_BEFORE && !out},
        {"expiry", terms.expiry && !out},
        {"skip_retained", terms.skip_retained && !in},
        {"local", terms.local && !in},
        {"response", terms.response && terms.direction != QOR_MQTT_SERVE},
        {"wait_time", terms.wait_time && !call},
        {"wait_connection", terms.wait_connection && !call},
        {"encode", terms.encode && in},
        {"decode", terms.decode && out},
    };
    for (const auto &field : fields) {
        if (field.wrong) {
            return route_wrong(terms, field.name, "not in this direction.");
        }
    }
    return !call || terms.wait_time > 0 || route_wrong(terms, "wait_time", "below 1 ms.");
}

bool route_right(const qor_mqtt_route_t &terms, int32_t payload)
{
    if (!terms.name || !*terms.name) {
        return route_wrong(terms, "name", "missing.");
    }
    for (const route_range &range : route_ranges) {
        if (terms.*range.field < range.least || terms.*range.field > range.most) {
            return route_wrong(terms, range.name, "out of range.");
        }
    }
    if (!all_zero(terms.reserved, 4)) {
        return route_wrong(terms, "reserved", "not 0.");
    }
    if (terms.room > payload || terms.response > payload) {
        return route_wrong(terms, terms.room > payload ? "room" : "response",
                           "above the configuration's payload.");
    }
    return (terms.mqtt_topic && *terms.mqtt_topic) ? direction_right(terms)
                                                   : route_wrong(terms, "mqtt_topic", "missing.");
}

/* Two that would be told apart by nothing. */
bool route_unlike(const mqtt_config &config, const mqtt_route &route)
{
    for (const mqtt_route *other = config.routes; other < &route; other++) {
        if (strcmp(other->terms.name, route.terms.name) == 0) {
            return route_wrong(route.terms, "name", "used before.");
        }
        if (mqtt_route_takes(route) && mqtt_route_takes(*other) &&
            strcmp(other->topic, route.topic) == 0) {
            return route_wrong(route.terms, "mqtt_topic", "an earlier route has this filter.");
        }
        if (route.terms.direction == QOR_MQTT_CALL && other->terms.direction == QOR_MQTT_CALL &&
            other->terms.bus_topic == route.terms.bus_topic) {
            return route_wrong(route.terms, "bus_topic", "an earlier call route has it.");
        }
    }
    return true;
}

bool topic_right(const mqtt_route &route)
{
    if (mqtt_route_takes(route)) {
        return mqtt_filter_valid(route.topic) ||
               route_wrong(route.terms, "mqtt_topic", "not a filter.");
    }
    return mqtt_topic_valid(route.topic) ||
           route_wrong(route.terms, "mqtt_topic", "not a topic to send to.");
}

bool pair_find(const mqtt_config &config, mqtt_route &route)
{
    for (int32_t i = 0; route.terms.pair && i < config.terms.route_count; i++) {
        const mqtt_route &other = config.routes[i];
        if (other.terms.direction == QOR_MQTT_IN &&
            strcmp(other.terms.name, route.terms.pair) == 0) {
            route.pair = &other;
        }
    }
    return !route.terms.pair || route.pair ||
           route_wrong(route.terms, "pair", "there is no in route of that name.");
}

/* Replaces a text by a copy; one that cannot be had becomes NULL. */
bool text_copy(const char *&text)
{
    text = text ? strdup(text) : nullptr;
    return text;
}

bool config_texts_copy(qor_mqtt_config_t &terms)
{
    bool all = true;
    for (config_text text : config_texts) {
        all &= !(terms.*text) || text_copy(terms.*text);
    }
    return all;
}

bool route_copy(mqtt_route &route, const qor_mqtt_route_t &from, const char *module)
{
    bool all = true;
    route.terms = from;
    for (route_text text : route_texts) {
        all &= !(from.*text) || text_copy(route.terms.*text);
    }
    if (from.room == 0) {
        route.terms.room = default_room;
    }
    route.topic = all ? mqtt_route_takes(route)
                            ? strdup(from.mqtt_topic)
                            : mqtt_topic_fill(from.mqtt_topic, module, from.bus_topic)
                      : nullptr;
    return route.topic;
}

bool routes_copy(mqtt_config &config, const qor_mqtt_config_t &from)
{
    config.routes = static_cast<mqtt_route *>(
        calloc(static_cast<size_t>(from.route_count) + 1, sizeof(mqtt_route)));
    for (int32_t i = 0; config.routes && i < from.route_count; i++) {
        if (!route_right(from.routes[i], from.payload)) {
            return false;
        }
        if (!route_copy(config.routes[i], from.routes[i], config.terms.name)) {
            return no_memory();
        }
        if (!topic_right(config.routes[i]) || !route_unlike(config, config.routes[i])) {
            return false;
        }
    }
    for (int32_t i = 0; config.routes && i < from.route_count; i++) {
        if (!pair_find(config, config.routes[i])) {
            return false;
        }
    }
    return config.routes || no_memory();
}

bool loopback(const char *host)
{
    return strcmp(host, "localhost") == 0 || strncmp(host, "127.", 4) == 0 ||
           strcmp(host, "::1") == 0;
}

} // namespace

int32_t mqtt_config_copy(mqtt_config &config, const qor_mqtt_config_t &from)
{
    if (!config_right(from)) {
        return -1;
    }
    config.terms = from;
    config.terms.routes = nullptr;
    const bool copied = config_texts_copy(config.terms) || no_memory();
    if (!copied || !routes_copy(config, from)) {
        mqtt_config_free(config);
        return -1;
    }
    if (config.terms.password && !mqtt_config_tls(config) && !loopback(config.terms.host)) {
        MQTT_LINE("wrn", the_function,
                  "configuration: password: goes to the broker as it is, without TLS.");
    }
    return 0;
}

/* Texts that could be read out of memory that is used again are wiped. */
void mqtt_config_free(mqtt_config &config)
{
    constexpr config_text secrets[] = {&qor_mqtt_config_t::password, &qor_mqtt_config_t::psk};
    for (config_text secret : secrets) {
        if (const char *text = config.terms.*secret) {
            explicit_bzero(const_cast<char *>(text), strlen(text));
        }
    }
    for (config_text text : config_texts) {
        free(const_cast<char *>(config.terms.*text));
    }
    for (int32_t i = 0; config.routes && i < config.terms.route_count; i++) {
        for (route_text text : route_texts) {
            free(const_cast<char *>(config.routes[i].terms.*text));
        }
        free(config.routes[i].topic);
    }
    free(config.routes);
    config = {};
}

bool mqtt_config_tls(const mqtt_config &config)
{
    return config.terms.ca_file || config.terms.system_cas || config.terms.psk;
}
