/* SPDX-License-Identifier: Apache-2.0 */
/* A bridge: a module that carries messages between a bus and an MQTT 5 broker. */
#ifndef QOR_MQTT_H
#define QOR_MQTT_H

#include "qor_types.h"

QOR_BEGIN_DECLS

/** Which way a route leads; its direction field. */
enum {
    QOR_MQTT_OUT = 1,   /**< requests on a bus topic are shown on an MQTT topic */
    QOR_MQTT_IN = 2,    /**< messages on MQTT topics become requests on a bus topic */
    QOR_MQTT_SERVE = 3, /**< MQTT requests become requests on a bus topic, and are answered */
    QOR_MQTT_CALL = 4   /**< requests on a bus topic become MQTT requests, and are answered */
};

/** What an out route shows; its when field. */
enum {
    QOR_MQTT_BEFORE = 0, /**< the request part, before it is handled */
    QOR_MQTT_AFTER = 1   /**< the response part, after it was handled */
};

/** An MQTT message, as a decode function sees it. Valid during the call. */
typedef struct qor_mqtt_message {
    const char *topic;      /**< the topic it came on */
    const void *payload;    /**< its bytes; NULL when it has none */
    int32_t size;           /**< how many */
    int32_t qos;            /**< 0, 1 or 2, as it was delivered */
    int32_t retained;       /**< 1: the broker has kept it from before; else 0 */
    int32_t reserved;       /**< 0 */
    const void *properties; /**< for qor_mqtt_property() */
} qor_mqtt_message_t;

/** One part of a bus message, as an encode function sees it. Valid during the call. */
typedef struct qor_mqtt_part {
    qor_context_topic_t topic; /**< the bus topic */
    int32_t session;           /**< its session */
    int32_t ret;               /**< of a response part, the handler's result; else 0 */
    int32_t size;              /**< bytes at data */
    const void *data;          /**< the part; seldom aligned, use memcpy */
} qor_mqtt_part_t;

/**
 * Writes the payload for a part of a bus message.
 *
 * @param arg   the route's
 * @param part  what there is to send
 * @param buf   where to; stays the bridge's
 * @param room  bytes there is room for: the route's room
 * @return      bytes written, or -1 when there is no payload for this part: it is counted as
 *              failed and not sent; a request to be served is then answered with -1, one on a call
 *              route fails
 *
 * Called with no lock held, on a worker of the bus, for a synchronous request on a call route on
 * the caller's thread. All calls but the latter come one after the other. Must not wait.
 */
typedef int32_t (*qor_mqtt_encode_t)(void *arg, const qor_mqtt_part_t *part, void *buf,
                                     int32_t room);

/**
 * Writes a part of a bus message for what has come.
 *
 * @param arg      the route's
 * @param message  what has come
 * @param buf      where to; stays the bridge's
 * @param room     bytes there is room for: the route's room, or for the answer to a request on a
 *                 call route, the size of its response part
 * @return         bytes written, or -1 when it cannot be understood: it is counted as failed; a
 *                 request to be served is answered with -1, a request on a call route fails
 *
 * Called with no lock held: of in and serve routes on a worker of the bus, one after the other; of
 * call routes on the bridge's network thread, where it must neither wait nor call the bus.
 */
typedef int32_t (*qor_mqtt_decode_t)(void *arg, const qor_mqtt_message_t *message, void *buf,
                                     int32_t room);

