/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_que.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "output.hpp"
#include "que_holder.hpp"
#include "thread.hpp"

namespace {

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_que", function, text);
}

/* Empties a queue by blocking takes without a wait. */
std::string drain(qor_que_t *que)
{
    std::string names;
    qor_que_lock(que);
    while (qor_que_node_t *node = qor_que_deque_block_locked(que, 0)) {
        names += free_and_name(node);
    }
    qor_que_unlock(que);
    return names;
}

void fill(qor_que_t *que, const std::string &names)
{
    for (char name : names) {
        ASSERT_EQ(qor_que_enque(que, new_node(name)), 0);
    }
}

qor_que_t *quitting_que = nullptr; /* for recycle functions that look at their queue */

} // namespace

TEST(Que, CreationFillsTheRecord)
{
    Que que(7, note_recycled);

    EXPECT_TRUE(list_empty(&que->head));
    EXPECT_EQ(que->quitting, 0);
    EXPECT_EQ(que->max_count, 7u);
    EXPECT_EQ(que->count, 0);
    EXPECT_EQ(que->refer_count, 0);
    EXPECT_EQ(que->recycle, note_recycled);
}

/* A monotonic moment is long past by that clock. */
TEST(Que, TheConditionMeasuresByTheWallClock)
{
    Que que;
    struct timespec until;
    util_timespec(util_timestamp() + far_off, &until);

    EXPECT_TRUE(times_out<qor_que_t>(que, until)); /* would else take an hour */
}

TEST(Que, TheReservedFieldIsLeftAlone)
{
    Que que(4);
    que->refer_count = 4711;
    fill(que, "abc");
    free_and_name(qor_que_deque(que));
    free_and_name(qor_que_deque_block(que, -1));
    free_and_name(qor_que_remove(que, 'c'));

    qor_que_quit(que);

    EXPECT_EQ(que->refer_count, 4711);
}

TEST(Que, ANodesBodyIsZeroAndFollowsItsHeader)
{
    qor_que_node_t *node = qor_que_node_create(9, 64);
    char *body = static_cast<char *>(qor_que_node_body(node));

    EXPECT_EQ(std::count(body, body + 64, 0), 64);
    EXPECT_EQ(body, reinterpret_cast<char *>(node) + offsetof(qor_que_node_t, body));
    EXPECT_EQ(qor_que_node_type(body), node);
    EXPECT_EQ(qor_que_node_id(node), 9u);
    EXPECT_TRUE(unlinked(node));
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, ANodeOfNegativeSizeIsRefused)
{
    Output out;

    EXPECT_EQ(qor_que_node_create(1, -1), nullptr);

    EXPECT_EQ(out.printed(), line("qor_que_node_create", "malloc \"qor_que_node_t\" failed."));
}

TEST(Que, ANodeWithoutBodyIsPossible)
{
    qor_que_node_t *node = qor_que_node_create(1, 0);
    EXPECT_NE(node, nullptr);
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, NodeDestroyRecyclesTheBody)
{
    recycled.clear();

    qor_que_node_destroy(new_node('a'), note_recycled);

    EXPECT_EQ(recycled, "a");
}

TEST(Que, NodeDestroyWithoutRecycleOnlyFrees)
{
    recycled.clear();
    Que que(1, note_recycled);

    qor_que_node_destroy(new_node('a'), nullptr);

    EXPECT_EQ(recycled, "");
}

TEST(Que, NodesComeOutInTheOrderOfArrival)
{
    Que que;
    fill(que, "abc");

    std::string names = free_and_name(qor_que_deque(que));
    names += free_and_name(qor_que_deque_block(que, -1));
    names += free_and_name(qor_que_deque_block(que, 50));

    EXPECT_EQ(names, "abc");
}

TEST(Que, AnEmptyQueueGivesNothing)
{
    Que que;
    Output out;

    EXPECT_EQ(qor_que_deque(que), nullptr);
    EXPECT_EQ(qor_que_deque_block(que, 0), nullptr);
    EXPECT_EQ(drain(que), "");
    EXPECT_EQ(out.printed(), "");
}

TEST(Que, ATakenNodeHasNullLinks)
{
    Que que;
    fill(que, "abc");
    qor_que_node_t *taken[] = {qor_que_deque(que), qor_que_deque_block(que, -1),
                               qor_que_remove(que, 'c')};

    for (qor_que_node_t *node : taken) {
        EXPECT_TRUE(unlinked(node));
        qor_que_node_destroy(node, nullptr);
    }
    EXPECT_TRUE(list_empty(&que->head));
}

