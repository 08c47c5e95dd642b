/* SPDX-License-Identifier: Apache-2.0 */
/* Timed queue: failing creation, and who sleeps and wakes how often. */
#include "qor_time_que.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "await.hpp"
#include "fault.h"
#include "output.hpp"
#include "que_holder.hpp"
#include "thread.hpp"

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

} // namespace

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
