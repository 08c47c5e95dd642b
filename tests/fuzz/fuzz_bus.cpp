/* SPDX-License-Identifier: Apache-2.0 */
/* A whole bus, driven by hand: three modules ask each other, watch, defer, time and cancel. The
 * model knows who is shown what, what every call gives, and that all there is comes to one end. */
#include "qor_bus.h"

#include "qor_bus_priv.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_contract.h"
#include "qor_core_context_priv.hpp"
#include "qor_deferred.h"
#include "qor_inspect.h"
#include "qor_periodic.h"
#include "qor_que.h"
#include "qor_sched_delegate_priv.hpp"
#include "qor_sys.h"
#include "qor_time_que.h"
#include "qor_trace.h"

#include <string.h>

#include <algorithm>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "hand.hpp"
#include "world.hpp"

namespace {

constexpr uint32_t modules = 3;
constexpr uint32_t strict_one = 2; /* the module that may be strict */
constexpr int32_t topics = 3;
constexpr uint32_t items_most = 250;
constexpr uint32_t crowd = 50; /* from there on what is posted goes past a module's queue */
constexpr int depth_most = 6;
constexpr int32_t first_session = 1000000; /* the bus counts from 0 */

enum Kind { SUBSCRIBES, LISTENS, FILTERS, kinds };

struct Registration {
    uint32_t module;
    int32_t point;
};

/* What one who registered is shown. */
struct Shown {
    uint32_t module;
    int32_t type;
    uint32_t id;
};

enum class What { request, call, task, bus_task };
enum class State { refused, waits, runs, open, ends, over };

/* A request or a task. */
struct Item {
    What what;
    uint32_t id;
    int32_t session;
    State state;
    uint32_t module; /* who asks, or whose task it is */
    uint32_t taker;  /* whose queue a request waits in */
    int32_t topic;
    int32_t room; /* of the response */
    int32_t ret;
    int32_t size; /* of the response that is to come */
    bool answered;
    uint64_t token;
    int64_t limit; /* when an open one expires */
    int64_t when;
    bool timed;
    int recycled;
    int expected; /* recycles */
};

/* What waits in the bus's queue under a number: a task of an application's, or a dispatch to
 * listeners. */
struct Queued {
    int32_t session;
    Item *item;
    int32_t type;
    bool empty; /* without memory for the message */
};

struct Periodic {
    int32_t session;
    int64_t since;
    int64_t period;
    int64_t points;
    int64_t due; /* the next point of its grid that gets a run */
    uint32_t module;
    bool armed;
    bool running;
    int recycled;
};

struct Party {
    World &there;
    Bytes &bytes;
    qor_bus_t *bus = nullptr;
    qor_context_t *contexts[modules] = {};
    bool up = false;
    bool quit = false;
    int depth = 0;
    std::vector<std::unique_ptr<Item>> items = {};
    std::vector<std::unique_ptr<Periodic>> timers = {};
    std::vector<Registration> table[topics][kinds] = {}; /* newest first */
    std::deque<Shown> shown = {};                        /* that is still to come */
    std::deque<Queued> queued = {};
    bool crowded[modules] = {};
    bool strict = false;         /* the third module is */
    uint32_t replies = 0;        /* that it may wait for */
    uint32_t awaited = 0;        /* that it waits for */
    std::list<Shown> later = {}; /* what it is still to be shown, in turns of its own */
};

Party *party;

uint32_t index_of(const qor_context_t *context)
{
    for (uint32_t n = 0; n < modules; n++) {
        if (party->contexts[n] == context) {
            return n;
        }
    }
    EXPECT(false);
    return 0;
}

qor_context_t *wrapper(const Party &p, uint32_t module)
{
    return static_cast<qor_context_t *>(qor_context_pub_data_get(p.contexts[module]));
}

Item *item_make(Party &p, What what, uint32_t module)
{
    p.items.push_back(std::make_unique<Item>());
    Item *item = p.items.back().get();
    *item = {};
    item->what = what;
    item->id = static_cast<uint32_t>(p.items.size()) - 1;
    item->session = first_session + static_cast<int32_t>(item->id);
    item->module = module;
    return item;
}

Item *item_of(Party &p, const qor_context_msg_t *msg)
{
    uint32_t id;
    EXPECT(msg->request.size == sizeof(id));
    memcpy(&id, msg->request.buf, sizeof(id));
    EXPECT(id < p.items.size());
    Item *item = p.items[id].get();
    EXPECT(msg->topic == item->topic && msg->session == item->session);
    return item;
}

/* ---- who is shown what */

void expect_shown(Party &p, const Item &item, Kind kind, int32_t type, int32_t point)
{
    for (const Registration &registration : p.table[item.topic][kind]) {
        const bool excepted = (registration.point & QOR_CONTEXT_TOPIC_ATTR_POINT_EXCEPT_SELF) &&
                              registration.module == item.module;
        if ((registration.point & point) && !excepted) {
            if (kind == LISTENS && p.strict && registration.module == strict_one) {
                p.later.push_back({registration.module, type, item.id});
            } else {
                p.shown.push_back({registration.module, type, item.id});
            }
        }
    }
}

/* One point of a passage: filters now, listeners by a task that draws the next number. */
void pass(Party &p, Item &item, bool before, bool posted = true, bool memory = true)
{
    EXPECT(p.shown.empty());
    expect_shown(p, item, FILTERS,
                 before ? QOR_CONTEXT_MSG_FILTER_BEFORE : QOR_CONTEXT_MSG_FILTER_AFTER,
                 before ? QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE : QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    if (!p.table[item.topic][LISTENS].empty() && posted && !p.quit) {
        p.queued.push_back({p.bus->session, &item,
                            before ? QOR_CONTEXT_MSG_LISTEN_BEFORE : QOR_CONTEXT_MSG_LISTEN_AFTER,
                            !memory});
    }
}

void see(Party &p, uint32_t module, const qor_context_msg_t *msg)
{
    const Item *item = item_of(p, msg);
    const auto is_it = [&](const Shown &one) {
        return one.module == module && one.type == msg->type && one.id == item->id;
    };
    const auto later = std::find_if(p.later.begin(), p.later.end(), is_it);
    const bool after =
        msg->type == QOR_CONTEXT_MSG_FILTER_AFTER || msg->type == QOR_CONTEXT_MSG_LISTEN_AFTER;
    EXPECT(msg->ret == (after ? item->ret : 0));
    if (later != p.later.end()) {
        EXPECT(p.shown.empty());
        p.later.erase(later);
    } else {
        EXPECT(!p.shown.empty() && is_it(p.shown.front()));
        p.shown.pop_front();
    }
}

/* ---- the bus's queue */

const qor_que_node_t *first_of(const Party &p)
{
    const list_head *link = p.bus->que->head.next;
    return link == &p.bus->que->head ? nullptr : reinterpret_cast<const qor_que_node_t *>(link);
}

/* The request that a task of the library's own is about to end, or NULL. */
Item *ended_by(Party &p, const qor_que_node_t *node)
{
    const qor_context_task_t *task = reinterpret_cast<const qor_context_task_t *>(node->body);
    const bool own = que_front_of(node)->flags & que_own;
    if (!own || !sched_delegate_is_relay(task)) {
        return nullptr;
    }
    Item *item = item_of(p, static_cast<const qor_context_msg_t *>(task->arg));
    EXPECT(static_cast<const qor_context_msg_t *>(task->arg)->ret == item->ret);
    return item;
}

/* A request whose time is over ends as soon as the timer's task has run. */
void expire(Party &p)
{
    for (const list_head *link = p.bus->que->head.next; link != &p.bus->que->head;
         link = link->next) {
        const auto *node = reinterpret_cast<const qor_que_node_t *>(link);
        const auto *task = reinterpret_cast<const qor_context_task_t *>(node->body);
        if (!(que_front_of(node)->flags & que_own) || !sched_delegate_is_relay(task)) {
            continue;
        }
        const auto *msg = static_cast<const qor_context_msg_t *>(task->arg);
        Item *item = item_of(p, msg);
        if (item->state == State::open) {
            EXPECT(msg->ret == QOR_RET_EXPIRED && p.there.now >= item->limit);
            item->state = State::ends;
            item->ret = QOR_RET_EXPIRED;
            item->size = item->room;
        }
    }
}

/* What the first task of the queue will do, as far as others see it. */
void foresee(Party &p, const qor_que_node_t *node)
{
    EXPECT(p.shown.empty());
    if (Item *item = ended_by(p, node)) {
        EXPECT(item->state == State::ends);
        item->state = State::over;
        pass(p, *item, false);
        return;
    }
    const auto at = std::find_if(p.queued.begin(), p.queued.end(), [node](const Queued &entry) {
        return static_cast<size_t>(entry.session) == node->id;
    });
    if (at == p.queued.end() || (que_front_of(node)->flags & que_own)) {
        return;
    }
    EXPECT(at == p.queued.begin());
    const Queued entry = p.queued.front();
    const size_t before = p.later.size();
    p.queued.pop_front();
    if (entry.type != 0 && !entry.empty) {
        expect_shown(p, *entry.item, LISTENS, entry.type,
                     entry.type == QOR_CONTEXT_MSG_LISTEN_BEFORE
                         ? QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE
                         : QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
    }
    if (p.later.size() > before && p.bytes.below(4) == 1) { /* the first of them gets no copy */
        p.later.erase(std::next(p.later.begin(), static_cast<std::ptrdiff_t>(before)));
        p.there.memory_fails_in = static_cast<int>(p.bytes.below(2));
    }
}

bool run_one(Party &p)
{
    const qor_que_node_t *node = p.quit ? nullptr : first_of(p);
    if (!node || p.depth >= depth_most) {
        return false;
    }
    foresee(p, node);
    p.depth++;
    EXPECT(hand_run(p.bus));
    p.there.memory_fails_in = -1;
    p.depth--;
    expire(p);
    EXPECT(p.shown.empty());
    return true;
}

void act_inside(Party &p);

/* ---- tasks */

/* None of its module's that was due before it waits still. */
void expect_turn(Party &p, const Item &item, uint32_t module)
{
    EXPECT(item.state == State::waits && p.there.now >= item.when);
    for (const auto &other : p.items) {
        const bool waits =
            other->state == State::waits && other->what != What::bus_task && other->taker == module;
        EXPECT(!waits || p.crowded[module] || p.strict || other->when >= item.when);
    }
}

void *task_run(qor_context_t *context, int32_t session, void *arg)
{
    Party &p = *party;
    Item *item = static_cast<Item *>(arg);
    EXPECT(context && session == item->session);
    if (item->what == What::task) {
        expect_turn(p, *item, item->module);
    }
    EXPECT(item->state == State::waits && p.there.now >= item->when);
    item->state = State::runs;
    act_inside(p);
    item->state = State::over;
    return nullptr;
}

void task_recycle(void *arg)
{
    Item *item = static_cast<Item *>(arg);
    item->recycled++;
    EXPECT(item->recycled <= item->expected);
}

/* Whether so many are in a module's queue, or may come back to it, that some may go past it. */
bool is_crowded(const Party &p, uint32_t module)
{
    return std::count_if(p.items.begin(), p.items.end(), [module](const auto &item) {
               const bool waits = item->state == State::waits && item->taker == module;
               const bool comes = item->what == What::request && item->module == module &&
                                  item->state != State::refused && !item->answered;
               return waits || comes;
           }) >= crowd / 2;
}

void enter(Party &p, Item &item, uint32_t module, int64_t when)
{
    item.state = State::waits;
    item.taker = module;
    item.when = when;
    for (uint32_t n = 0; n < modules; n++) {
        p.crowded[n] = p.crowded[n] || is_crowded(p, n);
    }
}

void post_task(Party &p, bool later)
{
    const uint32_t module = p.bytes.below(modules);
    Item *item = item_make(p, What::task, module);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, p.contexts[module], nullptr, item->session, task_run,
                                  item) == 0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    const bool memory = p.bytes.below(16) != 0;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(p.bytes.below(later ? 3 : 1));
    const bool posted = memory && !p.quit;
    if (posted) {
        item->expected = 1;
        enter(p, *item, module, p.there.now + task.delay);
    }
    EXPECT(qor_context_handler_post(p.contexts[module], &task) == (posted ? 0 : -1));
    p.there.memory_fails_in = -1;
}

/* A task of the bus's own, now or by a timer, which is recycled by the loop as well. */
void post_bus_task(Party &p, bool later)
{
    const uint32_t module = p.bytes.below(modules);
    Item *item = item_make(p, What::bus_task, module);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, p.contexts[module], "bus", item->session, task_run,
                                  item) == 0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    item->timed = later;
    item->taker = modules;
    item->when = p.there.now + task.delay;
    const bool memory = p.bytes.below(16) != 0;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(p.bytes.below(later ? 2 : 1));
    const bool posted = memory && !p.quit;
    const int32_t ret = p.bytes.below(2) ? qor_context_handler_post(wrapper(p, module), &task)
                        : later          ? qor_bus_timer_post(p.bus, &task)
                                         : qor_bus_post(p.bus, &task);
    EXPECT(ret == (posted ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (posted) {
        item->state = State::waits;
        item->expected = 1;
        if (!later) {
            p.queued.push_back({item->session, item, 0, false});
        }
    }
}

/* The loop serves the timers that are due, and recycles what they have queued a copy of. */
void timers_served(Party &p)
{
    for (const auto &item : p.items) {
        if (item->timed && item->state == State::waits && p.there.now >= item->when) {
            item->timed = false;
            item->expected = 2;
        }
    }
}

/* ---- requests */

const Registration *newest(const Party &p, int32_t topic)
{
    const auto &list = p.table[topic][SUBSCRIBES];
    return list.empty() ? nullptr : &list.front();
}

/* Which allocation of a request fails: that for the listeners' copy, for their task, or one of the
 * request's own. */
struct Failing {
    bool copy;
    bool task;
    bool request;
};

bool run_is_needed(const Party &p, uint32_t module)
{
    const qor_core_context_t *core = qor_core_context_type(wrapper(p, module));
    const bool slot = static_cast<uint32_t>(core->refcount) < core->refcount_max;
    return slot && !core->priv->loop && !(p.strict && module == strict_one);
}

Failing failing(Party &p, int32_t topic, uint32_t fails)
{
    const uint32_t listeners = p.table[topic][LISTENS].empty() ? 0 : 2;
    const Registration *aim = newest(p, topic);
    const uint32_t own = aim ? 2 + run_is_needed(p, aim->module) : 0;
    return {listeners && fails == 0, listeners && fails == 1,
            fails >= listeners && fails < listeners + own};
}

int32_t request(const Party &p, Item *item)
{
    qor_context_t *self = p.contexts[item->module];
    return item->room > 0
               ? qor_context_req_ret_s(self, item->session, item->topic, &item->id,
                                       sizeof(item->id), item->room)
               : qor_context_req_s(self, item->session, item->topic, &item->id, sizeof(item->id));
}

void publish(Party &p, uint32_t module, int32_t topic, int32_t room, uint32_t rare)
{
    Item *item = item_make(p, What::request, module);
    item->topic = topic;
    item->room = room;
    const bool counted = p.strict && module == strict_one;
    if (counted && p.awaited >= p.replies) {
        EXPECT(request(p, item) == -1 && p.shown.empty());
        return;
    }
    const Failing fails = failing(p, item->topic, rare);
    p.there.memory_fails_in = rare == UINT32_MAX ? -1 : static_cast<int>(rare);
    pass(p, *item, true, !fails.task, !fails.copy);
    const Registration *aim = newest(p, item->topic);
    const bool handed = aim && !fails.request && !p.quit;
    if (handed) {
        item->size = item->room;
        enter(p, *item, aim->module, p.there.now);
        p.awaited += counted;
    }
    const int32_t session = request(p, item);
    p.there.memory_fails_in = -1;
    EXPECT(session == (handed ? item->session : -1) && p.shown.empty());
}

void publish_any(Party &p)
{
    const uint32_t module = p.bytes.below(modules);
    const int32_t topic = static_cast<int32_t>(p.bytes.below(topics));
    const int32_t room = p.bytes.below(2) ? static_cast<int32_t>(p.bytes.below(9)) : 0;
    publish(p, module, topic, room, p.bytes.below(8) == 0 ? p.bytes.below(5) : UINT32_MAX);
}

/* More than a module's queue holds. */
void publish_many(Party &p)
{
    const uint32_t module = p.bytes.below(modules);
    const int32_t topic = static_cast<int32_t>(p.bytes.below(topics));
    for (uint32_t left = crowd + 4; left > 0 && p.items.size() < items_most; left--) {
        publish(p, module, topic, 0, UINT32_MAX);
    }
}

/* A request that is handled before the call returns. */
void call(Party &p)
{
    if (p.depth >= depth_most) {
        return;
    }
    Item *item = item_make(p, What::call, p.bytes.below(modules));
    item->topic = static_cast<int32_t>(p.bytes.below(topics));
    item->room = static_cast<int32_t>(p.bytes.below(9));
    char response[8] = {};
    pass(p, *item, true);
    const Registration *aim = newest(p, item->topic);
    item->state = State::waits;
    item->taker = modules; /* nobody's queue */
    item->when = p.there.now;
    if (!aim) {
        item->ret = -1;
        /* The points after it follow at once. */
        expect_shown(p, *item, FILTERS, QOR_CONTEXT_MSG_FILTER_AFTER,
                     QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER);
        if (!p.table[item->topic][LISTENS].empty() && !p.quit) {
            p.queued.push_back({p.bus->session + 1, item, QOR_CONTEXT_MSG_LISTEN_AFTER, false});
        }
    }
    p.depth++;
    const int32_t ret =
        qor_context_x_req_ret_s(p.contexts[item->module], item->session, item->topic, &item->id,
                                sizeof(item->id), response, item->room);
    p.depth--;
    EXPECT(ret == item->ret && p.shown.empty());
    EXPECT(!aim || item->state == State::over);
    EXPECT(!aim || item->room == 0 || response[0] == static_cast<char>(item->id));
    item->state = State::over;
}

/* Keeps the request open: whether that is so. */
bool defer(Party &p, uint32_t module, Item *item, qor_context_msg_t *msg)
{
    const bool good = item->what == What::request && !p.quit;
    const uint32_t how = p.bytes.below(4);
    const int32_t wait = how == 0 ? -1 : 1 + static_cast<int32_t>(p.bytes.below(40));
    const bool memory = !good || p.bytes.below(8) != 0;
    p.there.memory_fails_in = memory ? -1 : 0;
    EXPECT(qor_context_defer(p.contexts[module], msg, wait, &item->token) ==
           (good && memory ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (!good || !memory) {
        return false;
    }
    uint64_t token;
    EXPECT(qor_context_defer(p.contexts[module], msg, wait, &token) == -1);
    item->limit = wait < 0 ? INT64_MAX : p.there.now + wait;
    return true;
}

int32_t any_result(Party &p)
{
    static const int32_t results[] = {0, 1, 7, -1, -2, QOR_RET_DROPPED, QOR_RET_GONE};
    return results[p.bytes.below(7)];
}

/* What the publisher gets of it: where results are reserved, those are not to be seen. */
int32_t result_of(int32_t ret, bool reserved)
{
    return reserved && ret <= QOR_RET_GONE ? -1 : ret;
}

int32_t handle_open(Party &p, Item *item)
{
    item->state = State::open;
    act_inside(p);
    const int32_t ret = any_result(p);
    if (ret < 0 && item->state == State::open && !p.quit) {
        item->state = State::ends;
        item->ret = result_of(ret, true);
    }
    return ret;
}

int32_t handle_request(Party &p, uint32_t module, qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(p.shown.empty() && newest(p, item->topic) && newest(p, item->topic)->module == module);
    if (item->what == What::request) {
        expect_turn(p, *item, item->taker);
    }
    item->state = State::runs;
    EXPECT(msg->response.size == item->room);
    if (item->room > 0) {
        *static_cast<char *>(msg->response.buf) = static_cast<char>(item->id);
    }
    act_inside(p);
    if (p.bytes.below(4) == 0 && defer(p, module, item, msg)) {
        return handle_open(p, item);
    }
    const int32_t ret = any_result(p);
    item->ret = result_of(ret, p.strict && module == strict_one);
    item->state = State::over;
    pass(p, *item, false);
    return ret;
}

void handle_response(Party &p, uint32_t module, const qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(item->what == What::request && item->module == module && p.shown.empty());
    EXPECT(item->state == State::over && !item->answered && msg->ret == item->ret);
    EXPECT(msg->response.size == item->size);
    item->answered = true;
    p.awaited -= p.strict && module == strict_one;
    act_inside(p);
}

int32_t handle(qor_context_t *context, qor_context_msg_t *msg)
{
    Party &p = *party;
    const uint32_t module = index_of(context);
    switch (msg->type) {
    case QOR_CONTEXT_MSG_REQUEST:
        return handle_request(p, module, msg);
    case QOR_CONTEXT_MSG_RESPONSE:
        handle_response(p, module, msg);
        return 0;
    default:
        see(p, module, msg);
        return 0;
    }
}

/* ---- deferred requests */

/* One that is, or has been, deferred; NULL: none. */
Item *any_deferred(Party &p)
{
    std::vector<Item *> deferred;
    for (const auto &item : p.items) {
        if (item->token != 0) {
            deferred.push_back(item.get());
        }
    }
    return deferred.empty() ? nullptr
                            : deferred[p.bytes.below(static_cast<uint32_t>(deferred.size()))];
}

void complete(Party &p)
{
    Item *item = any_deferred(p);
    const uint64_t token = item ? item->token : p.bytes.byte();
    const int32_t ret = any_result(p);
    const int32_t size = static_cast<int32_t>(p.bytes.below(10));
    static const char data[10] = "responses";
    const bool open = item && item->state == State::open && !p.quit;
    const bool fits = open && size <= item->room;
    if (fits) {
        item->state = State::ends;
        item->ret = result_of(ret, true);
        item->size = size;
    }
    EXPECT(qor_deferred_complete(token, ret, data, size) == (fits ? 0 : -1));
}

void copy_request(Party &p)
{
    Item *item = any_deferred(p);
    const uint64_t token = item ? item->token : p.bytes.byte();
    uint32_t id = UINT32_MAX;
    const bool open = item && item->state == State::open && !p.quit;
    const int32_t size = p.bytes.below(2) ? sizeof(id) : 0;
    EXPECT(qor_deferred_request(token, &id, size) ==
           (open ? static_cast<int32_t>(sizeof(id)) : -1));
    EXPECT(id == (open && size > 0 ? item->id : UINT32_MAX));
}

/* ---- registrations */

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

/* ---- taking back */

void cancel(Party &p)
{
    if (p.items.empty()) {
        return;
    }
    Item *item = p.items[p.bytes.below(static_cast<uint32_t>(p.items.size()))].get();
    const bool own = item->what == What::task;
    if (item->state != State::waits || (!own && item->what != What::bus_task) ||
        (own && p.crowded[item->module])) { /* it may be past the queue */
        return;
    }
    const auto at = std::find_if(p.queued.begin(), p.queued.end(),
                                 [item](const Queued &entry) { return entry.item == item; });
    const bool there = own || (at != p.queued.end() && !p.quit);
    if (item->what == What::bus_task && item->when > 0 && at == p.queued.end()) {
        return; /* a timer's */
    }
    if (there) {
        item->state = State::over;
        if (!own) {
            p.queued.erase(at);
        }
    }
    const int32_t ret = own ? qor_context_timer_cancel(p.contexts[item->module], item->session)
                        : p.bytes.below(2)
                            ? qor_context_handler_cancel(wrapper(p, item->module), item->session)
                            : qor_bus_cancel(p.bus, item->session);
    EXPECT((ret == 0) == there || p.quit);
    item->state = ret == 0 ? State::over : State::waits;
    EXPECT(ret < 0 || item->recycled == 1);
}

/* ---- periodic timers */

void periodic_run(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    Party &p = *party;
    Periodic &timer = *static_cast<Periodic *>(arg);
    EXPECT(self == p.contexts[timer.module] && session == timer.session);
    EXPECT(timer.armed && !timer.running && timer.recycled == 0);
    const int64_t points = (p.there.now - timer.since) / timer.period;
    EXPECT(p.there.now >= timer.due && missed == points - timer.points - 1);
    timer.points = points;
    timer.running = true;
    act_inside(p);
    timer.running = false;
    const int64_t over = p.there.now - timer.since;
    timer.due = timer.since +
                std::max(timer.points + 1, (over + timer.period - 1) / timer.period) * timer.period;
}

void periodic_recycle(void *arg)
{
    Periodic &timer = *static_cast<Periodic *>(arg);
    timer.recycled++;
    EXPECT(timer.recycled == 1 && !timer.running);
}

void periodic_arm(Party &p)
{
    if (p.timers.size() >= 6) {
        return;
    }
    p.timers.push_back(std::make_unique<Periodic>());
    Periodic &timer = *p.timers.back();
    timer.module = p.bytes.below(modules);
    timer.since = p.there.now;
    timer.period = 1 + p.bytes.below(30);
    timer.due = timer.since + timer.period;
    const uint32_t fails = p.bytes.below(16);
    const bool memory = fails > 1;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(fails);
    timer.session = qor_context_every(p.contexts[timer.module], periodic_run, &timer,
                                      periodic_recycle, static_cast<int32_t>(timer.period));
    p.there.memory_fails_in = -1;
    timer.armed = timer.session >= 0;
    EXPECT(timer.armed == (memory && !p.quit));
    if (!timer.armed) {
        EXPECT(timer.recycled == 0);
        p.timers.pop_back();
    }
}

void periodic_cancel(Party &p)
{
    if (p.timers.empty()) {
        return;
    }
    Periodic &timer = *p.timers[p.bytes.below(static_cast<uint32_t>(p.timers.size()))];
    if (!timer.armed) {
        return;
    }
    EXPECT((p.bytes.below(2) ? qor_bus_cancel(p.bus, timer.session)
                             : qor_context_timer_cancel(p.contexts[p.bytes.below(modules)],
                                                        timer.session)) == 0);
    timer.armed = false;
    /* One that waits in a strict module's queue goes when its turn comes. */
    EXPECT(timer.recycled == !timer.running || (p.strict && timer.module == strict_one));
}

/* ---- calls of the wrong kind, and of the system */

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

/* ---- all of it */

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
