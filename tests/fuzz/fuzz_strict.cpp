/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a module with a contract, on a bus driven by hand. The module under test,
 * "server", has the contract; "client" asks it, "helper" answers it and may take its requests over.
 * The model knows what every post comes to, what is begun next, and the whole ledger. */
#include "strict_party.hpp"

#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_deferred.h"
#include "qor_periodic.h"
#include "qor_time_que.h"

#include <string.h>

#include <algorithm>

#include "hand.hpp"

namespace {

constexpr int depth_most = 6;

/* Takes something back by its session, or nothing. */
void cancel(Party &p)
{
    catch_up(p);
    const uint8_t byte = p.bytes.byte();
    const int32_t session = byte % 2 == 0 || p.queue.empty()
                                ? first_session + byte / 2
                                : (*std::next(p.queue.begin(), byte / 2 % p.queue.size()))->session;
    const auto is_it = [session](const Item *item) { return item->session == session; };
    const auto queued = std::find_if(p.queue.begin(), p.queue.end(), is_it);
    const auto past = std::find_if(p.past.begin(), p.past.end(), is_it);
    Item *item = queued != p.queue.end() ? *queued : past != p.past.end() ? *past : nullptr;
    if (queued != p.queue.end()) {
        leave_queue(p, item);
        p.ledger.cancelled++;
    } else if (item && !p.quit) {
        p.past.erase(past);
    }
    if (item) {
        item->where = Where::over;
        p.client_open -= item->kind == Kind::request;
        p.server_open -= item->kind == Kind::response;
    }
    EXPECT(qor_context_timer_cancel(server_context, session) == (item ? 0 : -1));
    EXPECT(!item || item->kind != Kind::task || item->recycled == 1);
}

void complete(Party &p)
{
    Item *item =
        p.open.empty() ? nullptr : p.open[p.bytes.below(static_cast<uint32_t>(p.open.size()))];
    const uint64_t token = item ? item->token : p.bytes.byte();
    const int32_t ret = any_result(p);
    const bool works = item && !p.quit;
    if (works) {
        open_end(p, item, result_of(ret));
    }
    EXPECT(qor_deferred_complete(token, ret, nullptr, 0) == (works ? 0 : -1));
}

void periodic_run(qor_context_t *self, int32_t session, void *arg, uint32_t missed)
{
    Party &p = *party;
    Periodic &timer = p.periodic;
    EXPECT(self == server_context && arg == &timer && session == timer.session);
    p.ledger.accepted++;
    catch_up(p);
    bool first;
    next_of(p, &first);
    EXPECT(timer.armed && !timer.running && p.there.now >= timer.due);
    EXPECT(!p.strict || (first && timer.queued && p.started && p.running < p.slots));
    const int64_t points = (p.there.now - timer.since) / timer.period;
    EXPECT(missed == points - timer.points - 1);
    timer.points = points;
    timer.queued = false;
    timer.running = true;
    p.running++;
    act_inside(p);
    p.running--;
    p.ledger.run++;
    timer.running = false;
    const int64_t over = p.there.now - timer.since;
    timer.due = timer.since +
                std::max(timer.points + 1, (over + timer.period - 1) / timer.period) * timer.period;
}

void periodic_recycle(void *arg)
{
    static_cast<Periodic *>(arg)->recycled++;
}

/* Arms the timer, or ends it. */
void periodic_turn(Party &p)
{
    Periodic &timer = p.periodic;
    if (timer.armed) {
        EXPECT(qor_context_timer_cancel(p.bytes.below(2) ? server_context : client_context,
                                        timer.session) == 0);
        /* One that waits in the queue goes when its turn comes. */
        EXPECT(timer.recycled == !(timer.running || timer.queued));
        timer.armed = timer.queued = false;
        return;
    }
    if (timer.period > 0 && timer.recycled == 0) {
        return; /* the one before has still to come to its end */
    }
    const int32_t period = 1 + static_cast<int32_t>(p.bytes.below(30));
    timer = {};
    timer.since = p.there.now;
    timer.period = period;
    timer.due = timer.since + period;
    timer.session =
        qor_context_every(server_context, periodic_run, &timer, periodic_recycle, period);
    timer.armed = timer.session >= 0;
    EXPECT(timer.armed == !p.quit);
    timer.recycled = !timer.armed;
}

/* The loop serves the timers that are due. */
void timers_served(Party &p)
{
    Periodic &timer = p.periodic;
    if (p.strict && timer.armed && !timer.queued && !timer.running && p.there.now >= timer.due) {
        timer.queued = true;
        timer.order = p.orders++;
    }
}

void helper_turn(Party &p)
{
    catch_up(p);
    if (!p.up || p.quit) {
        return;
    }
    if (p.helper_serves) {
        qor_context_unsubscribe(helper_context, TO_SERVER);
    } else {
        EXPECT(qor_context_subscribe(helper_context, TO_SERVER, nullptr) == 0);
    }
    p.helper_serves = !p.helper_serves;
}

void quit(Party &p)
{
    EXPECT(qor_bus_quitting(p.bus) == p.quit);
    EXPECT(qor_bus_quit(p.bus) == 0);
    p.quit = true;
}

/* Parts of the ledger, and of none. */
void ask_ledger(Party &p)
{
    const uint32_t size = p.bytes.below(24) * 8;
    const bool good = size >= offsetof(qor_ledger_t, run) && size <= sizeof(qor_ledger_t);
    qor_ledger_t ledger;
    memset(static_cast<void *>(&ledger), 0x5a, sizeof(ledger));
    ledger.size = size;
    const uint32_t who = p.bytes.below(3);
    const char *name = who == 0 ? "server" : who == 1 ? "qor_mng_module" : "nobody";
    EXPECT(qor_bus_ledger(p.bus, name, &ledger) == (good && who == 0 ? 0 : -1));
    EXPECT(ledger.size == size);
    if (good && who == 0) {
        catch_up(p);
        EXPECT(ledger.accepted == p.ledger.accepted);
        EXPECT(size == sizeof(ledger) || (ledger.highest >> 56) == 0x5a);
    }
}

void contract_late(Party &p)
{
    p.there.printed.clear();
    EXPECT(qor_bus_contract_set(p.bus, "server", &p.terms) == -1);
    p.there.expect_printed(
        World::err("qor_contract", "qor_bus_contract_set", "loop: the bus loops already."));
}

void run_one(Party &p)
{
    if (p.depth < depth_most) {
        p.depth++;
        hand_run(p.bus);
        p.depth--;
    }
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
        if (room) {
            post_task(p, false);
        }
        break;
    case 3:
    case 4:
        if (room) {
            post_task(p, true);
        }
        break;
    case 5:
    case 6:
    case 7:
    case 8:
        if (room) {
            ask_server(p);
        }
        break;
    case 9:
    case 10:
        if (room) {
            ask_helper(p, byte & 128);
        }
        break;
    case 11:
        cancel(p);
        break;
    case 12:
        complete(p);
        break;
    case 13:
        periodic_turn(p);
        break;
    case 14:
        helper_turn(p);
        break;
    case 15:
        ask_ledger(p);
        break;
    case 16:
        if (p.bytes.below(16) == 0) {
            quit(p);
        } else {
            contract_late(p);
        }
        break;
    case 17:
    case 18:
        p.there.now += p.bytes.below(50);
        break;
    case 19:
        serves = true;
        break;
    default:
        run_one(p);
        break;
    }
    expect_ledger(p);
    p.there.printed.clear();
    return serves;
}

