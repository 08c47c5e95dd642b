/* SPDX-License-Identifier: Apache-2.0 */
/* The outgoing queue: messages from their acceptance until it is known what became of them. */
#ifndef MQTT_OUTBOX_HPP
#define MQTT_OUTBOX_HPP

#include "qor_hal.h"

/* What a message is made of. Nothing of it is owned. */
struct mqtt_letter_terms {
    const char *topic;
    const void *payload;
    int32_t size;
    int32_t qos;
    int32_t retain;
    int32_t keeps;    /* 1: at QoS 0, too, it waits for a connection */
    int64_t deadline; /* monotonic ms after which it is not worth sending; 0: none */
    int32_t hops;     /* bridges that it has passed, this one included; 0: it does not say */
    const char *response_topic; /* of a request; else NULL */
    const void *correlation;    /* of a request or answer; else NULL */
    uint16_t correlation_size;
    int32_t answers; /* 1: ret is told */
    int32_t ret;
    uint64_t call; /* whose request it is; 0: nobody's */
};

/* A message to be sent: one block, with copies of all that its terms point at. */
struct mqtt_letter {
    list_head node; /* first */
    mqtt_letter_terms terms;
    size_t bytes; /* as the queue counts them */
    int mid;      /* under which it is under way */
};

/* NULL without memory. */
mqtt_letter *mqtt_letter_make(const mqtt_letter_terms &terms);

/* Frees all letters of a list. */
void mqtt_letters_free(list_head &letters);

/* The queue. The bridge's mutex guards it. accepted = acknowledged + refused + dropped + expired +
 * waiting + handed, whenever it is free. */
struct mqtt_outbox {
    list_head waiting; /* in order of acceptance */
    list_head handed;  /* given to the connection */
    list_head over;    /* ended otherwise than by an acknowledgement; for mqtt_outbox_over() */
    size_t max_messages, max_bytes;
    size_t waiting_count, waiting_bytes; /* of waiting */
    size_t handed_count, handed_qos;     /* of handed, and those of them above QoS 0 */
    uint64_t accepted, acknowledged, refused, dropped, expired;
};

void mqtt_outbox_init(mqtt_outbox &box, size_t max_messages, size_t max_bytes);

/* Takes a letter; the oldest make room for it. */
void mqtt_outbox_add(mqtt_outbox &box, mqtt_letter *letter, bool connected);

/* The same, before all others and whatever waits. */
void mqtt_outbox_add_first(mqtt_outbox &box, mqtt_letter *letter);

/* Lets go what has expired, and gives the next letter if one can be handed over with at most that
 * many above QoS 0 without an acknowledgement. It counts as handed from now on. */
mqtt_letter *mqtt_outbox_next(mqtt_outbox &box, int64_t now, size_t inflight);

/* How a letter that was handed over has ended. */
enum mqtt_end { mqtt_acknowledged, mqtt_refused, mqtt_dropped };
void mqtt_outbox_end(mqtt_outbox &box, mqtt_letter *letter, mqtt_end end);

/* The one that is under way by that number, or NULL. */
mqtt_letter *mqtt_outbox_find(mqtt_outbox &box, int mid);

/* The connection is gone, and what it had at QoS 0 with it. */
void mqtt_outbox_disconnect(mqtt_outbox &box);

/* It is over: drops all, and tells how many. */
size_t mqtt_outbox_close(mqtt_outbox &box);

/* Moves what has ended badly to a list of the caller's. */
void mqtt_outbox_over(mqtt_outbox &box, list_head &over);

#endif /* MQTT_OUTBOX_HPP */
