/* SPDX-License-Identifier: Apache-2.0 */
/* What a bridge makes of what comes from a broker: topics and filters, properties, answers to
 * calls, and whole messages up to where a task of the module would make requests of them. There is
 * neither a broker nor a bus. The first byte of an input says which of these it is about. */
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "mqtt_arrivals.hpp"
#include "mqtt_bridge.hpp"
#include "mqtt_properties.hpp"
#include "mqtt_topic.hpp"
#include "qor_mqtt.h"
#include "world.hpp"

namespace {

std::string text_of(Bytes &bytes, const std::vector<const char *> &parts, uint32_t most)
{
    std::string text;
    for (uint32_t n = bytes.below(most + 1); n > 0; n--) {
        text += parts[bytes.below(static_cast<uint32_t>(parts.size()))];
    }
    return text;
}

/* ---- topics and filters */

std::vector<std::string> levels_of(const std::string &topic)
{
    std::vector<std::string> levels(1);
    for (char letter : topic) {
        if (letter == '/') {
            levels.emplace_back();
        } else {
            levels.back() += letter;
        }
    }
    return levels;
}

bool topic_right(const std::string &topic)
{
    return !topic.empty() && topic.find_first_of("+#") == std::string::npos;
}

bool filter_right(const std::string &filter)
{
    const std::vector<std::string> levels = levels_of(filter);
    for (size_t i = 0; i < levels.size(); i++) {
        const bool wild = levels[i].find_first_of("+#") != std::string::npos;
        if (wild && (levels[i].size() > 1 || (levels[i] == "#" && i + 1 < levels.size()))) {
            return false;
        }
    }
    return !filter.empty();
}

/* Both right. Wildcards do not stand for what the broker says of itself. */
bool matches(const std::string &filter, const std::string &topic)
{
    const std::vector<std::string> wanted = levels_of(filter), levels = levels_of(topic);
    if (topic[0] == '$' && (filter[0] == '+' || filter[0] == '#')) {
        return false;
    }
    size_t i = 0;
    for (; i < wanted.size() && wanted[i] != "#"; i++) {
        if (i >= levels.size() || (wanted[i] != "+" && wanted[i] != levels[i])) {
            return false;
        }
    }
    return i < wanted.size() || i == levels.size();
}

void run_topics(Bytes &bytes)
{
    const std::string filter = text_of(bytes, {"a", "b", "/", "+", "#", "/+", "/#", "$"}, 12);
    const std::string topic = text_of(bytes, {"a", "b", "/", "a/", "+", "#", "$"}, 12);
    EXPECT(mqtt_topic_valid(topic.c_str()) == topic_right(topic));
    EXPECT(mqtt_filter_valid(filter.c_str()) == filter_right(filter));
    if (topic_right(topic) && filter_right(filter)) {
        EXPECT(mqtt_filter_matches(filter.c_str(), topic.c_str()) == matches(filter, topic));
        EXPECT(mqtt_filter_matches(("$share/g/" + filter).c_str(), topic.c_str()) ==
               matches(filter, topic));
    }
}

void replace(std::string &text, const std::string &mark, const std::string &by)
{
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += by.size()) {
        text.replace(at, mark.size(), by);
    }
}

void run_patterns(Bytes &bytes)
{
    const std::string pattern =
        text_of(bytes, {"{module}", "{topic}", "{module", "topic}", "{", "}", "/", "x"}, 20);
    const std::string module = text_of(bytes, {"m", "/", "{t"}, 8);
    const int32_t number = bytes.word();
    std::string expected = pattern;
    replace(expected, "{module}", "\1"); /* or its own text could be taken for the other */
    replace(expected, "{topic}", std::to_string(number));
    replace(expected, "\1", module);
    char *filled = mqtt_topic_fill(pattern.c_str(), module.c_str(), number);
    EXPECT(filled && expected == filled);
    free(filled);
}

/* ---- properties */

struct Properties {
    mosquitto_property *list = nullptr;
    std::vector<std::pair<std::string, std::string>> user;
    std::string response_topic, correlation;
    bool responds = false;

    Properties() = default;
    Properties(const Properties &) = delete;
    Properties &operator=(const Properties &) = delete;
    ~Properties() { mosquitto_property_free_all(&list); }

