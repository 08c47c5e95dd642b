/* SPDX-License-Identifier: Apache-2.0 */
/* Blocking queue: failing creation, and who sleeps and wakes how often. */
#include "qor_que.h"

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "fault.h"
#include "output.hpp"
#include "que_holder.hpp"
#include "thread.hpp"

namespace {

const std::string create_line = err_line("qor_que", "qor_que_create", "!(_this) == true.");

void expect_creation_to_fail(fault_kind kind, int nth)
{
    Output out;
    fault_arm(kind, nth);

    EXPECT_EQ(qor_que_create(1, nullptr), nullptr);

    EXPECT_EQ(fault_fired(kind), 1);
    EXPECT_EQ(out.printed(), create_line);
}

/* Waits until so many waits without limit have begun since fault_arm(). A wait is counted with the
 * lock held, so whoever gets the lock afterwards finds all of them asleep. */
void await_waits(qor_que_t *que, int waits)
{
    ASSERT_TRUE(await([&] { return fault_calls(FAULT_WAIT) >= waits; }));
    qor_que_lock(que);
    qor_que_unlock(que);
}

/* Takers on threads of their own, each for one node. */
class Takers {
public:
    Takers(qor_que_t *que, int number)
    {
        for (int i = 0; i < number; i++) {
            threads_.emplace_back([this, que] {
                qor_que_node_t *node = qor_que_deque_block(que, -1);
                (node ? got : missed)++;
                if (node) {
                    qor_que_node_destroy(node, nullptr);
                }
            });
        }
    }
    ~Takers()
    {
        for (Thread &thread : threads_) {
            thread.join();
        }
    }
    std::atomic<int> got{0};
    std::atomic<int> missed{0};

private:
    std::vector<Thread> threads_;
};

} // namespace

TEST(QueFaults, CreateWithoutMemoryPrintsTheNullObjectText)
{
    expect_creation_to_fail(FAULT_ALLOC, 0);
}

TEST(QueFaults, CreateIsOneAllocation)
{
    fault_arm(FAULT_ALLOC, -1);

    Que que;

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}

TEST(QueFaults, CreateWithoutALockUndoesItself)
{
    expect_creation_to_fail(FAULT_MUTEX, 0);
    for (int nth = 0; nth < 4; nth++) {
        expect_creation_to_fail(FAULT_ATTR, nth);
        expect_creation_to_fail(FAULT_COND, nth);
    }
}

TEST(QueFaults, NodeWithoutMemoryIsReported)
{
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_que_node_create(1, 8), nullptr);

    EXPECT_EQ(out.printed(),
              err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed."));
}

TEST(QueFaults, PassingANodeAllocatesNothing)
{
    Que que;
    qor_que_node_t *node = new_node('a');
    fault_arm(FAULT_ALLOC, -1);

    qor_que_enque(que, node);
    qor_que_deque_block(que, -1);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    qor_que_node_destroy(node, nullptr);
}

TEST(QueFaults, ATimedWaitSleepsRatherThanPolls)
{
    Que que;
    fault_arm(FAULT_TIMED, -1);

    EXPECT_EQ(qor_que_deque_block(que, 100), nullptr);

    EXPECT_GE(fault_calls(FAULT_TIMED), 1);
    EXPECT_LE(fault_calls(FAULT_TIMED), 2); /* the system may wake it for nothing */
}

TEST(QueFaults, ATimedWaitForRoomSleepsRatherThanPolls)
{
    Que que(0);
    qor_que_node_t *node = new_node('a');
    fault_arm(FAULT_TIMED, -1);

    EXPECT_EQ(qor_que_enque_block(que, node, 100), -1);

    EXPECT_GE(fault_calls(FAULT_TIMED), 1);
    EXPECT_LE(fault_calls(FAULT_TIMED), 2);
    qor_que_node_destroy(node, nullptr);
}

TEST(QueFaults, ATakerSurvivesAWakeWithoutANode)
{
    Que que;
    fault_arm(FAULT_WAIT, 0); /* the first wait is one */
    Takers takers(que, 1);
    await_waits(que, 2);

    qor_que_enque(que, new_node('a'));

    EXPECT_TRUE(await([&] { return takers.got == 1; }));
}

TEST(QueFaults, ANodeWakesOneTaker)
{
    Que que;
    fault_arm(FAULT_WAIT, -1);
    Takers takers(que, 3);
    await_waits(que, 3);

    for (int nodes = 1; nodes <= 3; nodes++) {
        qor_que_enque(que, new_node('a'));
        ASSERT_TRUE(await([&] { return takers.got == nodes; }));
    }

    EXPECT_EQ(fault_calls(FAULT_WAIT), 3); /* nobody had to wait again */
}

