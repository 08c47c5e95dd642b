/* SPDX-License-Identifier: Apache-2.0 */
/* A program as somebody writes it who has the site and the installed library, and nothing else: a
 * greenhouse with a sensor that is read again and again, a vent that takes its time, and a desk
 * that asks both. It uses what the guides have on modules, topics, requests, observers, timers,
 * contracts, deferred answers, the start, lines, recording, seeing, maps, and the end; and it looks
 * whether all of that has done what the guides say. */
#include <semaphore.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

#include <qor.h>

enum { TOPIC_CLIMATE, TOPIC_READING, TOPIC_VENT, TOPIC_MOST, TOPICS };
enum { READINGS = 5, PERIOD_MS = 20, MOTOR_MS = 30, LIMIT_MS = 10000, WISH = 150, MOST = 100 };
enum { LANES = 12, NAMES = 24, EVENTS = 256 };

struct climate {
    int32_t degrees;
    int32_t readings;
};

static qor_bus_t *bus;
static sem_t step; /* posted by what the watcher waits for */
static atomic_int errors, listened, lost, ended;
static int32_t opened = -1; /* how far the vent says that it is */
static atomic_int wrong;

#define EXPECT(condition)                                                   \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "line %d: not so: %s\n", __LINE__, #condition); \
            atomic_store(&wrong, 1);                                        \
        }                                                                   \
    } while (0)

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t ready(qor_context_t *self, void *arg)
{
    (void)self, (void)arg;
    return 0;
}

/* The sensor: strict, so that its timer and its handler share the record without a lock. */
static void sensor_read(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    struct climate *now = arg;
    (void)missed;
    now->degrees = 20 + now->readings++;
    qor_trace_mark(1, now->degrees);
    if (qor_context_req(self, TOPIC_READING, &now->degrees, sizeof(now->degrees)) < 0 ||
        now->readings == READINGS) {
        qor_context_timer_cancel(self, session);
    }
}

static void sensor_over(void *arg)
{
    (void)arg;
    atomic_fetch_add(&ended, 1);
    sem_post(&step);
}

static void sensor_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_CLIMATE, NULL);
}

static int32_t sensor_init(qor_context_t *self, void *arg)
{
    qor_context_priv_data_set(self, arg);
    return qor_context_every(self, sensor_read, arg, sensor_over, PERIOD_MS) < 0 ? -1 : 0;
}

static int32_t sensor_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    const struct climate *now = qor_context_priv_data_get(self);
    if (msg->type != QOR_CONTEXT_MSG_REQUEST) {
        return 0; /* that a reading was stored */
    }
    if (msg->response.size != (int32_t)sizeof(*now)) {
        return -1;
    }
    memcpy(msg->response.buf, now, sizeof(*now));
    return 0;
}

/* The store: what finds no place in its queue goes, the oldest first, and is counted. */
static void store_lost(void *arg, const qor_loss_t *loss)
{
    (void)arg, (void)loss;
    atomic_fetch_add(&lost, 1);
}

static void store_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_READING, NULL);
}

static int32_t store_init(qor_context_t *self, void *arg)
{
    qor_context_priv_data_set(self, arg);
    return rbapi_kv_init(arg, NULL); /* its values are freed by it */
}

static void store_uninit(qor_context_t *self)
{
    rbtree_kv_root *map = qor_context_priv_data_get(self);
    EXPECT(rbapi_kv_isempty(map) == 0);
    rbapi_kv_destroy(map);
}

static int32_t store_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    rbtree_kv_root *map = qor_context_priv_data_get(self);
    int32_t *value = malloc(sizeof(*value));
    if (!value || msg->request.size != (int32_t)sizeof(*value)) {
        free(value);
        return -1;
    }
    memcpy(value, msg->request.buf, sizeof(*value));
    rbapi_kv_erase("newest", map); /* a key that is there would be refused */
    if (rbapi_kv_insert("newest", value, map) != 0) {
        free(value);
        return -1;
    }
    return 0;
}

/* The vent: its motor is at its place a while after the handler has returned. */
static struct {
    uint64_t token; /* one at a time: the contract opens no second */
    int32_t percent;
} moving;

static void *motor_done(void *arg)
{
    (void)arg;
    qor_deferred_complete(moving.token, 0, &moving.percent, sizeof(moving.percent));
    return NULL;
}

