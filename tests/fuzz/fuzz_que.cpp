/* SPDX-License-Identifier: Apache-2.0 */
/* The blocking queue. Where a call waits, the bytes say what others do meanwhile; each wait must be
 * one that its caller needs, end when it must, and be woken by what it waits for. */
#include "qor_que.h"

#include "qor_que_priv.hpp"

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include "world.hpp"

namespace {

constexpr char tag[] = "qor_que";
constexpr size_t outside_most = 24;
constexpr uint32_t ids = 6;

/* Who waits, and may go on when. */
enum class Waits { nobody, taker, giver, onlooker, settler };

struct Party {
    World &there;
    Bytes &bytes;
    qor_que_t *que = nullptr;
    uint32_t most = 0;
    int32_t count = 0; /* what the queue says, which a take without waiting does not lower */
    uint32_t highest = 0;
    bool quitting = false;
    bool changed = false; /* since the wait began */
    std::list<qor_que_node_t *> model = {};
    std::vector<qor_que_node_t *> outside = {};
    Waits waits = Waits::nobody;
    int64_t deadline = 0;
    uint32_t takers = 0; /* that a settler waits for */

    bool room() const { return static_cast<uint32_t>(count) < most; }
    bool over() const { return there.now >= deadline; }
    bool settled(uint32_t waiting) const { return model.empty() && waiting >= takers; }
};

Party *party;

void expect_queue(const Party &p)
{
    const list_head *link = &p.que->head;
    for (const qor_que_node_t *node : p.model) {
        EXPECT(link->next == &node->node && link->next->prev == link);
        link = link->next;
    }
    EXPECT(link->next == &p.que->head && p.que->head.prev == link);
    EXPECT(p.que->count == p.count && qor_que_count(p.que) == p.count);
    EXPECT(p.que->quitting == p.quitting && p.que->max_count == p.most && p.que->refer_count == 0);
    const que_lengths lengths = que_lengths_locked(p.que);
    EXPECT(lengths.now == p.model.size() && lengths.highest == p.highest);
    EXPECT(lengths.takers == (p.waits == Waits::taker));
    p.there.expect_printed("");
}

void put(Party &p, qor_que_node_t *node)
{
    p.model.push_back(node);
    p.highest = std::max(p.highest, static_cast<uint32_t>(p.model.size()));
    p.count++;
    p.changed = true;
}

/* Takes the first that passes out of the model: the node, or NULL. */
template <typename T> qor_que_node_t *take(Party &p, bool counted, T test)
{
    const auto at = std::find_if(p.model.begin(), p.model.end(), test);
    if (at == p.model.end()) {
        return nullptr;
    }
    qor_que_node_t *node = *at;
    p.model.erase(at);
    p.count -= counted;
    p.changed = true;
    return node;
}

qor_que_node_t *take_first(Party &p, bool counted)
{
    return p.quitting ? nullptr : take(p, counted, [](const qor_que_node_t *) { return true; });
}

std::vector<qor_que_node_t *> recycled;
bool discards; /* the queue does, and its count stays until that is over */

void note_recycled(void *body)
{
    recycled.push_back(qor_que_node_type(body));
    if (discards) {
        EXPECT(party->que->count == party->count && party->que->quitting == 1);
    }
}

/* Ends a queue in a way that discards its nodes, in order. */
template <typename T> void discard_all(Party &p, T end)
{
    recycled.clear();
    const std::vector<qor_que_node_t *> expected(p.model.begin(), p.model.end());
    const bool notes = p.que->recycle != nullptr;
    discards = true;
    end(p.que);
    discards = false;
    EXPECT(recycled == (notes ? expected : std::vector<qor_que_node_t *>()));
    recycled.clear();
    p.model.clear();
    p.count = 0;
    p.quitting = true;
}

void quit(Party &p)
{
    if (p.quitting) {
        qor_que_quit(p.que); /* does nothing; nodes that are there still stay */
    } else {
        discard_all(p, qor_que_quit);
    }
}

/* ---- waiting */

void act(Party &p, bool inside);

/* The others have done something that the waiting thread must hear of. */
bool must_wake(const Party &p)
{
    switch (p.waits) {
    case Waits::taker:
        return p.quitting || !p.model.empty();
    case Waits::giver:
        return p.quitting || p.room();
    case Waits::onlooker:
        return p.quitting || p.changed;
    default:
        return p.quitting;
    }
}

/* It has nothing to do, and the time of its wait is the right one. */
void expect_reason(const Party &p, const WorldWait &wait)
{
    EXPECT(!p.quitting && p.waits != Waits::nobody && !p.over());
    EXPECT(p.waits != Waits::taker || p.model.empty());
    EXPECT(p.waits != Waits::giver || !p.room());
    EXPECT(p.waits != Waits::settler || !p.settled(0));
    EXPECT(wait.until == p.deadline);
}

void while_waiting(void *arg, WorldWait &wait)
{
    Party &p = *static_cast<Party *>(arg);
    expect_reason(p, wait);
    p.changed = false;
    for (uint32_t left = p.bytes.below(4); left > 0; left--) {
        act(p, true);
        EXPECT(wait.woken || !must_wake(p));
    }
    if (p.bytes.left() && p.bytes.below(4) != 0) {
        return; /* also without a reason: waits may end for none */
    }
    if (wait.until != INT64_MAX) {
        p.there.now = std::max(p.there.now, wait.until);
        wait.timed_out = true;
    } else if (p.bytes.left()) {
        qor_que_lock(p.que);
        qor_que_wakeup_locked(p.que);
        qor_que_unlock(p.que);
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
    const int32_t time = what == 0   ? 0
                         : what == 1 ? -1 - static_cast<int32_t>(p.bytes.below(3))
                                     : 1 + static_cast<int32_t>(p.bytes.byte());
    p.deadline = time < 0 ? INT64_MAX : p.there.now + time;
    return time;
}

/* ---- nodes */

void make(Party &p)
{
    if (p.outside.size() >= outside_most) {
        return;
    }
    const size_t id = p.bytes.below(ids);
    const int32_t size = p.bytes.below(16) == 0 ? -1 - static_cast<int32_t>(p.bytes.byte())
                                                : static_cast<int32_t>(p.bytes.below(20));
    const bool unfilled = size >= 0 && p.bytes.below(8) == 0;
    p.there.memory_fails_in = p.bytes.below(16) == 0 ? 0 : -1;
    const bool made = size >= 0 && p.there.memory_fails_in < 0;
    qor_que_node_t *node =
        unfilled ? que_node_unfilled(static_cast<size_t>(size)) : qor_que_node_create(id, size);
    p.there.memory_fails_in = -1;
    EXPECT((node != nullptr) == made);
    if (!node) {
        p.there.expect_printed(
            World::err(tag, "qor_que_node_create", "malloc \"qor_que_node_t\" failed."));
        return;
    }
    EXPECT(qor_que_node_id(node) == (unfilled ? 0 : id) && !node->node.next && !node->node.prev);
    EXPECT(unfilled || std::all_of(node->body, node->body + size, [](char at) { return at == 0; }));
    EXPECT(qor_que_node_body(node) == node->body && qor_que_node_type(node->body) == node);
    std::fill(node->body, node->body + size, 'x');
    p.outside.push_back(node);
}

/* One that is in no queue; NULL when there is none. */
qor_que_node_t *choose(Party &p)
{
    if (p.outside.empty()) {
        return nullptr;
    }
    std::swap(p.outside[p.bytes.below(static_cast<uint32_t>(p.outside.size()))], p.outside.back());
    return p.outside.back();
}

void destroy(Party &p, uint32_t how)
{
    qor_que_node_t *node = p.outside.back();
    p.outside.pop_back();
    recycled.clear();
    if (how == 0) {
        qor_que_node_destroy(node, nullptr);
    } else if (how == 1) {
        qor_que_node_destroy(node, note_recycled);
    } else {
        que_node_discard(node, note_recycled);
    }
    EXPECT(recycled == std::vector<qor_que_node_t *>(how > 0, node));
    recycled.clear();
}

/* ---- calls */

void enque(Party &p, qor_que_node_t *node, bool locks)
{
    const bool taken = !p.quitting && p.room();
    if (taken) {
        p.outside.pop_back();
        put(p, node);
    }
    int32_t ret;
    if (locks) {
        ret = qor_que_enque(p.que, node);
    } else {
        qor_que_lock(p.que);
        ret = qor_que_enque_locked(p.que, node);
        qor_que_unlock(p.que);
    }
    EXPECT(ret == (taken ? 0 : -1));
}

void enque_block(Party &p, qor_que_node_t *node, bool locks)
{
    const int32_t time = any_wait(p);
    p.outside.pop_back(); /* for the others it is not there */
    p.waits = Waits::giver;
    int32_t ret;
    if (locks) {
        ret = qor_que_enque_block(p.que, node, time);
    } else {
        qor_que_lock(p.que);
        ret = qor_que_enque_block_locked(p.que, node, time);
        qor_que_unlock(p.que);
    }
    p.waits = Waits::nobody;
    const bool taken = !p.quitting && p.room();
    EXPECT(ret == (taken ? 0 : -1) && (taken || p.quitting || p.over()));
    if (taken) {
        put(p, node);
    } else {
        p.outside.push_back(node);
    }
}

/* What came out belongs to the caller. */
void took(Party &p, qor_que_node_t *node, qor_que_node_t *expected)
{
    EXPECT(node == expected);
    if (node) {
        EXPECT(!node->node.next && !node->node.prev);
        p.outside.push_back(node);
    }
}

void deque(Party &p, bool locks)
{
    qor_que_node_t *expected = take_first(p, false);
    if (locks) {
        took(p, qor_que_deque(p.que), expected);
        return;
    }
    qor_que_lock(p.que);
    qor_que_node_t *node = qor_que_deque_locked(p.que);
    qor_que_unlock(p.que);
    took(p, node, expected);
}

void deque_block(Party &p, bool locks)
{
    const int32_t time = any_wait(p);
    p.waits = Waits::taker;
    qor_que_node_t *node;
    if (locks) {
        node = qor_que_deque_block(p.que, time);
    } else {
        qor_que_lock(p.que);
        node = qor_que_deque_block_locked(p.que, time);
        qor_que_unlock(p.que);
    }
    p.waits = Waits::nobody;
    EXPECT(node || p.quitting || p.over());
    took(p, node, take_first(p, !locks || time != 0));
}

void remove(Party &p, bool locks)
{
    const size_t id = p.bytes.below(ids + 1);
    qor_que_node_t *expected =
        take(p, true, [id](const qor_que_node_t *node) { return node->id == id; });
    qor_que_node_t *node;
    if (locks) {
        node = qor_que_remove(p.que, id);
    } else {
        qor_que_lock(p.que);
        node = qor_que_remove_locked(p.que, id);
        qor_que_unlock(p.que);
    }
    if (expected) {
        took(p, node, expected);
    } else {
        EXPECT(static_cast<void *>(node) == static_cast<void *>(p.que));
    }
}

bool is_of(const qor_que_node_t *node, const void *what)
{
    return node->id % 3 == *static_cast<const size_t *>(what);
}

/* Also of a queue that quits. */
void take_if(Party &p)
{
    const size_t rest = p.bytes.below(3);
    qor_que_node_t *expected =
        take(p, true, [rest](const qor_que_node_t *node) { return node->id % 3 == rest; });
    took(p, que_take_if(p.que, is_of, &rest), expected);
}

void settle(Party &p, bool inside)
{
    const uint32_t waiting = p.waits == Waits::taker;
    const uint32_t takers = p.bytes.below(3);
    const bool settled = p.model.empty() && waiting >= takers;
    EXPECT(que_is_settled_locked(p.que, takers) == settled);
    if (inside) { /* waits no second time */
        if (settled || p.quitting) {
            que_settle_until(p.que, takers, INT64_MAX);
        }
        return;
    }
    p.takers = takers;
    any_wait(p);
    p.waits = Waits::settler;
    que_settle_until(p.que, p.takers, p.deadline);
    p.waits = Waits::nobody;
    EXPECT(p.quitting || p.over() || p.settled(0));
}

void wait_for_change(Party &p)
{
    p.deadline = INT64_MAX;
    p.waits = Waits::onlooker;
    qor_que_lock(p.que);
    qor_que_wait_locked(p.que);
    qor_que_unlock(p.que);
    p.waits = Waits::nobody;
}

/* Quits at once, or leaves the nodes for later. */
void any_quit(Party &p)
{
    if (p.bytes.below(2)) {
        que_quit_begin(p.que);
        p.quitting = true;
    } else {
        quit(p);
    }
}

/* ---- NULL */

std::string three_lines(const char *function)
{
    const std::string locked = std::string("qor_que_") + function + "_locked";
    const char *text = "!(_this) == true.";
    return World::err(tag, "qor_que_lock", text) + World::err(tag, locked.c_str(), text) +
           World::err(tag, "qor_que_unlock", text);
}

void no_queue(Party &p)
{
    World &there = p.there;
    qor_que_node_t *node = choose(p);
    EXPECT(qor_que_enque(nullptr, node) == -1);
    there.expect_printed(three_lines("enque"));
    EXPECT(qor_que_enque_block(nullptr, node, -1) == -1);
    there.expect_printed(three_lines("enque_block"));
    EXPECT(qor_que_enque_block(nullptr, node, 0) == -1);
    there.expect_printed(three_lines("enque"));
    EXPECT(!qor_que_deque(nullptr));
    there.expect_printed(three_lines("deque"));
    EXPECT(!qor_que_deque_block(nullptr, 5));
    there.expect_printed(three_lines("deque_block"));
    EXPECT(!qor_que_deque_block(nullptr, 0));
    there.expect_printed(three_lines("deque"));
    EXPECT(!qor_que_remove(nullptr, 0));
    there.expect_printed(three_lines("remove"));
    EXPECT(qor_que_count(nullptr) == -1);
    qor_que_destroy(nullptr);
    qor_que_quit(nullptr);
    qor_que_wait_locked(nullptr);
    qor_que_wakeup_locked(nullptr);
    std::string lines;
    for (const char *function : {"count", "destroy", "quit", "wait_locked", "wakeup_locked"}) {
        lines += World::err(tag, (std::string("qor_que_") + function).c_str(), "!(_this) == true.");
    }
    there.expect_printed(lines);
    qor_que_node_destroy(nullptr, note_recycled);
    there.expect_printed(World::err(tag, "qor_que_node_destroy", "!(node) == true."));
    EXPECT(qor_que_enque(p.que, nullptr) == -1);
    there.expect_printed(World::err(tag, "qor_que_enque_locked", "!(new_node) == true."));
    EXPECT(qor_que_enque_block(p.que, nullptr, 1) == -1);
    there.expect_printed(World::err(tag, "qor_que_enque_block_locked", "!(new_node) == true."));
}

/* ---- all of it */

/* Inside: called while another thread waits, so that this one does not. */
void act(Party &p, bool inside)
{
    const uint8_t byte = p.bytes.byte();
    const bool locks = byte & 128;
    qor_que_node_t *node = nullptr;
    switch (byte % 20) {
    case 0:
    case 1:
    case 2:
        make(p);
        break;
    case 3:
    case 4:
    case 5:
        if ((node = choose(p))) {
            enque(p, node, locks);
        }
        break;
    case 6:
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
        took(p, que_take(p.que), take_first(p, true));
        break;
    case 12:
        take_if(p);
        break;
    case 13:
        if ((node = choose(p))) {
            destroy(p, p.bytes.below(3));
        }
        break;
    case 14:
        p.there.now += p.bytes.byte();
        break;
    case 15:
        if (!inside && !p.quitting) {
            wait_for_change(p);
        }
        break;
    case 16:
        no_queue(p);
        break;
    case 17:
        if (p.bytes.below(8) == 0) {
            any_quit(p);
        }
        break;
    default:
        settle(p, inside);
        break;
    }
    while (p.outside.size() > outside_most) {
        destroy(p, 0);
    }
    expect_queue(p);
}

/* Whether there is a queue: memory and locks may not be there. */
bool open(Party &p)
{
    const uint8_t how = p.bytes.byte();
    p.most = how & 1 ? UINT32_MAX : p.bytes.below(10);
    p.there.memory_fails_in = (how >> 1) % 16 == 0 ? 0 : -1;
    p.there.locks_fail_in = (how >> 1) % 16 == 1 ? static_cast<int>(p.bytes.below(5)) : -1;
    const bool made = p.there.memory_fails_in < 0 && p.there.locks_fail_in < 0;
    p.que = qor_que_create(p.most, how & 64 ? note_recycled : nullptr);
    p.there.memory_fails_in = p.there.locks_fail_in = -1;
    EXPECT((p.que != nullptr) == made);
    if (!made) {
        p.there.expect_printed(World::err(tag, "qor_que_create", "!(_this) == true."));
        return false;
    }
    expect_queue(p);
    return true;
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
        discard_all(p, qor_que_destroy);
        while (!p.outside.empty()) {
            destroy(p, 0);
        }
    }
    return 0;
}