TEST(Que, NonBlockingTakeLeavesTheCount)
{
    Que que;
    fill(que, "a");

    EXPECT_EQ(free_and_name(qor_que_deque(que)), "a");

    EXPECT_EQ(qor_que_count(que), 1);
}

TEST(Que, BlockingTakeWithoutWaitLeavesTheCount)
{
    Que que;
    fill(que, "a");

    EXPECT_EQ(free_and_name(qor_que_deque_block(que, 0)), "a");

    EXPECT_EQ(qor_que_count(que), 1);
}

TEST(Que, BlockingTakeLowersTheCount)
{
    Que que;
    fill(que, "abc");

    free_and_name(qor_que_deque_block(que, -1));
    EXPECT_EQ(qor_que_count(que), 2);
    free_and_name(qor_que_deque_block(que, 1));
    EXPECT_EQ(qor_que_count(que), 1);
    EXPECT_EQ(drain(que), "c");
    EXPECT_EQ(qor_que_count(que), 0);
}

TEST(Que, NonBlockingTakesFillABoundedQueueUp)
{
    Que que(2);
    fill(que, "a");
    free_and_name(qor_que_deque(que));
    fill(que, "b");
    free_and_name(qor_que_deque(que));
    qor_que_node_t *node = new_node('c');

    EXPECT_EQ(qor_que_enque(que, node), -1);

    EXPECT_TRUE(list_empty(&que->head));
    EXPECT_EQ(qor_que_count(que), 2);
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, AFullQueueRefusesAtOnceAndSilently)
{
    Que que(2);
    fill(que, "ab");
    qor_que_node_t *node = new_node('c');
    Output out;

    EXPECT_EQ(qor_que_enque(que, node), -1);
    EXPECT_EQ(qor_que_enque_block(que, node, 0), -1);
    qor_que_lock(que);
    EXPECT_EQ(qor_que_enque_block_locked(que, node, 0), -1);
    qor_que_unlock(que);

    EXPECT_EQ(qor_que_count(que), 2);
    EXPECT_TRUE(unlinked(node));
    EXPECT_EQ(out.printed(), "");
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, CapacityZeroAcceptsNothing)
{
    Que que(0);
    qor_que_node_t *node = new_node('a');

    EXPECT_EQ(qor_que_enque(que, node), -1);

    qor_que_node_destroy(node, nullptr);
}

TEST(Que, AWaitForANodeEndsOnTime)
{
    Que que;
    const int64_t start = util_timestamp();

    EXPECT_EQ(qor_que_deque_block(que, 50), nullptr);

    const int64_t passed = util_timestamp() - start;
    EXPECT_GE(passed, 50);
    EXPECT_LT(passed, too_late);
}

