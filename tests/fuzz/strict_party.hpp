/* SPDX-License-Identifier: Apache-2.0 */
/* What strict_*.cpp and fuzz_strict.cpp share: the module under test, "server", has a contract;
 * "client" asks it, "helper" answers it and may take its requests over. The party is the bus with
 * the model of it. */
#ifndef QOR_TESTS_FUZZ_STRICT_PARTY_HPP
#define QOR_TESTS_FUZZ_STRICT_PARTY_HPP

#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_contract.h"

#include <list>
#include <memory>
#include <vector>

#include "world.hpp"

enum { TO_SERVER = 0, TO_HELPER = 1, TOPICS = 2 };

constexpr uint32_t items_most = 300;
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

/* Who acts. */
struct Actor {
    bool works;  /* a worker, in a task */
    bool serves; /* of the server's */
};

enum class Fate { accept, evict, drop, bypass, wait, refuse, close };

extern Party *party;
extern qor_context_t *server_context;
extern qor_context_t *client_context;
extern qor_context_t *helper_context;

/* ---- strict_model.cpp */

Actor actor();
void leave_queue(Party &p, Item *item);
/* The first that may be begun, or NULL; periodic: the timer's run comes before it. */
Item *next_of(Party &p, bool *periodic);
void tell_loss(Party &p, const Item &item, int32_t reason);
Fate fate_of(const Party &p, const Item &item);
/* Ends the post of a response or of anything else as the fate says: what the poster gets. */
int32_t end_post(Party &p, Item &item, Fate fate, int32_t delay);
void catch_up(Party &p);
void expect_ledger(Party &p);
/* Nothing is queued on the bus: whatever may run has run. */
void expect_rest(Party &p);
void begin(Party &p, Item *item);
void end(Party &p, Item *item);
Item *item_make(Party &p, Kind kind);
Item *item_of(Party &p, const qor_context_msg_t *msg);

/* ---- strict_handlers.cpp */

void *task_run(qor_context_t *context, int32_t session, void *arg);
void task_recycle(void *arg);
int32_t any_result(Party &p);
/* A deferred request comes to its end with a result. */
void open_end(Party &p, Item *item, int32_t ret);
int32_t result_of(int32_t ret);
int32_t server_handle(qor_context_t *, qor_context_msg_t *msg);
int32_t client_handle(qor_context_t *, qor_context_msg_t *msg);
int32_t helper_handle(qor_context_t *, qor_context_msg_t *msg);
void on_lost(void *arg, const qor_loss_t *loss);

/* ---- strict_posts.cpp */

/* Whether the poster that waits on top of the stack has come to its place. */
bool may_go_on(const Party &p);
/* A task of the server's, due now or later. */
void post_task(Party &p, bool later);
/* What is lost while a loss is told of is not told of. */
void lose_more(Party &p);
/* The client asks the server, or the helper in its place. */
void ask_server(Party &p);
/* Asks the helper: the server for itself, or the client. */
void ask_helper(Party &p, bool server);

/* ---- strict_terms.cpp */

/* Until the server has a contract. */
void contracts_set(Party &p, int32_t refcount);
/* The others have places for all there can be, so that nothing goes past their queues. */
void others_contracts_set(Party &p);

/* ---- fuzz_strict.cpp */

/* What others do while a task of a worker's runs; some of it the task does itself. */
void act_inside(Party &p);

#endif /* QOR_TESTS_FUZZ_STRICT_PARTY_HPP */
