/* SPDX-License-Identifier: Apache-2.0 */
/* Both kinds of queue alone: threads that give, take, remove, look and wait, until a queue quits.
 * Every node is known by its number, and comes out once: taken, removed or recycled. */
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "meddle.h"
#include "qor_que.h"
#include "qor_time_que.h"
#include "stress.hpp"

namespace {

constexpr int32_t nodes_max = 20000; /* of a round */
constexpr uint32_t givers = 3;

struct Node {
    Count given{0}, out{0};
};

struct Body {
    struct Round *round;
    int32_t number;
    uint32_t giver;
    int64_t due; /* ms; of a timed queue */
    uint32_t noise;
};

uint32_t noise_of(int32_t number)
{
    return static_cast<uint32_t>(number) * 2654435761u;
}

/* Counts over all rounds. */
struct Sums {
    Count rounds{0}, given{0}, refused{0}, taken{0}, removed{0}, recycled{0};
} sums;

/* One queue from its creation to its end. */
struct Round {
    explicit Round(uint32_t workers) : takers(workers), nodes(new Node[nodes_max]) {}

    const uint32_t takers;
    std::unique_ptr<Node[]> nodes;
    Count next{0}, given{0}, out{0};
    std::atomic<bool> over{false};       /* nothing is given any more */
    int32_t last[givers] = {-1, -1, -1}; /* what the only taker had of each giver */

    /* Takes a node up that has come out of the queue. */
    void came_out(void *body, Count &how)
    {
        const Body *found = static_cast<const Body *>(body);
        must(found->round == this && found->noise == noise_of(found->number),
             "the body of a node is what its giver wrote");
        const int64_t before = add(nodes[found->number].out);
        must(before == 0, "node %d comes out once", found->number);
        add(out);
        add(how);
    }

    static void recycle(void *body)
    {
        static_cast<const Body *>(body)->round->came_out(body, sums.recycled);
    }

    void fill(void *body, uint32_t giver, int64_t due)
    {
        Body *to = static_cast<Body *>(body);
        to->round = this;
        to->number = static_cast<int32_t>(add(next));
        to->giver = giver;
        to->due = due;
        to->noise = noise_of(to->number);
    }

    void balances() const
    {
        for (int64_t i = 0; i < value(next); i++) {
            must(value(nodes[i].given) == value(nodes[i].out),
                 "node %d, which was %s, comes out %d times", static_cast<int>(i),
                 value(nodes[i].given) ? "given" : "refused",
                 static_cast<int>(value(nodes[i].out)));
        }
    }
};

int32_t some_wait()
{
    static const int32_t waits[] = {-1, 0, 1, 3};
    return waits[dice(4)];
}

/* The two kinds, as much alike as they are. */
struct Plain {
    using Queue = qor_que_t;
    using Item = qor_que_node_t;
    static constexpr const char *name = "a queue";
    static constexpr auto create = qor_que_create;
    static constexpr auto destroy = qor_que_destroy;
    static constexpr auto quit = qor_que_quit;
    static constexpr auto lock = qor_que_lock;
    static constexpr auto unlock = qor_que_unlock;
    static constexpr auto wait_locked = qor_que_wait_locked;
    static constexpr auto wakeup_locked = qor_que_wakeup_locked;
    static constexpr auto give = qor_que_enque_block;
    static constexpr auto take = qor_que_deque_block;
    static constexpr auto take_locked = qor_que_deque_block_locked;
    static constexpr auto body = qor_que_node_body;
    static constexpr auto free_node = qor_que_node_destroy;

