/* SPDX-License-Identifier: Apache-2.0 */
/* The thread that keeps the connection: connects, hands over what is to be sent, ends calls whose
 * time is over, and pauses before it connects again. */
#include "mqtt_link.hpp"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "mqtt_client.hpp"
#include "mqtt_outward.hpp"

namespace {

constexpr char file_tag[] = "qor_mqtt";
constexpr int tick = 1000;          /* longest sleep, for keep-alive and calls, ms */
constexpr int handshake = 50;       /* the same while an encrypted connection comes about */
constexpr int farewell = 100;       /* for the last packet, ms */
constexpr int reason_with_will = 4; /* of a disconnect after which the broker sends the will */

bool closing(mqtt_bridge *bridge)
{
    mqtt_lock lock(bridge->mutex);
    return bridge->closing;
}

/* Whether it is time to go: nothing is left to be sent, or no time. */
bool leaving(mqtt_bridge *bridge)
{
    mqtt_lock lock(bridge->mutex);
    const mqtt_outbox &box = bridge->outbox;
    return bridge->closing && (box.waiting_count + box.handed_count == 0 || !bridge->link.greeted ||
                               util_timestamp() >= bridge->close_by);
}

/* How long the thread may sleep: until a call's time is over, or closing's. */
int sleep_time(mqtt_bridge *bridge, int longest)
{
    mqtt_lock lock(bridge->mutex);
    const int64_t now = util_timestamp();
    int64_t until = now + longest;
    for (list_head *node = bridge->calls.head.next; node != &bridge->calls.head;
         node = node->next) {
        const int64_t deadline = reinterpret_cast<mqtt_call *>(node)->deadline;
        until = deadline < until ? deadline : until;
    }
    if (bridge->closing && bridge->close_by < until) {
        until = bridge->close_by;
    }
    return until > now ? static_cast<int>(until - now) : 0;
}

/* Sleeps until there is something to do; file is the connection's, or -1. */
void sleep_on(mqtt_bridge *bridge, int file, bool writes, int longest)
{
    uint64_t count;
    struct pollfd files[] = {{bridge->wake, POLLIN, 0},
                             {file, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0}};
    poll(files, 2, sleep_time(bridge, longest));
    if (files[0].revents && read(bridge->wake, &count, sizeof(count)) < 0) {
        return; /* somebody else's wake-up is as good */
    }
}

/* Hands over what the connection takes now. More would only lie in libmosquitto's memory. */
void letters_hand(mqtt_bridge *bridge)
{
    const mqtt_link &link = bridge->link;
    while (link.greeted) {
        if (mosquitto_want_write(link.client) &&
            (mosquitto_loop_write(link.client, 1) != MOSQ_ERR_SUCCESS ||
             mosquitto_want_write(link.client))) {
            break;
        }
        mqtt_letter *letter;
        {
            mqtt_lock lock(bridge->mutex);
            letter = mqtt_outbox_next(bridge->outbox, util_timestamp(), link.inflight);
        }
        if (!letter) {
            break;
        }
        mqtt_client_publish(bridge, letter);
    }
    mqtt_bridge_over(bridge);
}

/* One turn of a connection: what libmosquitto says of it. */
int connection_turn(mqtt_bridge *bridge)
{
    struct mosquitto *client = bridge->link.client;
    const bool writes = bridge->link.greeted || !mqtt_config_tls(bridge->config);
    sleep_on(bridge, mosquitto_socket(client), writes && mosquitto_want_write(client),
             writes ? tick : handshake);
    int result = mosquitto_loop_read(client, 1);
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(client)) {
        result = mosquitto_loop_write(client, 1);
    }
    if (result == MOSQ_ERR_SUCCESS) {
        result = mosquitto_loop_misc(client);
    }
    letters_hand(bridge);
    mqtt_calls_expire(bridge);
    return result;
}

/* Says good-bye, and waits a little until that is written. */
void connection_leave(mqtt_bridge *bridge)
{
    struct mosquitto *client = bridge->link.client;
    const int64_t until = util_timestamp() + farewell;
    const bool will = bridge->config.terms.status_topic;
    if (!bridge->link.greeted ||
        mosquitto_disconnect_v5(client, will ? reason_with_will : 0, nullptr) != 0) {
        return;
    }
    while (mosquitto_socket(client) >= 0 && util_timestamp() < until) {
        struct pollfd file = {mosquitto_socket(client), POLLOUT, 0};
        poll(&file, 1, farewell);
        if (mosquitto_loop_write(client, 1) != MOSQ_ERR_SUCCESS) {
            return;
        }
    }
}

/* Keeps a connection until it ends, or the bridge does. */
void connection_keep(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    const int64_t greeted_by = util_timestamp() + terms.connect_time;
    int result = MOSQ_ERR_SUCCESS;
    bool greeted = false;
    while (result == MOSQ_ERR_SUCCESS && mosquitto_socket(bridge->link.client) >= 0) {
        result = connection_turn(bridge);
        if (bridge->link.greeted) {
            greeted = true;
            bridge->link.pause = terms.reconnect_min;
        } else if (!greeted && util_timestamp() >= greeted_by) {
            MQTT_WRN("\"%s\": %s, port %d, does not answer.", terms.name, terms.host, terms.port);
            return;
        }
        if (leaving(bridge)) {
            connection_leave(bridge);
            break;
        }
    }
    if (!greeted && result != MOSQ_ERR_SUCCESS && result != MOSQ_ERR_CONN_REFUSED) {
        MQTT_INF("\"%s\": a connection to %s, port %d, does not come about: %s", terms.name,
                 terms.host, terms.port, mosquitto_strerror(result));
    }
    mqtt_client_lost(bridge, result);
}