    void add(const std::string &name, const std::string &value)
    {
        user.emplace_back(name, value);
        mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                           value.c_str());
    }

    const std::string *find(const std::string &name) const
    {
        for (const auto &one : user) {
            if (one.first == name) {
                return &one.second;
            }
        }
        return nullptr;
    }

    /* As the bridge is to read it. */
    int32_t number(const std::string &name, int32_t absent) const
    {
        const std::string *text = find(name);
        if (!text) {
            return absent;
        }
        const size_t sign = (*text)[0] == '-' ? 1 : 0;
        const std::string digits = text->substr(sign);
        if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
            return INT32_MIN;
        }
        int64_t value = 0;
        for (char digit : digits) {
            value = value * 10 + (digit - '0');
            value = value > INT32_MAX ? int64_t{INT32_MAX} + 1 : value;
        }
        return value > INT32_MAX ? INT32_MIN : static_cast<int32_t>(sign ? -value : value);
    }

    bool answerable() const { return responds && topic_right(response_topic); }
};

void properties_fill(Bytes &bytes, Properties &properties)
{
    for (uint32_t n = bytes.below(4); n > 0; n--) {
        const std::string name = text_of(bytes, {"qor-hop", "qor-ret", "qor-ho", "other"}, 1);
        const std::string value =
            bytes.below(3) ? std::to_string(static_cast<int32_t>(bytes.below(8)) - 2)
                           : text_of(bytes, {"1", "4", "x", "-", "2147483647", "8", "000"}, 5);
        properties.add(name, value);
    }
    properties.responds = bytes.below(3) > 0;
    if (properties.responds) {
        properties.response_topic = text_of(bytes, {"back", "a", "/", "+", "#"}, 3);
        mosquitto_property_add_string(&properties.list, MQTT_PROP_RESPONSE_TOPIC,
                                      properties.response_topic.c_str());
    }
    for (uint32_t n = bytes.below(6); n > 0; n--) {
        properties.correlation += static_cast<char>(bytes.byte());
    }
    if (!properties.correlation.empty()) {
        mosquitto_property_add_binary(&properties.list, MQTT_PROP_CORRELATION_DATA,
                                      properties.correlation.data(),
                                      static_cast<uint16_t>(properties.correlation.size()));
    }
}

void run_properties(Bytes &bytes)
{
    Properties properties;
    properties_fill(bytes, properties);
    for (const char *name : {"qor-hop", "qor-ret", "other", "none"}) {
        const std::string *expected = properties.find(name);
        char *text = mqtt_property_text(properties.list, name);
        EXPECT((text != nullptr) == (expected != nullptr));
        EXPECT(!text || *expected == text);
        free(text);
        EXPECT(mqtt_property_number(properties.list, name, 77) == properties.number(name, 77));
        qor_mqtt_message_t message = {};
        char value[4] = "???";
        message.properties = properties.list;
        const int32_t length = qor_mqtt_property(&message, name, value, sizeof(value));
        EXPECT(length == (expected ? static_cast<int32_t>(expected->size()) : -1));
        EXPECT((expected ? expected->substr(0, 3) : "???") == value);
    }
    mqtt_return *answer = mqtt_property_return(properties.list);
    EXPECT((answer != nullptr) == properties.answerable());
    if (answer) {
        EXPECT(properties.response_topic == answer->topic);
        EXPECT(properties.correlation == std::string(static_cast<const char *>(answer->correlation),
                                                     answer->correlation_size));
    }
    free(answer);
}

/* ---- messages */

constexpr int32_t longest = 16, call_room = 8;

/* A bridge that no bus has: what would become a request finds no place. */
class Messages {
public:
    explicit Messages(Bytes &bytes) : bytes_(bytes)
    {
        qor_mqtt_route_t routes[4] = {};
        const char *const topics[] = {"in/#", "ask/+", "in/+/b", "far"};
        const int32_t directions[] = {QOR_MQTT_IN, QOR_MQTT_SERVE, QOR_MQTT_IN, QOR_MQTT_CALL};
        for (size_t i = 0; i < 4; i++) {
            routes[i].name = topics[i];
            routes[i].mqtt_topic = topics[i];
            routes[i].direction = directions[i];
            routes[i].qos = 1;
            routes[i].room = longest;
            routes[i].bus_topic = static_cast<int32_t>(i);
        }
        routes[0].skip_retained = static_cast<int32_t>(bytes.below(2));
        routes[3].wait_time = 1000;
        skips_ = routes[0].skip_retained;
        qor_mqtt_config_t config;
        qor_mqtt_config_init(&config);
        config.host = "broker";
        config.payload = longest;
        config.routes = routes;
        config.route_count = 4;
        config.calls = 4;
        module_ = qor_mqtt_module_create(&config);
        EXPECT(module_);
        bridge_ = mqtt_bridge_of(module_);
    }