static void vent_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC_VENT, NULL);
}

static int32_t vent_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    if (msg->request.size != (int32_t)sizeof(moving.percent) ||
        qor_context_defer(self, msg, LIMIT_MS, &moving.token) != 0) {
        return -1;
    }
    memcpy(&moving.percent, msg->request.buf, sizeof(moving.percent));
    return qor_context_x_timer(self, motor_done, NULL, MOTOR_MS) < 0 ? -1 : 0;
}

/* The stop: a vent opens no further than it can. */
static void stop_reg(qor_context_t *self)
{
    qor_context_topic_attr_t before = {.point = QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE};
    qor_context_filter(self, TOPIC_VENT, &before);
    qor_context_subscribe(self, TOPIC_MOST, NULL);
}

static int32_t stop_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    int32_t percent;
    (void)self;
    if (msg->type == QOR_CONTEXT_MSG_REQUEST) {
        return MOST; /* it keeps nothing: so it may be asked on any thread */
    }
    if (msg->request.size == (int32_t)sizeof(percent)) {
        memcpy(&percent, msg->request.buf, sizeof(percent));
        percent = percent > MOST ? MOST : percent;
        memcpy(msg->request.buf, &percent, sizeof(percent));
    }
    return 0;
}

/* The logbook sees what became of the requests. */
static void logbook_reg(qor_context_t *self)
{
    qor_context_topic_attr_t after = {.point = QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER};
    qor_context_listen(self, TOPIC_VENT, &after);
}

static int32_t logbook_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    if (msg->type == QOR_CONTEXT_MSG_LISTEN_AFTER && msg->ret == 0) {
        atomic_fetch_add(&listened, 1);
        sem_post(&step);
    }
    return 0;
}

/* The desk asks the sensor and the vent by messages that come back, and the stop on its own thread:
 * a synchronous request does not wait for its turn, and the sensor's timer may run beside it. */
static int32_t desk_init(qor_context_t *self, void *arg)
{
    int32_t wish = WISH;
    (void)arg;
    EXPECT(qor_context_x_req(self, TOPIC_MOST, NULL, 0) == MOST);
    if (qor_context_req_ret(self, TOPIC_CLIMATE, NULL, 0, sizeof(struct climate)) < 0) {
        return -1;
    }
    return qor_context_req_ret(self, TOPIC_VENT, &wish, sizeof(wish), sizeof(wish)) < 0 ? -1 : 0;
}

static int32_t desk_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    struct climate now;
    (void)self;
    if (msg->type != QOR_CONTEXT_MSG_RESPONSE || msg->ret != 0) {
        return -1;
    }
    if (msg->topic == TOPIC_CLIMATE) {
        memcpy(&now, msg->response.buf, sizeof(now));
        EXPECT(now.readings >= 0 && now.readings <= READINGS);
    } else {
        memcpy(&opened, msg->response.buf, sizeof(opened));
    }
    sem_post(&step);
    return 0;
}

static struct climate climate;
static rbtree_kv_root map;

static qor_context_module_t sensor = {
    .name = "sensor",
    .pure = 1,
    .arg = &climate,
    .reg = sensor_reg,
    .unreg = nothing,
    .init = sensor_init,
    .uninit = nothing,
    .handle_message = sensor_handle,
};
static qor_context_module_t store = {
    .name = "store",
    .pure = 1,
    .arg = &map,
    .reg = store_reg,
    .unreg = nothing,
    .init = store_init,
    .uninit = store_uninit,
    .handle_message = store_handle,
};
static qor_context_module_t vent = {
    .name = "vent",
    .pure = 1,
    .reg = vent_reg,
    .unreg = nothing,
    .init = ready,
    .uninit = nothing,
    .handle_message = vent_handle,
};
static qor_context_module_t stop = {
    .name = "stop",
    .pure = 1,
    .reg = stop_reg,
    .unreg = nothing,
    .init = ready,
    .uninit = nothing,
    .handle_message = stop_handle,
};
static qor_context_module_t logbook = {
    .name = "logbook",
    .pure = 1,
    .reg = logbook_reg,
    .unreg = nothing,
    .init = ready,
    .uninit = nothing,
    .handle_message = logbook_handle,
};
static qor_context_module_t desk = {
    .name = "desk",
    .reg = nothing,
    .unreg = nothing,
    .init = desk_init,
    .uninit = nothing,
    .handle_message = desk_handle,
};

