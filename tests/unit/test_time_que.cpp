/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_time_que.h"

#include <algorithm>
#include <list>
#include <random>

#include <gtest/gtest.h>

#include "await.hpp"
#include "case_name.hpp"
#include "output.hpp"
#include "que_holder.hpp"
#include "sleeper.hpp"
#include "thread.hpp"
#include "thread_call.hpp"

namespace {

const std::string quits = "!(!_this->quitting) == true.";

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_time_que", function, text);
}

qor_time_que_node_t *node_due_at(char name, int64_t when)
{
    qor_time_que_node_t *node = new_time_node(name, 0);
    node->when = when;
    return node;
}

void arm(qor_time_que_t *que, char name, int32_t delay)
{
    ASSERT_EQ(qor_time_que_enque(que, new_time_node(name, delay)), 0);
}

void arm_at(qor_time_que_t *que, const std::string &names, int64_t when)
{
    for (char name : names) {
        ASSERT_EQ(qor_time_que_enque(que, node_due_at(name, when)), 0);
    }
}

/* The ids in the order of the list. */
std::string order(qor_time_que_t *que)
{
    std::string names;
    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        names += static_cast<char>(reinterpret_cast<qor_time_que_node_t *>(link)->id);
    }
    return names;
}

/* Processor time for very many nodes. */
int64_t seconds_to_arm_at_intervals_of(int interval)
{
    TimeQue que;
    const int64_t first = util_timestamp() + far_off;
    struct timespec before, after;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    for (int i = 0; i < 100000; i++) {
        qor_time_que_node_t *node = qor_time_que_node_create(1, 0, 0);
        node->when = first + i * interval;
        EXPECT_EQ(qor_time_que_enque(que, node), 0);
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    return after.tv_sec - before.tv_sec;
}

/* Takes all that is due. */
std::string drain(qor_time_que_t *que)
{
    std::string names;
    while (qor_time_que_node_t *node = qor_time_que_deque(que)) {
        names += free_and_name(node);
    }
    return names;
}

qor_time_que_t *quitting_que = nullptr; /* for recycle functions that look at their queue */

} // namespace

TEST(TimeQue, CreationFillsTheRecord)
{
    TimeQue que(7, note_recycled);

    EXPECT_TRUE(list_empty(&que->head));
    EXPECT_EQ(que->quitting, 0);
    EXPECT_EQ(que->max_count, 7u);
    EXPECT_EQ(que->count, 0);
    EXPECT_EQ(que->recycle, note_recycled);
}

TEST(TimeQue, TheConditionMeasuresByTheMonotonicClock)
{
    TimeQue que;
    const int64_t start = util_timestamp();
    struct timespec until;
    util_timespec(start + 30, &until);

    EXPECT_TRUE(times_out<qor_time_que_t>(que, until));

    EXPECT_GE(util_timestamp() - start, 30); /* a moment long past by the wall clock */
}

TEST(TimeQue, ANodesBodyIsZeroAndFollowsItsHeader)
{
    const int64_t before = util_timestamp();
    qor_time_que_node_t *node = qor_time_que_node_create(9, 250, 64);
    const int64_t after = util_timestamp();
    char *body = static_cast<char *>(qor_time_que_node_body(node));

    EXPECT_EQ(std::count(body, body + 64, 0), 64);
    EXPECT_EQ(body, reinterpret_cast<char *>(node) + offsetof(qor_time_que_node_t, body));
    EXPECT_EQ(qor_time_que_node_type(body), node);
    EXPECT_EQ(qor_time_que_node_id(node), 9u);
    EXPECT_GE(node->when, before + 250);
    EXPECT_LE(node->when, after + 250);
    EXPECT_TRUE(unlinked(node));
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, ANodeOfNegativeSizeIsRefused)
{
    Output out;

    EXPECT_EQ(qor_time_que_node_create(1, 0, -1), nullptr);

    EXPECT_EQ(out.printed(),
              line("qor_time_que_node_create", "malloc \"qor_time_que_node_t\" failed."));
}

