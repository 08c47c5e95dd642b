/* SPDX-License-Identifier: Apache-2.0 */
/* The private queue of a module with a contract, on a bus driven by hand. The module under test,
 * "server", has the contract; "client" asks it, "helper" answers it and may take its requests over.
 * The model knows what every post comes to, what is begun next, and the whole ledger. */
#include "qor_contract.h"

#include "contract.hpp"
#include "qor_bus.h"
#include "qor_bus_priv.hpp"
#include "qor_context.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_context_task.h"
#include "qor_core_context_priv.hpp"
#include "qor_deferred.h"
#include "qor_periodic.h"
#include "qor_time_que.h"

#include <string.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "hand.hpp"
#include "world.hpp"

namespace {

enum { TO_SERVER = 0, TO_HELPER = 1, TOPICS = 2 };

constexpr uint32_t items_most = 300;
constexpr int depth_most = 6;
constexpr int32_t first_session = 1000000; /* the bus counts from 0 */
constexpr uint32_t workers = 3;

enum class Kind { task, request, listener, response, foreign };
enum class Where { nowhere, queue, past, helper, running, over };

/* What the server's queue is given. */
struct Item {
    Kind kind;
    uint32_t id;
    int32_t session;
    int64_t when;
    uint64_t order;
    bool delayed;
    bool placed;  /* has one of the places that depth bounds */
    bool counted; /* while it runs: the ledger has it */
    Where where;
    int recycled; /* of a task */
    int expected; /* recycles */
    int32_t ret;  /* that the client is to get */
    bool answered;
    uint64_t token; /* of a deferred request */
};

/* A periodic timer of the server's. */
struct Periodic {
    bool armed;
    bool queued; /* in the queue of a strict server */
    int32_t session;
    int64_t since;
    int64_t period;
    int64_t points; /* of its grid that a run or a count has had */
    int64_t due;
    uint64_t order;
    bool running;
    int recycled;
};

struct Party {
    World &there;
    Bytes &bytes;
    qor_bus_t *bus = nullptr;
    qor_contract_t terms = {};
    uint32_t slots = 1;
    uint32_t client_replies = 0;
    bool strict = false;
    bool started = false;
    bool up = false;
    bool quit = false;
    int depth = 0;
    std::vector<std::unique_ptr<Item>> items = {};
    std::list<Item *> queue = {};
    std::list<Item *> past = {};
    std::vector<int64_t> blocked = {};   /* posters that wait: until when, in their order */
    std::vector<qor_loss_t> losses = {}; /* that are still to be told */
    std::vector<Item *> open = {};
    Periodic periodic = {};
    qor_ledger_t ledger = {};
    uint64_t orders = 0;
    uint32_t counted = 0;
    uint32_t running = 0;
    uint32_t stuck = 0;
    uint32_t client_open = 0; /* requests whose response has not begun */
    uint32_t server_open = 0;
    std::list<Item *> at_helper = {}; /* requests for the server that it has, in their order */
    uint32_t deferrals = 0;           /* that are open, or whose handler still runs */
    bool losing = false;
    bool failed = false; /* the server's init has */
    bool helper_serves = false;

