/* SPDX-License-Identifier: Apache-2.0 */
/* Requests that came over a route. There are few of them, so the table is searched as it is. */
#include "mqtt_routed.hpp"

#include "mqtt_base.hpp"

namespace {

constexpr int64_t patience = 60000; /* ms */

mqtt_routed_entry *find(mqtt_routed &routed, int32_t session)
{
    for (int32_t i = 0; i < routed.most; i++) {
        if (routed.places[i].route && routed.places[i].session == session) {
            return &routed.places[i];
        }
    }
    return nullptr;
}

/* Frees the place of one that nothing keeps. */
void settle(mqtt_routed &routed, mqtt_routed_entry *entry)
{
    if (entry->answered && !entry->points) {
        *entry = {};
        routed.used--;
    }
}

void drop(mqtt_routed &routed, mqtt_routed_entry *entry)
{
    entry->points = 0;
    settle(routed, entry);
}

void drop_oldest(mqtt_routed &routed)
{
    mqtt_routed_entry *oldest = routed.places;
    for (int32_t i = 1; i < routed.most; i++) {
        mqtt_routed_entry *entry = &routed.places[i];
        if (entry->answered && (!oldest->answered || entry->answered_at < oldest->answered_at)) {
            oldest = entry;
        }
    }
    drop(routed, oldest); /* less than half of the places are for those without an answer */
}

} // namespace

int32_t mqtt_routed_init(mqtt_routed &routed, int32_t unanswered)
{
    routed.most = 2 * unanswered;
    routed.places = static_cast<mqtt_routed_entry *>(
        calloc(static_cast<size_t>(routed.most), sizeof(mqtt_routed_entry)));
    return routed.places ? 0 : -1;
}

void mqtt_routed_destroy(mqtt_routed &routed)
{
    for (int32_t i = 0; routed.places && i < routed.most; i++) {
        free(routed.places[i].answer);
    }
    free(routed.places);
    routed.places = nullptr;
}

void mqtt_routed_add(mqtt_routed &routed, const mqtt_routed_entry &entry)
{
    if (routed.used == routed.most) {
        drop_oldest(routed);
    }
    mqtt_routed_entry *place = routed.places;
    while (place->route) {
        place++;
    }
    *place = entry;
    routed.used++;
    routed.in_count += entry.route->terms.direction == QOR_MQTT_IN;
}

int32_t mqtt_routed_free(mqtt_routed &routed, int64_t now)
{
    for (int32_t i = 0; routed.used > routed.most / 2 && i < routed.most; i++) {
        if (routed.places[i].answered && routed.places[i].answered_at + patience < now) {
            drop(routed, &routed.places[i]);
        }
    }
    return routed.most - routed.used;
}

mqtt_routed_entry mqtt_routed_seen(mqtt_routed &routed, int32_t session, int32_t point)
{
    mqtt_routed_entry *entry = find(routed, session);
    if (!entry) {
        return {};
    }
    const mqtt_routed_entry seen = *entry;
    entry->points &= ~point;
    settle(routed, entry);
    return seen;
}

void mqtt_routed_lost(mqtt_routed &routed, int32_t session)
{
    if (const mqtt_routed_entry *entry = find(routed, session)) {
        mqtt_routed_seen(routed, session, entry->points & -entry->points);
    }
}

mqtt_routed_entry mqtt_routed_answered(mqtt_routed &routed, int32_t session, int64_t now)
{
    mqtt_routed_entry *entry = find(routed, session);
    if (!entry || entry->answered) {
        return {};
    }
    const mqtt_routed_entry answered = *entry;
    routed.in_count -= entry->route->terms.direction == QOR_MQTT_IN;
    entry->answer = nullptr;
    entry->answered = true;
    entry->answered_at = now;
    settle(routed, entry);
    return answered;
}

void mqtt_routed_failed(mqtt_routed &routed, int32_t session, int32_t points, int64_t now)
{
    mqtt_routed_entry *entry = find(routed, session);
    entry->points &= points;
    mqtt_routed_answered(routed, session, now);
}
