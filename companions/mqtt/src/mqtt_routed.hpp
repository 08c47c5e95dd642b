/* SPDX-License-Identifier: Apache-2.0 */
/* Requests that came over a route: from before they are published until they are answered and all
 * that listeners see of them has been seen, which the bus may show after the response. */
#ifndef MQTT_ROUTED_HPP
#define MQTT_ROUTED_HPP

#include "mqtt_config.hpp"
#include "mqtt_inbox.hpp"

/* A request. */
struct mqtt_routed_entry {
    const mqtt_route *route; /* NULL: a free place */
    mqtt_return *answer;     /* owned; NULL: without an answer */
    int32_t session;
    int32_t hops;
    int32_t points;      /* at which listeners are still to see it */
    bool answered;       /* nothing but points keeps it */
    int64_t answered_at; /* monotonic ms */
};

/* The table. The bridge's mutex guards it. */
struct mqtt_routed {
    mqtt_routed_entry *places;
    int32_t most;
    int32_t used;     /* of the places */
    int32_t in_count; /* requests of in routes without an answer */
};

/* Room for twice as many requests as may be without an answer: 0, or -1 without memory. */
int32_t mqtt_routed_init(mqtt_routed &routed, int32_t unanswered);
void mqtt_routed_destroy(mqtt_routed &routed);

/* Where there is no free place, the one that was answered longest ago makes room. */
void mqtt_routed_add(mqtt_routed &routed, const mqtt_routed_entry &entry);

/* How many places are free. What nobody was shown for a minute is not waited for any more: there
 * was no memory to show it. */
int32_t mqtt_routed_free(mqtt_routed &routed, int64_t now);

/* A listener sees the request of that session: a copy, whose route is NULL when it came over none.
 */
mqtt_routed_entry mqtt_routed_seen(mqtt_routed &routed, int32_t session, int32_t point);

/* A listener has lost it, at a point that is not known: it counts as the first that is left. */
void mqtt_routed_lost(mqtt_routed &routed, int32_t session);

/* The request of that session is answered: a copy, as above. The answer is the caller's. */
mqtt_routed_entry mqtt_routed_answered(mqtt_routed &routed, int32_t session, int64_t now);

/* It was not published. What listeners see before that they see all the same. */
void mqtt_routed_failed(mqtt_routed &routed, int32_t session, int32_t points, int64_t now);

#endif /* MQTT_ROUTED_HPP */
