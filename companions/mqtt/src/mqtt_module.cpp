/* SPDX-License-Identifier: Apache-2.0 */
/* The bridge's module: what the bus calls, and the functions for applications. */
#include <sys/eventfd.h>
#include <unistd.h>

#include "mqtt_arrivals.hpp"
#include "mqtt_link.hpp"
#include "mqtt_outward.hpp"
#include "mqtt_properties.hpp"

namespace {

constexpr char file_tag[] = "qor_mqtt";

void module_reg(qor_context_t *self)
{
    mqtt_bridge *bridge = mqtt_bridge_under(self);
    bridge->attached = true;
    mqtt_outward_reg(bridge, self);
}

int32_t module_init(qor_context_t *self, void *)
{
    mqtt_bridge *bridge = mqtt_bridge_under(self);
    if (!bridge->bus) {
        MQTT_ERR("\"%s\": no contract: call qor_mqtt_module_contract() before the loop.",
                 bridge->config.terms.name);
        return -1;
    }
    {
        mqtt_lock lock(bridge->mutex);
        bridge->context = self;
        bridge->closing = false;
        bridge->thread_over = false;
    }
    return mqtt_link_start(bridge);
}

/* Also called when init has failed, or was never called. */
void module_unreg(qor_context_t *self)
{
    mqtt_bridge *bridge = mqtt_bridge_under(self);
    {
        mqtt_lock lock(bridge->mutex);
        bridge->context = nullptr;
        bridge->closing = true;
        bridge->close_by = util_timestamp() + bridge->config.terms.linger;
    }
    mqtt_calls_close(bridge);
    mqtt_link_stop(bridge);
}

void module_uninit(qor_context_t *self)
{
    mqtt_bridge *bridge = mqtt_bridge_under(self);
    bridge->attached = false;
    bridge->bus = nullptr;
}

int32_t module_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    mqtt_bridge *bridge = mqtt_bridge_under(self);
    switch (msg->type) {
    case QOR_CONTEXT_MSG_REQUEST:
        return mqtt_call_make_of(bridge, self, msg);
    case QOR_CONTEXT_MSG_RESPONSE:
        mqtt_response(bridge, msg);
        return 0;
    default:
        mqtt_outward_seen(bridge, msg);
        return 0;
    }
}

/* What a listener would have seen, before a request or after it; other losses are told to who has
 * sent. */
void module_lost(void *arg, const qor_loss_t *loss)
{
    mqtt_bridge *bridge = static_cast<mqtt_bridge *>(arg);
    if (loss->kind == QOR_LOSS_LISTENER) {
        __atomic_fetch_add(&bridge->unseen, 1, __ATOMIC_RELAXED);
        mqtt_lock lock(bridge->mutex);
        mqtt_routed_lost(bridge->routed, loss->session);
    }
}

void descriptor_fill(mqtt_bridge *bridge)
{
    qor_context_module_t *module = &bridge->module;
    const char *name = bridge->config.terms.name;
    memcpy(const_cast<char *>(module->name), name, strlen(name) + 1);
    module->pure = 1;
    module->reg = module_reg;
    module->unreg = module_unreg;
    module->init = module_init;
    module->uninit = module_uninit;
    module->handle_message = module_handle;
}

char *reply_topic_make(const mqtt_bridge *bridge)
{
    const char *prefix = bridge->config.terms.reply_prefix;
    const size_t size = strlen(prefix) + 1 + sizeof(bridge->calls.start);
    char *topic = mqtt_new<char>(size);
    if (topic) {
        hal_snprintf(topic, static_cast<int>(size), "%s/%s", prefix, bridge->calls.start);
    }
    return topic;
}

/* What can fail for want of memory or files: 0 or -1. */
int32_t parts_make(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    bridge->link.reply_topic = reply_topic_make(bridge);
    bridge->link.mids = mqtt_new<int>(sizeof(int) * static_cast<size_t>(terms.route_count));
    bridge->wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const bool made = mqtt_routed_init(bridge->routed, terms.open + terms.in_open) == 0;
    return made && bridge->link.reply_topic && bridge->link.mids && bridge->wake >= 0 ? 0 : -1;
}

/* Locks, then the rest; -1 and nothing is left of the record but its configuration. */
int32_t bridge_init(mqtt_bridge *bridge)
{
    const qor_mqtt_config_t &terms = bridge->config.terms;
    if (pthread_mutex_init(&bridge->mutex, nullptr) != 0) {
        return -1;
    }
    if (mqtt_cond_init(bridge->ended) < 0) {
        pthread_mutex_destroy(&bridge->mutex);
        return -1;
    }
    if (mqtt_calls_init(bridge->calls, terms.calls) < 0) {
        pthread_cond_destroy(&bridge->ended);
        pthread_mutex_destroy(&bridge->mutex);
        return -1;
    }
    mqtt_outbox_init(bridge->outbox, static_cast<size_t>(terms.out_messages),
                     static_cast<size_t>(terms.out_bytes));
    mqtt_inbox_init(bridge->in, static_cast<size_t>(terms.in_messages),
                    static_cast<size_t>(terms.in_bytes));
    mqtt_inbox_init(bridge->serve, static_cast<size_t>(terms.open),
                    static_cast<size_t>(terms.in_bytes));
    bridge->holds = 1;
    return 0;
}

