/* SPDX-License-Identifier: Apache-2.0 */
/* Requests and calls: how they are handed over, handled, deferred and answered. */
#include "bus_party.hpp"

#include "qor_context_module.h"
#include "qor_core_context_priv.hpp"
#include "qor_deferred.h"

namespace {

/* Which allocation of a request fails: that for the listeners' copy, for their task, or one of the
 * request's own. */
struct Failing {
    bool copy;
    bool task;
    bool request;
};

const Registration *newest(const Party &p, int32_t topic)
{
    const auto &list = p.table[topic][SUBSCRIBES];
    return list.empty() ? nullptr : &list.front();
}

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

} // namespace

void publish_any(Party &p)
{
    const uint32_t module = p.bytes.below(modules);
    const int32_t topic = static_cast<int32_t>(p.bytes.below(topics));
    const int32_t room = p.bytes.below(2) ? static_cast<int32_t>(p.bytes.below(9)) : 0;
    publish(p, module, topic, room, p.bytes.below(8) == 0 ? p.bytes.below(5) : UINT32_MAX);
}

void publish_many(Party &p)
{
    const uint32_t module = p.bytes.below(modules);
    const int32_t topic = static_cast<int32_t>(p.bytes.below(topics));
    for (uint32_t left = crowd + 4; left > 0 && p.items.size() < items_most; left--) {
        publish(p, module, topic, 0, UINT32_MAX);
    }
}

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