    bool full_open() const { return terms.open_max > 0 && ledger.open >= terms.open_max; }
};

Party *party;

/* Who acts. */
struct Actor {
    bool works;  /* a worker, in a task */
    bool serves; /* of the server's */
};

qor_context_t *server_context;
qor_context_t *client_context;
qor_context_t *helper_context;

Actor actor()
{
    const thread_record *record = thread_record_get();
    return {record && record->role == thread_works,
            record && record->task_of && record->task_of->core &&
                strcmp(contract_name(*record->task_of), "server") == 0};
}

/* ---- the model of the queue */

bool comes_before(const Item *one, const Item *other)
{
    return one->when != other->when ? one->when < other->when : one->order < other->order;
}

uint64_t &awaited(Party &p, const Item &item)
{
    return item.delayed ? p.ledger.delayed : p.ledger.waiting;
}

void leave_queue(Party &p, Item *item)
{
    p.queue.remove(item);
    p.counted -= item->placed;
    awaited(p, *item)--;
}

/* The first that may be begun, or NULL; periodic: the timer's run comes before it. */
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

void drop(Party &p, Item &item, int32_t reason)
{
    item.where = Where::over;
    item.ret = QOR_RET_DROPPED;
    item.expected = 1;
    tell_loss(p, item, reason);
}

enum class Fate { accept, evict, drop, bypass, wait, refuse, close };

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

/* Ends the post of a response or of anything else as the fate says: what the poster gets. */
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

/* ---- what must be so at any time */

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

/* Nothing is queued on the bus: whatever may run has run. */
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

/* ---- tasks of the server begin and end */

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

void act_inside(Party &p);

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

void *task_run(qor_context_t *context, int32_t session, void *arg)
{
    Party &p = *party;
    Item *item = static_cast<Item *>(arg);
    EXPECT(session == item->session && context);
    begin(p, item);
    act_inside(p);
    end(p, item);
    return nullptr;
}

void task_recycle(void *arg)
{
    Item *item = static_cast<Item *>(arg);
    item->recycled++;
    EXPECT(item->kind == Kind::task && item->recycled == 1);
}

/* ---- handlers */

int32_t any_result(Party &p)
{
    static const int32_t results[] = {0, 7, -1, QOR_RET_DROPPED, QOR_RET_EXPIRED, QOR_RET_GONE};
    return results[p.bytes.below(6)];
}

/* Keeps the request open, if it may be. The first one has to have the table, too. */
void defer(Party &p, Item *item, qor_context_msg_t *msg)
{
    const uint32_t fails = p.bytes.below(16);
    const bool memory = fails != 0 && (fails != 1 || p.deferrals > 0);
    const bool room = !p.full_open() && !p.quit && memory;
    p.there.memory_fails_in = memory ? -1 : static_cast<int>(fails);
    EXPECT(qor_context_defer(server_context, msg, -1, &item->token) == (room ? 0 : -1));
    p.there.memory_fails_in = -1;
    if (room) {
        p.ledger.open++;
        p.open.push_back(item);
        p.deferrals++;
    }
}

/* A deferred request comes to its end with a result. */
void open_end(Party &p, Item *item, int32_t ret)
{
    const auto at = std::find(p.open.begin(), p.open.end(), item);
    if (at == p.open.end()) {
        return;
    }
    p.open.erase(at);
    p.ledger.open--;
    p.ledger.finished++;
    p.deferrals -= item->where != Where::running; /* else its handler is to return */
    item->ret = ret;
}

int32_t result_of(int32_t ret)
{
    return ret > QOR_RET_GONE ? ret : -1;
}

int32_t server_request(Party &p, qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(msg->topic == TO_SERVER && msg->session == item->session);
    begin(p, item);
    act_inside(p);
    if (p.bytes.below(4) == 0) {
        defer(p, item, msg);
        act_inside(p);
    }
    const int32_t ret = any_result(p);
    if (item->token == 0) {
        item->ret = result_of(ret);
    } else {
        if (ret < 0) {
            open_end(p, item, result_of(ret));
        }
        p.deferrals -= std::find(p.open.begin(), p.open.end(), item) == p.open.end();
    }
    end(p, item);
    return ret;
}

/* The response to a request of the server's own. */
int32_t server_response(Party &p, const qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    EXPECT(item->kind == Kind::response && msg->ret == item->ret);
    p.server_open--;
    begin(p, item);
    act_inside(p);
    end(p, item);
    return 0;
}

/* A strict server's own copy; others are shown it where it is dispatched. */
int32_t server_listens(Party &p, const qor_context_msg_t *msg)
{
    if (!p.strict) {
        return 0;
    }
    const Item *asked = item_of(p, msg);
    const auto at = std::find_if(p.items.begin(), p.items.end(), [&](const auto &item) {
        return item->kind == Kind::listener && item->session == asked->session;
    });
    EXPECT(at != p.items.end());
    Item *item = at->get();
    begin(p, item);
    act_inside(p);
    end(p, item);
    return 0;
}

int32_t server_handle(qor_context_t *, qor_context_msg_t *msg)
{
    Party &p = *party;
    switch (msg->type) {
    case QOR_CONTEXT_MSG_REQUEST:
        return server_request(p, msg);
    case QOR_CONTEXT_MSG_RESPONSE:
        return server_response(p, msg);
    default:
        EXPECT(msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE);
        return server_listens(p, msg);
    }
}

void client_response(Party &p, const qor_context_msg_t *msg)
{
    Item *item = item_of(p, msg);
    p.client_open--;
    if (item->kind != Kind::request) {
        return; /* the helper's */
    }
    EXPECT(item->where == Where::over && !item->answered && msg->ret == item->ret);
    item->answered = true;
    act_inside(p);
}

/* The client listens as well, and is shown first what a strict server gets a copy of. */
void client_listens(Party &p, const qor_context_msg_t *msg)
{
    if (!p.strict) {
        return;
    }
    catch_up(p);
    const Item *asked = item_of(p, msg);
    Item *item = item_make(p, Kind::listener);
    item->session = asked->session;
    const Fate fate = fate_of(p, *item);
    if (end_post(p, *item, fate, 0) < 0) {
        tell_loss(p, *item, QOR_LOSS_REFUSED);
    }
}

int32_t client_handle(qor_context_t *, qor_context_msg_t *msg)
{
    if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
        client_response(*party, msg);
    } else {
        client_listens(*party, msg);
    }
    return 0;
}