/* A poster waits for a place: others act, until that wakes it or its time is over. */
void while_posting(Party &p, WorldWait &wait)
{
    EXPECT(!p.quit && !may_go_on(p) && wait.until == p.blocked.back());
    EXPECT(p.there.now < wait.until);
    const HandAs other(nullptr);
    for (uint32_t left = p.bytes.below(4); left > 0 && p.depth < depth_most; left--) {
        p.depth++;
        act(p);
        p.depth--;
        EXPECT(wait.woken || (!may_go_on(p) && !p.quit));
    }
    if (!p.bytes.left() || p.bytes.below(2)) {
        p.there.now = std::max(p.there.now, wait.until);
        wait.timed_out = true;
    }
}

/* Modules come up: nobody is asked yet. */
void start(Party &p)
{
    while (hand_run(p.bus)) {
        p.there.printed.clear();
    }
    p.up = true;
    expect_ledger(p);
}

/* Runs all there is; false: a timer is due, and the loop has to serve it first. */
bool rest(Party &p)
{
    while (hand_run(p.bus)) {
        expect_ledger(p);
    }
    p.there.printed.clear();
    int32_t delay;
    if (qor_time_que_next_delay(p.bus->time_que, &delay) == 0 && delay <= 0) {
        return false;
    }
    expect_rest(p);
    return true;
}

