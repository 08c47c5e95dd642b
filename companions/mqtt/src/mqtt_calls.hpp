/* SPDX-License-Identifier: Apache-2.0 */
/* Requests on call routes that wait for their answers. */
#ifndef MQTT_CALLS_HPP
#define MQTT_CALLS_HPP

#include "mqtt_config.hpp"
#include "qor_hal.h"

/* A request under way. While it is in the table its record is the table's; whoever takes it out
 * ends it. */
struct mqtt_call {
    list_head node; /* first */
    uint64_t number;
    const mqtt_route *route;
    uint64_t token;   /* of the deferred request; 0: somebody waits in mqtt_call_wait() */
    int64_t deadline; /* monotonic ms */
    int32_t room;     /* bytes of the response part */
    int32_t ret, size;
    bool over;   /* ret, size and the bytes behind this record are there */
    bool counts; /* it was answered */
};

/* The table. The bridge's mutex guards it. */
struct mqtt_calls {
    list_head head;
    int32_t count, most;
    uint64_t last;          /* number given last */
    char start[17];         /* random, one for each start */
    hal_thread_cond_t over; /* broadcast for those who wait; on the monotonic clock */
};

/* 0, or -1 without a condition or random bytes. */
int32_t mqtt_calls_init(mqtt_calls &calls, int32_t most);
void mqtt_calls_destroy(mqtt_calls &calls);

/* A record of the caller's to free, with room for the response part; NULL without memory. */
mqtt_call *mqtt_call_make(const mqtt_route *route, int32_t room, int64_t deadline);
inline char *mqtt_call_buf(mqtt_call *call)
{
    return reinterpret_cast<char *>(call + 1);
}

/* Whether there was a place; the call has its number then. */
bool mqtt_calls_add(mqtt_calls &calls, mqtt_call *call);

/* Takes a call out, or gives NULL: by its number, or one whose time is over. */
mqtt_call *mqtt_calls_take(mqtt_calls &calls, uint64_t number);
mqtt_call *mqtt_calls_take_late(mqtt_calls &calls, int64_t now);

/* The correlation data of a call, printable; room for mqtt_correlation_size. */
enum { mqtt_correlation_size = 40 };
void mqtt_correlation_print(const mqtt_calls &calls, uint64_t number, char *text);

/* The number that correlation data stand for; 0: they are not of this table. */
uint64_t mqtt_correlation_read(const mqtt_calls &calls, const void *data, uint16_t size);

#endif /* MQTT_CALLS_HPP */