/* A request that the helper handles in the server's place. */
void helper_serves(Party &p, Item *item)
{
    const bool moved = item->where == Where::helper;
    if (moved) {
        EXPECT(p.at_helper.front() == item);
        p.at_helper.pop_front();
    } else { /* from the queue of a server that is not strict */
        EXPECT(!p.strict);
        begin(p, item);
    }
    act_inside(p);
    item->ret = static_cast<int32_t>(p.bytes.below(3)) - 1;
    if (moved) {
        item->where = Where::over;
    } else {
        end(p, item);
    }
}

int32_t helper_handle(qor_context_t *, qor_context_msg_t *msg)
{
    Party &p = *party;
    catch_up(p);
    Item *item = item_of(p, msg);
    if (msg->topic == TO_SERVER) {
        helper_serves(p, item);
        return item->ret;
    }
    act_inside(p);
    item->ret = static_cast<int32_t>(p.bytes.below(3)) - 1;
    if (item->kind == Kind::response && end_post(p, *item, fate_of(p, *item), 0) < 0) {
        p.server_open--;
    }
    return item->ret;
}

void lose_more(Party &p);

void on_lost(void *arg, const qor_loss_t *loss)
{
    Party &p = *static_cast<Party *>(arg);
    catch_up(p);
    EXPECT(!p.losses.empty() && !p.losing);
    const qor_loss_t expected = p.losses.front();
    p.losses.erase(p.losses.begin());
    EXPECT(strcmp(loss->module, "server") == 0 && loss->topic == expected.topic);
    EXPECT(loss->session == expected.session && loss->kind == expected.kind);
    EXPECT(loss->reason == expected.reason);
    lose_more(p);
}

/* ---- posts */

/* Whether the poster that waits on top of the stack has come to its place. */
bool may_go_on(const Party &p)
{
    return p.blocked.size() == 1 && p.counted < p.terms.depth;
}

/* Posts, and has the model do so too: the result. A post that waits is ended by what it finds. */
template <typename T> int32_t post(Party &p, Item &item, int32_t delay, T call)
{
    catch_up(p);
    item.delayed = delay > 0;
    Fate fate = fate_of(p, item);
    const Actor who = actor();
    if (fate == Fate::wait && (who.serves || (who.works && p.stuck + 1 >= workers))) {
        fate = Fate::refuse;
    }
    if (fate != Fate::wait) {
        const int32_t expected = end_post(p, item, fate, delay);
        EXPECT(call() == expected);
        return expected;
    }
    const int64_t deadline = p.there.now + p.terms.wait_time;
    p.blocked.push_back(deadline);
    p.stuck += who.works;
    const int32_t posted = call();
    p.stuck -= who.works;
    const bool served = may_go_on(p) && !p.quit;
    EXPECT(served || p.quit || p.there.now >= deadline);
    p.blocked.pop_back();
    const int32_t expected = end_post(p, item, served ? Fate::accept : Fate::refuse, delay);
    EXPECT(posted == expected);
    return expected;
}

