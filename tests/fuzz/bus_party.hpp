/* SPDX-License-Identifier: Apache-2.0 */
/* What bus_*.cpp and fuzz_bus.cpp share: three modules on a bus, and the model of what they are
 * given and shown. */
#ifndef QOR_TESTS_FUZZ_BUS_PARTY_HPP
#define QOR_TESTS_FUZZ_BUS_PARTY_HPP

#include "qor_bus.h"
#include "qor_context.h"
#include "qor_context_msg.h"

#include <deque>
#include <list>
#include <memory>
#include <vector>

#include "world.hpp"

constexpr uint32_t modules = 3;
constexpr uint32_t strict_one = 2; /* the module that may be strict */
constexpr int32_t topics = 3;
constexpr uint32_t items_most = 250;
constexpr uint32_t crowd = 50; /* from there on what is posted goes past a module's queue */
constexpr int depth_most = 6;

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

extern Party *party;

/* ---- bus_model.cpp */

uint32_t index_of(const qor_context_t *context);
qor_context_t *wrapper(const Party &p, uint32_t module);
Item *item_make(Party &p, What what, uint32_t module);
Item *item_of(Party &p, const qor_context_msg_t *msg);
void expect_shown(Party &p, const Item &item, Kind kind, int32_t type, int32_t point);
/* One point of a passage: filters now, listeners by a task that draws the next number. */
void pass(Party &p, Item &item, bool before, bool posted = true, bool memory = true);
void see(Party &p, uint32_t module, const qor_context_msg_t *msg);
bool run_one(Party &p);

/* ---- bus_tasks.cpp */

/* None of its module's that was due before it waits still. */
void expect_turn(Party &p, const Item &item, uint32_t module);
void enter(Party &p, Item &item, uint32_t module, int64_t when);
void post_task(Party &p, bool later);
/* A task of the bus's own, now or by a timer, which is recycled by the loop as well. */
void post_bus_task(Party &p, bool later);
/* The loop serves the timers that are due, and recycles what they have queued a copy of. */
void timers_served(Party &p);
void cancel(Party &p);
void periodic_run(qor_context_t *self, int32_t session, void *arg, uint32_t missed);
void periodic_arm(Party &p);
void periodic_cancel(Party &p);

/* ---- bus_requests.cpp */

void publish_any(Party &p);
/* More than a module's queue holds. */
void publish_many(Party &p);
/* A request that is handled before the call returns. */
void call(Party &p);
int32_t handle(qor_context_t *context, qor_context_msg_t *msg);
void complete(Party &p);
void copy_request(Party &p);

/* ---- fuzz_bus.cpp */

void act_inside(Party &p);

#endif /* QOR_TESTS_FUZZ_BUS_PARTY_HPP */
