/* SPDX-License-Identifier: Apache-2.0 */
/* MQTT topics and filters. */
#include "mqtt_topic.hpp"

#include <mosquitto.h>

#include "mqtt_base.hpp"

namespace {

constexpr char module_mark[] = "{module}";
constexpr char topic_mark[] = "{topic}";
constexpr char shared_mark[] = "$share/"; /* before a group and a filter */

bool begins_with(const char *text, const char *mark)
{
    return strncmp(text, mark, strlen(mark)) == 0;
}

/* Writes what the pattern stands for, or only measures it if to is NULL. */
size_t fill(char *to, const char *pattern, const char *module, const char *topic)
{
    size_t length = 0;
    while (*pattern) {
        const char *part = pattern;
        size_t size = 1;
        if (begins_with(pattern, module_mark)) {
            part = module;
            size = strlen(module);
            pattern += sizeof(module_mark) - 1;
        } else if (begins_with(pattern, topic_mark)) {
            part = topic;
            size = strlen(topic);
            pattern += sizeof(topic_mark) - 1;
        } else {
            pattern++;
        }
        if (to) {
            memcpy(to + length, part, size);
        }
        length += size;
    }
    return length;
}

} // namespace

char *mqtt_topic_fill(const char *pattern, const char *module, int32_t topic)
{
    char number[16];
    hal_snprintf(number, sizeof(number), "%d", topic);
    char *filled = mqtt_new<char>(fill(nullptr, pattern, module, number));
    if (filled) {
        fill(filled, pattern, module, number);
    }
    return filled;
}

bool mqtt_topic_valid(const char *topic)
{
    return *topic && mosquitto_pub_topic_check(topic) == MOSQ_ERR_SUCCESS &&
           mosquitto_validate_utf8(topic, static_cast<int>(strlen(topic))) == MOSQ_ERR_SUCCESS;
}

bool mqtt_filter_valid(const char *filter)
{
    return *filter && mosquitto_sub_topic_check(filter) == MOSQ_ERR_SUCCESS &&
           mosquitto_validate_utf8(filter, static_cast<int>(strlen(filter))) == MOSQ_ERR_SUCCESS;
}

bool mqtt_filter_shared(const char *filter)
{
    return begins_with(filter, shared_mark);
}

bool mqtt_filter_matches(const char *filter, const char *topic)
{
    bool matches = false;
    if (mqtt_filter_shared(filter)) {
        const char *group_end = strchr(filter + sizeof(shared_mark) - 1, '/');
        filter = group_end ? group_end + 1 : filter;
    }
    return mosquitto_topic_matches_sub(filter, topic, &matches) == MOSQ_ERR_SUCCESS && matches;
}