std::string full_line(const Item &item, const char *task)
{
    return World::err("qor_core_context", "qor_core_context_handle_task",
                      (std::string("queue full, module:server, task:") + task +
                       ", session=" + std::to_string(item.session))
                          .c_str());
}

contract *contract_of(const Party &p)
{
    return contract_find(p.bus, p.bus->modules[0]);
}

/* Whether a task that is due has to have a run made, and is refused without. */
bool needs_run(const Party &p, const Item &item)
{
    const Fate fate = fate_of(p, item);
    const qor_core_context_t *core = contract_of(p)->core;
    const bool slot = static_cast<uint32_t>(core->refcount) < core->refcount_max;
    const bool takes =
        fate == Fate::bypass || ((fate == Fate::accept || fate == Fate::evict) && slot);
    return !p.strict && takes && !core->priv->loop;
}

/* Posts without memory for the task, its timer or its run. */
void post_without(Party &p, Item *item, qor_context_task_t *task, uint32_t fails)
{
    p.there.memory_fails_in = static_cast<int>(fails);
    EXPECT(qor_context_handler_post(server_context, task) == -1);
    p.there.memory_fails_in = -1;
    p.ledger.refused++;
    item->where = Where::over;
}

/* A task of the server's, due now or later. */
void post_task(Party &p, bool later)
{
    Item *item = item_make(p, Kind::task);
    qor_context_task_t task = {};
    EXPECT(qor_context_taskx_init(&task, server_context, "fuzzed", item->session, task_run, item) ==
           0);
    task.recycle = task_recycle;
    task.delay = later ? 1 + static_cast<int32_t>(p.bytes.below(40)) : 0;
    const uint32_t fails = p.bytes.below(24);
    catch_up(p);
    if (fails < (later ? 3U : 1U) || (!later && fails == 1 && needs_run(p, *item))) {
        post_without(p, item, &task, fails);
        return;
    }
    p.there.printed.clear();
    const int32_t posted =
        post(p, *item, task.delay, [&] { return qor_context_handler_post(server_context, &task); });
    if (posted < 0 && !p.quit) {
        EXPECT(p.there.printed.find(full_line(*item, "fuzzed")) != std::string::npos);
    }
}

/* What is lost while a loss is told of is not told of. */
void lose_more(Party &p)
{
    if (p.bytes.below(4) == 0 && p.items.size() < items_most &&
        p.terms.overflow != QOR_OVERFLOW_BLOCK) {
        p.losing = true;
        post_task(p, false);
        p.losing = false;
    }
}

/* The client asks the server, or the helper in its place. */
void ask_server(Party &p)
{
    if (p.quit || !p.up) {
        return;
    }
    Item *item = item_make(p, Kind::request);
    const auto call = [&] {
        return qor_context_req_s(client_context, item->session, TO_SERVER, &item->id,
                                 sizeof(item->id));
    };
    if (p.client_open >= p.client_replies) {
        p.there.printed.clear();
        EXPECT(call() == -1);
        EXPECT(p.there.printed.find("replies: all places are taken") != std::string::npos);
        return;
    }
    const uint32_t fails = p.bytes.below(24);
    if (fails < 2) {
        p.there.memory_fails_in = static_cast<int>(fails);
        EXPECT(call() == -1);
        p.there.memory_fails_in = -1;
        p.ledger.refused += fails == 1 && !p.helper_serves;
        return;
    }
    p.client_open++; /* before: it may be answered while its poster waits */
    if (p.helper_serves) {
        EXPECT(call() == item->session);
        item->where = Where::helper;
        p.at_helper.push_back(item);
        return;
    }
    const auto posted = [&] {
        const int32_t session = call();
        EXPECT(session == -1 || session == item->session);
        return session < 0 ? -1 : 0;
    };
    if (post(p, *item, 0, posted) < 0) {
        p.client_open--;
    }
}

