/* SPDX-License-Identifier: Apache-2.0 */
/* Who is shown what, and what the first task of the bus's queue will do. */
#include "bus_party.hpp"

#include "qor_sched_delegate_priv.hpp"

#include <string.h>

#include <algorithm>

#include "hand.hpp"
Party *party;

namespace {

constexpr int32_t first_session = 1000000; /* the bus counts from 0 */

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

} // namespace

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

void pass(Party &p, Item &item, bool before, bool posted, bool memory)
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
