/* SPDX-License-Identifier: Apache-2.0 */
/* The queue as it should be: what every post comes to, what is begun next, and the whole ledger. */
#include "strict_party.hpp"

#include "contract.hpp"

#include <string.h>

#include <algorithm>

#include "hand.hpp"
Party *party;
qor_context_t *server_context;
qor_context_t *client_context;
qor_context_t *helper_context;

namespace {

bool comes_before(const Item *one, const Item *other)
{
    return one->when != other->when ? one->when < other->when : one->order < other->order;
}

uint64_t &awaited(Party &p, const Item &item)
{
    return item.delayed ? p.ledger.delayed : p.ledger.waiting;
}

void drop(Party &p, Item &item, int32_t reason)
{
    item.where = Where::over;
    item.ret = QOR_RET_DROPPED;
    item.expected = 1;
    tell_loss(p, item, reason);
}

void accept(Party &p, Item &item, int32_t delay)
{
    item.where = Where::queue;
    item.when = p.there.now + delay;
    item.order = p.orders++;
    item.placed = !item.delayed && item.kind != Kind::response;
    item.expected = 1;
    p.queue.insert(std::find_if(p.queue.begin(), p.queue.end(),
                                [&](const Item *other) { return comes_before(&item, other); }),
                   &item);
    p.ledger.accepted++;
    awaited(p, item)++;
    p.counted += item.placed;
    p.ledger.highest = std::max(p.ledger.highest, uint64_t{p.counted});
}

qor_ledger_t ledger_of(Party &p)
{
    qor_ledger_t ledger = {};
    ledger.size = sizeof(ledger);
    EXPECT(qor_bus_ledger(p.bus, "server", &ledger) == 0);
    return ledger;
}

/* What a strict server has handed on to the helper unseen: the first in their order. */
void catch_up_with_moved(Party &p, const qor_ledger_t &ledger)
{
    while (p.ledger.transferred < ledger.transferred) {
        bool periodic;
        Item *item = next_of(p, &periodic);
        EXPECT(item && !periodic && item->kind == Kind::request && p.helper_serves && p.strict);
        leave_queue(p, item);
        item->where = Where::helper;
        p.ledger.transferred++;
        p.at_helper.push_back(item);
    }
}

/* What the helper has handed on to a strict server: nobody waits for a place there. */
void catch_up_with_returned(Party &p, const qor_ledger_t &ledger)
{
    while (p.ledger.accepted + p.ledger.refused < ledger.accepted + ledger.refused) {
        EXPECT(p.strict && !p.helper_serves && !p.at_helper.empty());
        Item *item = p.at_helper.front();
        p.at_helper.pop_front();
        item->ret = QOR_RET_DROPPED; /* if it is refused */
        const Fate fate = fate_of(p, *item);
        end_post(p, *item, fate == Fate::wait ? Fate::refuse : fate, 0);
    }
}

} // namespace

Actor actor()
{
    const thread_record *record = thread_record_get();
    return {record && record->role == thread_works,
            record && record->task_of && record->task_of->core &&
                strcmp(contract_name(*record->task_of), "server") == 0};
}

void leave_queue(Party &p, Item *item)
{
    p.queue.remove(item);
    p.counted -= item->placed;
    awaited(p, *item)--;
}

Item *next_of(Party &p, bool *periodic)
{
    Item *next = nullptr;
    for (Item *item : p.queue) {
        if (item->when > p.there.now) {
            break;
        }
        if (item->kind != Kind::request || !p.full_open()) {
            next = item;
            break;
        }
    }
    const Periodic &timer = p.periodic;
    *periodic = timer.queued && (!next || timer.due < next->when ||
                                 (timer.due == next->when && timer.order < next->order));
    return next;
}

void tell_loss(Party &p, const Item &item, int32_t reason)
{
    const int32_t kind = item.kind == Kind::request    ? QOR_LOSS_REQUEST
                         : item.kind == Kind::listener ? QOR_LOSS_LISTENER
                                                       : QOR_LOSS_TASK;
    const qor_context_topic_t topic = item.kind == Kind::request    ? TO_SERVER
                                      : item.kind == Kind::listener ? TO_HELPER
                                                                    : -1;
    if (p.terms.lost && !p.losing) {
        p.losses.push_back({nullptr, topic, item.session, kind, reason});
    }
}