TEST(TimeQue, UpdateGivesANewIdAndDueTime)
{
    qor_time_que_node_t *node = new_time_node('a', 0);
    const int64_t before = util_timestamp();

    qor_time_que_node_update(node, 'b', 1000);

    EXPECT_GE(node->when, before + 1000);
    EXPECT_LE(node->when, util_timestamp() + 1000);
    EXPECT_EQ(free_and_name(node), "b");
}

TEST(TimeQue, UpdateDoesNotMoveAQueuedNode)
{
    TimeQue que;
    qor_time_que_node_t *node = new_time_node('a', 1000);
    qor_time_que_enque(que, node);
    arm(que, 'b', 2000);

    qor_time_que_node_update(node, 'a', far_off);

    EXPECT_EQ(order(que), "ab");
}

TEST(TimeQue, NodeDestroyRecyclesTheBody)
{
    recycled.clear();

    qor_time_que_node_destroy(new_time_node('a', 0), note_recycled);
    qor_time_que_node_destroy(new_time_node('b', 0), nullptr);

    EXPECT_EQ(recycled, "a");
}

TEST(TimeQue, NodesStandInTheOrderOfTheirDueTimes)
{
    TimeQue que;
    for (char name : std::string("dbeac")) {
        arm(que, name, far_off + (name - 'a') * 60000);
    }

    EXPECT_EQ(order(que), "abcde");
    EXPECT_EQ(que->count, 5);
}

TEST(TimeQue, EqualDueTimesComeOutFirstThenNewestFirst)
{
    TimeQue que;

    arm_at(que, "XYZ", util_timestamp());

    EXPECT_EQ(drain(que), "XZY");
}

TEST(TimeQue, EqualDueTimesKeepTheirRuleAmongOthers)
{
    TimeQue que;
    const int64_t now = util_timestamp();
    arm_at(que, "a", now + 1000);
    arm_at(que, "cd", now + 3000);
    arm_at(que, "1234", now + 2000);

    EXPECT_EQ(order(que), "a1432cd");
}

/* The plain rule: before the first later node, or behind the first equal one. */
TEST(TimeQue, AnyArrivalOrderGivesTheOrderOfTheRule)
{
    struct Entry {
        int64_t when;
        size_t id;
    };
    std::mt19937 random(4711);
    for (int round = 0; round < 50; round++) {
        TimeQue que;
        std::list<Entry> model;
        const int64_t base = util_timestamp() + far_off;
        for (size_t id = 0; id < 120; id++) {
            const int64_t when = base + static_cast<int64_t>(random() % (round + 1u));
            auto at = std::find_if(model.begin(), model.end(),
                                   [&](const Entry &e) { return e.when >= when; });
            model.insert(at != model.end() && at->when == when ? std::next(at) : at, {when, id});
            qor_time_que_node_t *node = qor_time_que_node_create(id, 0, 0);
            node->when = when;
            ASSERT_EQ(qor_time_que_enque(que, node), 0);
        }
        list_head *link = que->head.next;
        for (const Entry &entry : model) {
            ASSERT_EQ(reinterpret_cast<qor_time_que_node_t *>(link)->id, entry.id);
            link = link->next;
        }
        EXPECT_EQ(link, &que->head);
    }
}

/* A walk from the other end would take billions of steps. */
TEST(TimeQue, ArmingInDueOrderDoesNotWalkTheQueue)
{
    EXPECT_LT(seconds_to_arm_at_intervals_of(1), 5);
}

TEST(TimeQue, ArmingInReverseDueOrderDoesNotWalkTheQueue)
{
    EXPECT_LT(seconds_to_arm_at_intervals_of(-1), 5);
}