const char *topic_beyond(const mqtt_bridge *bridge, int32_t topics)
{
    for (int32_t i = 0; i < bridge->config.terms.route_count; i++) {
        if (bridge->config.routes[i].terms.bus_topic >= topics) {
            return bridge->config.routes[i].terms.name;
        }
    }
    return nullptr;
}

} // namespace

void qor_mqtt_config_init(qor_mqtt_config_t *config)
{
    MQTT_CHECK_VOID(config);
    *config = {};
    config->size = sizeof(*config);
    config->route_size = sizeof(qor_mqtt_route_t);
    config->name = "mqtt";
    config->reply_prefix = "qor/reply";
    config->port = 1883;
    config->keep_alive = 60;
    config->clean_start = 1;
    config->status_bus_topic = -1;
    config->reconnect_min = 1000;
    config->reconnect_max = 60000;
    config->connect_time = 10000;
    config->linger = 1000;
    config->inflight = 20;
    config->open = config->in_open = config->calls = 64;
    config->depth = config->out_messages = config->in_messages = 1024;
    config->out_bytes = config->in_bytes = 4 << 20;
    config->payload = 256 << 10;
    config->stack_size = 128 << 10;
}

qor_context_module_t *qor_mqtt_module_create(const qor_mqtt_config_t *config)
{
    MQTT_CHECK(config, nullptr);
    mqtt_bridge *bridge = mqtt_new<mqtt_bridge>();
    if (!bridge) {
        MQTT_ERR("no memory for a bridge.");
        return nullptr;
    }
    if (mqtt_config_copy(bridge->config, *config) < 0) {
        free(bridge);
        return nullptr;
    }
    bridge->wake = -1;
    if (bridge_init(bridge) < 0) {
        MQTT_ERR("no memory for a bridge.");
        mqtt_config_free(bridge->config);
        free(bridge);
        return nullptr;
    }
    if (parts_make(bridge) < 0) {
        MQTT_ERR("no memory for a bridge.");
        mqtt_bridge_drop(bridge);
        return nullptr;
    }
    descriptor_fill(bridge);
    return &bridge->module;
}

int32_t qor_mqtt_module_contract(qor_bus_t *bus, qor_context_module_t *module)
{
    MQTT_CHECK(bus, -1);
    MQTT_CHECK(module, -1);
    mqtt_bridge *bridge = mqtt_bridge_of(module);
    const qor_mqtt_config_t &terms = bridge->config.terms;
    const int32_t topics = bus->user_topic_core->id_max;
    qor_contract_t contract;
    if (const char *route = topic_beyond(bridge, topics)) {
        MQTT_ERR("route \"%s\": bus_topic: out of range.", route);
        return -1;
    }
    if (terms.status_bus_topic >= topics) {
        MQTT_ERR("configuration: status_bus_topic: out of range.");
        return -1;
    }
    qor_contract_init(&contract);
    contract.strict = 1;
    contract.depth = static_cast<uint32_t>(terms.depth);
    contract.replies = static_cast<uint32_t>(terms.open + terms.in_open + 1); /* and the status */
    contract.open_max = static_cast<uint32_t>(terms.calls);
    contract.overflow = QOR_OVERFLOW_REFUSE;
    contract.lost = module_lost;
    contract.arg = bridge;
    if (qor_bus_contract_set(bus, module->name, &contract) < 0) {
        return -1;
    }
    bridge->bus = bus;
    return 0;
}

void qor_mqtt_module_destroy(qor_context_module_t *module)
{
    MQTT_CHECK_VOID(module);
    mqtt_bridge *bridge = mqtt_bridge_of(module);
    if (bridge->attached) {
        MQTT_ERR("the bus is not closed.");
        return;
    }
    mqtt_bridge_drop(bridge);
}

int32_t qor_mqtt_status(qor_context_module_t *module, qor_mqtt_status_t *status)
{
    MQTT_CHECK(module, -1);
    MQTT_CHECK(status, -1);
    qor_mqtt_status_t copy;
    const uint32_t size = status->size;
    if (size != sizeof(copy)) {
        MQTT_ERR("size: not known.");
        return -1;
    }
    mqtt_bridge_status(mqtt_bridge_of(module), copy);
    *status = copy;
    return 0;
}

int32_t qor_mqtt_property(const qor_mqtt_message_t *message, const char *name, char *value,
                          int32_t room)
{
    MQTT_CHECK(message, -1);
    MQTT_CHECK(name, -1);
    MQTT_CHECK(value || room == 0, -1);
    char *text =
        mqtt_property_text(static_cast<const mosquitto_property *>(message->properties), name);
    if (!text) {
        return -1;
    }
    const size_t length = strlen(text);
    if (room > 0) {
        const size_t most = static_cast<size_t>(room) - 1;
        const size_t copied = length < most ? length : most;
        memcpy(value, text, copied);
        value[copied] = '\0';
    }
    free(text);
    return static_cast<int32_t>(length);
}
