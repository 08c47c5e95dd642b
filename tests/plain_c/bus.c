/* SPDX-License-Identifier: Apache-2.0 */
/* The bus and its parts without workers: what is queued waits until the main thread takes it. */
#include <stdlib.h>

#include "check.h"
#include "qor.h"

enum { TOPIC = 1, TOPICS = 2, START_UP = 0 };

/* Cancel would not: the task is the library's own. */
static void start_up_remove(qor_bus_t *bus)
{
    qor_que_node_destroy(qor_que_remove(bus->que, START_UP), NULL);
}

static qor_context_module_t *no_modules[] = {NULL};
static qor_context_cls_t cls; /* no slot filled: every context lets itself be entered */
static int executed;
static int recycled;

static void *run(void *arg)
{
    executed++;
    return arg;
}

static void *runx(qor_context_t *context, int32_t session, void *arg)
{
    (void)context, (void)session;
    return run(arg);
}

static void recycle(void *arg)
{
    (void)arg;
    recycled++;
}

/* Runs the tasks that are queued, as a worker would. Returns their number. */
static int pump(qor_bus_t *bus)
{
    int count = 0;
    for (qor_que_node_t *node; (node = qor_que_deque_block_locked(bus->que, 0)); count++) {
        qor_context_task_t *task = qor_que_node_body(node);
        qor_context_task_excute(task);
        qor_context_task_uninit(task);
        qor_que_node_destroy(node, NULL);
    }
    return count;
}

static void check_posts(qor_bus_t *bus)
{
    qor_context_t context = {&cls, NULL, NULL, 0, {NULL, NULL}, NULL, NULL, NULL, NULL};
    qor_context_task_t task;

    executed = recycled = 0;
    qor_context_task_init(&task, NULL, "task", qor_bus_session(bus), run, NULL);
    qor_context_task_set_recycle(&task, recycle);
    check("qor_bus_post", qor_bus_post(bus, &task) == 0);
    check("qor_bus_run", qor_bus_run(bus, run, NULL, recycle) == 0);
    check("qor_bus_runx", qor_bus_runx(bus, &context, runx, NULL, recycle) == 0);
    check("three are queued", pump(bus) == 3 && executed == 3 && recycled == 3);

    check("one more is queued", qor_bus_post(bus, &task) == 0);
    check("qor_bus_cancel", qor_bus_cancel(bus, task.session) == 0 && recycled == 4);
    check("what is not queued is not found", qor_bus_cancel(bus, task.session) == -1);
    qor_context_task_set_delay(&task, 60000);
    check("qor_bus_timer_post", qor_bus_timer_post(bus, &task) == 0);
    check("a timer is no task yet", pump(bus) == 0);
}

/* What qor_bus_uninit() leaves: the timer queue is ours then, and the head stays for good. */
static void check_record(void)
{
    static list_head *left;
    qor_bus_t record;

    check("qor_bus_init", qor_bus_init(&record, no_modules, TOPICS) == 0);
    left = record.head;
    qor_bus_uninit(&record);
    qor_time_que_destroy(record.time_que);
    check("the head is an empty list", list_empty(left));
}

static void check_destroy(void)
{
    static list_head *left;
    qor_bus_t *bus = qor_bus_create(no_modules, TOPICS);
    qor_time_que_t *timers = bus->time_que;
    recycled = 0;
    qor_bus_run(bus, run, NULL, recycle);
    left = bus->head;
    qor_bus_destroy(bus);
    qor_time_que_destroy(timers);
    check("qor_bus_destroy recycles what is queued", recycled == 1 && list_empty(left));
}

void check_idle_bus(void)
{
    qor_bus_t *bus = qor_bus_create(no_modules, TOPICS);
    check("qor_bus_create", bus != NULL);
    check("nothing is up yet", qor_bus_wait_up(bus, 0, NULL) == -1);
    check("start-up is not cancelled", qor_bus_cancel(bus, START_UP) == -1);
    start_up_remove(bus);
    const int32_t session = qor_bus_session(bus);
    check("qor_bus_session rises", qor_bus_session(bus) == session + 1);
    check("qor_bus_topic_core_get",
          qor_bus_topic_core_get(bus, QOR_BUS_ROLE_USER)->id_max == TOPICS &&
              qor_bus_topic_core_get(bus, QOR_BUS_ROLE_SYS)->id_max == QOR_SYS_NUM);
    qor_bus_thread_num_set(bus, 3);
    check("qor_bus_thread_num_set", bus->thread_num == 3);
    qor_bus_thread_stack_size_set(bus, 65537);
    check("qor_bus_thread_stack_size_set rounds up", bus->thread_stack_size == 69632);
    qor_bus_priority_set(bus, 5);
    check("qor_bus_priority_set", bus->thread_priority == 5);
    qor_bus_watch_set(bus, 1);
    check("qor_bus_watch_set", qor_bus_session(bus) > 0);
    check_posts(bus);
    check("a bus is not quitting", qor_bus_quitting(bus) == 0);
    check("qor_bus_quit", qor_bus_quit(bus) == 0 && qor_bus_quitting(bus) == 1);
    check("nothing is accepted any more", qor_bus_run(bus, run, NULL, NULL) == -1);
    check("there is nothing to wait for", qor_bus_drain(bus, 0) == -1);
    qor_bus_close(bus);
    check("qor_bus_close recycles timers", recycled == 5);
    check_record();
    check_destroy();
}