TEST(TimeQue, AnOverdueNodeIsHandedOutAtOnce)
{
    TimeQue que;
    arm(que, 'a', -20);

    EXPECT_EQ(free_and_name(qor_time_que_deque(que)), "a");
}

TEST(TimeQue, ABlockingTakeWithoutWaitTakesADueNode)
{
    TimeQue que;
    arm(que, 'a', 0); /* due in this very millisecond */

    EXPECT_EQ(free_and_name(qor_time_que_deque_block(que, 0)), "a");
}

TEST(TimeQue, ANodeThatIsNotDueStays)
{
    TimeQue que;
    arm(que, 'a', far_off);

    EXPECT_EQ(qor_time_que_deque(que), nullptr);
    EXPECT_EQ(qor_time_que_deque_block(que, 0), nullptr);

    EXPECT_EQ(que->count, 1);
}

TEST(TimeQue, AnEmptyQueueGivesNothing)
{
    TimeQue que;
    Output out;

    EXPECT_EQ(qor_time_que_deque(que), nullptr);
    EXPECT_EQ(qor_time_que_deque_block(que, 0), nullptr);
    EXPECT_EQ(out.printed(), "");
}

TEST(TimeQue, EveryTakeLowersTheCountAndClearsTheLinks)
{
    TimeQue que;
    arm(que, 'a', -3);
    arm(que, 'b', -2);
    arm(que, 'c', -1);
    qor_time_que_node_t *taken[] = {qor_time_que_deque(que), qor_time_que_deque_block(que, -1),
                                    qor_time_que_remove(que, 'c')};

    EXPECT_EQ(que->count, 0);
    for (qor_time_que_node_t *node : taken) {
        EXPECT_TRUE(unlinked(node));
        qor_time_que_node_destroy(node, nullptr);
    }
}

TEST(TimeQue, ABlockingTakeReturnsTheNodeWhenItIsDue)
{
    TimeQue que;
    qor_time_que_node_t *node = new_time_node('a', 50);
    qor_time_que_enque(que, node);

    EXPECT_EQ(qor_time_que_deque_block(que, 60000), node);

    const int64_t late = util_timestamp() - node->when;
    EXPECT_GE(late, 0);
    EXPECT_LT(late, too_late);
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, ABlockingTakeEndsOnTimeBeforeTheNodeIsDue)
{
    TimeQue que;
    arm(que, 'a', far_off);
    const int64_t start = util_timestamp();

    EXPECT_EQ(qor_time_que_deque_block(que, 20), nullptr);

    const int64_t passed = util_timestamp() - start;
    EXPECT_GE(passed, 20);
    EXPECT_LT(passed, too_late);
    EXPECT_EQ(que->count, 1);
}

TEST(TimeQue, ABlockingTakeFromAnEmptyQueueEndsOnTime)
{
    TimeQue que;
    const int64_t start = util_timestamp();

    EXPECT_EQ(qor_time_que_deque_block(que, 20), nullptr);

    EXPECT_GE(util_timestamp() - start, 20);
}