    void run()
    {
        while (bytes_.left()) {
            if (bytes_.below(4) == 0) {
                call_add();
            } else {
                message_take();
            }
            expect_status();
        }
    }

    ~Messages()
    {
        for (mqtt_call *call : calls_) {
            free(call);
        }
        qor_mqtt_module_destroy(module_);
    }
    Messages(const Messages &) = delete;
    Messages &operator=(const Messages &) = delete;

private:
    void call_add()
    {
        mqtt_call *call = mqtt_call_make(&bridge_->config.routes[3], call_room, world->now + 1000);
        if (mqtt_calls_add(bridge_->calls, call)) {
            calls_.push_back(call);
            open_++;
        } else {
            EXPECT(open_ == 4);
            free(call);
        }
    }

    /* Correlation data that are right, or nearly. */
    std::string correlation_make(uint64_t &number)
    {
        const char *const starts[] = {bridge_->calls.start, bridge_->calls.start,
                                      bridge_->calls.start, "0123456789abcdef", ""};
        const std::string start = starts[bytes_.below(5)];
        const std::string between = text_of(bytes_, {"-", "-", "-", "+"}, 1);
        const std::string digits =
            bytes_.below(4)
                ? std::to_string(bytes_.below(8))
                : text_of(bytes_, {"0", "1", "9999999", "x", "18446744073709551617"}, 3);
        const bool right = start == bridge_->calls.start && between == "-" && !digits.empty() &&
                           digits[0] != '0' && digits.size() < 4 &&
                           digits.find_first_not_of("0123456789") == std::string::npos;
        number = right ? std::stoul(digits) : 0;
        return start + between + digits;
    }

    mqtt_call *call_open(uint64_t number) const
    {
        for (mqtt_call *call : calls_) {
            if (call->number == number && !call->over) {
                return call;
            }
        }
        return nullptr;
    }

    void answer_take(mosquitto_message &message)
    {
        uint64_t number;
        Properties properties;
        const std::string correlation = correlation_make(number);
        const int32_t ret = static_cast<int32_t>(bytes_.below(6)) - 3;
        if (bytes_.below(2)) {
            properties.add("qor-ret", std::to_string(ret));
        }
        mosquitto_property_add_binary(&properties.list, MQTT_PROP_CORRELATION_DATA,
                                      correlation.data(),
                                      static_cast<uint16_t>(correlation.size()));
        message.topic = bridge_->link.reply_topic;
        mqtt_call *call = call_open(number);
        mqtt_arrived(bridge_, &message, properties.list);
        (call ? expected_.called : expected_.stray)++;
        if (call) {
            const bool fits = message.payloadlen <= call_room;
            open_--;
            EXPECT(call->over);
            EXPECT(call->counts == fits);
            EXPECT(call->ret == (fits ? properties.number("qor-ret", 0) : -1));
            EXPECT(!fits || call->size == message.payloadlen);
            EXPECT(!fits || call->size == 0 ||
                   memcmp(mqtt_call_buf(call), message.payload, static_cast<size_t>(call->size)) ==
                       0);
        }
    }

    /* What is answered to who asked: always that it could not be. */
    void expect_answer(const Properties &properties)
    {
        const mqtt_letter *letter =
            reinterpret_cast<const mqtt_letter *>(bridge_->outbox.waiting.prev);
        EXPECT(bridge_->outbox.waiting_count > 0);
        EXPECT(properties.response_topic == letter->terms.topic);
        EXPECT(letter->terms.answers && letter->terms.ret == -1 && letter->terms.size == 0);
        EXPECT(properties.correlation ==
               std::string(static_cast<const char *>(letter->terms.correlation),
                           letter->terms.correlation_size));
    }

    void routed_take(mosquitto_message &message, const std::string &topic)
    {
        Properties properties;
        properties_fill(bytes_, properties);
        const bool in = matches("in/#", topic), serves = matches("ask/+", topic);
        message.topic = const_cast<char *>(topic.c_str());
        mqtt_arrived(bridge_, &message, properties.list);
        if (!in && !serves) {
            return;
        }
        const int32_t hops = properties.number("qor-hop", 0);
        const bool old = message.retain && (serves || skips_);
        expected_.in++;
        (message.payloadlen > longest   ? expected_.in_failed
         : old || hops < 0 || hops >= 4 ? expected_.in_skipped
                                        : expected_.in_dropped)++;
        if (serves && properties.answerable()) {
            expected_.served++;
            expect_answer(properties);
        } else if (serves) {
            expected_.unanswerable++;
        }
    }

