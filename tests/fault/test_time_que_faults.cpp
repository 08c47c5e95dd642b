/* SPDX-License-Identifier: Apache-2.0 */
/* Timed queue: failing creation, the index of a long queue without memory, and who sleeps and wakes
 * how often. */
#include "qor_time_que.h"

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "fault.h"
#include "output.hpp"
#include "que_holder.hpp"
#include "thread.hpp"
#include "time_que_model.hpp"

namespace {

const std::string create_line =
    err_line("qor_time_que", "qor_time_que_create", "!(_this) == true.");

/* Waits until so many waits have begun since fault_arm(). A wait is counted with the lock held, so
 * whoever gets the lock afterwards finds all of them asleep. */
void await_waits(qor_time_que_t *que, int waits)
{
    ASSERT_TRUE(await([&] { return fault_calls(FAULT_WAIT) + fault_calls(FAULT_TIMED) >= waits; }));
    qor_time_que_lock(que);
    qor_time_que_unlock(que);
}

/* Where nothing is to happen there is nothing to await: a test that passes by luck once fails when
 * it is run again. */
void let_the_disturbed_show()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

void count_waits()
{
    fault_arm(FAULT_WAIT, -1);
    fault_arm(FAULT_TIMED, -1);
}

void arm(qor_time_que_t *que, char name, int32_t delay)
{
    ASSERT_EQ(qor_time_que_enque(que, new_time_node(name, delay)), 0);
}

void expect_creation_to_fail(fault_kind kind, int nth)
{
    Output out;
    fault_arm(kind, nth);

    EXPECT_EQ(qor_time_que_create(1, nullptr), nullptr);

    EXPECT_EQ(fault_fired(kind), 1);
    EXPECT_EQ(out.printed(), create_line);
}

/* Nodes made beforehand, so that all that is allocated while they are queued is the queue's own. */
class Supply {
public:
    Supply(size_t count, unsigned times, unsigned ids)
    {
        std::mt19937 random(4711);
        const int64_t start = util_timestamp() + far_off;
        for (size_t i = 0; i < count; i++) {
            nodes.push_back(qor_time_que_node_create(random() % ids, 0, 0));
            nodes.back()->when = start + static_cast<int64_t>(random() % times) * 1000;
        }
    }
    ~Supply()
    {
        for (qor_time_que_node_t *node : nodes) {
            qor_time_que_node_destroy(node, nullptr);
        }
    }
    Supply(const Supply &) = delete;
    Supply &operator=(const Supply &) = delete;

    std::vector<qor_time_que_node_t *> nodes;
};

/* Queues all nodes and takes them out by their ids. Returns how many allocations have failed. */
int queue_and_remove_all(const Supply &supply, int nth, bool all_behind)
{
    TimeQue que;
    TimeQueModel model;
    if (all_behind) {
        fault_arm_from(FAULT_ALLOC, nth);
    } else {
        fault_arm(FAULT_ALLOC, nth);
    }
    for (qor_time_que_node_t *node : supply.nodes) {
        model.enque(node);
        EXPECT_EQ(qor_time_que_enque(que, node), 0);
        if (node->id % 4 == 0) {
            EXPECT_EQ(qor_time_que_early(que, node->id, 0), model.early(node->id, 0));
        }
    }
    EXPECT_TRUE(model.matches(que));
    for (const qor_time_que_node_t *node : supply.nodes) {
        EXPECT_EQ(qor_time_que_remove(que, node->id), model.remove(node->id));
    }
    const int fired = fault_fired(FAULT_ALLOC);
    fault_arm(FAULT_ALLOC, -1);
    EXPECT_TRUE(model.matches(que));
    return fired;
}

void enque(qor_time_que_t *que, const Supply &supply, size_t from, size_t to)
{
    for (size_t i = from; i < to; i++) {
        ASSERT_EQ(qor_time_que_enque(que, supply.nodes[i]), 0);
    }
}

void remove_all_but(qor_time_que_t *que, int32_t left)
{
    while (que->count > left) {
        const qor_time_que_node_t *last =
            reinterpret_cast<const qor_time_que_node_t *>(que->head.prev);
        ASSERT_TRUE(qor_time_que_remove(que, last->id));
    }
}

} // namespace