/* Asks the helper: the server for itself, or the client. */
void ask_helper(Party &p, bool server)
{
    if (p.quit || !p.up) {
        return;
    }
    const uint32_t most = server ? p.terms.replies : p.client_replies;
    uint32_t &open = server ? p.server_open : p.client_open;
    Item *item = item_make(p, server ? Kind::response : Kind::foreign);
    item->where = Where::over;
    const bool room = open < most;
    open += room;
    EXPECT(qor_context_req_s(server ? server_context : client_context, item->session, TO_HELPER,
                             &item->id, sizeof(item->id)) == (room ? item->session : -1));
}

/* ---- other calls */

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

/* What others do while a task of a worker's runs; some of it the task does itself. */
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

/* ---- waiting */

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

/* ---- modules, and their contracts */

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

/* What is wrong with a contract for the server, or NULL. */
const char *wrong_with(const qor_contract_t &terms, uint32_t size, int32_t refcount)
{
    if (size < 8 || size > sizeof(terms) || size % sizeof(void *) != 0) {
        return "size: not known.";
    }
    if (terms.strict > 1) {
        return "strict: neither 0 nor 1.";
    }
    if (terms.strict && refcount < 0) {
        return "strict: refcount is negative.";
    }
    if (terms.overflow < 0 || terms.overflow > 5) {
        return "overflow: not known.";
    }
    if (terms.strict && terms.overflow == QOR_OVERFLOW_BYPASS) {
        return "overflow: nothing goes past a strict queue.";
    }
    if (terms.overflow == QOR_OVERFLOW_BLOCK && terms.wait_time < 1) {
        return "wait_time: below 1 ms.";
    }
    return terms.reserved0 || terms.reserved[0] || terms.reserved[1] || terms.reserved[2] ||
                   terms.reserved[3]
               ? "reserved: not 0."
               : nullptr;
}

qor_contract_t any_terms(Party &p)
{
    qor_contract_t terms;
    qor_contract_init(&terms);
    EXPECT(terms.size == sizeof(terms) && terms.strict == 0 && terms.overflow == 0);
    const uint8_t how = p.bytes.byte();
    terms.strict = how & 1 ? 1 : how & 2 ? how % 7 : 0;
    terms.depth = p.bytes.below(5);
    terms.replies = p.bytes.below(4);
    terms.overflow = static_cast<int32_t>(p.bytes.below(8)) - 1;
    terms.wait_time = static_cast<int32_t>(p.bytes.below(40)) - 2;
    terms.open_max = p.bytes.below(3);
    const uint32_t reserved = p.bytes.below(64);
    if (reserved < 4) {
        terms.reserved[reserved] = 1;
    }
    terms.reserved0 = reserved == 4;
    terms.lost = p.bytes.below(2) ? on_lost : nullptr;
    terms.arg = &p;
    return terms;
}

/* What the terms become where the record that is given is as short as that. */
qor_contract_t cut(const qor_contract_t &terms, uint32_t size)
{
    qor_contract_t whole = {};
    memcpy(static_cast<void *>(&whole), &terms, std::min<size_t>(size, sizeof(whole)));
    return whole;
}

