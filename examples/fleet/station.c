/* SPDX-License-Identifier: Apache-2.0 */
/* A station watches its machine with the modules of telemetry. A bridge beside them shows the
 * verdicts to the broker; they know nothing of it. */
#include "fleet.h"
#include "telemetry.h"

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 };

static const char usage[] =
    "usage: fleet-station PORT NAME [SAMPLES]\n"
    "\n"
    "Watches the machine, ten times a second, and tells the verdicts to the "
    "broker on that port of\n"
    "this machine. Ends after SAMPLES, or on SIGINT and SIGTERM.\n";

/* The telemetry, and how many of its verdicts the bridge was shown. */
static struct station {
    struct telemetry t;
    int32_t shown;
} station;

/* Writes a verdict down. The bus may stop when the last one is written: until then telemetry_done()
 * waits for this as for any module. */
static int32_t verdict_encode(void *arg, const qor_mqtt_part_t *part, void *buf, int32_t room)
{
    struct station *s = arg;
    struct sampler *sampler = &s->t.sampler;
    struct verdict v;
    if (part->ret < 0 || part->size != sizeof(v)) {
        return -1;
    }
    memcpy(&v, part->data, sizeof(v));
    const int32_t size = snprintf(buf, (size_t)room, FLEET_REPORT, v.number, (long long)v.at_ms,
                                  v.kind, v.load, v.headroom);
    s->shown++;
    pthread_mutex_lock(&sampler->mutex);
    const int over = sampler->last_sent && s->shown == sampler->requests;
    pthread_mutex_unlock(&sampler->mutex);
    if (over) {
        telemetry_done(&s->t);
    }
    return size < room ? size : -1;
}

static qor_context_module_t *bridge_make(struct station *s, int32_t port, const char *name)
{
    char verdicts[64], status[64];
    snprintf(verdicts, sizeof(verdicts), FLEET_VERDICT, "{module}");
    snprintf(status, sizeof(status), FLEET_STATUS, name);
    const qor_mqtt_route_t route = {.name = "verdicts",
                                    .direction = QOR_MQTT_OUT,
                                    .bus_topic = TOPIC_SAMPLE,
                                    .mqtt_topic = verdicts,
                                    .qos = 1,
                                    .when = QOR_MQTT_AFTER,
                                    .encode = verdict_encode,
                                    .arg = s};
    qor_mqtt_config_t config;
    qor_mqtt_config_init(&config);
    config.name = config.client_id = name;
    config.host = FLEET_HOST;
    config.port = port;
    config.status_topic = status; /* the broker says so when this process is killed */
    config.routes = &route;
    config.route_count = 1;
    return qor_mqtt_module_create(&config);
}

/* From the creation of the bus to its end. */
static int watch(struct telemetry *t, qor_context_module_t *bridge)
{
    qor_context_module_t *modules[] = {&sampler_module, &guard_module, &judge_module,
                                       &alarm_module,   bridge,        NULL};
    int status = STATUS_FAILED;
    for (int i = 0; modules[i] != bridge; i++) {
        modules[i]->arg = t;
    }
    signals_block(&t->command);
    t->bus = qor_bus_create(modules, TOPICS);
    if (!t->bus) {
        return STATUS_FAILED;
    }
    if (qor_mqtt_module_contract(t->bus, bridge) == 0 && signals_start(t) == 0) {
        const int32_t looped = qor_bus_loop(t->bus); /* until qor_bus_quit() */
        signals_end(&t->command);
        status = looped != 0 || atomic_load(&t->failed) ? STATUS_FAILED : 0;
    }
    qor_bus_close(t->bus); /* the bridge sends the rest meanwhile */
    return status;
}

int main(int argc, char **argv)
{
    struct telemetry *t = &station.t;
    const int32_t port = argc > 2 ? fleet_port(argv[1]) : -1;
    t->sampler.limit = argc > 3 ? atoi(argv[3]) : 0;
    if (port < 0 || argc > 4 || t->sampler.limit < 0) {
        fputs(usage, stderr);
        return STATUS_USAGE;
    }
    atomic_init(&t->stop, STOP_NOT);
    atomic_init(&t->failed, 0);
    atomic_init(&t->open, 3); /* the alarm's word to the sampler, the last response, the bridge */
    pthread_mutex_init(&t->sampler.mutex, NULL);
    if (sampler_open(&t->sampler, NULL) != 0) {
        return STATUS_FAILED;
    }
    qor_context_module_t *bridge = bridge_make(&station, port, argv[2]);
    if (!bridge) {
        return STATUS_USAGE;
    }
    const int status = watch(t, bridge);
    qor_mqtt_module_destroy(bridge);
    return status;
}
