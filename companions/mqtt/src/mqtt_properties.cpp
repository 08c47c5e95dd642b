/* SPDX-License-Identifier: Apache-2.0 */
/* Reading the properties of messages. What libmosquitto gives out is a copy to be freed. */
#include "mqtt_properties.hpp"

#include <mqtt_protocol.h>

#include "mqtt_base.hpp"
#include "mqtt_topic.hpp"

char *mqtt_property_text(const mosquitto_property *properties, const char *name)
{
    char *key = nullptr, *value = nullptr;
    const mosquitto_property *at = properties;
    for (bool next = false;; next = true) {
        at = at ? mosquitto_property_read_string_pair(at, MQTT_PROP_USER_PROPERTY, &key, &value,
                                                      next)
                : nullptr;
        if (!at) {
            return nullptr;
        }
        const bool found = key && strcmp(key, name) == 0;
        free(key);
        if (found) {
            return value;
        }
        free(value);
        key = value = nullptr;
    }
}

int32_t mqtt_property_number(const mosquitto_property *properties, const char *name, int32_t absent)
{
    char *text = mqtt_property_text(properties, name);
    if (!text) {
        return absent;
    }
    char *end = text;
    const long long number = strtoll(text, &end, 10);
    const bool right = end > text && *end == '\0' && number > INT32_MIN && number <= INT32_MAX;
    free(text);
    return right ? static_cast<int32_t>(number) : INT32_MIN;
}

/* libmosquitto's own way to copy properties ends the process at a text that came empty. */
int32_t mqtt_properties_copy(mosquitto_property *&copy, const mosquitto_property *properties)
{
    char *name = nullptr, *value = nullptr;
    const mosquitto_property *at = properties;
    for (bool next = false; at; next = true) {
        at = mosquitto_property_read_string_pair(at, MQTT_PROP_USER_PROPERTY, &name, &value, next);
        const bool added =
            !at || (name && value &&
                    mosquitto_property_add_string_pair(&copy, MQTT_PROP_USER_PROPERTY, name,
                                                       value) == MOSQ_ERR_SUCCESS);
        free(name);
        free(value);
        name = value = nullptr;
        if (!added) {
            mosquitto_property_free_all(&copy);
            return -1;
        }
    }
    return 0;
}

mqtt_return *mqtt_property_return(const mosquitto_property *properties)
{
    char *topic = nullptr;
    void *correlation = nullptr;
    uint16_t size = 0;
    mqtt_return *answer = nullptr;
    if (!mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false)) {
        return nullptr;
    }
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &size,
                                   false);
    if (topic && mqtt_topic_valid(topic)) {
        answer = mqtt_return_make(topic, correlation, size);
    }
    free(topic);
    free(correlation);
    return answer;
}
