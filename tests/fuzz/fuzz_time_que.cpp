/* SPDX-License-Identifier: Apache-2.0 */
/* The timed queue, by a clock that moves only when it is told to. Where a call waits, the bytes say
 * what others do meanwhile; each wait must be one that its caller needs, end when it must, and be
 * woken by what it waits for. */
#include "qor_time_que.h"

#include "qor_time_que_priv.hpp"

#include <algorithm>
#include <list>
#include <vector>

#include "world.hpp"

namespace {

constexpr char tag[] = "qor_time_que";
constexpr size_t outside_most = 24;
constexpr size_t queued_most = 260;
constexpr uint32_t ids = 6;

struct Entry {
    qor_time_que_node_t *node;
    int64_t when;
    size_t id;
};

/* Who waits, and may go on when. */
enum class Waits { nobody, taker, giver, onlooker, settler };

struct Party {
    World &there;
    Bytes &bytes;
    qor_time_que_t *que = nullptr;
    uint32_t most = 0;
    bool in_order = false;
    bool quitting = false;
    bool changed = false; /* since the wait began */
    std::list<Entry> model = {};
    std::vector<qor_time_que_node_t *> outside = {};
    std::vector<qor_time_que_node_t *> kept = {};
    Waits waits = Waits::nobody;
    int64_t deadline = 0;