TEST(TimeQueFaults, AShortQueueAllocatesNothing)
{
    Supply supply(63, 1000, 1000);
    TimeQue que;
    fault_arm(FAULT_ALLOC, -1);

    for (int round = 0; round < 3; round++) {
        enque(que, supply, 0, 63);
        remove_all_but(que, 0);
    }

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
}

TEST(TimeQueFaults, AQueueThatIsShortAgainGivesItsIndexBack)
{
    Supply supply(1000, 1000, 1000000);
    TimeQue que;
    fault_arm(FAULT_ALLOC, -1);
    enque(que, supply, 0, 1000);
    const int much = fault_live();

    remove_all_but(que, 64);
    const int less = fault_live();
    remove_all_but(que, 16);
    const int least = fault_live();
    remove_all_but(que, 15);

    EXPECT_GT(much, less);
    EXPECT_GT(least, 0); /* for it may grow again */
    EXPECT_EQ(fault_live(), 0);
    remove_all_but(que, 0);
}

TEST(TimeQueFaults, AnIndexIsNotMadeAnewWithEveryOtherNode)
{
    Supply supply(64, 1000, 1000000);
    TimeQue que;
    enque(que, supply, 0, 64);
    fault_arm(FAULT_ALLOC, -1);

    for (int round = 0; round < 100; round++) {
        qor_time_que_node_t *node = supply.nodes[static_cast<size_t>(round) % 64];
        ASSERT_EQ(qor_time_que_remove(que, node->id), node);
        ASSERT_EQ(qor_time_que_enque(que, node), 0);
    }

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    remove_all_but(que, 0);
}

TEST(TimeQueFaults, AnIndexWithoutMemoryChangesNoResult)
{
    const Supply supply(300, 100, 200);
    int nth = 0;
    while (queue_and_remove_all(supply, nth, false) > 0) {
        nth++;
    }
    EXPECT_GT(nth, 10); /* the index itself, and blocks of both trees */
}

TEST(TimeQueFaults, ALargeIndexWithoutMemoryChangesNoResult)
{
    const Supply supply(4000, 1000000, 1000000);
    int nth = 1;
    while (queue_and_remove_all(supply, nth, false) > 0) {
        nth += nth / 2 + 1;
    }
    EXPECT_GT(nth, 100);
}

TEST(TimeQueFaults, AQueueThatNeverGetsMemoryIsWalked)
{
    const Supply supply(500, 100, 200);

    EXPECT_GT(queue_and_remove_all(supply, 0, true), 0);
}

TEST(TimeQueFaults, AnIndexThatWasLostIsTriedAgainAfterAsManyChanges)
{
    Supply supply(200, 1000, 1000000);
    TimeQue que;
    fault_arm(FAULT_ALLOC, 0);
    enque(que, supply, 0, 64);
    EXPECT_EQ(fault_live(), 0);

    enque(que, supply, 64, 128);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
    enque(que, supply, 128, 129);

    EXPECT_GT(fault_live(), 0);
    remove_all_but(que, 0);
    EXPECT_EQ(fault_live(), 0);
}

TEST(TimeQueFaults, ANodeChangedWhileQueuedCostsTheIndex)
{
    for (const bool id : {true, false}) {
        Supply supply(100, 1000, 1000000);
        TimeQue que;
        fault_arm(FAULT_ALLOC, -1);
        enque(que, supply, 0, 100);
        EXPECT_GT(fault_live(), 0);
        qor_time_que_node_t *node = supply.nodes[50];
        const size_t old_id = node->id;

        qor_time_que_node_update(node, id ? 1000001 : old_id, far_off / 2);

        EXPECT_EQ(qor_time_que_remove(que, old_id), id ? nullptr : node);
        EXPECT_EQ(fault_live(), 0);
        remove_all_but(que, 0);
    }
}