/** A route. Texts are copied by qor_mqtt_module_create(). */
typedef struct qor_mqtt_route {
    const char *name;              /**< for lines and for pair; not empty, no other route's */
    int32_t direction;             /**< QOR_MQTT_OUT ... */
    qor_context_topic_t bus_topic; /**< the bus topic */
    const char *mqtt_topic;        /**< in and serve: a filter, + and # allowed; else a topic, in
                                        which {module} stands for the bridge's name and {topic} for
                                        the bus topic's number */
    const char *pair;              /**< out: the in route whose requests it ignores; or NULL */
    int32_t qos;                   /**< 0, 1 or 2 */
    int32_t retain;                /**< out: 1 asks the broker to keep the last one */
    int32_t skip_retained;    /**< in: 1 leaves out what the broker has kept; 0: it is marked */
    int32_t local;            /**< in: 1 takes what this bridge has sent itself, too */
    int32_t when;             /**< out: QOR_MQTT_BEFORE or QOR_MQTT_AFTER */
    int32_t expiry;           /**< out: seconds after which it is not worth sending; 0: never */
    int32_t response;         /**< serve: bytes of the response part of the bus request */
    int32_t wait_time;        /**< call: longest wait for the answer, ms; above 0 */
    int32_t wait_connection;  /**< call: 1 waits for a connection; 0 fails without one */
    int32_t room;             /**< bytes that encode and decode have room for; 0: 4096 */
    qor_mqtt_encode_t encode; /**< out, serve, call; NULL: the part as it is */
    qor_mqtt_decode_t decode; /**< in, serve, call; NULL: the payload as it is */
    void *arg;                /**< of both; stays the caller's */
    uint32_t reserved[4];     /**< 0 */
} qor_mqtt_route_t;

/**
 * A configuration. Texts, also those of the routes, are copied; a NULL text is absent. User,
 * password and keys never appear in lines.
 */
typedef struct qor_mqtt_config {
    uint32_t size;            /**< of the record as the caller knows it */
    uint32_t route_size;      /**< of a route; qor_mqtt_config_init() sets both */
    const char *name;         /**< of the module, at most 19 characters; "mqtt" */
    const char *host;         /**< of the broker; needed */
    int32_t port;             /**< 1883; for TLS usually 8883 */
    int32_t keep_alive;       /**< s, 5 to 65535; 60 */
    const char *client_id;    /**< NULL: a random one */
    int32_t clean_start;      /**< 1: the broker forgets earlier sessions at each connect; 1 */
    uint32_t session_expiry;  /**< s for which the broker keeps the session of one that is away; 0.
                                   A kept session needs a client id */
    const char *user;         /**< NULL: none */
    const char *password;     /**< NULL: none */
    const char *ca_file;      /**< certificates to trust, PEM: TLS */
    int32_t system_cas;       /**< 1: trust those of the system: TLS; not with ca_file */
    int32_t reserved0;        /**< 0 */
    const char *certificate;  /**< the client's own, PEM; with key and ca_file */
    const char *key;          /**< its private key, PEM */
    const char *psk;          /**< pre-shared key, hexadecimal: TLS; not with the above */
    const char *psk_identity; /**< goes with psk */
    const char *status_topic; /**< MQTT topic that has "online" retained while the bridge is
                                   connected, else "offline"; or NULL */
    const char *reply_prefix; /**< topics of answers to call routes begin with it; "qor/reply" */
    qor_context_topic_t status_bus_topic; /**< each change of the connection appears there, a
                                               qor_mqtt_status_t; -1: nowhere */
    int32_t reconnect_min;                /**< first pause before connecting again, ms; 1000 */
    int32_t reconnect_max; /**< pauses double up to this, ms; 60000. Each is cut by up to half */
    int32_t connect_time;  /**< longest wait for the broker's greeting, ms; 10000 */
    int32_t linger;        /**< longest that closing waits for what is to be sent, ms; 1000 */
    int32_t inflight;      /**< most messages above QoS 0 without an acknowledgement; 20 */
    int32_t open;          /**< most requests that are served at a time; 64 */
    int32_t in_open;       /**< most requests of in routes under way; 64 */
    int32_t calls;         /**< most requests of call routes under way; 64 */
    int32_t depth;         /**< messages of the bus that may wait to be encoded; 1024 */
    int32_t out_messages;  /**< messages that may wait to be sent; 1024 */
    int32_t out_bytes;     /**< bytes of them; 4 MiB */
    int32_t in_messages;   /**< messages that may wait to become requests; 1024 */
    int32_t in_bytes;      /**< bytes of them; 4 MiB */
    int32_t payload;       /**< longest payload, either way, bytes; 256 KiB */
    int32_t stack_size;    /**< of the network thread, bytes; 128 KiB */
    int32_t route_count;   /**< how many routes there are */
    const qor_mqtt_route_t *routes; /**< the routes */
    uint32_t reserved[7];           /**< 0 */
} qor_mqtt_config_t;