/* The loop waits for timers. */
void while_looping(Party &p)
{
    const HandAs other(nullptr);
    if (!p.up) {
        start(p);
    }
    while (p.bytes.left() && !p.quit && !p.failed) {
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

void while_waiting(void *arg, WorldWait &wait)
{
    Party &p = *static_cast<Party *>(arg);
    if (p.blocked.empty()) {
        while_looping(p);
    } else {
        while_posting(p, wait);
    }
}

void server_reg(qor_context_t *context)
{
    server_context = context;
    EXPECT(qor_context_subscribe(context, TO_SERVER, nullptr) == 0);
    qor_context_topic_attr_t before = {0, QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    EXPECT(qor_context_listen(context, TO_HELPER, &before) == 0);
}

/* Its queue takes what it posts to itself, and runs nothing yet. */
int32_t server_init(qor_context_t *, void *)
{
    Party &p = *party;
    for (uint32_t left = p.bytes.below(8); left > 0; left--) {
        post_task(p, p.bytes.below(4) == 0);
        expect_ledger(p);
    }
    if (p.bytes.below(4) == 0) {
        cancel(p);
        expect_ledger(p);
    }
    p.failed = p.bytes.below(16) == 1;
    p.started = !p.failed; /* as soon as this has returned */
    if (p.failed) {
        catch_up(p);
        p.ledger.discarded += p.queue.size();
        p.ledger.waiting = p.ledger.delayed = 0;
        p.queue.clear();
        p.past.clear();
    }
    return p.started ? 0 : -1;
}

void client_reg(qor_context_t *context)
{
    client_context = context;
}

/* After the server has registered, so that this listener is the newer one, and called first. */
int32_t client_init(qor_context_t *context, void *)
{
    qor_context_topic_attr_t before = {0, QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    EXPECT(qor_context_listen(context, TO_HELPER, &before) == 0);
    return 0;
}

void helper_reg(qor_context_t *context)
{
    helper_context = context;
    EXPECT(qor_context_subscribe(context, TO_HELPER, nullptr) == 0);
}

int32_t helper_init(qor_context_t *, void *)
{
    return 0;
}

/* What is left has been discarded with the bus. */
void expect_end(Party &p)
{
    for (const auto &item : p.items) {
        EXPECT(item->kind != Kind::task || item->recycled == item->expected);
    }
    EXPECT(p.periodic.period == 0 || p.periodic.recycled == 1);
    EXPECT(p.losses.empty() && p.running == 0);
}

void live(Party &p)
{
    qor_bus_thread_num_set(p.bus, 0);
    qor_bus_watch_set(p.bus, 0);
    hand_workers(p.bus, workers);
    EXPECT(qor_bus_loop(p.bus) == 0);
    p.ledger.finished += p.ledger.open;
    p.ledger.open = 0;
    expect_ledger(p);
    qor_bus_close(p.bus);
    p.there.printed.clear();
    expect_end(p);
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
    qor_context_module_t server = hand_module("server", server_reg, server_init, server_handle);
    qor_context_module_t client = hand_module("client", client_reg, client_init, client_handle);
    qor_context_module_t helper = hand_module("helper", helper_reg, helper_init, helper_handle);
    server.refcount = 2 - static_cast<int32_t>(bytes.below(4));
    p.slots = server.refcount > 0 ? static_cast<uint32_t>(server.refcount) : 1;
    qor_context_module_t *table[] = {&server, &client, &helper, nullptr};
    p.bus = qor_bus_create(table, TOPICS);
    contracts_set(p, server.refcount);
    others_contracts_set(p);
    live(p);
    return 0;
}