    uint32_t room() const
    {
        const uint32_t count = static_cast<uint32_t>(model.size());
        return count < most ? most - count : 0;
    }
    bool due() const { return !model.empty() && model.front().when <= there.now; }
    bool over() const { return there.now >= deadline; }
};

Party *party;

void put(Party &p, const Entry &entry)
{
    auto at = std::find_if(p.model.begin(), p.model.end(), [&](const Entry &other) {
        return p.in_order ? other.when > entry.when : other.when >= entry.when;
    });
    if (at != p.model.end() && at->when == entry.when) {
        ++at;
    }
    p.model.insert(at, entry);
    p.changed = true;
}

/* Takes the first that passes out of the model: its node, or NULL. */
template <typename T> qor_time_que_node_t *take(Party &p, T test)
{
    const auto at = std::find_if(p.model.begin(), p.model.end(), test);
    if (at == p.model.end()) {
        return nullptr;
    }
    qor_time_que_node_t *node = at->node;
    p.model.erase(at);
    p.changed = true;
    return node;
}

void expect_queue(const Party &p)
{
    const list_head *link = &p.que->head;
    for (const Entry &entry : p.model) {
        EXPECT(link->next == &entry.node->node && link->next->prev == link);
        EXPECT(entry.node->when == entry.when && entry.node->id == entry.id);
        link = link->next;
    }
    EXPECT(link->next == &p.que->head && p.que->head.prev == link);
    EXPECT(p.que->count == static_cast<int32_t>(p.model.size()));
    EXPECT(p.que->quitting == p.quitting && p.que->max_count == p.most);
    p.there.expect_printed("");
}

/* Quit discards in order, and the count stays until it is over. */
std::vector<qor_time_que_node_t *> recycled;
int32_t count_at_quit = -1; /* none: the queue does not discard */

void note_recycled(void *body)
{
    recycled.push_back(qor_time_que_node_type(body));
    if (count_at_quit >= 0) {
        EXPECT(party->que->count == count_at_quit && party->que->quitting == 1);
    }
}

/* ---- waiting */

void act(Party &p, bool inside);
void quit(Party &p);

/* The others have done something that the waiting thread must hear of. */
bool must_wake(const Party &p, const WorldWait &wait)
{
    switch (p.waits) {
    case Waits::taker:
        return p.quitting || (!p.model.empty() && p.model.front().when < wait.until);
    case Waits::giver:
        return p.quitting || p.room() > 0;
    case Waits::onlooker:
        return p.quitting || p.changed;
    default:
        return p.quitting;
    }
}

/* It has nothing to do, and the time of its wait is the right one. */
void expect_reason(const Party &p, const WorldWait &wait)
{
    EXPECT(!p.quitting && (p.waits == Waits::onlooker || !p.over()));
    int64_t until = p.deadline;
    switch (p.waits) {
    case Waits::taker:
        EXPECT(!p.due());
        until = p.model.empty() ? until : std::min(until, p.model.front().when);
        break;
    case Waits::giver:
        EXPECT(p.room() == 0);
        break;
    default:
        EXPECT(p.waits != Waits::nobody);
        break;
    }
    EXPECT(wait.until == until);
}

void while_waiting(void *arg, WorldWait &wait)
{
    Party &p = *static_cast<Party *>(arg);
    expect_reason(p, wait);
    p.changed = false;
    for (uint32_t left = p.bytes.below(4); left > 0; left--) {
        act(p, true);
        EXPECT(wait.woken || !must_wake(p, wait));
    }
    if (p.bytes.left() && p.bytes.below(4) != 0) {
        return; /* also without a reason: waits may end for none */
    }
    if (wait.until != INT64_MAX) {
        p.there.now = std::max(p.there.now, wait.until);
        wait.timed_out = true;
    } else if (p.bytes.left()) {
        qor_time_que_lock(p.que);
        qor_time_que_wakeup_locked(p.que);
        qor_time_que_unlock(p.que);
        EXPECT(wait.woken);
    } else if (!p.quitting) { /* lets go who waits without a limit */
        quit(p);
        EXPECT(wait.woken);
    }
}

/* A limit of any kind, or none. */
int32_t any_wait(Party &p)
{
    const uint32_t what = p.bytes.below(4);
    const int32_t time = what == 0 ? 0 : what == 1 ? -1 : 1 + static_cast<int32_t>(p.bytes.byte());
    p.deadline = time < 0 ? INT64_MAX : p.there.now + time;
    return time;
}

/* ---- nodes */

qor_time_que_node_t *make(Party &p, size_t id, int32_t delay, int32_t size)
{
    const bool unfilled = size >= 0 && p.bytes.below(8) == 0;
    const bool memory = p.there.memory_fails_in < 0 && size >= 0;
    qor_time_que_node_t *node = unfilled ? time_que_node_unfilled(static_cast<size_t>(size))
                                         : qor_time_que_node_create(id, delay, size);
    EXPECT((node != nullptr) == memory);
    if (!node) {
        p.there.expect_printed(
            World::err(tag, "qor_time_que_node_create", "malloc \"qor_time_que_node_t\" failed."));
        return nullptr;
    }
    if (unfilled) {
        EXPECT(node->id == 0 && node->when == 0);
        qor_time_que_node_update(node, id, delay);
    } else {
        EXPECT(std::all_of(node->body, node->body + size, [](char at) { return at == 0; }));
    }
    std::fill(node->body, node->body + size, 'x');
    EXPECT(qor_time_que_node_id(node) == id && node->when == p.there.now + delay);
    EXPECT(!node->node.next && !node->node.prev && qor_time_que_node_body(node) == node->body);
    EXPECT(qor_time_que_node_type(node->body) == node);
    return node;
}

int32_t any_delay(Party &p)
{
    switch (p.bytes.below(4)) {
    case 0:
        return p.bytes.word() % 1000000000;
    case 1:
        return -static_cast<int32_t>(p.bytes.below(20));
    default:
        return static_cast<int32_t>(p.bytes.below(40)); /* equal ones among them */
    }
}

void make_one(Party &p)
{
    if (p.outside.size() >= outside_most) {
        return;
    }
    p.there.memory_fails_in = p.bytes.below(16) == 0 ? 0 : -1;
    const int32_t size = p.bytes.below(16) == 0 ? -1 - static_cast<int32_t>(p.bytes.byte())
                                                : static_cast<int32_t>(p.bytes.below(20));
    const int32_t delay = any_delay(p);
    if (qor_time_que_node_t *node = make(p, p.bytes.below(ids), delay, size)) {
        p.outside.push_back(node);
    }
    p.there.memory_fails_in = -1;
}

/* One that is in no queue; NULL when there is none. */
qor_time_que_node_t *choose(Party &p)
{
    if (p.outside.empty()) {
        return nullptr;
    }
    std::swap(p.outside[p.bytes.below(static_cast<uint32_t>(p.outside.size()))], p.outside.back());
    return p.outside.back();
}

void destroy(Party &, qor_time_que_node_t *node, uint32_t how)
{
    recycled.clear();
    if (how == 0) {
        qor_time_que_node_destroy(node, nullptr);
        EXPECT(recycled.empty());
        return;
    }
    if (how == 1) {
        qor_time_que_node_destroy(node, note_recycled);
    } else {
        time_que_node_discard(node, note_recycled);
    }
    EXPECT(recycled.size() == 1 && recycled[0] == node);
    recycled.clear();
}

/* ---- calls */

int32_t call_enque(Party &p, qor_time_que_node_t *node, bool locks)
{
    if (locks) {
        return qor_time_que_enque(p.que, node);
    }
    qor_time_que_lock(p.que);
    const int32_t ret = qor_time_que_enque_locked(p.que, node);
    qor_time_que_unlock(p.que);
    return ret;
}

void enque(Party &p, qor_time_que_node_t *node, bool locks)
{
    const bool taken = !p.quitting && p.room() > 0;
    if (taken) {
        p.outside.pop_back();
        put(p, {node, node->when, node->id});
    }
    /* The index does without memory, and nobody notices. */
    p.there.memory_fails_in = static_cast<int>(p.bytes.below(8)) - 2;
    EXPECT(call_enque(p, node, locks) == (taken ? 0 : -1));
    p.there.memory_fails_in = -1;
}

void enque_block(Party &p, qor_time_que_node_t *node, bool locks)
{
    const int32_t time = any_wait(p);
    p.outside.pop_back(); /* for the others it is not there */
    p.waits = Waits::giver;
    int32_t ret;
    if (locks) {
        ret = qor_time_que_enque_block(p.que, node, time);
    } else {
        qor_time_que_lock(p.que);
        ret = qor_time_que_enque_block_locked(p.que, node, time);
        qor_time_que_unlock(p.que);
    }
    p.waits = Waits::nobody;
    const bool taken = !p.quitting && p.room() > 0;
    EXPECT(ret == (taken ? 0 : -1) && (taken || p.quitting || p.over()));
    if (taken) {
        put(p, {node, node->when, node->id});
    } else {
        p.outside.push_back(node);
    }
}

/* What came out belongs to the caller. */
void took(Party &p, qor_time_que_node_t *node, qor_time_que_node_t *expected)
{
    EXPECT(node == expected);
    if (node) {
        EXPECT(!node->node.next && !node->node.prev);
        p.outside.push_back(node);
    }
}

qor_time_que_node_t *due_one(Party &p)
{
    return p.due() && !p.quitting ? take(p, [](const Entry &) { return true; }) : nullptr;
}

void deque(Party &p, bool locks)
{
    qor_time_que_node_t *expected = due_one(p);
    if (locks) {
        took(p, qor_time_que_deque(p.que), expected);
        return;
    }
    qor_time_que_lock(p.que);
    qor_time_que_node_t *node = qor_time_que_deque_locked(p.que);
    qor_time_que_unlock(p.que);
    took(p, node, expected);
}

void deque_block(Party &p, bool locks)
{
    const int32_t time = any_wait(p);
    p.waits = Waits::taker;
    qor_time_que_node_t *node;
    if (locks) {
        node = qor_time_que_deque_block(p.que, time);
    } else {
        qor_time_que_lock(p.que);
        node = qor_time_que_deque_block_locked(p.que, time);
        qor_time_que_unlock(p.que);
    }
    p.waits = Waits::nobody;
    EXPECT(node || p.quitting || p.over());
    took(p, node, due_one(p));
}

void remove(Party &p, bool locks)
{
    const size_t id = p.bytes.below(ids + 1);
    qor_time_que_node_t *expected =
        p.quitting ? nullptr : take(p, [id](const Entry &entry) { return entry.id == id; });
    qor_time_que_node_t *node;
    if (locks) {
        node = qor_time_que_remove(p.que, id);
    } else {
        qor_time_que_lock(p.que);
        node = qor_time_que_remove_locked(p.que, id);
        qor_time_que_unlock(p.que);
    }
    p.there.expect_printed(
        p.quitting ? World::err(tag, "qor_time_que_remove_locked", "!(!_this->quitting) == true.")
                   : "");
    took(p, node, expected);
}

void early(Party &p, bool locks)
{
    const size_t id = p.bytes.below(ids + 1);
    const int32_t delay = any_delay(p);
    const int64_t after = p.there.now + delay;
    const bool known =
        !p.quitting && std::any_of(p.model.begin(), p.model.end(),
                                   [id](const Entry &entry) { return entry.id == id; });
    if (qor_time_que_node_t *node = p.quitting ? nullptr : take(p, [id, after](const Entry &entry) {
            return entry.id == id && entry.when > after;
        })) {
        put(p, {node, node->when, node->id});
    }
    p.there.memory_fails_in = static_cast<int>(p.bytes.below(8)) - 2;
    int32_t ret;
    if (locks) {
        ret = qor_time_que_early(p.que, id, delay);
    } else {
        qor_time_que_lock(p.que);
        ret = qor_time_que_early_locked(p.que, id, delay);
        qor_time_que_unlock(p.que);
    }
    p.there.memory_fails_in = -1;
    EXPECT(ret == (known ? 0 : -1));
    p.there.expect_printed(
        p.quitting ? World::err(tag, "qor_time_que_early_locked", "!(!_this->quitting) == true.")
                   : "");
}

void next_delay(Party &p, bool locks)
{
    int32_t delay = 12345;
    int32_t *at = p.bytes.below(16) == 0 ? nullptr : &delay;
    int32_t ret;
    if (locks) {
        ret = qor_time_que_next_delay(p.que, at);
    } else {
        qor_time_que_lock(p.que);
        ret = qor_time_que_next_delay_locked(p.que, at);
        qor_time_que_unlock(p.que);
    }
    const char *text = p.quitting ? "!(!_this->quitting) == true." : "!(delay) == true.";
    p.there.expect_printed(
        p.quitting || !at ? World::err(tag, "qor_time_que_next_delay_locked", text) : "");
    const bool told = !p.quitting && at && !p.model.empty();
    EXPECT(ret == (told ? 0 : -1));
    EXPECT(delay == (told ? p.model.front().when - p.there.now : 12345));
}

void quit(Party &p)
{
    recycled.clear();
    std::vector<qor_time_que_node_t *> expected;
    if (!p.quitting) {
        for (const Entry &entry : p.model) {
            expected.push_back(entry.node);
        }
        count_at_quit = p.que->count;
        p.quitting = true;
        p.model.clear();
    }
    qor_time_que_quit(p.que);
    count_at_quit = -1;
    EXPECT(recycled == (p.que->recycle ? expected : std::vector<qor_time_que_node_t *>()));
    recycled.clear();
}

/* Many at a time, of times that rise, fall or are the same, so that there comes to be an index. */
void many(Party &p)
{
    const uint32_t count = p.bytes.byte();
    const int32_t first = any_delay(p);
    const int32_t step = static_cast<int32_t>(p.bytes.below(9)) - 4;
    const uint32_t id_step = p.bytes.below(ids);
    const uint32_t every = 1 + p.bytes.below(4);
    for (uint32_t n = 0; n < count && p.model.size() < queued_most; n++) {
        qor_time_que_node_t *node = qor_time_que_node_create(
            n * id_step % ids, first + static_cast<int32_t>(n / every) * step, 0);
        EXPECT(node);
        p.outside.push_back(node);
        enque(p, node, true);
        if (!p.outside.empty() && p.outside.back() == node) {
            p.outside.pop_back();
            destroy(p, node, 0);
        }
    }
}

/* Many out again: by the id, or as time goes by. */
void few(Party &p)
{
    const uint32_t count = p.bytes.byte();
    const bool by_id = p.bytes.below(2);
    const size_t id = p.bytes.below(ids);
    for (uint32_t n = 0; n < count && !p.model.empty() && !p.quitting; n++) {
        qor_time_que_node_t *node;
        if (by_id) {
            node = take(p, [id](const Entry &entry) { return entry.id == id; });
            EXPECT(qor_time_que_remove(p.que, id) == node);
        } else {
            p.there.now = std::max(p.there.now, p.model.front().when);
            node = due_one(p);
            EXPECT(qor_time_que_deque(p.que) == node);
        }
        if (!node) {
            break;
        }
        destroy(p, node, 0);
    }
}

/* ---- what the bus may do beyond */

bool is_of(const qor_time_que_node_t *node, const void *what)
{
    return node->when % 3 == *static_cast<const int64_t *>(what);
}

void take_if(Party &p, bool locks)
{
    const int64_t rest = p.bytes.below(3);
    const size_t id = p.bytes.below(ids);
    const bool by_id = p.bytes.below(2);
    qor_time_que_node_t *expected = take(p, [=](const Entry &entry) {
        return entry.when % 3 == rest && (!by_id || entry.id == id);
    });
    if (by_id) {
        took(p, time_que_take_id_if(p.que, id, is_of, &rest), expected);
    } else if (locks) {
        took(p, time_que_take_if(p.que, is_of, &rest), expected);
    } else {
        qor_time_que_lock(p.que);
        qor_time_que_node_t *node = time_que_take_if_locked(p.que, is_of, &rest);
        qor_time_que_unlock(p.que);
        took(p, node, expected);
    }
}

constexpr size_t kept_most = 32;

void keep_one(Party &p, qor_time_que_node_t *node)
{
    const size_t before = p.there.live();
    time_que_keep_locked(p.que, node);
    const bool kept = p.kept.size() < kept_most;
    EXPECT(p.there.live() == before - !kept);
    if (kept) {
        p.kept.push_back(node);
    }
}

/* Gives the queue some to keep, or takes one back. */
void keep(Party &p)
{
    qor_time_que_lock(p.que);
    if (p.bytes.below(2)) {
        for (uint32_t left = p.bytes.below(40); left > 0; left--) {
            keep_one(p, qor_time_que_node_create(left, 0, 0));
        }
    } else {
        qor_time_que_node_t *expected = p.kept.empty() ? nullptr : p.kept.back();
        EXPECT(time_que_kept_locked(p.que) == expected);
        if (expected) {
            p.kept.pop_back();
            qor_time_que_node_update(expected, expected->id % ids, 0);
            p.outside.push_back(expected);
        }
    }
    qor_time_que_unlock(p.que);
}

void settle(Party &p, bool inside)
{
    const bool settled = !p.due() && p.waits == Waits::taker;
    qor_time_que_lock(p.que);
    EXPECT(time_que_is_settled_locked(p.que) == settled);
    qor_time_que_unlock(p.que);
    if (inside) { /* waits no second time */
        if (settled || p.quitting) {
            time_que_settle_until(p.que, INT64_MAX);
        }
        return;
    }
    any_wait(p);
    p.waits = Waits::settler;
    time_que_settle_until(p.que, p.deadline);
    p.waits = Waits::nobody;
    EXPECT(p.quitting || p.over());
}

/* ---- NULL */

std::string three_lines(const char *function)
{
    const std::string locked = std::string("qor_time_que_") + function + "_locked";
    const char *text = "!(_this) == true.";
    return World::err(tag, "qor_time_que_lock", text) + World::err(tag, locked.c_str(), text) +
           World::err(tag, "qor_time_que_unlock", text);
}

void no_queue(Party &p)
{
    World &there = p.there;
    qor_time_que_node_t *node = choose(p);
    int32_t delay = 7;
    EXPECT(qor_time_que_enque(nullptr, node) == -1);
    there.expect_printed(three_lines("enque"));
    EXPECT(qor_time_que_enque_block(nullptr, node, -1) == -1);
    there.expect_printed(three_lines("enque_block"));
    EXPECT(!qor_time_que_deque(nullptr));
    there.expect_printed(three_lines("deque"));
    EXPECT(!qor_time_que_deque_block(nullptr, -1));
    there.expect_printed(three_lines("deque_block"));
    EXPECT(!qor_time_que_remove(nullptr, 0));
    there.expect_printed(three_lines("remove"));
    EXPECT(qor_time_que_early(nullptr, 0, 0) == -1);
    there.expect_printed(three_lines("early"));
    EXPECT(qor_time_que_next_delay(nullptr, &delay) == -1 && delay == 7);
    there.expect_printed(three_lines("next_delay"));
    const char *text = "!(_this) == true.";
    qor_time_que_destroy(nullptr);
    qor_time_que_quit(nullptr);
    qor_time_que_wait_locked(nullptr);
    qor_time_que_wakeup_locked(nullptr);
    there.expect_printed(World::err(tag, "qor_time_que_destroy", text) +
                         World::err(tag, "qor_time_que_quit", text) +
                         World::err(tag, "qor_time_que_wait_locked", text) +
                         World::err(tag, "qor_time_que_wakeup_locked", text));
    qor_time_que_node_destroy(nullptr, note_recycled);
    there.expect_printed(World::err(tag, "qor_time_que_node_destroy", "!(node) == true."));
    EXPECT(qor_time_que_enque(p.que, nullptr) == -1);
    there.expect_printed(World::err(tag, "qor_time_que_enque_locked", "!(new_node) == true."));
    EXPECT(qor_time_que_enque_block(p.que, nullptr, 0) == -1);
    there.expect_printed(
        World::err(tag, "qor_time_que_enque_block_locked", "!(new_node) == true."));
}

/* ---- all of it */

void wait_for_change(Party &p)
{
    p.deadline = INT64_MAX;
    p.waits = Waits::onlooker;
    qor_time_que_lock(p.que);
    qor_time_que_wait_locked(p.que);
    qor_time_que_unlock(p.que);
    p.waits = Waits::nobody;
}

/* Inside: called while another thread waits, so that this one does not. */
void act(Party &p, bool inside)
{
    const uint8_t byte = p.bytes.byte();
    const bool locks = byte & 128;
    qor_time_que_node_t *node = nullptr;
    switch (byte % 26) {
    case 0:
    case 1:
    case 2:
        make_one(p);
        break;
    case 3:
    case 4:
    case 5:
        if ((node = choose(p))) {
            enque(p, node, locks);
        }
        break;
    case 6:
    case 24:
    case 25:
        if (!inside && (node = choose(p))) {
            enque_block(p, node, locks);
        }
        break;
    case 7:
        deque(p, locks);
        break;
    case 8:
    case 9:
        if (!inside) {
            deque_block(p, locks);
        }
        break;
    case 10:
        remove(p, locks);
        break;
    case 11:
    case 12:
        early(p, locks);
        break;
    case 13:
        next_delay(p, locks);
        break;
    case 14:
        if ((node = choose(p))) {
            const int32_t delay = any_delay(p);
            qor_time_que_node_update(node, p.bytes.below(ids), delay);
            EXPECT(node->when == p.there.now + delay && node->id < ids);
        }
        break;
    case 15:
        if ((node = choose(p))) {
            p.outside.pop_back();
            destroy(p, node, p.bytes.below(3));
        }
        break;
    case 16:
        p.there.now += p.bytes.byte();
        break;
    case 17:
        if (p.bytes.below(8) == 0) {
            quit(p);
        } else if (!inside && !p.quitting) {
            wait_for_change(p);
        }
        break;
    case 18:
        no_queue(p);
        break;
    case 19:
        many(p);
        break;
    case 20:
        few(p);
        break;
    case 21:
        take_if(p, locks);
        break;
    case 22:
        keep(p);
        break;
    default:
        settle(p, inside);
        break;
    }
    while (p.outside.size() > outside_most) {
        destroy(p, p.outside.back(), 0);
        p.outside.pop_back();
    }
    expect_queue(p);
}

/* Whether there is a queue: memory and locks may not be there. */
bool open(Party &p)
{
    const uint8_t how = p.bytes.byte();
    p.most = how & 1 ? UINT32_MAX : p.bytes.below(how & 32 ? 70 : 5);
    p.there.memory_fails_in = (how >> 1) % 16 == 0 ? 0 : -1;
    p.there.locks_fail_in = (how >> 1) % 16 == 1 ? static_cast<int>(p.bytes.below(5)) : -1;
    const bool made = p.there.memory_fails_in < 0 && p.there.locks_fail_in < 0;
    p.que = qor_time_que_create(p.most, how & 64 ? note_recycled : nullptr);
    p.there.memory_fails_in = p.there.locks_fail_in = -1;
    EXPECT((p.que != nullptr) == made);
    if (!made) {
        p.there.expect_printed(World::err(tag, "qor_time_que_create", "!(_this) == true."));
        return false;
    }
    if (how & 128) {
        time_que_in_order(p.que);
        p.in_order = true;
    }
    expect_queue(p);
    return true;
}

void close(Party &p)
{
    recycled.clear();
    std::vector<qor_time_que_node_t *> expected;
    for (const Entry &entry : p.model) {
        expected.push_back(entry.node);
    }
    count_at_quit = p.que->count;
    p.quitting = true;
    const bool notes = p.que->recycle != nullptr;
    qor_time_que_destroy(p.que);
    count_at_quit = -1;
    EXPECT(recycled == (notes ? expected : std::vector<qor_time_que_node_t *>()));
    recycled.clear();
    for (qor_time_que_node_t *node : p.outside) {
        qor_time_que_node_destroy(node, nullptr);
    }
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
    if (open(p)) {
        while (bytes.left()) {
            act(p, false);
        }
        close(p);
    }
    return 0;
}