Fate fate_of(const Party &p, const Item &item)
{
    if (p.quit) {
        return Fate::close;
    }
    const bool fits = p.counted < p.terms.depth && p.blocked.empty();
    if (item.delayed || item.kind == Kind::response || fits) {
        return Fate::accept;
    }
    if (p.strict && !p.started) {
        return Fate::refuse;
    }
    switch (p.terms.overflow) {
    case QOR_OVERFLOW_BYPASS:
        return Fate::bypass;
    case QOR_OVERFLOW_DROP_OLDEST:
        return Fate::evict;
    case QOR_OVERFLOW_DROP_NEWEST:
        return Fate::drop;
    case QOR_OVERFLOW_BLOCK:
        return item.kind == Kind::listener ? Fate::drop : Fate::wait;
    default:
        return Fate::refuse;
    }
}

int32_t end_post(Party &p, Item &item, Fate fate, int32_t delay)
{
    switch (fate) {
    case Fate::evict: {
        Item *oldest = *std::find_if(p.queue.begin(), p.queue.end(),
                                     [](const Item *other) { return other->placed; });
        leave_queue(p, oldest);
        p.ledger.dropped_oldest++;
        accept(p, item, delay);
        drop(p, *oldest, QOR_LOSS_OLDEST);
        return 0;
    }
    case Fate::accept:
        accept(p, item, delay);
        return 0;
    case Fate::drop:
        p.ledger.accepted++;
        p.ledger.dropped_newest++;
        drop(p, item, QOR_LOSS_NEWEST);
        return 0;
    case Fate::bypass:
        item.where = Where::past;
        item.expected = 1;
        p.past.push_back(&item);
        p.ledger.bypassed++;
        return 0;
    default:
        if (p.quit && item.kind == Kind::response) {
            p.ledger.accepted++;
            p.ledger.discarded++;
        } else {
            p.ledger.refused++;
        }
        item.where = Where::over;
        return -1;
    }
}

void catch_up(Party &p)
{
    const qor_ledger_t ledger = ledger_of(p);
    catch_up_with_moved(p, ledger);
    catch_up_with_returned(p, ledger);
}

void expect_ledger(Party &p)
{
    catch_up(p);
    qor_ledger_t expected = p.ledger;
    expected.size = sizeof(expected);
    expected.running = p.running;
    const qor_ledger_t ledger = ledger_of(p);
    EXPECT(memcmp(&ledger, &expected, sizeof(ledger)) == 0);
    EXPECT(ledger.accepted == ledger.run + ledger.running + ledger.waiting + ledger.delayed +
                                  ledger.dropped_oldest + ledger.dropped_newest +
                                  ledger.dropped_transfer + ledger.cancelled + ledger.discarded +
                                  ledger.transferred);
    EXPECT(p.losses.empty());
}

void expect_rest(Party &p)
{
    bool periodic;
    EXPECT(p.running == 0 && p.past.empty());
    EXPECT(p.periodic.armed || p.periodic.period == 0 || p.periodic.recycled == 1 || !p.started);
    EXPECT(!p.started || (!next_of(p, &periodic) && !periodic));
    const auto asked = std::count_if(p.queue.begin(), p.queue.end(),
                                     [](const Item *item) { return item->kind == Kind::request; });
    EXPECT(p.client_open == p.open.size() + static_cast<size_t>(asked));
}

void begin(Party &p, Item *item)
{
    catch_up(p);
    item->counted = item->where == Where::queue;
    if (item->counted) {
        bool periodic;
        EXPECT(next_of(p, &periodic) == item && !periodic);
        EXPECT(!p.strict || (p.started && p.running < p.slots));
        leave_queue(p, item);
    } else { /* past the queue, or in that of the helper */
        std::list<Item *> &list = item->where == Where::past ? p.past : p.at_helper;
        EXPECT(item->where == Where::past || (item->where == Where::helper && !p.strict));
        EXPECT(list.front() == item);
        list.pop_front();
    }
    p.running += item->counted;
    item->where = Where::running;
}

void end(Party &p, Item *item)
{
    p.running -= item->counted;
    p.ledger.run += item->counted;
    item->where = Where::over;
}

Item *item_make(Party &p, Kind kind)
{
    const uint32_t id = static_cast<uint32_t>(p.items.size());
    p.items.push_back(std::make_unique<Item>());
    Item *item = p.items.back().get();
    *item = {};
    item->kind = kind;
    item->id = id;
    item->session = first_session + static_cast<int32_t>(id);
    return item;
}

Item *item_of(Party &p, const qor_context_msg_t *msg)
{
    uint32_t id;
    EXPECT(msg->request.size == sizeof(id));
    memcpy(&id, msg->request.buf, sizeof(id));
    EXPECT(id < p.items.size());
    return p.items[id].get();
}
