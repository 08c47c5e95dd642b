/* SPDX-License-Identifier: Apache-2.0 */
/* Scenarios of one group of functions each, without a loop. */
#include "driver.hpp"

#include <cstdlib>
#include <cstring>

#include "qor_context_core.h"
#include "qor_impl_context.h"
#include "qor_thread_pool.h"
#include "qor_topic_core.h"
#include "rbapi_kv.h"

namespace {

qor_context_cls_t bare = {}; /* no slot filled: every context lets itself be entered */

qor_context_t context_of(qor_context_module_t *module)
{
    qor_context_t context = {};
    context.cls = &bare;
    context.module = module;
    return context;
}

void ques()
{
    qor_que_t *que = qor_que_create(3, Ledger::release);
    qor_que_node_t *node = qor_que_node_create(1, 8);
    if (got(node) && (!que || !got(qor_que_enque(que, node) == 0))) {
        qor_que_node_destroy(node, nullptr);
    }
    if (got(que)) {
        if (qor_que_node_t *taken = qor_que_deque(que)) {
            qor_que_node_destroy(taken, nullptr);
        }
        qor_que_destroy(que);
    }
}

void time_ques()
{
    qor_time_que_t *que = qor_time_que_create(200, nullptr);
    for (size_t id = 0; id < 100; id++) { /* more than one block of the index by number */
        qor_time_que_node_t *node = qor_time_que_node_create(id, 60000, 8);
        if (got(node) && (!que || !got(qor_time_que_enque(que, node) == 0))) {
            qor_time_que_node_destroy(node, nullptr);
        }
    }
    if (got(que)) {
        int32_t delay = 0;
        for (size_t id = 0; id < 100; id += 2) {
            qor_time_que_early(que, id, 10000);
        }
        qor_time_que_next_delay(que, &delay);
        qor_time_que_destroy(que);
    }
}

void maps()
{
    rbtree_kv_root map;
    got(rbapi_kv_init(&map, [](void *) {}) == 0);
    int value = 0, inserted = 0;
    for (const char *key : {"a", "b", "c"}) {
        inserted += got(rbapi_kv_insert(key, &value, &map) == 0);
    }
    int found = 0;
    for (const char *key : {"a", "b", "c"}) {
        found += rbapi_kv_find(key, nullptr, &map) == 0;
    }
    must(found == inserted, "what was inserted is found");
    rbapi_kv_destroy(&map);

    rbtree_root tree;
    got(rbapi_init(&tree, nullptr, nullptr, nullptr, nullptr, nullptr) == 0);
    got(rbapi_insert(&value, &value, &tree) == 0);
    got(rbapi_replace(&value, &map, &tree) == 0);
    rbapi_destroy(&tree);
}

void records()
{
    qor_context_msg_t msg;
    char text[] = "question", room[16];
    qor_context_msg_fill_full(&msg, 1, 2, text, sizeof(text), room, sizeof(room));
    qor_context_msg_t *clone = qor_context_msg_clone(&msg);
    if (got(clone)) {
        must(std::strcmp(static_cast<char *>(clone->request.buf), text) == 0, "a clone is a copy");
        qor_context_msg_destroy(clone);
    }
    Ledger ledger;
    for (int x = 0; x < 2; x++) {
        qor_context_t context = context_of(nullptr);
        qor_context_task_t *task =
            x ? qor_context_taskx_create(&context, "t", 1, Ledger::runx, &ledger)
              : qor_context_task_create(&context, "t", 1, Ledger::run, &ledger);
        if (got(task)) {
            ledger.taken++;
            qor_context_task_set_recycle(task, Ledger::release);
            qor_context_task_excute(task);
            qor_context_task_destroy(task);
        }
    }
    ledger.balances("each task is released");
}

void registries()
{
    qor_context_core_t *own = qor_context_core_create();
    if (got(own)) {
        Module module("single");
        qor_context_t *context = qor_context_core_create_context(own, &module.descriptor);
        if (got(context)) {
            qor_context_destroy(context);
        }
        qor_context_core_destroy(own);
    }
}

int32_t console(qor_context_t *)
{
    return 0;
}

void contexts()
{
    Module module("alone");
    module.descriptor.console = console;
    module.descriptor.priority = 1;
    module.descriptor.stack_size = 1000; /* smaller than any */
    qor_context_t *context = qor_context_create(&qor_core_context_class, &module.descriptor);
    if (!got(context)) {
        return;
    }
    qor_core_context_t *core = qor_core_context_type(context);
    qor_context_t *inner = core->context; /* outlives its wrapper */
    must(qor_core_context_lifecycle_start(core) == 0, "a user context starts");
    qor_core_context_lifecycle_change(core, QOR_USER_CONTEXT_LIFECYCLE_PAUSE);
    qor_core_context_lifecycle_stop(core);
    qor_context_uninit(context);
    qor_context_destroy(context);
    got(qor_context_start(inner) == 0);
    qor_context_stop(inner);
    qor_context_destroy(inner);
}

void topics()
{
    qor_context_t context = context_of(nullptr);
    qor_topic_core_t *table = qor_topic_core_create(2);
    if (got(table)) {
        if (got(qor_topic_core_subscribe(table, &context, 1, nullptr))) {
            qor_topic_core_unsubscribe(table, &context, 1);
        }
        if (got(qor_topic_core_listen(table, &context, 1, nullptr))) {
            qor_topic_core_unlisten(table, &context, 1);
        }
        if (got(qor_topic_core_filter(table, &context, 1, nullptr))) {
            qor_topic_core_unfilter(table, &context, 1);
        }
        qor_topic_core_destroy(table);
    }
}

void delegates()
{
    qor_context_module_t *none[] = {nullptr};
    Module module("alone");
    Ledger ledger;
    qor_bus_t *bus = qor_bus_create(none, 2);
    if (!got(bus)) {
        return;
    }
    qor_context_t *context = qor_context_create(&qor_impl_context_class, &module.descriptor);
    qor_sched_delegate_t *delegate =
        got(context) ? qor_sched_delegate_create(bus, QOR_BUS_ROLE_USER, context) : nullptr;
    if (got(delegate)) {
        got(qor_context_subscribe(context, 1, nullptr) == 0);
        got(qor_context_listen(context, 1, nullptr) == 0);
        got(qor_context_filter(context, 1, nullptr) == 0);
        got(qor_context_run(context, Ledger::run, &ledger) >= 0);
        got(qor_context_timer(context, Ledger::run, &ledger, 60000) >= 0);
        got(qor_context_req_ret(context, 1, nullptr, 0, 4) >= 0);
        qor_sched_delegate_destroy(delegate);
    }
    ledger.entered(qor_bus_run(bus, Ledger::run, &ledger, Ledger::release));
    if (context) {
        ledger.entered(qor_bus_runx(bus, context, Ledger::runx, &ledger, Ledger::release));
    }
    qor_bus_close(bus);
    if (context) {
        qor_context_destroy(context);
    }
    ledger.balances("each task of a bus that never looped is released");
    must(ledger.ran == 0, "none runs");
}

list_head *heads[2]; /* of both runs */
int head_count;

/* A record of the caller's, and an ending that is not an orderly one. */
void bus_records()
{
    qor_context_module_t *none[] = {nullptr};
    qor_bus_t record;
    if (got(qor_bus_init(&record, none, 2) == 0)) {
        qor_time_que_t *timers = record.time_que;
        got(timers);
        qor_que_node_destroy(qor_que_remove(record.que, 0), nullptr);
        heads[head_count++] = record.head; /* stays, as its header says */
        qor_bus_uninit(&record);
        if (timers) {
            qor_time_que_destroy(timers);
        }
    }
    Module named("named");
    qor_context_module_t *table[] = {&named.descriptor, nullptr};
    named.descriptor.console = console;
    named.descriptor.priority = 1;
    named.descriptor.stack_size = 1000; /* smaller than any */
    got(qor_bus_check(table, nullptr, nullptr) == 0);
}

void pools()
{
    Ledger ledger;
    qor_thread_pool_t *pool = qor_thread_pool_create(1, 4, -1, /* too small */ 1024, 1, 5);
    if (!got(pool)) {
        return;
    }
    std::atomic<int> inside{0};
    struct Slow {
        Ledger *ledger;
        std::atomic<int> *inside;
    } slow = {&ledger, &inside};
    qor_context_task_t task;
    qor_context_task_init(
        &task, nullptr, "grow", 0,
        [](void *arg) -> void * {
            (*static_cast<Slow *>(arg)->inside)++;
            static_cast<Slow *>(arg)->ledger->ran++;
            std::this_thread::sleep_for(
                std::chrono::milliseconds(5)); /* so that others are needed */
            return nullptr;
        },
        &slow);
    qor_context_task_set_recycle(&task,
                                 [](void *arg) { static_cast<Slow *>(arg)->ledger->released++; });
    for (int i = 0; i < 8; i++) {
        ledger.entered(qor_thread_pool_post(pool, &task));
    }
    qor_context_task_init(
        &task, nullptr, "ends", 0, [](void *) -> void * { pthread_exit(nullptr); }, &ledger);
    qor_context_task_set_recycle(&task, Ledger::release);
    ledger.entered(qor_thread_pool_post(pool, &task));
    qor_context_task_init(&task, nullptr, "last", 0, Ledger::run, &ledger);
    qor_context_task_set_recycle(&task, Ledger::release);
    ledger.entered(qor_thread_pool_post(pool, &task));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    while (ledger.released < ledger.taken && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    qor_thread_pool_destroy(pool);
    ledger.balances("each task of a pool is released");
}

} // namespace

const std::vector<Scenario> object_scenarios = {
    {"ques", ques},       {"time_ques", time_ques},   {"maps", maps},
    {"records", records}, {"registries", registries}, {"contexts", contexts},
    {"topics", topics},   {"delegates", delegates},   {"bus_records", bus_records},
    {"pools", pools},
};