    void message_take()
    {
        char payload[longest + 4];
        mosquitto_message message = {};
        memset(payload, 'p', sizeof(payload));
        message.payloadlen = static_cast<int>(bytes_.below(longest + 5));
        message.payload = message.payloadlen > 0 ? payload : nullptr;
        message.qos = 1;
        message.retain = bytes_.below(2);
        const std::string topic = text_of(bytes_, {"in/", "ask/", "a", "b", "/"}, 4);
        if (bytes_.below(2)) {
            answer_take(message);
        } else if (!topic.empty()) {
            routed_take(message, topic);
        }
    }

    void expect_status()
    {
        qor_mqtt_status_t status = {};
        status.size = sizeof(status);
        EXPECT(qor_mqtt_status(module_, &status) == 0);
        EXPECT(status.in == expected_.in);
        EXPECT(status.in_failed == expected_.in_failed);
        EXPECT(status.in_skipped == expected_.in_skipped);
        EXPECT(status.in_dropped == expected_.in_dropped);
        EXPECT(status.served == expected_.served && status.accepted == expected_.served);
        EXPECT(status.unanswerable == expected_.unanswerable);
        EXPECT(status.called == expected_.called);
        EXPECT(status.stray == expected_.stray);
        EXPECT(bridge_->calls.count == open_ && bridge_->serve_open == 0);
    }

    Bytes &bytes_;
    bool skips_;
    qor_context_module_t *module_;
    mqtt_bridge *bridge_;
    std::vector<mqtt_call *> calls_;
    int32_t open_ = 0;
    qor_mqtt_status_t expected_ = {};
};

} // namespace

/* What libmosquitto gives away comes from the C library, out of the world's sight: each is replaced
 * by a copy from the world. */
extern "C" {
const mosquitto_property *__real_mosquitto_property_read_string(const mosquitto_property *, int,
                                                                char **, bool);
const mosquitto_property *__real_mosquitto_property_read_string_pair(const mosquitto_property *,
                                                                     int, char **, char **, bool);
const mosquitto_property *__real_mosquitto_property_read_binary(const mosquitto_property *, int,
                                                                void **, uint16_t *, bool);
const mosquitto_property *__wrap_mosquitto_property_read_string(const mosquitto_property *, int,
                                                                char **, bool);
const mosquitto_property *__wrap_mosquitto_property_read_string_pair(const mosquitto_property *,
                                                                     int, char **, char **, bool);
const mosquitto_property *__wrap_mosquitto_property_read_binary(const mosquitto_property *, int,
                                                                void **, uint16_t *, bool);

/* Out of the world, and into it. */
static void *taken_over(void *block, size_t size)
{
    World *there = world;
    void *copy = block ? memcpy(malloc(size), block, size) : nullptr;
    world = nullptr;
    free(block);
    world = there;
    return copy;
}

static char *text_taken_over(char *text)
{
    return static_cast<char *>(taken_over(text, text ? strlen(text) + 1 : 0));
}

const mosquitto_property *__wrap_mosquitto_property_read_string(const mosquitto_property *list,
                                                                int name, char **value, bool skip)
{
    const mosquitto_property *at = __real_mosquitto_property_read_string(list, name, value, skip);
    *value = at ? text_taken_over(*value) : *value;
    return at;
}

const mosquitto_property *__wrap_mosquitto_property_read_string_pair(const mosquitto_property *list,
                                                                     int name, char **key,
                                                                     char **value, bool skip)
{
    const mosquitto_property *at =
        __real_mosquitto_property_read_string_pair(list, name, key, value, skip);
    *key = at ? text_taken_over(*key) : *key;
    *value = at ? text_taken_over(*value) : *value;
    return at;
}

const mosquitto_property *__wrap_mosquitto_property_read_binary(const mosquitto_property *list,
                                                                int name, void **value,
                                                                uint16_t *size, bool skip)
{
    const mosquitto_property *at =
        __real_mosquitto_property_read_binary(list, name, value, size, skip);
    *value = at ? taken_over(*value, *size) : *value;
    return at;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World around;
    Bytes bytes(data, size);
    switch (bytes.below(4)) {
    case 0:
        run_topics(bytes);
        break;
    case 1:
        run_patterns(bytes);
        break;
    case 2:
        run_properties(bytes);
        break;
    default:
        Messages(bytes).run();
    }
    around.printed.clear();
    return 0;
}
}
