/* SPDX-License-Identifier: Apache-2.0 */
/* The outgoing queue. Each letter is counted once when it comes and once when it ends. */
#include "mqtt_outbox.hpp"

#include "mqtt_base.hpp"

namespace {

size_t text_size(const char *text)
{
    return text ? strlen(text) + 1 : 0;
}

/* Copies to where there is room, and moves that on. NULL stays NULL. */
const void *part_copy(char *&room, const void *part, size_t size)
{
    char *copy = room;
    if (!part) {
        return nullptr;
    }
    memcpy(copy, part, size);
    room += size;
    return copy;
}

mqtt_letter *letter_of(list_head *node)
{
    return reinterpret_cast<mqtt_letter *>(node); /* node is the first field */
}

void waiting_remove(mqtt_outbox &box, mqtt_letter *letter)
{
    list_del(&letter->node);
    box.waiting_count--;
    box.waiting_bytes -= letter->bytes;
}

/* Ends one that waits. */
void waiting_end(mqtt_outbox &box, mqtt_letter *letter, uint64_t &count)
{
    waiting_remove(box, letter);
    count++;
    list_add_tail(&letter->node, &box.over);
}

bool has_expired(const mqtt_letter *letter, int64_t now)
{
    return letter->terms.deadline != 0 && letter->terms.deadline <= now;
}

/* Whether it would wait for nothing. */
bool needs_connection(const mqtt_letter *letter)
{
    return letter->terms.qos == 0 && !letter->terms.keeps;
}

} // namespace

mqtt_letter *mqtt_letter_make(const mqtt_letter_terms &terms)
{
    const size_t size = static_cast<size_t>(terms.size);
    const size_t topic = text_size(terms.topic);
    const size_t response = text_size(terms.response_topic);
    const size_t more = size + topic + response + terms.correlation_size;
    mqtt_letter *letter = mqtt_new<mqtt_letter>(more);
    if (!letter) {
        return nullptr;
    }
    char *room = reinterpret_cast<char *>(letter + 1);
    letter->terms = terms;
    letter->bytes = sizeof(*letter) + more;
    letter->terms.payload = part_copy(room, terms.payload, size);
    letter->terms.correlation = part_copy(room, terms.correlation, terms.correlation_size);
    letter->terms.topic = static_cast<const char *>(part_copy(room, terms.topic, topic));
    letter->terms.response_topic =
        static_cast<const char *>(part_copy(room, terms.response_topic, response));
    return letter;
}

void mqtt_letters_free(list_head &letters)
{
    while (!list_empty(&letters)) {
        mqtt_letter *letter = letter_of(letters.next); /* NOLINT(clang-analyzer-unix.Malloc) */
        list_del(&letter->node);
        free(letter);
    }
}

void mqtt_outbox_init(mqtt_outbox &box, size_t max_messages, size_t max_bytes)
{
    box = {};
    INIT_LIST_HEAD(&box.waiting);
    INIT_LIST_HEAD(&box.handed);
    INIT_LIST_HEAD(&box.over);
    box.max_messages = max_messages;
    box.max_bytes = max_bytes;
}

void mqtt_outbox_add(mqtt_outbox &box, mqtt_letter *letter, bool connected)
{
    box.accepted++;
    list_add_tail(&letter->node, &box.waiting);
    box.waiting_count++;
    box.waiting_bytes += letter->bytes;
    if (!connected && needs_connection(letter)) {
        waiting_end(box, letter, box.dropped);
    }
    while (box.waiting_count > box.max_messages || box.waiting_bytes > box.max_bytes) {
        waiting_end(box, letter_of(box.waiting.next), box.dropped);
    }
}

void mqtt_outbox_add_first(mqtt_outbox &box, mqtt_letter *letter)
{
    box.accepted++;
    list_add(&letter->node, &box.waiting);
    box.waiting_count++;
    box.waiting_bytes += letter->bytes;
}

mqtt_letter *mqtt_outbox_next(mqtt_outbox &box, int64_t now, size_t inflight)
{
    while (!list_empty(&box.waiting) && has_expired(letter_of(box.waiting.next), now)) {
        waiting_end(box, letter_of(box.waiting.next), box.expired);
    }
    if (list_empty(&box.waiting)) {
        return nullptr;
    }
    mqtt_letter *letter = letter_of(box.waiting.next);
    if (letter->terms.qos > 0 && box.handed_qos >= inflight) {
        return nullptr; /* those behind it wait as well: order is that of acceptance */
    }
    waiting_remove(box, letter);
    list_add_tail(&letter->node, &box.handed);
    box.handed_count++;
    box.handed_qos += letter->terms.qos > 0;
    return letter;
}

void mqtt_outbox_end(mqtt_outbox &box, mqtt_letter *letter, mqtt_end end)
{
    list_del(&letter->node);
    box.handed_count--;
    box.handed_qos -= letter->terms.qos > 0;
    if (end == mqtt_acknowledged) {
        box.acknowledged++;
        free(letter);
        return;
    }
    (end == mqtt_refused ? box.refused : box.dropped)++;
    list_add_tail(&letter->node, &box.over);
}

mqtt_letter *mqtt_outbox_find(mqtt_outbox &box, int mid)
{
    for (list_head *node = box.handed.next; node != &box.handed; node = node->next) {
        if (letter_of(node)->mid == mid) {
            return letter_of(node);
        }
    }
    return nullptr;
}

void mqtt_outbox_disconnect(mqtt_outbox &box)
{
    for (list_head *node = box.handed.next, *next; node != &box.handed; node = next) {
        next = node->next;
        if (letter_of(node)->terms.qos == 0) {
            mqtt_outbox_end(box, letter_of(node), mqtt_dropped);
        }
    }
    for (list_head *node = box.waiting.next, *next; node != &box.waiting; node = next) {
        next = node->next;
        if (needs_connection(letter_of(node))) {
            waiting_end(box, letter_of(node), box.dropped);
        }
    }
}

size_t mqtt_outbox_close(mqtt_outbox &box)
{
    const size_t left = box.waiting_count + box.handed_count;
    while (!list_empty(&box.handed)) {
        mqtt_outbox_end(box, letter_of(box.handed.next), mqtt_dropped);
    }
    while (!list_empty(&box.waiting)) {
        waiting_end(box, letter_of(box.waiting.next), box.dropped);
    }
    return left;
}

void mqtt_outbox_over(mqtt_outbox &box, list_head &over)
{
    INIT_LIST_HEAD(&over);
    while (!list_empty(&box.over)) {
        list_head *node = box.over.next;
        list_del(node);
        list_add_tail(node, &over);
    }
}