TEST(Que, AWaitForRoomEndsOnTime)
{
    Que que(1);
    fill(que, "a");
    qor_que_node_t *node = new_node('b');
    const int64_t start = util_timestamp();

    EXPECT_EQ(qor_que_enque_block(que, node, 50), -1);

    const int64_t passed = util_timestamp() - start;
    EXPECT_GE(passed, 50);
    EXPECT_LT(passed, too_late);
    EXPECT_TRUE(unlinked(node));
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, ABlockedTakerGetsTheNodeThatComes)
{
    Que que;
    std::string name;
    Thread taker([&] { name = free_and_name(qor_que_deque_block(que, -1)); });

    fill(que, "a");

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(Que, ATakerWithALimitGetsTheNodeThatComes)
{
    Que que;
    std::string name;
    Thread taker([&] { name = free_and_name(qor_que_deque_block(que, 60000)); });

    fill(que, "a");

    taker.join();
    EXPECT_EQ(name, "a");
}

TEST(Que, ABlockedGiverGetsTheRoomOfABlockingTake)
{
    Que que(1);
    fill(que, "a");
    Thread giver([&] { EXPECT_EQ(qor_que_enque_block(que, new_node('b'), -1), 0); });

    EXPECT_EQ(free_and_name(qor_que_deque_block(que, -1)), "a");
    EXPECT_EQ(free_and_name(qor_que_deque_block(que, -1)), "b");

    giver.join();
}

TEST(Que, ABlockedGiverGetsTheRoomOfARemove)
{
    Que que(1);
    fill(que, "a");
    Thread giver([&] { EXPECT_EQ(qor_que_enque_block(que, new_node('b'), 60000), 0); });

    EXPECT_EQ(free_and_name(qor_que_remove(que, 'a')), "a");

    giver.join();
    EXPECT_EQ(drain(que), "b");
}

TEST(Que, RemoveTakesTheFirstNodeWithTheId)
{
    Que que;
    fill(que, "xay");
    qor_que_node_t *second = new_node('a');
    qor_que_enque(que, second);

    qor_que_node_t *removed = qor_que_remove(que, 'a');

    EXPECT_NE(removed, second);
    EXPECT_EQ(free_and_name(removed), "a");
    EXPECT_EQ(qor_que_count(que), 3);
    EXPECT_EQ(drain(que), "xya");
}

TEST(Que, FailedRemoveReturnsTheQueuesOwnAddress)
{
    Que que;
    Output out;
    EXPECT_EQ(static_cast<void *>(qor_que_remove(que, 1)), static_cast<void *>(que));
    fill(que, "a");

    EXPECT_EQ(static_cast<void *>(qor_que_remove(que, 'b')), static_cast<void *>(que));

    EXPECT_EQ(qor_que_count(que), 1);
    EXPECT_EQ(out.printed(), "");
}

TEST(Que, QuitRecyclesEachNodeInOrder)
{
    recycled.clear();
    Que que(UINT32_MAX, note_recycled);
    fill(que, "abc");

    qor_que_quit(que);

    EXPECT_EQ(recycled, "abc");
    EXPECT_EQ(qor_que_count(que), 0);
    EXPECT_EQ(que->quitting, 1);
    EXPECT_TRUE(list_empty(&que->head));
}

TEST(Que, QuitResetsACountThatDrifted)
{
    Que que;
    fill(que, "ab");
    free_and_name(qor_que_deque(que));

    qor_que_quit(que);

    EXPECT_EQ(qor_que_count(que), 0);
}

TEST(Que, QuitWithoutRecycleFreesTheNodes)
{
    Que que;
    fill(que, "abc");

    qor_que_quit(que);

    EXPECT_TRUE(list_empty(&que->head));
}

TEST(Que, AQuittingQueueRefusesSilently)
{
    Que que;
    qor_que_quit(que);
    qor_que_node_t *node = new_node('a');
    Output out;

    EXPECT_EQ(qor_que_enque(que, node), -1);
    EXPECT_EQ(qor_que_enque_block(que, node, -1), -1);
    EXPECT_EQ(qor_que_deque(que), nullptr);
    EXPECT_EQ(qor_que_deque_block(que, -1), nullptr);
    EXPECT_EQ(static_cast<void *>(qor_que_remove(que, 'a')), static_cast<void *>(que));

    EXPECT_EQ(out.printed(), "");
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, ASecondQuitDoesNothing)
{
    recycled.clear();
    Que que(UINT32_MAX, note_recycled);
    fill(que, "a");
    qor_que_quit(que);
    Output out;

    qor_que_quit(que);

    EXPECT_EQ(recycled, "a");
    EXPECT_EQ(out.printed(), "");
}

TEST(Que, QuittingHandsOutNothing)
{
    recycled.clear();
    Que que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        EXPECT_EQ(qor_que_deque(quitting_que), nullptr);
        EXPECT_EQ(qor_que_deque_block(quitting_que, -1), nullptr);
    });
    quitting_que = que;
    fill(que, "abc");

    qor_que_quit(que);

    EXPECT_EQ(recycled, "abc");
}

TEST(Que, TheCountStaysUntilQuitHasDiscardedAll)
{
    recycled.clear();
    Que que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        EXPECT_TRUE(unlinked(qor_que_node_type(body)));
        EXPECT_EQ(qor_que_count(quitting_que), 3);
    });
    quitting_que = que;
    fill(que, "abc");

    qor_que_quit(que);

    EXPECT_EQ(recycled, "abc");
    EXPECT_EQ(qor_que_count(que), 0);
}

TEST(Que, AQuitFromARecycleDoesNothing)
{
    recycled.clear();
    Que que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        qor_que_quit(quitting_que);
        EXPECT_EQ(qor_que_count(quitting_que), 2);
    });
    quitting_que = que;
    fill(que, "ab");

    qor_que_quit(que);

    EXPECT_EQ(recycled, "ab");
}

