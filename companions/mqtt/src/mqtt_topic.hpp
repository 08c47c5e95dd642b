/* SPDX-License-Identifier: Apache-2.0 */
/* MQTT topics and filters. */
#ifndef MQTT_TOPIC_HPP
#define MQTT_TOPIC_HPP

#include <stdint.h>

/* A copy of the pattern with {module} and {topic} filled in; the caller's to free. NULL without
 * memory. */
char *mqtt_topic_fill(const char *pattern, const char *module, int32_t topic);

/* Whether messages can be sent there. */
bool mqtt_topic_valid(const char *topic);

bool mqtt_filter_valid(const char *filter);

/* Whether the broker gives each message to one of a group only. */
bool mqtt_filter_shared(const char *filter);

bool mqtt_filter_matches(const char *filter, const char *topic);

#endif /* MQTT_TOPIC_HPP */