TEST(QueFaults, ABatchOfNodesWakesATakerForEach)
{
    Que que;
    fault_arm(FAULT_WAIT, -1);
    Takers takers(que, 3);
    await_waits(que, 3);

    qor_que_lock(que);
    for (int nodes = 0; nodes < 3; nodes++) {
        qor_que_enque_locked(que, new_node('a'));
    }
    qor_que_unlock(que);

    EXPECT_TRUE(await([&] { return takers.got == 3; }));
}

/* The count then says "full" while the list is empty, and both sides wait at once. */
TEST(QueFaults, QuitReleasesTakersAndGiversTogether)
{
    Que que(1);
    qor_que_enque(que, new_node('a'));
    free_and_name(qor_que_deque(que));
    qor_que_node_t *node = new_node('b');
    fault_arm(FAULT_WAIT, -1);
    Thread giver([&] { EXPECT_EQ(qor_que_enque_block(que, node, -1), -1); });
    {
        Takers takers(que, 2);
        await_waits(que, 3);

        qor_que_quit(que);

        EXPECT_TRUE(await([&] { return takers.missed == 2; }));
    }
    giver.join();
    qor_que_node_destroy(node, nullptr);
}

TEST(QueFaults, DestroyWaitsUntilTheLastThreadHasLeft)
{
    qor_que_t *que = qor_que_create(1, nullptr);
    qor_que_enque(que, new_node('a'));
    free_and_name(qor_que_deque(que));
    qor_que_node_t *node = new_node('b');
    fault_arm(FAULT_WAIT, -1);
    Thread giver([&] { EXPECT_EQ(qor_que_enque_block(que, node, -1), -1); });
    Thread waiter([&] {
        qor_que_lock(que);
        qor_que_wait_locked(que);
        qor_que_unlock(que);
    });
    {
        Takers takers(que, 3);
        await_waits(que, 5);

        qor_que_destroy(que);
    }
    giver.join();
    waiter.join();
    qor_que_node_destroy(node, nullptr);
}

TEST(QueFaults, ABatchOfTakesWakesAGiverForEach)
{
    Que que(3);
    for (int nodes = 0; nodes < 3; nodes++) {
        qor_que_enque(que, new_node('a'));
    }
    fault_arm(FAULT_WAIT, -1);
    std::atomic<int> given{0};
    std::vector<Thread> givers;
    for (int i = 0; i < 3; i++) {
        givers.emplace_back([&] {
            EXPECT_EQ(qor_que_enque_block(que, new_node('b'), -1), 0);
            given++;
        });
    }
    await_waits(que, 3);

    qor_que_lock(que);
    for (int nodes = 0; nodes < 3; nodes++) {
        EXPECT_EQ(free_and_name(qor_que_deque_block_locked(que, -1)), "a");
    }
    qor_que_unlock(que);

    EXPECT_TRUE(await([&] { return given == 3; }));
    qor_que_quit(que);
    for (Thread &giver : givers) {
        giver.join();
    }
}

TEST(QueFaults, WakeupLockedReachesTakersToo)
{
    Que que;
    fault_arm(FAULT_WAIT, -1);
    Takers takers(que, 2);
    await_waits(que, 2);

    qor_que_lock(que);
    qor_que_wakeup_locked(que);
    qor_que_unlock(que);

    await_waits(que, 4); /* both have looked and wait again */
    qor_que_quit(que);
}

/* One taker's time is over while the other sleeps: the node that comes must reach the sleeper. */
TEST(QueFaults, ATakerThatLeavesDoesNotKeepAWake)
{
    Que que;
    fault_arm(FAULT_WAIT, -1);
    Takers takers(que, 1);
    await_waits(que, 1);
    for (int round = 0; round < 20; round++) {
        EXPECT_EQ(qor_que_deque_block(que, 1), nullptr);
    }

    qor_que_enque(que, new_node('a'));

    EXPECT_TRUE(await([&] { return takers.got == 1; }));
}

TEST(QueFaults, ARemovedNodeDoesNotKeepAWake)
{
    Que que;
    fault_arm(FAULT_WAIT, -1);
    Takers takers(que, 1);
    await_waits(que, 1);
    qor_que_lock(que);
    qor_que_enque_locked(que, new_node('a'));
    EXPECT_EQ(free_and_name(qor_que_remove_locked(que, 'a')), "a"); /* before the taker can come */
    qor_que_unlock(que);
    await_waits(que, 2);

    qor_que_enque(que, new_node('b'));

    EXPECT_TRUE(await([&] { return takers.got == 1; }));
}