/* What the index holds shows what it costs when it is lost: nothing, until it is made anew. */
TEST(TimeQueFaults, NoChangeThroughTheQueueCostsTheIndex)
{
    std::mt19937 random(1234);
    for (const unsigned times : {3u, 40u, 1000000u}) {
        for (const unsigned ids : {1u, 5u, 1000000u}) {
            SCOPED_TRACE(testing::Message() << times << " times, " << ids << " ids");
            Supply supply(5000, times, ids);
            TimeQue que;
            fault_arm(FAULT_ALLOC, -1);
            enque(que, supply, 0, 5000);
            const int blocks = fault_live();
            EXPECT_GT(blocks, 100); /* of 64 slots at most, in two trees */
            for (int i = 0; i < 3000; i++) {
                const qor_time_que_node_t *wanted = supply.nodes[random() % 5000];
                qor_time_que_node_t *node = qor_time_que_remove(que, wanted->id);
                ASSERT_TRUE(node);
                ASSERT_GT(fault_live(), 0) << "after removal " << i;
                if (i % 3 == 0) {
                    node->when = supply.nodes[random() % 5000]->when + (i % 2);
                }
                ASSERT_EQ(qor_time_que_enque(que, node), 0);
                ASSERT_GT(fault_live(), 0) << "after node " << i;
            }
            remove_all_but(que, 0);
            EXPECT_EQ(fault_live(), 0);
        }
    }
}

TEST(TimeQueFaults, AQuitGivesTheIndexBack)
{
    TimeQue que;
    fault_arm(FAULT_ALLOC, -1);
    for (int i = 0; i < 100; i++) {
        arm(que, 'a', far_off);
    }
    EXPECT_GT(fault_live(), 100);

    qor_time_que_quit(que);

    EXPECT_EQ(fault_live(), 0);
}

TEST(TimeQueFaults, CreateWithoutMemoryPrintsTheNullObjectText)
{
    expect_creation_to_fail(FAULT_ALLOC, 0);
}

TEST(TimeQueFaults, CreateIsOneAllocation)
{
    fault_arm(FAULT_ALLOC, -1);

    TimeQue que;

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}

TEST(TimeQueFaults, CreateWithoutALockUndoesItself)
{
    expect_creation_to_fail(FAULT_MUTEX, 0);
    for (int nth = 0; nth < 4; nth++) {
        expect_creation_to_fail(FAULT_ATTR, nth);
        expect_creation_to_fail(FAULT_COND, nth);
    }
}

TEST(TimeQueFaults, NodeWithoutMemoryIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_time_que_node_create(1, 0, 8), nullptr);

    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_node_create",
                                      "malloc \"qor_time_que_node_t\" failed."));
}

TEST(TimeQueFaults, ATakerSurvivesAWakeWithoutANode)
{
    TimeQue que;
    count_waits();
    fault_arm(FAULT_WAIT, 0); /* the first wait is one */
    std::string name;
    Thread taker([&] { name = free_and_name(qor_time_que_deque_block(que, -1)); });
    await_waits(que, 2);

    arm(que, 'a', 0);

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(TimeQueFaults, ALaterNodeDoesNotDisturbTheSleeper)
{
    TimeQue que;
    arm(que, 'a', far_off);
    count_waits();
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr); });
    await_waits(que, 1);

    for (int i = 0; i < 10; i++) {
        arm(que, 'b', far_off + 1000);
        free_and_name(qor_time_que_remove(que, 'b'));
    }
    let_the_disturbed_show();
    free_and_name(qor_time_que_remove(que, 'a'));
    qor_time_que_quit(que);

    taker.join();
    EXPECT_EQ(fault_calls(FAULT_TIMED), 1);
    EXPECT_EQ(fault_calls(FAULT_WAIT), 0);
}

TEST(TimeQueFaults, ANodeAfterTheEndOfItsWaitDoesNotDisturbTheSleeper)
{
    TimeQue que;
    count_waits();
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, far_off), nullptr); });
    await_waits(que, 1);

    arm(que, 'a', 2 * far_off);
    let_the_disturbed_show();
    qor_time_que_quit(que);

    taker.join();
    EXPECT_EQ(fault_calls(FAULT_TIMED), 1);
}