TEST(TimeQue, ABlockedTakerGetsTheNodeThatComes)
{
    TimeQue que;
    std::string name;
    Thread taker([&] { name = free_and_name(qor_time_que_deque_block(que, -1)); });

    arm(que, 'a', 20);

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(TimeQue, AnEarlierNodeOvertakesTheOneThatIsSleptFor)
{
    TimeQue que;
    arm(que, 'b', far_off);
    std::string name;
    Thread taker([&] { name = free_and_name(qor_time_que_deque_block(que, -1)); });

    arm(que, 'a', 20);

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(TimeQue, AFullQueueRefusesAtOnceAndSilently)
{
    TimeQue que(2);
    arm(que, 'a', 0);
    arm(que, 'b', 0);
    qor_time_que_node_t *node = new_time_node('c', 0);
    Output out;

    EXPECT_EQ(qor_time_que_enque(que, node), -1);
    EXPECT_EQ(qor_time_que_enque_block(que, node, 0), -1);

    EXPECT_EQ(que->count, 2);
    EXPECT_TRUE(unlinked(node));
    EXPECT_EQ(out.printed(), "");
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, CapacityZeroAcceptsNothing)
{
    TimeQue que(0);
    qor_time_que_node_t *node = new_time_node('a', 0);

    EXPECT_EQ(qor_time_que_enque(que, node), -1);

    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, AWaitForRoomEndsOnTime)
{
    TimeQue que(0);
    qor_time_que_node_t *node = new_time_node('a', 0);
    const int64_t start = util_timestamp();

    EXPECT_EQ(qor_time_que_enque_block(que, node, 30), -1);

    EXPECT_GE(util_timestamp() - start, 30);
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, ABlockedGiverGetsTheRoomOfATake)
{
    TimeQue que(1);
    arm(que, 'a', 0);
    Thread giver(
        [&] { EXPECT_EQ(qor_time_que_enque_block(que, new_time_node('b', 0), 60000), 0); });

    EXPECT_EQ(free_and_name(qor_time_que_deque(que)), "a");

    giver.join();
    EXPECT_EQ(free_and_name(qor_time_que_deque(que)), "b");
}

TEST(TimeQue, ABlockedGiverGetsTheRoomOfARemove)
{
    TimeQue que(1);
    arm(que, 'a', far_off);
    Thread giver([&] { EXPECT_EQ(qor_time_que_enque_block(que, new_time_node('b', 0), -1), 0); });

    EXPECT_EQ(free_and_name(qor_time_que_remove(que, 'a')), "a");

    giver.join();
}

TEST(TimeQue, RemoveTakesTheEarliestNodeWithTheId)
{
    TimeQue que;
    const int64_t now = util_timestamp();
    qor_time_que_node_t *late = node_due_at('a', now + 2000);
    qor_time_que_enque(que, late);
    arm_at(que, "b", now + 1500);
    arm_at(que, "a", now + 1000);

    qor_time_que_node_t *removed = qor_time_que_remove(que, 'a');

    EXPECT_NE(removed, late);
    EXPECT_EQ(free_and_name(removed), "a");
    EXPECT_EQ(order(que), "ba");
    EXPECT_EQ(que->count, 2);
}

TEST(TimeQue, RemoveOfAnUnknownIdIsSilentlyNull)
{
    TimeQue que;
    arm(que, 'a', 0);
    Output out;

    EXPECT_EQ(qor_time_que_remove(que, 'b'), nullptr);

    EXPECT_EQ(out.printed(), "");
    EXPECT_EQ(que->count, 1);
}

TEST(TimeQue, EarlyNeverChangesADueTime)
{
    TimeQue que;
    qor_time_que_node_t *node = new_time_node('b', far_off);
    const int64_t when = node->when;
    arm(que, 'a', 1000);
    qor_time_que_enque(que, node);

    EXPECT_EQ(qor_time_que_early(que, 'b', 0), 0);

    EXPECT_EQ(node->when, when);
    EXPECT_EQ(order(que), "ab");
    EXPECT_EQ(que->count, 2);
}

TEST(TimeQue, EarlyReordersAmongEqualDueTimes)
{
    TimeQue que;
    arm_at(que, "XYZ", util_timestamp() + far_off);
    ASSERT_EQ(order(que), "XZY");

    EXPECT_EQ(qor_time_que_early(que, 'Y', 0), 0);
    EXPECT_EQ(order(que), "XYZ");
    EXPECT_EQ(qor_time_que_early(que, 'X', 0), 0);
    EXPECT_EQ(order(que), "YXZ");
}

TEST(TimeQue, EarlyMovesTheFirstNodeOnly)
{
    TimeQue que;
    arm_at(que, "xaba", util_timestamp() + far_off);
    ASSERT_EQ(order(que), "xaba");

    EXPECT_EQ(qor_time_que_early(que, 'a', 0), 0); /* goes directly behind x, where it was */

    EXPECT_EQ(order(que), "xaba");
}

TEST(TimeQue, EarlySkipsNodesThatAreDueSoonEnough)
{
    TimeQue que;
    const int64_t late = util_timestamp() + far_off;
    arm(que, 'a', 1000);
    arm_at(que, "xya", late);
    ASSERT_EQ(order(que), "axay");

    EXPECT_EQ(qor_time_que_early(que, 'a', 60000), 0);

    EXPECT_EQ(order(que), "axay"); /* taken out behind x and put there again */
    EXPECT_EQ(que->count, 4);
}

TEST(TimeQue, EarlyWithNothingDueLaterLeavesTheQueueAlone)
{
    TimeQue que;
    arm_at(que, "XYZ", util_timestamp() + 1000);

    EXPECT_EQ(qor_time_que_early(que, 'Y', far_off), 0);

    EXPECT_EQ(order(que), "XZY");
    EXPECT_EQ(que->count, 3);
}

TEST(TimeQue, EarlyWithoutTheIdFailsSilently)
{
    TimeQue que;
    Output out;
    EXPECT_EQ(qor_time_que_early(que, 'a', 0), -1);
    arm(que, 'b', far_off);

    EXPECT_EQ(qor_time_que_early(que, 'a', 0), -1);

    EXPECT_EQ(out.printed(), "");
}

TEST(TimeQue, NextDelayCountsDownToTheEarliestNode)
{
    TimeQue que;
    arm(que, 'b', far_off);
    arm(que, 'a', 60000);
    int32_t delay = 0;

    EXPECT_EQ(qor_time_que_next_delay(que, &delay), 0);

    EXPECT_LE(delay, 60000);
    EXPECT_GT(delay, 60000 - too_late);
}

TEST(TimeQue, NextDelayOfAnOverdueNodeIsNegative)
{
    TimeQue que;
    arm(que, 'a', -20);
    int32_t delay = 0;

    EXPECT_EQ(qor_time_que_next_delay(que, &delay), 0);

    EXPECT_LE(delay, -20);
    EXPECT_GT(delay, -too_late);
}

TEST(TimeQue, NextDelayOfAnEmptyQueueFailsSilently)
{
    TimeQue que;
    Output out;
    int32_t delay = 4711;

    EXPECT_EQ(qor_time_que_next_delay(que, &delay), -1);

    EXPECT_EQ(delay, 4711);
    EXPECT_EQ(out.printed(), "");
}

TEST(TimeQue, NextDelayReportsANullResult)
{
    TimeQue que;
    Output out;

    EXPECT_EQ(qor_time_que_next_delay(que, nullptr), -1);

    EXPECT_EQ(out.printed(), line("qor_time_que_next_delay_locked", "!(delay) == true."));
}

TEST(TimeQue, QuitRecyclesEachNodeOnceEarliestFirst)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, note_recycled);
    arm(que, 'b', far_off);
    arm(que, 'c', far_off + 1000);
    arm(que, 'a', -5);

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, "abc");
    EXPECT_EQ(que->quitting, 1);
    EXPECT_EQ(que->count, 0);
    EXPECT_TRUE(list_empty(&que->head));
}