TEST(Que, ARemoveDuringQuitTakesANodeThatIsLeft)
{
    recycled.clear();
    Que que(UINT32_MAX, [](void *body) {
        note_recycled(body);
        if (*static_cast<char *>(body) == 'a') {
            EXPECT_EQ(free_and_name(qor_que_remove(quitting_que, 'b')), "b");
        }
    });
    quitting_que = que;
    fill(que, "abc");

    qor_que_quit(que);

    EXPECT_EQ(recycled, "ac");
    EXPECT_EQ(qor_que_count(que), 0);
}

TEST(Que, DestroyRecyclesWhatIsLeft)
{
    recycled.clear();
    {
        Que que(UINT32_MAX, note_recycled);
        fill(que, "ab");
    }
    EXPECT_EQ(recycled, "ab");
}

TEST(Que, QuitReleasesABlockedTaker)
{
    Que que;
    qor_que_node_t *node = new_node('a');
    qor_que_node_t *taken = node;
    Thread taker([&] { taken = qor_que_deque_block(que, -1); });

    qor_que_quit(que);

    taker.join();
    EXPECT_EQ(taken, nullptr);
    qor_que_node_destroy(node, nullptr);
}

TEST(Que, QuitReleasesABlockedGiver)
{
    recycled.clear();
    Que que(1, note_recycled);
    fill(que, "a");
    qor_que_node_t *node = new_node('b');
    Thread giver([&] { EXPECT_EQ(qor_que_enque_block(que, node, -1), -1); });

    qor_que_quit(que);

    giver.join();
    EXPECT_EQ(recycled, "a");
    qor_que_node_destroy(node, note_recycled);
}

using QueChange = Change<qor_que_t>;

class QueChanges : public testing::TestWithParam<QueChange> {};

TEST_P(QueChanges, EndAWaitForAChange)
{
    Que que(4);
    fill(que, "ab");
    ChangeWaiter<qor_que_t> waiter(que);

    GetParam().make(que);

    EXPECT_TRUE(waiter.wakes());
}

INSTANTIATE_TEST_SUITE_P(
    Que, QueChanges,
    testing::Values(
        QueChange{"enque", [](qor_que_t *que) { fill(que, "c"); }},
        QueChange{
            "enque_block",
            [](qor_que_t *que) { EXPECT_EQ(qor_que_enque_block(que, new_node('c'), -1), 0); }},
        QueChange{"deque",
                  [](qor_que_t *que) { EXPECT_EQ(free_and_name(qor_que_deque(que)), "a"); }},
        QueChange{
            "deque_block",
            [](qor_que_t *que) { EXPECT_EQ(free_and_name(qor_que_deque_block(que, -1)), "a"); }},
        QueChange{"remove",
                  [](qor_que_t *que) { EXPECT_EQ(free_and_name(qor_que_remove(que, 'b')), "b"); }},
        QueChange{"quit", qor_que_quit},
        QueChange{"wakeup_locked",
                  [](qor_que_t *que) {
                      qor_que_lock(que);
                      qor_que_wakeup_locked(que);
                      qor_que_unlock(que);
                  }}),
    case_name<QueChange>);

TEST(Que, StepsCombineUnderOneLock)
{
    Que que;

    qor_que_lock(que);
    EXPECT_EQ(qor_que_enque_locked(que, new_node('a')), 0);
    EXPECT_EQ(qor_que_enque_block_locked(que, new_node('b'), -1), 0);
    EXPECT_EQ(free_and_name(qor_que_remove_locked(que, 'b')), "b");
    EXPECT_EQ(qor_que_count(que), 1);
    EXPECT_EQ(free_and_name(qor_que_deque_locked(que)), "a");
    qor_que_unlock(que);
}

class QueNull : public testing::TestWithParam<NullCase> {};