/**
 * What a bridge has done. Whatever happens, accepted = acknowledged + refused + dropped + expired +
 * waiting, in every copy.
 */
typedef struct qor_mqtt_status_record {
    uint32_t size;         /**< of the record as the caller knows it */
    int32_t connected;     /**< 1 or 0 */
    int64_t since;         /**< monotonic ms of the last change of connected; 0: none yet */
    uint64_t connects;     /**< how often a connection came about */
    uint64_t accepted;     /**< messages to be sent that were taken into the queue */
    uint64_t acknowledged; /**< by the broker; at QoS 0, handed to the connection */
    uint64_t refused;      /**< by the broker */
    uint64_t dropped;      /**< for want of room, connection (QoS 0) or time at the end */
    uint64_t expired;      /**< not sent before they had expired */
    uint64_t waiting;      /**< to be sent or acknowledged */
    uint64_t in;           /**< messages that came on a route */
    uint64_t in_dropped;   /**< of these, without room */
    uint64_t in_skipped;   /**< of these, retained or gone through too many bridges */
    uint64_t in_failed;    /**< of these, too long, not decoded or without a subscriber */
    uint64_t failed;       /**< parts of bus messages that were not encoded */
    uint64_t unseen;       /**< bus messages for out routes that found no place in depth */
    uint64_t served;       /**< requests answered */
    uint64_t unanswerable; /**< requests without a usable response topic; handled all the same */
    uint64_t called;       /**< requests of call routes that were answered */
    uint64_t uncalled;     /**< requests of call routes that failed or found no answer in time */
    uint64_t stray;        /**< answers that were unknown, late or doubled */
} qor_mqtt_status_t;

/** Fills a configuration with the defaults that its fields' comments give. Prints "!(config) ==
 * true.". */
QOR_API void qor_mqtt_config_init(qor_mqtt_config_t *config);

/**
 * Makes a bridge: a module for the array that is given to qor_bus_create().
 *
 * @param config  copied
 * @return        the module, released with qor_mqtt_module_destroy(), or NULL after one line that
 *                says "<route or configuration>: <field>: <what is wrong>"; without memory it
 *                says "no memory for a bridge."
 *
 * Of two routes in or serve whose filters match a topic, the first gets its messages. A password
 * without TLS to a host that is not loopback makes a warning line. Prints "!(config) == true.".
 */
QOR_API qor_context_module_t *qor_mqtt_module_create(const qor_mqtt_config_t *config);

/**
 * Sets the bridge's contract: strict, with room for what its limits allow. Between
 * qor_bus_create() and qor_bus_loop(); without it the module's init fails.
 *
 * @return  0, or -1 with a line: "!(bus) == true.", "!(module) == true.", "<route>: bus_topic: out
 *          of range.", "status_bus_topic: out of range.", or what qor_bus_contract_set() prints
 */
QOR_API int32_t qor_mqtt_module_contract(qor_bus_t *bus, qor_context_module_t *module);

/**
 * Frees a bridge after qor_bus_close(), or when no bus was created with it. Prints "!(module) ==
 * true."; while a bus has it, "the bus is not closed." and nothing changes.
 */
QOR_API void qor_mqtt_module_destroy(qor_context_module_t *module);

/**
 * Copies what a bridge has done: one copy, exact at one moment. Any thread, until
 * qor_mqtt_module_destroy().
 *
 * @param status  size is set by the caller; a smaller one gets what it has room for
 * @return        0, or -1 with a line: "!(module) == true.", "!(status) == true." or "size: not
 *                known."
 */
QOR_API int32_t qor_mqtt_status(qor_context_module_t *module, qor_mqtt_status_t *status);

/**
 * Copies the value of a user property of a message, the first of that name.
 *
 * @param value  where to; terminated when room is above 0, and cut off if it is longer
 * @param room   bytes
 * @return       the length of the whole value, or -1 when there is none
 *
 * Prints "!(message) == true.", "!(name) == true." or "!(value || room == 0) == true.". For decode
 * functions.
 */
QOR_API int32_t qor_mqtt_property(const qor_mqtt_message_t *message, const char *name, char *value,
                                  int32_t room);

QOR_END_DECLS

#endif /* QOR_MQTT_H */
