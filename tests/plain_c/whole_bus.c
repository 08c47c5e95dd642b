/* SPDX-License-Identifier: Apache-2.0 */
/* A whole bus: one module that asks, one that answers, one that listens and one that filters, from
 * start to quit and close. */
#include "check.h"
#include "qor.h"

enum { TOPIC, TOPICS, PATIENCE = 20000, RET = 5 };

static qor_bus_t *bus;
static qor_context_t *asker;
static int32_t asked; /* session of the last request */

static atomic_int answers_later;
static atomic_int deferred;
static uint64_t token;

static atomic_int up, requests, responses, wrong, listened, filtered, executed, down;
static atomic_int beats, released;

static int32_t init(qor_context_t *self, void *arg)
{
    if (arg) {
        *(qor_context_t **)arg = self;
    }
    atomic_fetch_add(&up, 1);
    return 0;
}

static void uninit(qor_context_t *self)
{
    (void)self;
    atomic_fetch_add(&down, 1);
}

static void nothing(qor_context_t *self)
{
    (void)self;
}

static int32_t asker_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    if (msg->type != QOR_CONTEXT_MSG_RESPONSE || msg->session != asked || msg->ret != RET ||
        memcmp(msg->response.buf, "yes", 3) != 0) {
        atomic_fetch_add(&wrong, 1);
    }
    atomic_fetch_add(&responses, 1);
    return 0;
}

static void answerer_reg(qor_context_t *self)
{
    qor_context_subscribe(self, TOPIC, NULL);
}

static void answerer_unreg(qor_context_t *self)
{
    qor_context_unsubscribe(self, TOPIC);
}

static int32_t answerer_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    if (atomic_load(&answers_later)) {
        if (qor_context_defer(self, msg, PATIENCE, &token) != 0) {
            atomic_fetch_add(&wrong, 1);
        }
        atomic_fetch_add(&deferred, 1);
        return 0;
    }
    if (msg->type != QOR_CONTEXT_MSG_REQUEST || memcmp(msg->request.buf, "why", 3) != 0) {
        atomic_fetch_add(&wrong, 1);
    }
    memcpy(msg->response.buf, "yes", 3);
    atomic_fetch_add(&requests, 1);
    return RET;
}

static void listener_reg(qor_context_t *self)
{
    qor_context_listen(self, TOPIC, NULL);
}

static int32_t listener_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    const int before = msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE;
    if (!before && msg->type != QOR_CONTEXT_MSG_LISTEN_AFTER) {
        atomic_fetch_add(&wrong, 1);
    }
    atomic_fetch_add(&listened, 1);
    return 0;
}

static void filter_reg(qor_context_t *self)
{
    qor_context_filter(self, TOPIC, NULL);
}

static void filter_unreg(qor_context_t *self)
{
    qor_context_unfilter(self, TOPIC);
}

static int32_t filter_handle(qor_context_t *self, qor_context_msg_t *msg)
{
    (void)self;
    const int before = msg->type == QOR_CONTEXT_MSG_FILTER_BEFORE;
    if (!before && msg->type != QOR_CONTEXT_MSG_FILTER_AFTER) {
        atomic_fetch_add(&wrong, 1);
    }
    atomic_fetch_add(&filtered, 1);
    return 0;
}

/* name, class, phase, parallel runs, priority, stack, argument, then the callbacks */
static qor_context_module_t modules[] = {
    {"asker", 0, 1, 1, 0, 0, &asker, nothing, nothing, init, uninit, NULL, asker_handle},
    {"answerer", 0, 1, 1, 0, 0, NULL, answerer_reg, answerer_unreg, init, uninit, NULL,
     answerer_handle},
    {"listener", 0, 1, 1, 0, 0, NULL, listener_reg, nothing, init, uninit, NULL, listener_handle},
    {"filter", 0, 0, 2, 0, 0, NULL, filter_reg, filter_unreg, init, uninit, NULL, filter_handle},
};

static void *loop(void *result)
{
    *(int32_t *)result = qor_bus_loop(bus);
    return NULL;
}

static void *run(void *arg)
{
    atomic_fetch_add(&executed, 1);
    return arg;
}

static void *runx(qor_context_t *context, int32_t session, void *arg)
{
    if (context != asker || session < 0) {
        atomic_fetch_add(&wrong, 1);
    }
    return run(arg);
}

static void beat(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    if (self != asker || session < 0 || arg != &beats || missed > PATIENCE) {
        atomic_fetch_add(&wrong, 1);
    }
    atomic_fetch_add(&beats, 1);
}

static void release(void *arg)
{
    (void)arg;
    atomic_fetch_add(&released, 1);
}

static void *drain_from_inside(void *arg)
{
    *(int32_t *)arg = qor_bus_drain(bus, -1);
    return NULL;
}

static int settled(void)
{
    return qor_bus_drain(bus, PATIENCE) == 0;
}

static void check_messages_travel(void)
{
    char question[] = "why", answer[3] = "";

    asked = qor_bus_session(bus);
    check("a request is taken",
          qor_context_req_ret_s(asker, asked, TOPIC, question, 3, 3) == asked);
    check("a response comes back", reached(&responses, 1));
    check("the bus settles", settled());
    check("the request was handled once", atomic_load(&requests) == 1);
    check("it was heard before and after", atomic_load(&listened) == 2);
    check("it was filtered before and after", atomic_load(&filtered) == 2);

    check("a request is handled at once",
          qor_context_x_req_ret(asker, TOPIC, question, 3, answer, 3) == RET);
    check("and answered", memcmp(answer, "yes", 3) == 0);
    check("the bus settles again", settled());
    check("that was heard and filtered too",
          atomic_load(&listened) == 4 && atomic_load(&filtered) == 4);
}

