/* SPDX-License-Identifier: Apache-2.0 */
/* A bridge: what both of its sides do to the record that they share. */
#include "mqtt_bridge.hpp"

#include <unistd.h>

#include "mqtt_link.hpp"
#include "mqtt_outward.hpp"

namespace {

void inbox_free(mqtt_inbox &box)
{
    while (mqtt_arrival *arrival = mqtt_inbox_take(box)) {
        mqtt_arrival_free(arrival);
    }
}

void bridge_free(mqtt_bridge *bridge)
{
    mqtt_outbox_close(bridge->outbox);
    mqtt_letters_free(bridge->outbox.over);
    inbox_free(bridge->in);
    inbox_free(bridge->serve);
    mqtt_routed_destroy(bridge->routed);
    mqtt_calls_destroy(bridge->calls);
    free(bridge->link.reply_topic);
    free(bridge->link.mids);
    close(bridge->wake);
    pthread_cond_destroy(&bridge->ended);
    pthread_mutex_destroy(&bridge->mutex);
    mqtt_config_free(bridge->config);
    free(bridge);
}

} // namespace

void mqtt_bridge_drop(mqtt_bridge *bridge)
{
    bool last;
    {
        mqtt_lock lock(bridge->mutex);
        last = --bridge->holds == 0;
    }
    if (last) {
        bridge_free(bridge);
    }
}

void mqtt_bridge_over(mqtt_bridge *bridge)
{
    list_head over;
    {
        mqtt_lock lock(bridge->mutex);
        mqtt_outbox_over(bridge->outbox, over);
    }
    for (list_head *node = over.next; node != &over; node = node->next) {
        const mqtt_letter *letter = reinterpret_cast<mqtt_letter *>(node);
        if (letter->terms.call) {
            mqtt_call_fail(bridge, letter->terms.call);
        }
    }
    mqtt_letters_free(over);
}

void mqtt_bridge_send(mqtt_bridge *bridge, const mqtt_letter_terms &terms)
{
    mqtt_letter *letter = mqtt_letter_make(terms);
    {
        mqtt_lock lock(bridge->mutex);
        if (letter) {
            mqtt_outbox_add(bridge->outbox, letter, bridge->status.connected);
        } else {
            bridge->status.failed++;
        }
    }
    if (!letter && terms.call) {
        mqtt_call_fail(bridge, terms.call);
    }
    mqtt_bridge_over(bridge);
    mqtt_link_wake(bridge);
}

void mqtt_bridge_status(mqtt_bridge *bridge, qor_mqtt_status_t &status)
{
    mqtt_lock lock(bridge->mutex);
    const mqtt_outbox &box = bridge->outbox;
    status = bridge->status;
    status.size = sizeof(status);
    status.accepted = box.accepted;
    status.acknowledged = box.acknowledged;
    status.refused = box.refused;
    status.dropped = box.dropped;
    status.expired = box.expired;
    status.waiting = box.waiting_count + box.handed_count;
    status.unseen = __atomic_load_n(&bridge->unseen, __ATOMIC_RELAXED);
}
