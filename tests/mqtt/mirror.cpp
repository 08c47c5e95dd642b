/* SPDX-License-Identifier: Apache-2.0 */
/* A process with a bus of its own, and a bridge that mirrors the topic "mirror":
 *
 *   mirror PORT NAME paired|open
 *
 * Prints "took" and the payload of each request on the bus. SIGUSR1 has it send one itself, with
 * its name for a payload. SIGTERM ends it, and it prints what the bridge has done. */
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "module.hpp"
#include "qor.h"
#include "qor_mqtt.h"
#include "thread.hpp"

namespace {

enum { MIRRORED, TOPICS };

int fail(const char *what)
{
    std::printf("mirror: %s\n", what);
    return 1;
}

qor_context_module_t *bridge_make(int port, const char *name, bool paired)
{
    qor_mqtt_config_t config;
    qor_mqtt_route_t routes[2] = {};
    routes[0].name = "in";
    routes[0].direction = QOR_MQTT_IN;
    routes[1].name = "out";
    routes[1].direction = QOR_MQTT_OUT;
    routes[1].pair = paired ? "in" : nullptr;
    for (qor_mqtt_route_t &route : routes) {
        route.bus_topic = MIRRORED;
        route.mqtt_topic = "mirror";
        route.qos = 1;
    }
    qor_mqtt_config_init(&config);
    config.host = "127.0.0.1";
    config.port = port;
    config.name = config.client_id = name;
    config.routes = routes;
    config.route_count = 2;
    return qor_mqtt_module_create(&config);
}

int32_t took(qor_context_t *, qor_context_msg_t *msg)
{
    if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
        std::printf("took %.*s\n", msg->request.size, static_cast<const char *>(msg->request.buf));
    }
    return 0;
}

/* Until SIGTERM. */
void serve(Module &module, const char *name, const sigset_t &signals)
{
    int signal;
    while (sigwait(&signals, &signal) == 0 && signal != SIGTERM) {
        qor_context_req(module.context(), MIRRORED, const_cast<char *>(name),
                        static_cast<int32_t>(std::strlen(name)));
    }
}

void status_print(qor_context_module_t *bridge)
{
    qor_mqtt_status_t status = {};
    status.size = sizeof(status);
    qor_mqtt_status(bridge, &status);
    std::printf("in %d, skipped %d, sent %d, acknowledged %d\n", static_cast<int>(status.in),
                static_cast<int>(status.in_skipped), static_cast<int>(status.accepted),
                static_cast<int>(status.acknowledged));
}

int run(Module &module, qor_context_module_t *bridge, const char *name, const sigset_t &signals)
{
    qor_context_module_t *modules[] = {&module.descriptor, bridge, nullptr};
    qor_bus_t *bus = qor_bus_create(modules, TOPICS);
    if (!bus || qor_mqtt_module_contract(bus, bridge) < 0) {
        return fail("no bus");
    }
    Thread loop([bus] { qor_bus_loop(bus); });
    if (qor_bus_wait_up(bus, 60000, nullptr) == 0) {
        serve(module, name, signals);
    }
    qor_bus_quit(bus);
    loop.join();
    qor_bus_close(bus);
    status_print(bridge);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    sigset_t signals;
    Module module("taker");
    if (argc != 4) {
        return fail("PORT NAME paired|open");
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); /* for all threads to come */
    module.reg = [](qor_context_t *c) { qor_context_subscribe(c, MIRRORED, nullptr); };
    module.handle = took;
    qor_context_module_t *bridge =
        bridge_make(std::atoi(argv[1]), argv[2], std::strcmp(argv[3], "paired") == 0);
    if (!bridge) {
        return fail("no bridge");
    }
    const int status = run(module, bridge, argv[2], signals);
    qor_mqtt_module_destroy(bridge);
    return status;
}