static void line_count(void *arg, int32_t level, const char *fmt, va_list ap)
{
    (void)arg;
    if (level <= QOR_LEVEL_ERR) {
        vfprintf(stderr, fmt, ap);
        atomic_fetch_add(&errors, 1);
    }
}

static void finding_print(void *arg, const qor_bus_finding_t *finding)
{
    (void)arg;
    fprintf(stderr, "%s: %s\n", finding->module, finding->text);
}

static int32_t contract_give(const char *name, uint32_t depth, int32_t overflow, uint32_t open_max)
{
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.strict = 1;
    contract.depth = depth;
    contract.overflow = overflow;
    contract.open_max = open_max;
    contract.lost = store_lost;
    return qor_bus_contract_set(bus, name, &contract);
}

static int32_t context_count(void *count, int32_t kind, const void *record)
{
    (void)record;
    *(int *)count += kind == QOR_INFO_CONTEXT;
    return 0;
}

static void line_see(void *circles, const char *line)
{
    *(int *)circles += strncmp(line, "circle", 6) == 0;
}

/* What one sees of it from outside, while it runs. */
static void look(void)
{
    qor_health_t health = {.size = sizeof(health)};
    qor_ledger_t ledger = {.size = sizeof(ledger)};
    int contexts = 0, circles = 0;
    EXPECT(qor_bus_health(bus, 60000, &health) == 0);
    EXPECT(qor_bus_explain(bus, line_see, &circles) == 0 && circles == 0);
    EXPECT(qor_bus_inspect(bus, context_count, &contexts) == 0 && contexts >= 6);
    EXPECT(qor_bus_ledger(bus, "store", &ledger) == 0);
    EXPECT(ledger.accepted == READINGS && ledger.run + (uint64_t)atomic_load(&lost) == READINGS);
}

/* The loop keeps main: this thread waits for the start and for what is to come, and ends the bus.
 */
static void *watch(void *arg)
{
    qor_start_entry_t entries[8];
    qor_start_report_t report = {.entries = entries, .capacity = 8};
    (void)arg;
    EXPECT(qor_bus_wait_up(bus, -1, &report) == 0 && report.total == 6);
    /* Both answers, what the logbook sees, and the end of the readings. */
    for (int i = 0; i < 4; i++) {
        sem_wait(&step);
    }
    EXPECT(qor_bus_drain(bus, -1) == 0);
    look();
    qor_bus_quit(bus);
    return NULL;
}

int main(void)
{
    static const qor_output_t output = {line_count, NULL};
    qor_context_module_t *modules[] = {&sensor, &store, &vent, &stop, &logbook, &desk, NULL};
    qor_trace_config_t config = {.size = sizeof(config), .lanes = LANES, .names = NAMES};
    pthread_t watcher;

    qor_output_set(&output);
    if (sem_init(&step, 0, 0) != 0 || qor_bus_check(modules, finding_print, NULL) != 0) {
        return 1;
    }
    bus = qor_bus_create(modules, TOPICS);
    config.memory_size = (qor_trace_size(LANES, NAMES, EVENTS) + 63) / 64 * 64;
    config.memory = aligned_alloc(64, config.memory_size);
    if (!bus || !config.memory || qor_trace_start(bus, &config) != 0 ||
        contract_give("sensor", 0, QOR_OVERFLOW_REFUSE, 0) != 0 ||
        contract_give("store", 4, QOR_OVERFLOW_DROP_OLDEST, 0) != 0 ||
        contract_give("vent", 0, QOR_OVERFLOW_REFUSE, 1) != 0 ||
        pthread_create(&watcher, NULL, watch, NULL) != 0) {
        return 1;
    }
    EXPECT(qor_bus_loop(bus) == 0);
    qor_bus_quit(bus); /* should it not have looped, the watcher still waits */
    pthread_join(watcher, NULL);
    qor_bus_close(bus);
    free(config.memory);
    sem_destroy(&step);

    EXPECT(opened == MOST);
    EXPECT(climate.readings == READINGS && atomic_load(&ended) == 1);
    EXPECT(atomic_load(&listened) == 1 && atomic_load(&errors) == 0);
    printf("%d degrees, the vent is open by %d %%\n", (int)climate.degrees, (int)opened);
    return atomic_load(&wrong);
}