TEST_P(QueNull, EachStepReportsIt)
{
    expect_null_lines("qor_que", GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    All, QueNull,
    testing::Values(NullCase{"destroy", [] { qor_que_destroy(nullptr); }, {"destroy"}},
                    NullCase{"lock", [] { qor_que_lock(nullptr); }, {"lock"}},
                    NullCase{"unlock", [] { qor_que_unlock(nullptr); }, {"unlock"}},
                    NullCase{"wait_locked", [] { qor_que_wait_locked(nullptr); }, {"wait_locked"}},
                    NullCase{
                        "wakeup_locked", [] { qor_que_wakeup_locked(nullptr); }, {"wakeup_locked"}},
                    NullCase{"enque_locked",
                             [] { EXPECT_EQ(qor_que_enque_locked(nullptr, nullptr), -1); },
                             {"enque_locked"}},
                    NullCase{"enque",
                             [] { EXPECT_EQ(qor_que_enque(nullptr, nullptr), -1); },
                             {"lock", "enque_locked", "unlock"}},
                    NullCase{"deque_locked",
                             [] { EXPECT_EQ(qor_que_deque_locked(nullptr), nullptr); },
                             {"deque_locked"}},
                    NullCase{"deque",
                             [] { EXPECT_EQ(qor_que_deque(nullptr), nullptr); },
                             {"lock", "deque_locked", "unlock"}},
                    NullCase{"enque_block_locked",
                             [] { EXPECT_EQ(qor_que_enque_block_locked(nullptr, nullptr, 0), -1); },
                             {"enque_block_locked"}},
                    NullCase{"enque_block",
                             [] { EXPECT_EQ(qor_que_enque_block(nullptr, nullptr, -1), -1); },
                             {"lock", "enque_block_locked", "unlock"}},
                    NullCase{"enque_block_without_wait",
                             [] { EXPECT_EQ(qor_que_enque_block(nullptr, nullptr, 0), -1); },
                             {"lock", "enque_locked", "unlock"}},
                    NullCase{"deque_block_locked",
                             [] { EXPECT_EQ(qor_que_deque_block_locked(nullptr, 0), nullptr); },
                             {"deque_block_locked"}},
                    NullCase{"deque_block",
                             [] { EXPECT_EQ(qor_que_deque_block(nullptr, -1), nullptr); },
                             {"lock", "deque_block_locked", "unlock"}},
                    NullCase{"deque_block_without_wait",
                             [] { EXPECT_EQ(qor_que_deque_block(nullptr, 0), nullptr); },
                             {"lock", "deque_locked", "unlock"}},
                    NullCase{"remove_locked",
                             [] { EXPECT_EQ(qor_que_remove_locked(nullptr, 1), nullptr); },
                             {"remove_locked"}},
                    NullCase{"remove",
                             [] { EXPECT_EQ(qor_que_remove(nullptr, 1), nullptr); },
                             {"lock", "remove_locked", "unlock"}},
                    NullCase{"count", [] { EXPECT_EQ(qor_que_count(nullptr), -1); }, {"count"}},
                    NullCase{"quit", [] { qor_que_quit(nullptr); }, {"quit"}}),
    case_name<NullCase>);

TEST(Que, ANullNodeIsReportedByEveryAppend)
{
    Que que;
    Output out;

    EXPECT_EQ(qor_que_enque(que, nullptr), -1);
    EXPECT_EQ(qor_que_enque_block(que, nullptr, 0), -1);
    EXPECT_EQ(qor_que_enque_block(que, nullptr, -1), -1);

    EXPECT_EQ(out.printed(), line("qor_que_enque_locked", "!(new_node) == true.") +
                                 line("qor_que_enque_locked", "!(new_node) == true.") +
                                 line("qor_que_enque_block_locked", "!(new_node) == true."));
    EXPECT_EQ(qor_que_count(que), 0);
}

TEST(Que, ANullNodeIsReportedBeforeAFullOrAQuittingQueue)
{
    Que que(0);
    Output out;
    const std::string lines = line("qor_que_enque_locked", "!(new_node) == true.") +
                              line("qor_que_enque_block_locked", "!(new_node) == true.");

    EXPECT_EQ(qor_que_enque(que, nullptr), -1);
    EXPECT_EQ(qor_que_enque_block(que, nullptr, -1), -1);
    EXPECT_EQ(out.printed(), lines);

    qor_que_quit(que);
    EXPECT_EQ(qor_que_enque(que, nullptr), -1);
    EXPECT_EQ(qor_que_enque_block(que, nullptr, -1), -1);
    EXPECT_EQ(out.printed(), lines + lines);
}

TEST(Que, DestroyingANullNodeIsReported)
{
    recycled.clear();
    Output out;

    qor_que_node_destroy(nullptr, note_recycled);

    EXPECT_EQ(out.printed(), line("qor_que_node_destroy", "!(node) == true."));
    EXPECT_EQ(recycled, "");
}