    static Item *make(int32_t) { return qor_que_node_create(0, sizeof(Body)); }
    static void number(Item *node, int32_t number) { node->id = static_cast<size_t>(number); }
    static int64_t due(const Item *) { return 0; }
    static Item *remove(Queue *que, size_t id)
    {
        Item *found = qor_que_remove(que, id);
        return static_cast<void *>(found) == static_cast<void *>(que) ? nullptr : found;
    }
    static void look(Queue *que) { must(qor_que_count(que) >= 0, "a count is never negative"); }
    /* last: what the giver has given before it, for the only taker. */
    static void came(const Body *of, int32_t last)
    {
        must(last < of->number, "node %d comes before node %d", of->number, last);
    }
};

struct Timed {
    using Queue = qor_time_que_t;
    using Item = qor_time_que_node_t;
    static constexpr const char *name = "a timed queue";
    static constexpr auto create = qor_time_que_create;
    static constexpr auto destroy = qor_time_que_destroy;
    static constexpr auto quit = qor_time_que_quit;
    static constexpr auto lock = qor_time_que_lock;
    static constexpr auto unlock = qor_time_que_unlock;
    static constexpr auto wait_locked = qor_time_que_wait_locked;
    static constexpr auto wakeup_locked = qor_time_que_wakeup_locked;
    static constexpr auto give = qor_time_que_enque_block;
    static constexpr auto take = qor_time_que_deque_block;
    static constexpr auto take_locked = qor_time_que_deque_block_locked;
    static constexpr auto body = qor_time_que_node_body;
    static constexpr auto free_node = qor_time_que_node_destroy;

