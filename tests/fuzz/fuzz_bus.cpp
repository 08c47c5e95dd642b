/* SPDX-License-Identifier: Apache-2.0 */
/* A whole bus, driven by hand: three modules ask each other, watch, defer, time and cancel. The
 * model knows who is shown what, what every call gives, and that all there is comes to one end. */
#include "bus_party.hpp"

#include "qor_context_handler.h"
#include "qor_contract.h"
#include "qor_deferred.h"
#include "qor_inspect.h"
#include "qor_periodic.h"
#include "qor_sys.h"
#include "qor_time_que.h"
#include "qor_trace.h"

#include <algorithm>

#include "hand.hpp"

namespace {

int32_t registered(Party &p, Kind kind, uint32_t module, int32_t topic,
                   qor_context_topic_attr_t *attr)
{
    qor_context_t *context = p.contexts[module];
    return kind == SUBSCRIBES ? qor_context_subscribe(context, topic, attr)
           : kind == LISTENS  ? qor_context_listen(context, topic, attr)
                              : qor_context_filter(context, topic, attr);
}

void register_one(Party &p, Kind kind, uint32_t module, int32_t topic)
{
    auto &list = p.table[topic][kind];
    if (list.size() >= 4) {
        return;
    }
    const int32_t point = 1 + static_cast<int32_t>(p.bytes.below(7));
    qor_context_topic_attr_t attr = {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
    const bool memory = p.bytes.below(8) != 0;
    p.there.memory_fails_in = memory ? -1 : 0;
    EXPECT(registered(p, kind, module, topic, &attr) == (memory ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (memory) {
        list.insert(list.begin(), {module, point});
    }
}

void unregister_one(Party &p, Kind kind, uint32_t module, int32_t topic)
{
    auto &list = p.table[topic][kind];
    const auto at = std::find_if(list.begin(), list.end(), [module](const Registration &one) {
        return one.module == module;
    });
    if (at != list.end()) {
        list.erase(at);
    }
    qor_context_t *context = wrapper(p, module);
    EXPECT((kind == SUBSCRIBES ? qor_context_handler_unsubscribe(context, topic)
            : kind == LISTENS  ? qor_context_handler_unlisten(context, topic)
                               : qor_context_handler_unfilter(context, topic)) == 0);
}

/* Whether a request that waits would go to nobody without the module. */
bool is_needed(const Party &p, uint32_t module, int32_t topic)
{
    const auto &list = p.table[topic][SUBSCRIBES];
    return list.size() == 1 && list.front().module == module &&
           std::any_of(p.items.begin(), p.items.end(), [topic](const auto &item) {
               return item->topic == topic && item->what == What::request &&
                      item->state == State::waits;
           });
}

void registration(Party &p)
{
    const uint8_t byte = p.bytes.byte();
    const Kind kind = static_cast<Kind>(byte % kinds);
    const uint32_t module = byte / 4 % modules;
    const int32_t topic = byte / 16 % topics;
    if (byte & 128) {
        register_one(p, kind, module, topic);
    } else if (kind != SUBSCRIBES || !is_needed(p, module, topic)) {
        unregister_one(p, kind, module, topic);
    }
}

void wrong_calls(Party &p)
{
    qor_context_t *context = wrapper(p, p.bytes.below(modules));
    qor_context_msg_t msg = {};
    EXPECT(qor_context_msg_fill(&msg, 1, 0, nullptr, 0) == 0);
    msg.type = QOR_CONTEXT_MSG_RESPONSE;
    EXPECT(qor_context_handler_publish(context, &msg) == -1);
    EXPECT(qor_context_handler_publishx(context, &msg) == -1);
    EXPECT(qor_context_handler_publish(context, nullptr) == -1);
    EXPECT(qor_context_handler_publishx(context, nullptr) == -1);
    EXPECT(qor_context_handler_syscall(context, nullptr) == -1);
    EXPECT(qor_context_handler_syscallx(context, nullptr) == -1);
    EXPECT(qor_context_handler_post(context, nullptr) == -1);
    EXPECT(qor_context_handler_cancel(context, INT32_MAX) == -1);
    EXPECT(qor_context_subscribe(p.contexts[0], topics, nullptr) == -1);
    uint64_t token;
    EXPECT(qor_context_defer(p.contexts[0], &msg, 0, &token) == -1);
    EXPECT(qor_deferred_complete(0, 0, nullptr, 1) == -1);
    EXPECT(qor_context_every(p.contexts[0], periodic_run, nullptr, nullptr, 0) == -1);
}

void count_line(void *count, const char *line)
{
    *static_cast<uint32_t *>(count) += strncmp(line, "topic", 5) == 0;
}

/* What is not attached to a bus, and what the bus says of itself. */
void look(Party &p)
{
    qor_context_t *attached = wrapper(p, 0);
    qor_context_t bare = {};
    bare.handler = attached->handler;
    EXPECT(qor_context_handler_subscribe(&bare, 0, nullptr) == -1);
    EXPECT(qor_context_handler_unsubscribe(&bare, 0) == -1);
    EXPECT(qor_context_handler_publish(&bare, nullptr) == -1);
    uint32_t lines = 0;
    EXPECT(qor_bus_dump(p.bus, count_line, &lines) == 0);
    EXPECT(lines >= topics);
}

/* The manager is told of a module, which it ignores: now, or by a task of the bus. */
void call_system(Party &p)
{
    qor_context_t *context = wrapper(p, p.bytes.below(modules));
    const uint8_t how = p.bytes.byte();
    const qor_context_topic_t topic = how & 4 ? QOR_SYS_MNG_MODULE_REGISTER : QOR_SYS_NUM;
    const bool now = how & 1;
    const bool memory = now || (how >> 4) != 1;
    int32_t nothing = 0;
    const int32_t session = p.bus->session; /* the next one */
    p.there.memory_fails_in = memory ? -1 : 0;
    const int32_t ret = now ? qor_context_sysx_req(context, topic, &nothing, sizeof(nothing))
                            : qor_context_sys_req(context, topic, &nothing, sizeof(nothing));
    p.there.memory_fails_in = -1;
    const bool known = topic < QOR_SYS_NUM && memory && (now || !p.quit);
    EXPECT(ret == (known ? session : -1));
}

void quit(Party &p)
{
    EXPECT(qor_bus_quitting(p.bus) == p.quit && qor_bus_quit(p.bus) == 0);
    p.quit = true;
}

/* One act; true: the loop is to serve its timers. */
bool act(Party &p)
{
    const uint8_t byte = p.bytes.byte();
    const bool room = p.items.size() < items_most;
    bool serves = false;
    switch (byte % 24) {
    case 0:
    case 1:
    case 2:
    case 3:
        if (room) {
            publish_any(p);
        }
        break;
    case 4:
    case 5:
        if (room) {
            call(p);
        }
        break;
    case 6:
        if (room) {
            post_task(p, byte & 128);
        }
        break;
    case 7:
        if (room) {
            post_bus_task(p, byte & 128);
        }
        break;
    case 8:
    case 9:
    case 10:
        registration(p);
        break;
    case 11:
        cancel(p);
        break;
    case 12:
        complete(p);
        break;
    case 13:
        copy_request(p);
        break;
    case 14:
        periodic_arm(p);
        break;
    case 15:
        periodic_cancel(p);
        break;
    case 16:
        p.there.now += p.bytes.below(50);
        break;
    case 17:
        serves = true;
        break;
    case 19:
        if (room && p.bytes.below(4) == 0) {
            publish_many(p);
        } else if (p.bytes.below(4) == 0) {
            wrong_calls(p);
        } else if (p.bytes.below(8) == 0) {
            look(p);
        } else {
            call_system(p);
        }
        break;
    case 18:
        if (p.bytes.below(16) == 0) {
            quit(p);
        }
        break;
    default:
        run_one(p);
        break;
    }
    p.there.printed.clear();
    return serves;
}

/* All there is has come to its end, but for what waits for its time or to be completed. */
void expect_rest(const Party &p)
{
    EXPECT(p.queued.empty() && p.shown.empty() && p.later.empty() && p.awaited <= p.replies);
    for (const auto &item : p.items) {
        EXPECT(item->state != State::runs && item->state != State::ends);
        EXPECT(item->state != State::waits || item->when > p.there.now);
        EXPECT(item->state != State::open || item->limit > p.there.now);
        const bool asked = item->what == What::request && item->state == State::over;
        EXPECT(!asked || item->answered);
    }
    for (const auto &timer : p.timers) {
        EXPECT(timer->armed ? timer->due > p.there.now : timer->recycled == 1);
    }
}

/* Runs all there is; false: the loop has to serve timers first. */
bool rest(Party &p)
{
    while (run_one(p)) {
        p.there.printed.clear();
    }
    int32_t delay;
    if (qor_time_que_next_delay(p.bus->time_que, &delay) == 0 && delay <= 0) {
        return false;
    }
    expect_rest(p);
    return true;
}

/* Modules come up; where memory ends meanwhile, some may lack: then that is all. */
void start(Party &p)
{
    const uint32_t fails = p.bytes.byte();
    p.there.memory_fails_in = fails >= 192 ? static_cast<int>(fails - 192) : -1;
    while (hand_run(p.bus)) {
        p.there.printed.clear();
    }
    p.up = true;
    if (fails >= 192 && p.there.memory_fails_in < 0) {
        quit(p);
    }
    p.there.memory_fails_in = -1;
}

void while_waiting(void *arg, WorldWait &)
{
    Party &p = *static_cast<Party *>(arg);
    const HandAs other(nullptr);
    if (!p.up) {
        start(p);
    }
    while (p.bytes.left() && !p.quit) {
        if (act(p)) {
            timers_served(p);
            return;
        }
    }
    if (!p.quit && !rest(p)) {
        timers_served(p);
        return;
    }
    if (!p.quit) {
        quit(p);
    }
}

void expect_end(const Party &p)
{
    for (const auto &item : p.items) {
        EXPECT(item->recycled == item->expected);
    }
    for (const auto &timer : p.timers) {
        EXPECT(timer->recycled == 1);
    }
}

/* Has all that the bus does recorded. */
void record(Party &p)
{
    if (p.bytes.below(8) != 1) {
        return;
    }
    alignas(64) static char memory[1 << 16];
    qor_trace_config_t config = {};
    config.size = sizeof(config);
    config.mask = QOR_TRACE_ALL;
    config.memory = memory;
    config.memory_size = sizeof(memory);
    config.lanes = 2;
    config.names = 8;
    EXPECT(qor_trace_start(p.bus, &config) == 0);
    world = nullptr; /* what the recorder keeps of a thread stays as long as the thread does */
    qor_trace_mark(0, 0);
    world = &p.there;
}

/* Places for all there can be: nothing is refused for the want of one but the strict module's own
 * requests. */
void contract_set(Party &p)
{
    const uint32_t how = p.bytes.below(8);
    if (how > 3) {
        return;
    }
    p.strict = true;
    p.replies = how > 0 ? how : items_most;
    qor_contract_t terms;
    qor_contract_init(&terms);
    terms.strict = 1;
    terms.depth = UINT32_MAX;
    terms.replies = p.replies;
    EXPECT(qor_bus_contract_set(p.bus, "third ", &terms) == 0);
}

/* A bus that lacks something, or everything. */
int give_up(Party &p)
{
    if (p.bus) {
        qor_bus_close(p.bus);
    }
    p.there.printed.clear();
    return 0;
}

template <uint32_t n> void reg(qor_context_t *context)
{
    party->contexts[n] = context;
}

int32_t init(qor_context_t *, void *)
{
    return 0;
}

} // namespace

void act_inside(Party &p)
{
    if (p.depth >= depth_most) {
        return;
    }
    p.depth++;
    for (uint32_t left = p.bytes.below(4); left > 0; left--) {
        if (p.bytes.byte() & 1) {
            act(p);
        } else {
            const HandAs other(nullptr);
            act(p);
        }
    }
    p.depth--;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World there;
    Bytes bytes(data, size);
    Party p{there, bytes};
    party = &p;
    there.while_waiting = while_waiting;
    there.arg = &p;
    qor_context_module_t first = hand_module("first ", reg<0>, init, handle);
    qor_context_module_t second = hand_module("second", reg<1>, init, handle);
    qor_context_module_t third = hand_module("third ", reg<2>, init, handle);
    qor_context_module_t *table[] = {&first, &second, &third, nullptr};
    const uint32_t fails = bytes.below(128);
    there.memory_fails_in = fails < 20 ? static_cast<int>(fails) : -1;
    p.bus = qor_bus_create(table, topics);
    const bool spent = fails < 20 && there.memory_fails_in < 0;
    there.memory_fails_in = -1;
    there.printed.clear();
    EXPECT(p.bus || spent);
    if (!p.bus || spent) {
        return give_up(p);
    }
    contract_set(p);
    record(p);
    qor_bus_thread_num_set(p.bus, 0);
    qor_bus_watch_set(p.bus, 0);
    EXPECT(qor_bus_loop(p.bus) == 0);
    qor_bus_close(p.bus);
    there.printed.clear();
    expect_end(p);
    return 0;
}