void contract_set(Party &p, int32_t refcount)
{
    qor_contract_t terms = any_terms(p);
    if (p.bytes.below(8) == 0) {
        terms.size = p.bytes.byte();
    }
    const qor_contract_t whole = cut(terms, terms.size);
    const bool known = p.ledger.size != 0;
    const bool fails = !known && p.bytes.below(16) == 0;
    const char *wrong = wrong_with(whole, terms.size, refcount);
    p.there.memory_fails_in = fails ? static_cast<int>(p.bytes.below(2)) : -1;
    const int32_t set = qor_bus_contract_set(p.bus, "server", &terms);
    p.there.memory_fails_in = -1;
    EXPECT(set == (wrong || fails ? -1 : 0));
    if (wrong) {
        p.there.expect_printed(World::err("qor_contract", "qor_bus_contract_set", wrong));
    }
    p.there.printed.clear();
    if (set < 0) {
        return;
    }
    p.ledger.size = 1; /* there is one */
    p.terms = whole;
    p.terms.depth = whole.depth ? whole.depth : 50;
    p.terms.replies = whole.replies ? whole.replies : 50;
    p.strict = whole.strict;
    if (whole.overflow == QOR_OVERFLOW_DEFAULT) {
        p.terms.overflow = p.strict ? QOR_OVERFLOW_REFUSE : QOR_OVERFLOW_BYPASS;
    }
}

/* Names that no contract is given for. */
void contract_refused(Party &p)
{
    static const char *const names[][2] = {
        {"qor_mng_module", "name: a system module's."},
        {"nobody", "name: no module has it."},
        {"twin-a", "name: two modules have it."},
        {"alien1", "name: the module's class is another than 0."},
        {"endless-endless-endl", "name: not terminated."},
    };
    static qor_context_module_t twin = hand_module("twin-a", nullptr, nullptr, nullptr);
    static qor_context_module_t alien = hand_module("alien1", nullptr, nullptr, nullptr);
    static qor_context_module_t endless = {{'e', 'n', 'd', 'l', 'e', 's', 's', '-', 'e', 'n',
                                            'd', 'l', 'e', 's', 's', '-', 'e', 'n', 'd', 'l'},
                                           0,
                                           1,
                                           0,
                                           0,
                                           0,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr};
    static qor_context_module_t *others[] = {&twin, &twin, &alien, &endless, nullptr};
    alien.id = 1;
    const auto &pair = names[p.bytes.below(5)];
    qor_contract_t terms;
    qor_contract_init(&terms);
    qor_context_module_t **modules = p.bus->modules;
    p.bus->modules = others;
    EXPECT(qor_bus_contract_set(p.bus, pair[0], &terms) == -1);
    p.bus->modules = modules;
    p.there.expect_printed(World::err("qor_contract", "qor_bus_contract_set", pair[1]));
    EXPECT(qor_bus_contract_set(nullptr, pair[0], &terms) == -1);
    EXPECT(qor_bus_contract_set(p.bus, nullptr, &terms) == -1);
    EXPECT(qor_bus_contract_set(p.bus, pair[0], nullptr) == -1);
    EXPECT(qor_bus_ledger(nullptr, "server", nullptr) == -1);
    EXPECT(qor_bus_ledger(p.bus, nullptr, nullptr) == -1);
    EXPECT(qor_bus_ledger(p.bus, "server", nullptr) == -1);
    qor_contract_init(nullptr);
    p.there.printed.clear();
}

/* Until the server has a contract. */
void contracts_set(Party &p, int32_t refcount)
{
    do {
        if (p.bytes.below(16) == 0) {
            contract_refused(p);
        }
        if (!p.bytes.left()) {
            qor_contract_init(&p.terms);
            p.terms.strict = p.strict = refcount >= 0;
            EXPECT(qor_bus_contract_set(p.bus, "server", &p.terms) == 0);
            p.terms.depth = p.terms.replies = 50;
            p.terms.overflow = p.strict ? QOR_OVERFLOW_REFUSE : QOR_OVERFLOW_BYPASS;
            return;
        }
        contract_set(p, refcount);
    } while (p.ledger.size == 0 || p.bytes.below(8) == 0);
}

/* The others have places for all there can be, so that nothing goes past their queues. */
void others_contracts_set(Party &p)
{
    const uint32_t few = p.bytes.below(6);
    p.client_replies = few > 0 ? few : items_most;
    qor_contract_t terms;
    qor_contract_init(&terms);
    terms.depth = items_most;
    terms.replies = p.client_replies;
    EXPECT(qor_bus_contract_set(p.bus, "client", &terms) == 0);
    EXPECT(qor_bus_contract_set(p.bus, "helper", &terms) == 0);
}

/* ---- all of it */

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