    static Item *make(int32_t delay) { return qor_time_que_node_create(0, delay, sizeof(Body)); }
    static void number(Item *node, int32_t number) { node->id = static_cast<size_t>(number); }
    static int64_t due(const Item *node) { return node->when; }
    static Item *remove(Queue *que, size_t id) { return qor_time_que_remove(que, id); }
    static void look(Queue *que)
    {
        int32_t delay = 0;
        qor_time_que_next_delay(que, &delay);
        must(delay <= 5, "nothing is due later than it was given");
    }
    static void came(const Body *of, int32_t)
    {
        must(util_timestamp() >= of->due, "node %d is not early", of->number);
    }
};

template <typename Kind> class Game {
public:
    using Queue = typename Kind::Queue;
    using Item = typename Kind::Item;

    explicit Game(uint32_t workers) : round_(workers)
    {
        static const uint32_t rooms[] = {UINT32_MAX, 1, 2, 8, 100};
        que_ = Kind::create(rooms[dice(5)], Round::recycle);
    }

    void play(Clock::duration time)
    {
        std::vector<std::thread> all;
        const bool drained = dice(2);
        Watchdog::at(Kind::name);
        for (uint32_t i = 0; i < givers; i++) {
            all.emplace_back([this, i] { give(i); });
        }
        for (uint32_t i = 0; i < round_.takers; i++) {
            all.emplace_back([this] { take(); });
        }
        all.emplace_back([this] { meddle(); });
        all.emplace_back([this] { wait(); });
        std::this_thread::sleep_for(time);
        round_.over.store(true, std::memory_order_relaxed);
        if (drained) {
            drain();
        }
        Watchdog::at("the quit of a queue");
        Kind::quit(que_);
        for (std::thread &one : all) {
            one.join();
        }
        must(value(round_.given) == value(round_.out), "every node that was given has come out");
        round_.balances();
        Kind::destroy(que_);
        end_with_takers_inside();
        add(sums.rounds);
    }

private:
    bool over() const { return round_.over.load(std::memory_order_relaxed); }

    /* Those who wait for a node get all there are: no wake is lost. */
    void drain()
    {
        Watchdog::at("taking out what was given");
        while (value(round_.given) != value(round_.out) || value(giving_) > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void give(uint32_t giver)
    {
        add(giving_);
        while (!over() && value(round_.next) < nodes_max - givers) {
            Item *node = Kind::make(static_cast<int32_t>(dice(3)));
            round_.fill(Kind::body(node), giver, Kind::due(node));
            Body *body = static_cast<Body *>(Kind::body(node));
            const int32_t number = body->number;
            Kind::number(node, number);
            /* With takers to the end, a wait without limit ends. */
            if (Kind::give(que_, node, some_wait()) == 0) {
                add(round_.nodes[number].given);
                add(round_.given);
                add(sums.given);
            } else {
                add(sums.refused);
                Kind::free_node(node, nullptr);
            }
        }
        add(giving_, -1);
    }

    void accept(Item *node, Count &how)
    {
        Body *body = static_cast<Body *>(Kind::body(node));
        if (&how == &sums.taken) {
            const bool alone = round_.takers == 1;
            Kind::came(body, alone ? round_.last[body->giver] : -1);
            if (alone) {
                round_.last[body->giver] = body->number;
            }
        }
        round_.came_out(body, how);
        Kind::free_node(node, nullptr);
    }

    /* A taker waits without limit, so only a wake gets it out. */
    void take()
    {
        for (;;) {
            const int32_t wait = dice(4) ? -1 : static_cast<int32_t>(1 + dice(2));
            Item *node = Kind::take(que_, wait);
            if (node) {
                accept(node, sums.taken);
            } else if (wait < 0) {
                return;
            }
        }
    }

    void meddle()
    {
        while (!over()) {
            const int64_t last = value(round_.next);
            const int64_t back = dice(8);
            if (Item *node =
                    Kind::remove(que_, static_cast<size_t>(last > back ? last - back : 0))) {
                accept(node, sums.removed);
            }
            Kind::look(que_);
            if (dice(50) == 0) {
                Kind::lock(que_);
                Kind::wakeup_locked(que_);
                Kind::unlock(que_);
            }
            std::this_thread::yield();
        }
    }

    /* Waits for changes, of which the quit is the last. */
    void wait()
    {
        Kind::lock(que_);
        while (!que_->quitting) {
            Kind::wait_locked(que_);
        }
        Kind::unlock(que_);
    }

    /* A destruction waits for those who are inside. */
    void end_with_takers_inside()
    {
        Watchdog::at("the destruction of a queue");
        que_ = Kind::create(1, nullptr);
        Count inside{0};
        std::vector<std::thread> all;
        for (uint32_t i = 0; i < round_.takers; i++) {
            all.emplace_back([this, &inside] {
                Queue *que = que_;
                Kind::lock(que);
                add(inside);
                must(!Kind::take_locked(que, -1), "an empty queue hands nothing out");
                Kind::unlock(que);
            });
        }
        for (bool all_inside = false; !all_inside;) {
            Kind::lock(que_);
            all_inside = value(inside) == round_.takers;
            Kind::unlock(que_);
        }
        Kind::destroy(que_);
        for (std::thread &one : all) {
            one.join();
        }
    }

    Round round_;
    Queue *que_;
    Count giving_{0};
};

} // namespace

int main(int argc, char **argv)
{
    const Options options = options_of(argc, argv);
    be_quiet(); /* a queue that quits says so to whoever still asks */
    dice_seed(options.seed);
    fault_delay(options.seed, options.percent);
    Watchdog::watch();
    const Clock::time_point begin = Clock::now();
    do {
        /* Short ones too: the end is where most can go wrong. */
        const auto time = std::chrono::milliseconds(dice(4) ? 1 + dice(8) : 20 + dice(100));
        if (dice(2)) {
            Game<Plain>(options.workers).play(time);
        } else {
            Game<Timed>(options.workers).play(time);
        }
    } while (seconds_since(begin) < options.seconds);
    must(fault_blocks() == 0, "the library keeps nothing, not %lld blocks",
         static_cast<long long>(fault_blocks()));
    must(value(sums.given) == value(sums.taken) + value(sums.removed) + value(sums.recycled),
         "all that was given has come out");
    std::printf(
        "%lld rounds: %lld nodes given, %lld refused; %lld taken, %lld removed, %lld "
        "recycled; %lld delays, %lld wakes for nothing\n",
        static_cast<long long>(value(sums.rounds)), static_cast<long long>(value(sums.given)),
        static_cast<long long>(value(sums.refused)), static_cast<long long>(value(sums.taken)),
        static_cast<long long>(value(sums.removed)), static_cast<long long>(value(sums.recycled)),
        static_cast<long long>(fault_delays()), static_cast<long long>(fault_spurious()));
    return 0;
}