TEST(TimeQue, QuitWithoutRecycleFreesTheNodes)
{
    TimeQue que;
    arm(que, 'a', 0);

    qor_time_que_quit(que);

    EXPECT_TRUE(list_empty(&que->head));
}

TEST(TimeQue, ASecondQuitDoesNothing)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, note_recycled);
    arm(que, 'a', 0);
    qor_time_que_quit(que);
    Output out;

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, "a");
    EXPECT_EQ(out.printed(), "");
}

TEST(TimeQue, DestroyRecyclesWhatIsLeft)
{
    recycled.clear();
    {
        TimeQue que(UINT32_MAX, note_recycled);
        arm(que, 'a', 0);
    }
    EXPECT_EQ(recycled, "a");
}

TEST(TimeQue, AQuittingQueueRefusesSilently)
{
    TimeQue que;
    qor_time_que_quit(que);
    qor_time_que_node_t *node = new_time_node('a', 0);
    Output out;

    EXPECT_EQ(qor_time_que_enque(que, node), -1);
    EXPECT_EQ(qor_time_que_enque_block(que, node, -1), -1);
    EXPECT_EQ(qor_time_que_deque(que), nullptr);
    EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr);

    EXPECT_EQ(out.printed(), "");
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQue, AQuittingQueueReportsRemoveEarlyAndNextDelay)
{
    TimeQue que;
    qor_time_que_quit(que);
    Output out;

    EXPECT_EQ(qor_time_que_remove(que, 'a'), nullptr);
    EXPECT_EQ(qor_time_que_early(que, 'a', 0), -1);
    EXPECT_EQ(qor_time_que_next_delay(que, nullptr), -1);

    EXPECT_EQ(out.printed(), line("qor_time_que_remove_locked", quits) +
                                 line("qor_time_que_early_locked", quits) +
                                 line("qor_time_que_next_delay_locked", quits));
}

