/* SPDX-License-Identifier: Apache-2.0 */
/* The centre gathers what the stations tell: its bridge makes requests to the book of it. */
#include <signal.h>

#include "book.h"

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 };

static const char usage[] =
    "usage: fleet-centre PORT\n"
    "\n"
    "Gathers the verdicts of all stations at the broker on that port of this machine. SIGINT and\n"
    "SIGTERM end it; then it prints a table.\n";

/* Takes the station's name out of fleet/NAME/...: -1 when it has none that fits. */
static int name_read(char *station, const char *topic)
{
    const char *name = strchr(topic, '/');
    const char *end = name ? strchr(name + 1, '/') : NULL;
    const size_t length = end ? (size_t)(end - name - 1) : 0;
    if (length == 0 || length >= NAME_SIZE) {
        return -1;
    }
    memset(station, 0, NAME_SIZE);
    memcpy(station, name + 1, length);
    return 0;
}

static int32_t status_decode(void *arg, const qor_mqtt_message_t *message, void *buf, int32_t room)
{
    static const char online[] = "online";
    struct status status;
    (void)arg;
    if (room < (int32_t)sizeof(status) || name_read(status.station, message->topic) != 0) {
        return -1;
    }
    status.there = message->size == sizeof(online) - 1 &&
                   memcmp(message->payload, online, sizeof(online) - 1) == 0;
    memcpy(buf, &status, sizeof(status));
    return sizeof(status);
}

static int32_t report_decode(void *arg, const qor_mqtt_message_t *message, void *buf, int32_t room)
{
    char text[80] = "";
    long long at_ms;
    struct report r;
    (void)arg;
    if (room < (int32_t)sizeof(r) || message->size <= 0 || message->size >= (int32_t)sizeof(text) ||
        name_read(r.station, message->topic) != 0) {
        return -1;
    }
    memcpy(text, message->payload, (size_t)message->size);
    if (sscanf(text, FLEET_REPORT, &r.number, &at_ms, &r.kind, &r.load, &r.headroom) != 5) {
        return -1;
    }
    r.at_ms = at_ms;
    memcpy(buf, &r, sizeof(r));
    return sizeof(r);
}

static qor_context_module_t *bridge_make(int32_t port)
{
    char verdicts[64], statuses[64];
    snprintf(verdicts, sizeof(verdicts), FLEET_VERDICT, "+");
    snprintf(statuses, sizeof(statuses), FLEET_STATUS, "+");
    const qor_mqtt_route_t routes[] = {{.name = "statuses",
                                        .direction = QOR_MQTT_IN,
                                        .bus_topic = TOPIC_STATUS,
                                        .mqtt_topic = statuses,
                                        .qos = 1,
                                        .decode = status_decode},
                                       {.name = "verdicts",
                                        .direction = QOR_MQTT_IN,
                                        .bus_topic = TOPIC_REPORT,
                                        .mqtt_topic = verdicts,
                                        .qos = 1,
                                        .decode = report_decode}};
    qor_mqtt_config_t config;
    qor_mqtt_config_init(&config);
    config.name = config.client_id = "centre";
    config.clean_start = 0; /* what is told while it is away waits with the broker */
    config.session_expiry = 3600;
    config.host = FLEET_HOST;
    config.port = port;
    config.routes = routes;
    config.route_count = 2;
    return qor_mqtt_module_create(&config);
}

/* One request at a time, in their order. */
static int book_contract(qor_bus_t *bus)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = 1;
    return qor_bus_contract_set(bus, book_module.name, &contract);
}

/* Those that end the centre, and one to end who waits for them. */
static sigset_t signals_taken(void)
{
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGINT);
    sigaddset(&taken, SIGTERM);
    sigaddset(&taken, SIGUSR1);
    return taken;
}

/* Waits for a signal; in a signal handler the bus must not be called. */
static void *signals_take(void *bus)
{
    const sigset_t taken = signals_taken();
    int number;
    sigwait(&taken, &number);
    if (number != SIGUSR1) {
        qor_bus_quit(bus);
    }
    return NULL;
}

static int gather(qor_context_module_t *bridge)
{
    qor_context_module_t *modules[] = {&book_module, bridge, NULL};
    const sigset_t taken = signals_taken();
    pthread_t taker;
    int status = STATUS_FAILED;
    pthread_sigmask(SIG_BLOCK, &taken, NULL); /* for all threads to come */
    qor_bus_t *bus = qor_bus_create(modules, TOPICS);
    if (!bus) {
        return STATUS_FAILED;
    }
    if (book_contract(bus) == 0 && qor_mqtt_module_contract(bus, bridge) == 0 &&
        pthread_create(&taker, NULL, signals_take, bus) == 0) {
        status = qor_bus_loop(bus) == 0 ? 0 : STATUS_FAILED;
        pthread_kill(taker, SIGUSR1);
        pthread_join(taker, NULL);
    }
    qor_bus_close(bus);
    return status;
}

int main(int argc, char **argv)
{
    const int32_t port = argc == 2 ? fleet_port(argv[1]) : -1;
    if (port < 0) {
        fputs(usage, stderr);
        return STATUS_USAGE;
    }
    setvbuf(stdout, NULL, _IOLBF, 0); /* whoever follows it sees each line at once */
    qor_context_module_t *bridge = bridge_make(port);
    if (!bridge) {
        return STATUS_USAGE;
    }
    const int status = gather(bridge);
    if (status == 0) {
        book_print();
    }
    qor_mqtt_module_destroy(bridge);
    return status;
}