/* Waits before the next attempt, longer each time. Many bridges that lost one broker do not come
 * back at once: each cuts its pause by a random part. */
void pause_take(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    const int32_t half = bridge->link.pause / 2;
    const int64_t until = util_timestamp() + bridge->link.pause -
                          static_cast<int32_t>(mqtt_random(static_cast<uint32_t>(half) + 1));
    while (!closing(bridge) && util_timestamp() < until) {
        const int64_t left = until - util_timestamp();
        sleep_on(bridge, -1, false, static_cast<int>(left < tick ? left : tick));
        mqtt_calls_expire(bridge);
    }
    bridge->link.pause =
        bridge->link.pause > terms.reconnect_max / 2 ? terms.reconnect_max : bridge->link.pause * 2;
}

/* The error number is errno's where libmosquitto says so. */
const char *connect_text(int result, char *room, size_t size)
{
    if (result != MOSQ_ERR_ERRNO) {
        return mosquitto_strerror(result);
    }
    return strerror_r(errno, room, size);
}

void attempts_make(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    char room[128];
    bool again = false;
    while (!closing(bridge)) {
        const int result = mqtt_client_connect(bridge, again);
        again = true;
        if (result == MOSQ_ERR_SUCCESS) {
            connection_keep(bridge);
        } else if (!closing(bridge)) {
            MQTT_INF("\"%s\": no connection to %s, port %d: %s", terms.name, terms.host, terms.port,
                     connect_text(result, room, sizeof(room)));
        }
        pause_take(bridge);
    }
}

/* Tells who waits for the thread; gives how many letters were left. */
size_t thread_end(mqtt_bridge *bridge)
{
    mqtt_lock lock(bridge->mutex);
    bridge->thread_over = true;
    pthread_cond_broadcast(&bridge->ended);
    return mqtt_outbox_close(bridge->outbox);
}

void *mqtt_link_run(void *arg)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    hal_thread_name_set(bridge->config.terms.name);
    bridge->link.pause = bridge->config.terms.reconnect_min;
    attempts_make(bridge);
    mqtt_client_destroy(bridge);
    const size_t left = thread_end(bridge);
    if (left > 0) {
        MQTT_WRN("\"%s\": closed with %zu messages that were not acknowledged.",
                 bridge->config.terms.name, left);
    }
    mqtt_bridge_drop(bridge);
    return nullptr;
}

/* With all signals blocked: they are for the application's threads. */
int32_t thread_make(mqtt_bridge *bridge)
{
    const size_t wanted = static_cast<size_t>(bridge->config.terms.stack_size);
    const size_t least = static_cast<size_t>(PTHREAD_STACK_MIN);
    hal_thread_attr_t attr;
    sigset_t all, before;
    if (pthread_attr_init(&attr) != 0) {
        return -1;
    }
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    const bool made = pthread_attr_setstacksize(&attr, wanted < least ? least : wanted) == 0 &&
                      pthread_create(&bridge->thread, &attr, mqtt_link_run, bridge) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
    return made ? 0 : -1;
}

/* Whether the thread has ended in time. */
bool thread_await(mqtt_bridge *bridge)
{
    struct timespec until;
    mqtt_lock lock(bridge->mutex);
    util_timespec(bridge->close_by + farewell, &until);
    int result = 0;
    while (!bridge->thread_over && result != ETIMEDOUT) {
        result = pthread_cond_timedwait(&bridge->ended, &bridge->mutex, &until);
    }
    return bridge->thread_over;
}

} // namespace

int32_t mqtt_link_start(mqtt_bridge *bridge)
{
    if (mqtt_client_make(bridge) < 0) {
        return -1;
    }
    bridge->holds++; /* before there is anybody who could drop one */
    if (thread_make(bridge) < 0) {
        MQTT_ERR("\"%s\": no thread for the connection.", bridge->config.terms.name);
        bridge->holds--;
        mqtt_client_destroy(bridge);
        return -1;
    }
    bridge->started = true;
    return 0;
}

void mqtt_link_stop(mqtt_bridge *bridge)
{
    if (!bridge->started) {
        return;
    }
    bridge->started = false;
    mqtt_link_wake(bridge);
    if (thread_await(bridge)) {
        pthread_join(bridge->thread, nullptr);
        return;
    }
    MQTT_WRN("\"%s\": the network thread hangs, probably in the resolver, and is left behind.",
             bridge->config.terms.name);
    pthread_detach(bridge->thread);
}

void mqtt_link_wake(mqtt_bridge *bridge)
{
    const uint64_t one = 1;
    if (write(bridge->wake, &one, sizeof(one)) < 0) {
        return; /* it is full: somebody has woken it */
    }
}
