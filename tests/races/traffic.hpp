/* SPDX-License-Identifier: Apache-2.0 */
/* A bus under stress, from its creation to its end: modules of both phases, with contracts and
 * without, that ask, answer, defer, watch, post and cancel; and a book of it all. */
#ifndef QOR_TESTS_RACES_TRAFFIC_HPP
#define QOR_TESTS_RACES_TRAFFIC_HPP

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "book.hpp"
#include "meddle.h"
#include "module.hpp"
#include "qor.h"

/* Sums over all buses. */
struct Sums {
    Count buses{0}, requests{0}, refused{0}, responses{0}, dropped{0}, expired{0};
    Count completed{0}, calls{0};
    Count tasks{0}, ran{0}, cancelled{0}, beats{0}, drains{0}, shown{0};
};
extern Sums sums;

class Traffic {
public:
    /* The book is an empty one. */
    Traffic(Book &book, uint32_t workers);
    ~Traffic();
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    /* Keeps the worker busy inside each handler and task; may be empty. */
    std::function<void()> work;
    /* So many requests may be open before a further one is asked. */
    int64_t open_max = 150;
    /* Milliseconds, of which a periodic timer's period has one to four. */
    int32_t beat_unit = 1;
    /* ns that workers have been inside handlers and tasks; counted when there is work. */
    Count busy{0};

    qor_bus_t *bus() { return bus_; }
    /* Lets it loop, and waits until all modules are up. */
    void begin();
    /* Does one thing that is drawn, on a thread that is not the bus's. */
    void act();
    /* A request to a topic that is drawn. */
    void ask();
    /* When nobody acts: waits until nothing is left to do, and looks at the book. */
    void settle();
    /* After settle(): how long a request takes that nobody is slow for, in ns. */
    int64_t round_trip();
    /* Waits for the loop, which somebody has ended, frees everything and looks at the book. When
     * nobody acts any more. */
    void end();

private:
    enum { plain, later, promised, strict, counted, observer, roamer, modules };
    static constexpr int64_t beats_max = 8; /* periodic timers at a time */
    enum { plain_topic, later_topic, strict_topic, counted_topic, leaf_topic, topics };

    /* Touched by a strict module's turns, one at a time. */
    struct Turns {
        int64_t count = 0;
        int inside = 0;
    };
    class Turn;

    void add_modules();
    void promise(int module, bool waits);
    bool is_strict(int module) const { return module == strict || module == counted; }
    qor_context_t *context(int module) const { return all_[module]->context(); }

    int32_t receive(int self, qor_context_t *context, qor_context_msg_t *msg);
    int32_t serve(int self, qor_context_t *context, qor_context_msg_t *msg);
    int32_t defer(qor_context_t *context, qor_context_msg_t *msg, Request &request);
    void answered(int self, const qor_context_msg_t *msg);
    void shown(const qor_context_msg_t *msg);
    void roam();

    void ask_from(int asker, int32_t topic);
    void call_from(int asker);
    void complete(std::atomic<uint64_t> &box);
    void post(int module);
    void post_to_bus();
    void cancel();
    void arm();
    void cancel_beat();
    void cancel_beats();
    void look();
    static void *ran(void *task);
    static void recycled(void *task);
    static void beaten(qor_context_t *self, int32_t session, void *beat, uint32_t missed);
    static void beat_over(void *beat);

    qor_ledger_t ledger(int module);
    void check_requests(bool settled);
    void check_shown(int number, const Request &request);
    void check_ledger();
    void check_tasks();

    static Traffic *latest_; /* the only one there is, for the functions of tasks */
    std::vector<std::unique_ptr<Module>> all_;
    std::vector<qor_context_module_t *> table_;
    Book &book_;
    Turns turns_[modules];
    qor_bus_t *bus_ = nullptr;
    std::thread loop_;
    std::atomic<bool> asking_{true};
    std::atomic<uint64_t> boxes_[8] = {}; /* tokens of requests that are to be completed */
    int64_t starved_ = fault_starved();   /* before it began */
    Count beating_{0};                    /* periodic timers that have not ended */
    Count open_{0};                       /* requests that have no response yet */
    uint32_t depth_ = 0;
};

#endif /* QOR_TESTS_RACES_TRAFFIC_HPP */