static void check_answers_come_later(void)
{
    char question[] = "why", copy[8] = "";
    const int before = atomic_load(&responses);

    atomic_store(&answers_later, 1);
    asked = qor_context_req_ret(asker, TOPIC, question, 3, 3);
    check("a request is taken that is answered later", asked >= 0);
    check("it is deferred", reached(&deferred, 1));
    check("the bus waits for it", qor_bus_drain(bus, 0) == -1);
    check("there is no response yet", atomic_load(&responses) == before);
    check("the request can be read",
          qor_deferred_request(token, copy, sizeof(copy)) == 3 && memcmp(copy, "why", 3) == 0);
    check("it is completed", qor_deferred_complete(token, RET, "yes", 3) == 0);
    check("then the response comes", reached(&responses, before + 1));
    check("once", qor_deferred_complete(token, RET, "yes", 3) == -1);
    check("and then the bus settles", settled());
    atomic_store(&answers_later, 0);
    atomic_store(&deferred, 0);
}

static void check_tasks_run(void)
{
    const int64_t start = util_timestamp();
    int32_t inside = 0;

    check("a run is posted", qor_context_run(asker, run, NULL) > 0);
    check("a run of its own is posted", qor_context_runx(asker, runx, NULL) > 0);
    check("both run", reached(&executed, 2));
    check("a timer is posted", qor_context_timer(asker, run, NULL, 30) > 0);
    check("a timer in line is posted", qor_context_x_timerx(asker, runx, NULL, 30) > 0);
    check("both fall due", reached(&executed, 4));
    check("but not before their time", util_timestamp() - start >= 29);
    const int32_t late = qor_context_timer(asker, run, NULL, 60000);
    check("a timer is cancelled", qor_context_timer_cancel(asker, late) == 0);
    const int32_t later = qor_context_x_timer(asker, run, NULL, 60000);
    check("and one in line", qor_context_x_timer_cancel(asker, later) == 0);
    qor_bus_run(bus, drain_from_inside, &inside, NULL);
    check("the bus settles after tasks", settled());
    check("a task cannot wait for the bus", inside == -1);
    check("what was cancelled did not run", atomic_load(&executed) == 4);
}

static void check_periodic_timers_run(void)
{
    const int64_t start = util_timestamp();
    const int32_t session = qor_context_every(asker, beat, &beats, release, 10);

    check("a periodic timer is armed", session >= 0);
    check("it runs again and again", reached(&beats, 3));
    check("once in a period", util_timestamp() - start >= 30);
    check("it is cancelled", qor_context_timer_cancel(asker, session) == 0);
    check("and released", reached(&released, 1));
    check("the bus settles after it", settled());
    check("released once", atomic_load(&released) == 1);
    check("a period below 1 is refused", qor_context_every(asker, beat, &beats, release, 0) == -1);
    check("and nothing released", atomic_load(&released) == 1);
}

static void reset(void)
{
    atomic_int *const counters[] = {&up,       &requests, &responses, &wrong, &listened,
                                    &filtered, &executed, &down,      &beats, &released};
    for (size_t i = 0; i < sizeof(counters) / sizeof(counters[0]); i++) {
        atomic_store(counters[i], 0);
    }
}

static void see(void *arg, const qor_bus_finding_t *finding)
{
    *(int32_t *)arg += finding->level == QOR_FINDING_ERROR && finding->place == 1;
}

static void check_findings(qor_context_module_t **table)
{
    const int32_t id = table[1]->id;
    int32_t seen = 0;

    check("there is nothing to find", qor_bus_check(table, NULL, NULL) == 0);
    table[1]->id = 4711;
    check("an id is found", qor_bus_check(table, see, &seen) == 1 && seen == 1);
    table[1]->id = id;
}

void check_whole_bus(void)
{
    qor_context_module_t *table[] = {&modules[0], &modules[1], &modules[2], &modules[3], NULL};
    hal_thread_t thread;
    int32_t result = -2;
    qor_start_entry_t entries[4];
    qor_start_report_t report = {entries, 4, 0};

    reset();
    check_findings(table);
    bus = qor_bus_create(table, TOPICS);
    check("a bus is made", bus && bus->thread_num == 5);
    qor_bus_thread_num_set(bus, 2);
    check("the loop has a thread", pthread_create(&thread, NULL, loop, &result) == 0);
    check("all modules come up", qor_bus_wait_up(bus, PATIENCE, &report) == 0);
    check("and are told of", report.total == 4 && entries[3].state == QOR_START_UP);
    check("each once", atomic_load(&up) == 4);
    check("the bus settles at first", settled());
    check_messages_travel();
    check_answers_come_later();
    check_tasks_run();
    check_periodic_timers_run();
    check("nothing unexpected came", atomic_load(&wrong) == 0);

    check("the bus quits", qor_bus_quit(bus) == 0);
    check("it is quitting", qor_bus_quitting(bus) == 1);
    pthread_join(thread, NULL);
    check("the loop returns", result == 0);
    check("no module is down yet", atomic_load(&down) == 0);
    qor_bus_close(bus);
    check("all modules go down", atomic_load(&down) == 4);
}