TEST(TimeQueFaults, ATimedWaitSleepsRatherThanPolls)
{
    TimeQue que(0);
    qor_time_que_node_t *node = new_time_node('a', 0);
    count_waits();

    EXPECT_EQ(qor_time_que_deque_block(que, 100), nullptr);
    EXPECT_LE(fault_calls(FAULT_TIMED), 3); /* the system may wake it for nothing */

    EXPECT_EQ(qor_time_que_enque_block(que, node, 100), -1);
    EXPECT_LE(fault_calls(FAULT_TIMED), 6);
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQueFaults, AnEarlierNodeWakesTheSleeper)
{
    TimeQue que;
    arm(que, 'b', far_off);
    count_waits();
    std::string name;
    Thread taker([&] { name = free_and_name(qor_time_que_deque_block(que, -1)); });
    await_waits(que, 1);

    arm(que, 'a', 10);

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(TimeQueFaults, ANodeForAnEmptyQueueWakesEverySleeper)
{
    TimeQue que;
    count_waits();
    std::atomic<int> got{0};
    auto take = [&] {
        qor_time_que_node_t *node = qor_time_que_deque_block(que, -1);
        got += node != nullptr;
        qor_time_que_node_destroy(node, nullptr);
    };
    Thread first(take), second(take);
    await_waits(que, 2);

    arm(que, 'a', 20);
    arm(que, 'b', 20);

    first.join();
    second.join();
    EXPECT_EQ(got, 2);
}

TEST(TimeQueFaults, ANodeBetweenTwoSleepersWakesTheLongerOne)
{
    TimeQue que;
    count_waits();
    auto take = [&](int32_t wait_time) {
        EXPECT_EQ(qor_time_que_deque_block(que, wait_time), nullptr);
    };
    Thread patient(take, -1);
    await_waits(que, 1);
    Thread hasty(take, far_off);
    await_waits(que, 2);

    arm(que, 'a', 2 * far_off); /* hasty looks before it is due, patient would not */

    /* Both look, and wait again: patient for the node from now on. */
    EXPECT_TRUE(await([&] { return fault_calls(FAULT_TIMED) >= 3; })) << "sleeps past the node";
    qor_time_que_quit(que);
    patient.join();
    hasty.join();
}

TEST(TimeQueFaults, ABatchOfTakesWakesAGiverForEach)
{
    TimeQue que(2);
    arm(que, 'a', -1);
    arm(que, 'a', -1);
    count_waits();
    std::atomic<int> given{0};
    auto give = [&] {
        EXPECT_EQ(qor_time_que_enque_block(que, new_time_node('b', far_off), -1), 0);
        given++;
    };
    Thread first(give), second(give);
    await_waits(que, 2);

    qor_time_que_lock(que);
    EXPECT_EQ(free_and_name(qor_time_que_deque_locked(que)), "a");
    EXPECT_EQ(free_and_name(qor_time_que_deque_locked(que)), "a");
    qor_time_que_unlock(que);

    EXPECT_TRUE(await([&] { return given == 2; }));
    qor_time_que_quit(que);
    first.join();
    second.join();
}

TEST(TimeQueFaults, WakeupLockedReachesTakersToo)
{
    TimeQue que;
    count_waits();
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr); });
    await_waits(que, 1);

    qor_time_que_lock(que);
    qor_time_que_wakeup_locked(que);
    qor_time_que_unlock(que);

    await_waits(que, 2); /* has looked and waits again */
    qor_time_que_quit(que);
    taker.join();
}

TEST(TimeQueFaults, QuitReleasesTakersAndGiversTogether)
{
    recycled.clear();
    TimeQue que(1, note_recycled);
    arm(que, 'a', far_off);
    qor_time_que_node_t *node = new_time_node('b', 0);
    count_waits();
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr); });
    Thread giver([&] { EXPECT_EQ(qor_time_que_enque_block(que, node, -1), -1); });
    await_waits(que, 2);

    qor_time_que_quit(que);

    taker.join();
    giver.join();
    EXPECT_EQ(recycled, "a");
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQueFaults, DestroyWaitsUntilTheLastThreadHasLeft)
{
    qor_time_que_t *que = qor_time_que_create(1, nullptr);
    arm(que, 'a', far_off);
    qor_time_que_node_t *node = new_time_node('b', 0);
    count_waits();
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr); });
    Thread giver([&] { EXPECT_EQ(qor_time_que_enque_block(que, node, far_off), -1); });
    Thread waiter([&] {
        qor_time_que_lock(que);
        qor_time_que_wait_locked(que);
        qor_time_que_unlock(que);
    });
    await_waits(que, 3);

    qor_time_que_destroy(que);

    taker.join();
    giver.join();
    waiter.join();
    qor_time_que_node_destroy(node, nullptr);
}