TEST(TimeQue, QuittingHandsOutNothing)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        EXPECT_EQ(qor_time_que_deque(quitting_que), nullptr);
        EXPECT_EQ(qor_time_que_deque_block(quitting_que, -1), nullptr);
    });
    quitting_que = que;
    arm(que, 'a', -2);
    arm(que, 'b', -1);

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, "ab");
}

TEST(TimeQue, TheCountStaysUntilQuitHasDiscardedAll)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        EXPECT_TRUE(unlinked(qor_time_que_node_type(body)));
        EXPECT_EQ(quitting_que->count, 2);
    });
    quitting_que = que;
    arm(que, 'a', -2);
    arm(que, 'b', -1);

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, "ab");
    EXPECT_EQ(que->count, 0);
}

TEST(TimeQue, AQuitFromARecycleDoesNothing)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        qor_time_que_quit(quitting_que);
        EXPECT_EQ(quitting_que->count, 2);
    });
    quitting_que = que;
    arm(que, 'a', -2);
    arm(que, 'b', -1);

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, "ab");
}

TEST(TimeQue, QuitReleasesABlockedTaker)
{
    TimeQue que;
    arm(que, 'a', far_off);
    Thread taker([&] { EXPECT_EQ(qor_time_que_deque_block(que, -1), nullptr); });

    qor_time_que_quit(que);

    taker.join();
}

using TimeQueChange = Change<qor_time_que_t>;

class TimeQueChanges : public testing::TestWithParam<TimeQueChange> {};

TEST_P(TimeQueChanges, EndAWaitForAChange)
{
    TimeQue que(4);
    arm(que, 'a', -1);
    arm(que, 'b', far_off);
    ChangeWaiter<qor_time_que_t> waiter(que);

    GetParam().make(que);

    EXPECT_TRUE(waiter.wakes());
}

INSTANTIATE_TEST_SUITE_P(
    TimeQue, TimeQueChanges,
    testing::Values(
        TimeQueChange{"enque", [](qor_time_que_t *que) { arm(que, 'c', far_off); }},
        TimeQueChange{"enque_block",
                      [](qor_time_que_t *que) {
                          EXPECT_EQ(qor_time_que_enque_block(que, new_time_node('c', far_off), -1),
                                    0);
                      }},
        TimeQueChange{
            "deque",
            [](qor_time_que_t *que) { EXPECT_EQ(free_and_name(qor_time_que_deque(que)), "a"); }},
        TimeQueChange{"deque_block",
                      [](qor_time_que_t *que) {
                          EXPECT_EQ(free_and_name(qor_time_que_deque_block(que, -1)), "a");
                      }},
        TimeQueChange{"remove",
                      [](qor_time_que_t *que) {
                          EXPECT_EQ(free_and_name(qor_time_que_remove(que, 'b')), "b");
                      }},
        TimeQueChange{"early",
                      [](qor_time_que_t *que) { EXPECT_EQ(qor_time_que_early(que, 'b', 0), 0); }},
        TimeQueChange{"quit", qor_time_que_quit},
        TimeQueChange{"wakeup_locked",
                      [](qor_time_que_t *que) {
                          qor_time_que_lock(que);
                          qor_time_que_wakeup_locked(que);
                          qor_time_que_unlock(que);
                      }}),
    case_name<TimeQueChange>);

