/* SPDX-License-Identifier: Apache-2.0 */
/* Both kinds of queues with many threads inside. */
#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "output.hpp"
#include "que_holder.hpp"
#include "thread.hpp"

namespace {

std::atomic<int> recycles;

void count_recycle(void *)
{
    recycles++;
}

struct Blocking {
    using Holder = Que;
    using Node = qor_que_node_t;

    static Node *make(size_t id) { return qor_que_node_create(id, 4); }
    static int32_t give(qor_que_t *que, Node *node) { return qor_que_enque_block(que, node, -1); }
    static Node *take(qor_que_t *que, int32_t wait) { return qor_que_deque_block(que, wait); }
    static Node *remove(qor_que_t *que, size_t id)
    {
        Node *node = qor_que_remove(que, id);
        return static_cast<void *>(node) == static_cast<void *>(que) ? nullptr : node;
    }
    static void quit(qor_que_t *que) { qor_que_quit(que); }
    static size_t id(Node *node) { return qor_que_node_id(node); }
    static void free(Node *node) { qor_que_node_destroy(node, nullptr); }
};

struct Timed {
    using Holder = TimeQue;
    using Node = qor_time_que_node_t;

    /* Some of them have to be slept for. */
    static Node *make(size_t id) { return qor_time_que_node_create(id, id % 50 == 7 ? 2 : 0, 4); }
    static int32_t give(qor_time_que_t *que, Node *node)
    {
        return qor_time_que_enque_block(que, node, -1);
    }
    static Node *take(qor_time_que_t *que, int32_t wait)
    {
        Node *node = qor_time_que_deque_block(que, wait);
        EXPECT_TRUE(!node || node->when <= util_timestamp());
        return node;
    }
    static Node *remove(qor_time_que_t *que, size_t id) { return qor_time_que_remove(que, id); }
    static void quit(qor_time_que_t *que) { qor_time_que_quit(que); }
    static size_t id(Node *node) { return qor_time_que_node_id(node); }
    static void free(Node *node) { qor_time_que_node_destroy(node, nullptr); }
};

/* Threads of one test. */
class Threads {
public:
    template <typename Run> void start(int number, Run run)
    {
        for (int i = 0; i < number; i++) {
            threads_.emplace_back(run, i);
        }
    }

    void join()
    {
        for (Thread &thread : threads_) {
            thread.join();
        }
    }

private:
    std::vector<Thread> threads_;
};

template <typename Kind> void pass_each_node_once()
{
    constexpr int givers = 3, takers = 3, each = 2000, all = givers * each;
    typename Kind::Holder que(4);
    std::atomic<int> taken{0};
    std::atomic<int64_t> sum{0};
    Threads threads;
    threads.start(givers, [&](int giver) {
        for (int i = 0; i < each; i++) {
            const auto id = static_cast<size_t>(giver * each + i);
            EXPECT_EQ(Kind::give(que, Kind::make(id)), 0);
        }
    });
    threads.start(takers, [&](int taker) {
        /* One of them with a limit: its way out must not swallow a wake. */
        while (taken < all) {
            auto *node = Kind::take(que, taker == 0 ? 1 : -1);
            if (!node) {
                continue;
            }
            sum += static_cast<int64_t>(Kind::id(node));
            Kind::free(node);
            if (++taken == all) {
                Kind::quit(que);
            }
        }
    });

    threads.join();

    EXPECT_EQ(taken, all);
    EXPECT_EQ(sum, int64_t{all} * (all - 1) / 2);
}

template <typename Kind> void quit_amid_others()
{
    Output out; /* a timed queue that quits reports the removes */
    recycles = 0;
    std::atomic<int> accepted{0}, handed_out{0};
    typename Kind::Holder que(8, count_recycle);
    Threads threads;
    threads.start(2, [&](int) {
        auto *node = Kind::make(1);
        while (Kind::give(que, node) == 0) {
            accepted++;
            node = Kind::make(1);
        }
        Kind::free(node);
    });
    threads.start(1, [&](int) {
        while (auto *node = Kind::take(que, -1)) {
            handed_out++;
            Kind::free(node);
        }
    });
    threads.start(1, [&](int) {
        while (__atomic_load_n(&que->quitting, __ATOMIC_ACQUIRE) == 0) {
            if (auto *node = Kind::remove(que, 1)) {
                handed_out++;
                Kind::free(node);
            }
        }
    });
    EXPECT_TRUE(await([&] { return handed_out > 500; }));

    Kind::quit(que);

    threads.join();
    EXPECT_EQ(accepted, handed_out + recycles);
}

} // namespace

TEST(QueThreads, ManyGiversAndTakersPassEachNodeOnce)
{
    pass_each_node_once<Blocking>();
}

TEST(QueThreads, QuitIsSafeWhileOthersGiveTakeAndRemove)
{
    quit_amid_others<Blocking>();
}

TEST(TimeQueThreads, ManyGiversAndTakersPassEachNodeOnce)
{
    pass_each_node_once<Timed>();
}

TEST(TimeQueThreads, QuitIsSafeWhileOthersGiveTakeAndRemove)
{
    quit_amid_others<Timed>();
}
