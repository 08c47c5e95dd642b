/* SPDX-License-Identifier: Apache-2.0 */
/* Requests on call routes that wait for their answers. A number is given once, so what comes twice
 * or late finds nothing. */
#include "mqtt_calls.hpp"

#include <sys/random.h>

#include "mqtt_base.hpp"

namespace {

mqtt_call *call_of(list_head *node)
{
    return reinterpret_cast<mqtt_call *>(node); /* node is the first field */
}

mqtt_call *take(mqtt_calls &calls, list_head *node)
{
    list_del(node);
    calls.count--;
    return call_of(node);
}

} // namespace

int32_t mqtt_calls_init(mqtt_calls &calls, int32_t most)
{
    uint8_t bytes[8];
    INIT_LIST_HEAD(&calls.head);
    calls.most = most;
    if (getrandom(bytes, sizeof(bytes), 0) != sizeof(bytes)) {
        return -1;
    }
    for (size_t i = 0; i < sizeof(bytes); i++) {
        hal_snprintf(calls.start + 2 * i, 3, "%02x", bytes[i]);
    }
    return mqtt_cond_init(calls.over);
}

void mqtt_calls_destroy(mqtt_calls &calls)
{
    pthread_cond_destroy(&calls.over);
}

mqtt_call *mqtt_call_make(const mqtt_route *route, int32_t room, int64_t deadline)
{
    mqtt_call *call = mqtt_new<mqtt_call>(static_cast<size_t>(room));
    if (call) {
        call->route = route;
        call->room = room;
        call->deadline = deadline;
    }
    return call;
}

bool mqtt_calls_add(mqtt_calls &calls, mqtt_call *call)
{
    if (calls.count >= calls.most) {
        return false;
    }
    call->number = ++calls.last;
    list_add_tail(&call->node, &calls.head);
    calls.count++;
    return true;
}

mqtt_call *mqtt_calls_take(mqtt_calls &calls, uint64_t number)
{
    for (list_head *node = calls.head.next; node != &calls.head; node = node->next) {
        if (call_of(node)->number == number) {
            return take(calls, node);
        }
    }
    return nullptr;
}

mqtt_call *mqtt_calls_take_late(mqtt_calls &calls, int64_t now)
{
    for (list_head *node = calls.head.next; node != &calls.head; node = node->next) {
        if (call_of(node)->deadline <= now) {
            return take(calls, node);
        }
    }
    return nullptr;
}

void mqtt_correlation_print(const mqtt_calls &calls, uint64_t number, char *text)
{
    hal_snprintf(text, mqtt_correlation_size, "%s-%llu", calls.start,
                 static_cast<unsigned long long>(number));
}

uint64_t mqtt_correlation_read(const mqtt_calls &calls, const void *data, uint16_t size)
{
    const size_t start = strlen(calls.start);
    const char *text = static_cast<const char *>(data);
    uint64_t number = 0;
    if (!data || size < start + 2 || size >= mqtt_correlation_size ||
        memcmp(text, calls.start, start) != 0 || text[start] != '-' || text[start + 1] == '0') {
        return 0;
    }
    for (size_t i = start + 1; i < size; i++) {
        if (text[i] < '0' || text[i] > '9' || number > (UINT64_MAX - 9) / 10) {
            return 0;
        }
        number = number * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    return number;
}