TEST(TimeQue, StepsCombineUnderOneLock)
{
    TimeQue que;
    int32_t delay = 0;

    qor_time_que_lock(que);
    EXPECT_EQ(qor_time_que_enque_locked(que, new_time_node('a', -1)), 0);
    EXPECT_EQ(qor_time_que_enque_block_locked(que, new_time_node('b', 60000), -1), 0);
    EXPECT_EQ(free_and_name(qor_time_que_deque_block_locked(que, -1)), "a");
    EXPECT_EQ(qor_time_que_early_locked(que, 'b', 0), 0);
    EXPECT_EQ(qor_time_que_next_delay_locked(que, &delay), 0);
    EXPECT_EQ(qor_time_que_deque_locked(que), nullptr);
    EXPECT_EQ(free_and_name(qor_time_que_remove_locked(que, 'b')), "b");
    qor_time_que_unlock(que);
}

class TimeQueNull : public testing::TestWithParam<NullCase> {};

TEST_P(TimeQueNull, EachStepReportsIt)
{
    expect_null_lines("qor_time_que", GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    All, TimeQueNull,
    testing::Values(
        NullCase{"destroy", [] { qor_time_que_destroy(nullptr); }, {"destroy"}},
        NullCase{"quit", [] { qor_time_que_quit(nullptr); }, {"quit"}},
        NullCase{"lock", [] { qor_time_que_lock(nullptr); }, {"lock"}},
        NullCase{"unlock", [] { qor_time_que_unlock(nullptr); }, {"unlock"}},
        NullCase{"wait_locked", [] { qor_time_que_wait_locked(nullptr); }, {"wait_locked"}},
        NullCase{"wakeup_locked", [] { qor_time_que_wakeup_locked(nullptr); }, {"wakeup_locked"}},
        NullCase{"enque_locked",
                 [] { EXPECT_EQ(qor_time_que_enque_locked(nullptr, nullptr), -1); },
                 {"enque_locked"}},
        NullCase{"enque",
                 [] { EXPECT_EQ(qor_time_que_enque(nullptr, nullptr), -1); },
                 {"lock", "enque_locked", "unlock"}},
        NullCase{"enque_block_locked",
                 [] { EXPECT_EQ(qor_time_que_enque_block_locked(nullptr, nullptr, 0), -1); },
                 {"enque_block_locked"}},
        NullCase{"enque_block",
                 [] { EXPECT_EQ(qor_time_que_enque_block(nullptr, nullptr, 0), -1); },
                 {"lock", "enque_block_locked", "unlock"}},
        NullCase{"deque_locked",
                 [] { EXPECT_EQ(qor_time_que_deque_locked(nullptr), nullptr); },
                 {"deque_locked"}},
        NullCase{"deque",
                 [] { EXPECT_EQ(qor_time_que_deque(nullptr), nullptr); },
                 {"lock", "deque_locked", "unlock"}},
        NullCase{"deque_block_locked",
                 [] { EXPECT_EQ(qor_time_que_deque_block_locked(nullptr, 0), nullptr); },
                 {"deque_block_locked"}},
        NullCase{"deque_block",
                 [] { EXPECT_EQ(qor_time_que_deque_block(nullptr, 0), nullptr); },
                 {"lock", "deque_block_locked", "unlock"}},
        NullCase{"remove_locked",
                 [] { EXPECT_EQ(qor_time_que_remove_locked(nullptr, 1), nullptr); },
                 {"remove_locked"}},
        NullCase{"remove",
                 [] { EXPECT_EQ(qor_time_que_remove(nullptr, 1), nullptr); },
                 {"lock", "remove_locked", "unlock"}},
        NullCase{"early_locked",
                 [] { EXPECT_EQ(qor_time_que_early_locked(nullptr, 1, 0), -1); },
                 {"early_locked"}},
        NullCase{"early",
                 [] { EXPECT_EQ(qor_time_que_early(nullptr, 1, 0), -1); },
                 {"lock", "early_locked", "unlock"}},
        NullCase{"next_delay_locked",
                 [] { EXPECT_EQ(qor_time_que_next_delay_locked(nullptr, nullptr), -1); },
                 {"next_delay_locked"}},
        NullCase{"next_delay",
                 [] { EXPECT_EQ(qor_time_que_next_delay(nullptr, nullptr), -1); },
                 {"lock", "next_delay_locked", "unlock"}}),
    case_name<NullCase>);

TEST(TimeQue, ANullNodeIsReportedBeforeAFullOrAQuittingQueue)
{
    TimeQue que(0);
    Output out;
    const std::string lines = line("qor_time_que_enque_locked", "!(new_node) == true.") +
                              line("qor_time_que_enque_block_locked", "!(new_node) == true.");

    EXPECT_EQ(qor_time_que_enque(que, nullptr), -1);
    EXPECT_EQ(qor_time_que_enque_block(que, nullptr, -1), -1);
    EXPECT_EQ(out.printed(), lines);

    qor_time_que_quit(que);
    EXPECT_EQ(qor_time_que_enque(que, nullptr), -1);
    EXPECT_EQ(qor_time_que_enque_block(que, nullptr, -1), -1);
    EXPECT_EQ(out.printed(), lines + lines);
}

TEST(TimeQue, DestroyingANullNodeIsReported)
{
    recycled.clear();
    Output out;

    qor_time_que_node_destroy(nullptr, note_recycled);

    EXPECT_EQ(out.printed(), line("qor_time_que_node_destroy", "!(node) == true."));
    EXPECT_EQ(recycled, "");
}

TEST(TimeQue, ANodeThatIsDueInMonthsDoesNotKeepATakerFromAnother)
{
    TimeQue que;
    qor_time_que_node_t *far = qor_time_que_node_create(1, 0, 0);
    far->when += int64_t{100} * 24 * 60 * 60 * 1000;
    ASSERT_EQ(qor_time_que_enque(que, far), 0);
    std::atomic<qor_time_que_node_t *> taken{nullptr};
    Sleeper sleeper;
    Thread taker([&] {
        sleeper.here();
        taken = qor_time_que_deque_block(que, -1);
    });
    EXPECT_TRUE(await([&] { return sleeper.sleeps(); }));
    qor_time_que_node_t *due = qor_time_que_node_create(2, 0, 0);

    EXPECT_EQ(qor_time_que_enque(que, due), 0);

    taker.join();
    EXPECT_EQ(taken, due);
    qor_time_que_node_destroy(due, nullptr);
}

TEST(TimeQue, WhoGivesUpLeavesTheOtherTakersWakeAlone)
{
    TimeQue que;
    std::string name;
    ThreadCall taker([&] {
        name = free_and_name(qor_time_que_deque_block(que, -1));
        return int32_t{0};
    });
    ASSERT_TRUE(taker.waits());
    EXPECT_EQ(qor_time_que_deque_block(que, 10), nullptr);

    EXPECT_EQ(qor_time_que_enque(que, new_time_node('a', 0)), 0);

    EXPECT_EQ(taker.get(), 0);
    EXPECT_EQ(name, "a");
}