void check_delegate(void)
{
    qor_bus_t *bus = qor_bus_create(no_modules, TOPICS);
    qor_context_t context = {&cls, NULL, NULL, 0, {NULL, NULL}, NULL, NULL, NULL, NULL};
    int32_t session = -1;

    start_up_remove(bus);
    qor_sched_delegate_t *delegate = qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, &context);
    check("qor_sched_delegate_create", delegate && qor_context_pub_data_get(&context) == delegate);
    check("a context draws sessions", qor_context_session(&context, &session) == 0 && session > 0);
    check("a context subscribes", qor_context_subscribe(&context, TOPIC, NULL) == 0);
    check("a context listens", qor_context_listen(&context, TOPIC, NULL) == 0);
    check("a context filters", qor_context_filter(&context, TOPIC, NULL) == 0);
    check("it is found", qor_topic_core_someone_subscribed(bus->user_topic_core, TOPIC) == 1);
    executed = 0;
    check("a context posts", qor_context_run(&context, run, NULL) > session && pump(bus) == 1);
    qor_sched_delegate_destroy(delegate);
    check("it is not found any more",
          qor_topic_core_someone_subscribed(bus->user_topic_core, TOPIC) == 0 &&
              qor_topic_core_someone_listened(bus->user_topic_core, TOPIC) == 0 &&
              qor_topic_core_someone_filtered(bus->user_topic_core, TOPIC) == 0);
    qor_bus_close(bus);
}

static qor_context_t *system_context(int32_t id)
{
    for (list_head *link = context_head.next; link != &context_head; link = link->next) {
        qor_context_t *context = (qor_context_t *)((char *)link - offsetof(qor_context_t, node));
        if (context->id == id) {
            return context;
        }
    }
    return NULL;
}

static void check_monitor(qor_context_t *monitor)
{
    qor_sys_monitor_task_t report = {1, "watched", QOR_SYS_MONITOR_TASK_START};
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    check("the monitor takes a start",
          qor_monitor_module_handle_request_message(monitor, &msg) == 0);
    report.state = QOR_SYS_MONITOR_TASK_OVER;
    check("and an end", qor_monitor_module_handle_request_message(monitor, &msg) == 0);
    msg.topic = QOR_SYS_NUM;
    check("but no other topic", qor_monitor_module_handle_request_message(monitor, &msg) == -1);
}

static void check_registration(qor_bus_t *bus, qor_context_t *registrar)
{
    qor_context_t context = {&cls, NULL, NULL, 0, {NULL, NULL}, NULL, NULL, NULL, NULL};
    qor_sys_bus_register_request_t request = {&context};
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, QOR_SYS_BUS_REGISTER, &request, sizeof(request));
    check("the bus module attaches a context",
          qor_bus_module_handle_request_message(registrar, &msg) == 0);
    const qor_sched_delegate_t *delegate = qor_context_pub_data_get(&context);
    check("in the user role",
          delegate && delegate->bus == bus && delegate->role == QOR_BUS_ROLE_USER);
}

static int32_t see(void *kinds, int32_t kind, const void *info)
{
    ((int32_t *)kinds)[kind] += *(const uint32_t *)info > 0; /* its size */
    return 0;
}

static void count_line(void *lines, const char *line)
{
    *(int32_t *)lines += strncmp(line, "context qor_", 12) == 0;
}

static void check_inspection(qor_bus_t *bus)
{
    int32_t kinds[QOR_INFO_REQUEST + 1] = {0}, lines = 0;
    check("qor_bus_inspect", qor_bus_inspect(bus, see, kinds) == 0);
    check("shows a bus and three system contexts",
          kinds[QOR_INFO_BUS] == 1 && kinds[QOR_INFO_CONTEXT] == 3);
    check("their topics and no request", kinds[QOR_INFO_TOPIC] > 0 && kinds[QOR_INFO_REQUEST] == 0);
    check("qor_bus_dump", qor_bus_dump(bus, count_line, &lines) == 0 && lines == 3);
}

/* Brings the system modules up on the main thread. */
void check_start_up(void)
{
    qor_bus_t *bus = qor_bus_create(no_modules, TOPICS);
    qor_context_msg_t msg;

    start_up_remove(bus);
    check("no system context is there", list_empty(&context_head));
    qor_main(bus);
    qor_context_t *registrar = system_context(1), *monitor = system_context(2),
                  *manager = system_context(3);
    check("qor_main brings up the bus module", registrar && registrar->module == &qor_bus_module);
    check("and the monitor", monitor && monitor->module == &qor_monitor_module);
    check("and the manager", manager && manager->module == &qor_mng_module);
    check("in system contexts", manager && manager->cls == &qor_impl_context_class);
    check_inspection(bus);
    check_monitor(monitor);
    check_registration(bus, registrar);
    qor_context_msg_fill(&msg, 1, QOR_SYS_MNG_MODULE_REGISTER, NULL, 0);
    check("the manager takes a registration",
          qor_mng_module_handle_request_message(manager, &msg) == 0);
    check("a system call is delivered",
          qor_context_sysx_req(manager, QOR_SYS_MNG_CONTEXT_REGISTER, NULL, 0) > 0);
    qor_bus_close(bus);
    check("qor_bus_close takes them down", list_empty(&context_head));
}
