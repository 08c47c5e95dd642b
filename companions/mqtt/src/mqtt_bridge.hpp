/* SPDX-License-Identifier: Apache-2.0 */
/* A bridge: what its module's tasks and its network thread share.
 *
 * The network thread is left behind when it cannot be ended in time, so the record belongs to both:
 * whoever lets go of it last frees it. After closing the thread touches nothing else. */
#ifndef MQTT_BRIDGE_HPP
#define MQTT_BRIDGE_HPP

#include <mosquitto.h>

#include "mqtt_base.hpp"
#include "mqtt_calls.hpp"
#include "mqtt_config.hpp"
#include "mqtt_inbox.hpp"
#include "mqtt_outbox.hpp"
#include "mqtt_routed.hpp"
#include "qor.h"
#include "qor_mqtt.h"

enum { mqtt_hops_most = 4 }; /* bridges that a message may pass */

constexpr char mqtt_hop_name[] = "qor-hop";
constexpr char mqtt_ret_name[] = "qor-ret";

/* The connection. The network thread's own, from its start on. */
struct mqtt_link {
    struct mosquitto *client;
    char *reply_topic; /* where answers to call routes come; made before the start */
    int *mids;         /* of the subscriptions, by route; one more for reply_topic */
    size_t inflight;   /* what the broker and the configuration allow */
    bool greeted;      /* the broker has taken the connection */
    int32_t pause;     /* before the next attempt, ms */
};

struct mqtt_bridge {
    qor_context_module_t module; /* first */
    mqtt_config config;          /* constant */
    qor_bus_t *bus;              /* whose contract is set; NULL: none. Set before the loop */
    bool attached;               /* between reg and uninit, which one thread calls at a time */
    mqtt_link link;              /* of the network thread */
    hal_thread_t thread;         /* of those who start and stop it */
    bool started;                /* likewise */
    int wake;                    /* wakes the network thread */
    uint64_t unseen;             /* changed atomically */

    hal_thread_mutex_t mutex; /* guards all that follows; the bus's locks are taken below it */
    hal_thread_cond_t ended;  /* broadcast with thread_over */
    int32_t holds;            /* who may touch this record: the module, the network thread */
    bool thread_over;
    bool closing;           /* unreg has been called; context is NULL then */
    int64_t close_by;       /* monotonic ms at which the thread is to be over */
    qor_context_t *context; /* NULL: there is none, or not any more */
    bool pump_posted;       /* a task will look into the inboxes */
    bool status_open;       /* a request about status is under way */
    bool status_changed;    /* since it went */
    mqtt_outbox outbox;
    mqtt_inbox in, serve;
    int32_t serve_open; /* requests to be served, until they are answered */
    mqtt_routed routed;
    mqtt_calls calls;
    qor_mqtt_status_t status; /* but for what outbox counts */
};

inline mqtt_bridge *mqtt_bridge_of(qor_context_module_t *module)
{
    return reinterpret_cast<mqtt_bridge *>(module); /* module is the first field */
}

inline mqtt_bridge *mqtt_bridge_under(const qor_context_t *context)
{
    return mqtt_bridge_of(context->module);
}

/* Lets go of the record. */
void mqtt_bridge_drop(mqtt_bridge *bridge);

/* Hands a message to be sent over; ends those for which there was no room. */
void mqtt_bridge_send(mqtt_bridge *bridge, const mqtt_letter_terms &terms);

/* Ends requests on call routes whose letters came to nothing. */
void mqtt_bridge_over(mqtt_bridge *bridge);

/* Adds to a count. */
inline void mqtt_bridge_count(mqtt_bridge *bridge, uint64_t &count)
{
    mqtt_lock lock(bridge->mutex);
    count++;
}

/* Copies the status. */
void mqtt_bridge_status(mqtt_bridge *bridge, qor_mqtt_status_t &status);

#endif /* MQTT_BRIDGE_HPP */
