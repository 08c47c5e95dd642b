/* SPDX-License-Identifier: Apache-2.0 */
/* Timed queues that are long enough for an index: all is as in a list that is walked. */
#include "qor_time_que_priv.hpp"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "case_name.hpp"
#include "que_holder.hpp"
#include "time_que_model.hpp"

namespace {

constexpr int64_t apart = 60 * 1000; /* ms between due times: no test takes as long */

qor_time_que_node_t *node_due_at(int64_t when, size_t id)
{
    qor_time_que_node_t *node = qor_time_que_node_create(id, 0, 1);
    node->when = when;
    return node;
}

bool is_odd(const qor_time_que_node_t *node, const void *)
{
    return node->body[0];
}

bool is_node(const qor_time_que_node_t *node, const void *what)
{
    return node == what;
}

/* A long queue: so many nodes of the id, a minute from one to the next. */
class LongQue : public TimeQue {
public:
    explicit LongQue(int nodes = 100, size_t id = 1000)
    {
        for (int i = 0; i < nodes; i++) {
            arm(start + i * apart, id);
        }
    }

    qor_time_que_node_t *arm(int64_t when, size_t id)
    {
        qor_time_que_node_t *node = node_due_at(when, id);
        EXPECT_EQ(qor_time_que_enque(*this, node), 0);
        return node;
    }

    /* The names of those due at one time, in the list's order. */
    std::string names_at(int64_t when) const
    {
        std::string names;
        for (list_head *link = (*this)->head.next; link != &(*this)->head; link = link->next) {
            const qor_time_que_node_t *node = reinterpret_cast<qor_time_que_node_t *>(link);
            if (node->when == when) {
                names += static_cast<char>(node->id);
            }
        }
        return names;
    }

    const int64_t start = util_timestamp() + far_off;
};

/* Any calls in any order, each with the result that the model has. */
class Twins {
public:
    struct Shape {
        const char *name;
        unsigned times; /* different due times */
        unsigned ids;
        unsigned longest; /* nodes */
        unsigned steps;
    };

    Twins(unsigned seed, const Shape &shape) : shape_(shape), random_(seed) {}
    ~Twins()
    {
        while (qor_time_que_node_t *node = model_.take_if([](const auto &) { return true; })) {
            EXPECT_EQ(time_que_take_if(que_, is_node, node), node);
            qor_time_que_node_destroy(node, nullptr);
        }
        EXPECT_TRUE(model_.matches(que_));
    }
    Twins(const Twins &) = delete;
    Twins &operator=(const Twins &) = delete;

    /* Grows and shrinks between nothing and the longest, past the index's limits again and again.
     */
    void run()
    {
        size_t goal = 0;
        for (unsigned step = 0; step < shape_.steps; step++) {
            if (model_.size() == goal) {
                goal = random_() % 4 ? random_() % 100 : random_() % (shape_.longest + 1);
            }
            if (pick(8) == 0) {
                early();
            } else if (model_.size() < goal) {
                enque();
            } else {
                take();
            }
            if (step % (1 + model_.size() / 16) == 0) {
                ASSERT_TRUE(model_.matches(que_)) << "step " << step;
            }
            ASSERT_EQ(que_->count, static_cast<int32_t>(model_.size())) << "step " << step;
            ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
        }
    }

private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }
    size_t some_id() { return pick(shape_.ids); }

    /* The first few are due. */
    int64_t some_time() { return start_ + (static_cast<int64_t>(pick(shape_.times)) - 2) * apart; }

    void enque()
    {
        qor_time_que_node_t *node = node_due_at(some_time(), some_id());
        node->body[0] = static_cast<char>(pick(2));
        model_.enque(node);
        EXPECT_EQ(qor_time_que_enque(que_, node), 0);
    }

    void early()
    {
        const size_t id = some_id();
        const int64_t when = some_time() + apart / 2;
        const int32_t delay = static_cast<int32_t>(when - util_timestamp());
        EXPECT_EQ(qor_time_que_early(que_, id, delay), model_.early(id, when));
    }

    void take()
    {
        const size_t id = some_id();
        qor_time_que_node_t *expected = nullptr;
        qor_time_que_node_t *node = nullptr;
        switch (pick(5)) {
        case 0:
            expected = model_.take_if([=](const auto &e) { return e.id == id && e.node->body[0]; });
            node = time_que_take_id_if(que_, id, is_odd, nullptr);
            break;
        case 1:
            expected = model_.take_if([](const auto &e) { return e.node->body[0]; });
            node = time_que_take_if(que_, is_odd, nullptr);
            break;
        case 2:
            expected = model_.take_first_if([=](const auto &e) { return e.when <= start_; });
            node = qor_time_que_deque(que_);
            break;
        default:
            expected = model_.remove(id);
            node = qor_time_que_remove(que_, id);
        }
        EXPECT_EQ(node, expected);
        if (node) {
            EXPECT_TRUE(unlinked(node));
            qor_time_que_node_destroy(node, nullptr);
        }
    }

    const Shape shape_;
    std::mt19937 random_;
    const int64_t start_ = util_timestamp();
    TimeQue que_;
    TimeQueModel model_;
};

class TimeQueIndexTwins : public testing::TestWithParam<Twins::Shape> {};

} // namespace

TEST_P(TimeQueIndexTwins, DoAsAWalkedListDoes)
{
    for (unsigned seed = 1; seed <= 4; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Twins twins(seed, GetParam());
        twins.run();
        if (HasFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(TimeQue, TimeQueIndexTwins,
                         testing::Values(Twins::Shape{"OneTimeAndId", 1, 1, 200, 4000},
                                         Twins::Shape{"OneTime", 1, 300, 300, 4000},
                                         Twins::Shape{"OneId", 300, 1, 300, 4000},
                                         Twins::Shape{"FewOfBoth", 4, 4, 200, 6000},
                                         Twins::Shape{"SomeOfBoth", 12, 40, 400, 6000},
                                         Twins::Shape{"ManyOfBoth", 1000, 1000, 1000, 10000},
                                         Twins::Shape{"VeryLong", 20000, 1000000, 6000, 30000}),
                         case_name<Twins::Shape>);

TEST(TimeQueIndex, EqualDueTimesComeFirstThenNewestFirst)
{
    LongQue que;
    const int64_t when = que.start + 50 * apart + 1;

    for (char name : std::string("XYZ12")) {
        que.arm(when, static_cast<size_t>(name));
    }

    EXPECT_EQ(que.names_at(when), "X21ZY");
}

TEST(TimeQueIndex, TheNeighbourOfAFirstThatLeavesIsTheFirst)
{
    LongQue que;
    const int64_t when = que.start + 50 * apart + 1;
    for (char name : std::string("XYZ")) {
        que.arm(when, static_cast<size_t>(name));
    }

    EXPECT_EQ(free_and_name(qor_time_que_remove(que, 'X')), "X");
    que.arm(when, 'N');

    EXPECT_EQ(que.names_at(when), "ZNY");
}

TEST(TimeQueIndex, RemoveTakesTheEarliestOfAnId)
{
    LongQue que;
    qor_time_que_node_t *last = que.arm(que.start + 70 * apart, 7);
    qor_time_que_node_t *first = que.arm(que.start + 30 * apart + 1, 7);
    qor_time_que_node_t *third = que.arm(que.start + 30 * apart + 1, 7);
    qor_time_que_node_t *second = que.arm(que.start + 30 * apart + 1, 7);

    for (qor_time_que_node_t *node : {first, second, third, last}) {
        EXPECT_EQ(qor_time_que_remove(que, 7), node);
        qor_time_que_node_destroy(node, nullptr);
    }
    EXPECT_EQ(qor_time_que_remove(que, 7), nullptr);
}

TEST(TimeQueIndex, TakeIdIfLooksAtNoOtherNodes)
{
    LongQue que;
    qor_time_que_node_t *even = que.arm(que.start, 7);
    qor_time_que_node_t *odd = que.arm(que.start + 90 * apart, 7);
    odd->body[0] = 1;
    int looked = 0;
    auto test = [](const qor_time_que_node_t *node, const void *what) {
        ++*static_cast<int *>(const_cast<void *>(what));
        return node->body[0] != 0;
    };

    EXPECT_EQ(time_que_take_id_if(que, 7, test, &looked), odd);
    EXPECT_EQ(looked, 2);
    EXPECT_EQ(time_que_take_id_if(que, 8, test, &looked), nullptr);
    EXPECT_EQ(looked, 2);

    EXPECT_EQ(qor_time_que_remove(que, 7), even);
    qor_time_que_node_destroy(even, nullptr);
    qor_time_que_node_destroy(odd, nullptr);
}

TEST(TimeQueIndex, TakeIdIfWalksAShortQueueAndWorksOnAQuittingOne)
{
    LongQue que(3, 7);
    qor_time_que_node_t *odd = que.arm(que.start + apart, 7);
    odd->body[0] = 1;
    time_que_quit_begin(que);

    EXPECT_EQ(time_que_take_id_if(que, 8, is_odd, nullptr), nullptr);
    EXPECT_EQ(time_que_take_id_if(que, 7, is_odd, nullptr), odd);
    EXPECT_EQ(time_que_take_id_if(que, 7, is_odd, nullptr), nullptr);

    qor_time_que_node_destroy(odd, nullptr);
}

TEST(TimeQueIndex, AQuitDiscardsALongQueueEarliestFirst)
{
    recycled.clear();
    TimeQue que(UINT32_MAX, note_recycled);
    std::string names;
    for (char name = '!'; name <= '~'; name++) {
        names += name;
        ASSERT_EQ(qor_time_que_enque(que, new_time_node(name, far_off + ('~' - name) * 1000)), 0);
    }

    qor_time_que_quit(que);

    EXPECT_EQ(recycled, std::string(names.rbegin(), names.rend()));
    EXPECT_EQ(que->count, 0);
}

TEST(TimeQueIndex, AnIdChangedWhileQueuedIsFoundByAWalkOnceItWasNoticed)
{
    LongQue que;
    qor_time_que_node_t *node = que.arm(que.start + 50 * apart, 7);

    node->id = 8;

    EXPECT_EQ(qor_time_que_remove(que, 7), nullptr); /* notices it */
    EXPECT_EQ(qor_time_que_remove(que, 8), node);
    EXPECT_EQ(que->count, 100);
    qor_time_que_node_destroy(node, nullptr);
}

TEST(TimeQueIndex, ANodeWhoseDueTimeWasChangedWhileQueuedLeavesForGood)
{
    LongQue que;
    qor_time_que_node_t *node = que.arm(que.start + 50 * apart, 7);
    const int64_t when = node->when;

    node->when += 7 * apart;

    EXPECT_EQ(time_que_take_if(que, is_node, node), node);
    qor_time_que_node_destroy(node, nullptr);
    que.arm(when, 'a'); /* nothing stands for the old node any more */
    que.arm(when, 'b');
    EXPECT_EQ(que.names_at(when).substr(1), "ba");
}

/* The index misses a node under an id that was given to it by hand: among others, and behind all.
 */
TEST(TimeQueIndex, ANodeThatComesBehindAChangedOneIsPlacedByAWalk)
{
    for (const size_t id : {size_t{8}, size_t{2000}}) {
        LongQue que;
        const int64_t when = que.start + 50 * apart + 1;
        qor_time_que_node_t *first = que.arm(when, 7);
        first->id = id;

        qor_time_que_node_t *second = que.arm(when, id);

        EXPECT_EQ(first->node.next, &second->node);
        EXPECT_EQ(qor_time_que_remove(que, id), first);
        qor_time_que_node_destroy(first, nullptr);
    }
}

/* The first of two that are due at once leaves while the second says that it is not. */
TEST(TimeQueIndex, ANodeThatLostItsDueTimeAndGotItBackLeavesForGood)
{
    for (const int64_t minutes : {50, 500}) { /* in the middle, and behind all */
        LongQue que;
        const int64_t when = que.start + minutes * apart + 1;
        qor_time_que_node_t *first = que.arm(when, 7);
        qor_time_que_node_t *second = que.arm(when, 8);
        second->when = when + 1;
        EXPECT_EQ(qor_time_que_remove(que, 7), first);
        second->when = when;

        EXPECT_EQ(qor_time_que_remove(que, 8), second);

        EXPECT_EQ(qor_time_que_remove(que, 8), nullptr);
        EXPECT_EQ(que->count, 100);
        qor_time_que_node_destroy(first, nullptr);
        qor_time_que_node_destroy(second, nullptr);
    }
}

TEST(TimeQueIndex, NodesMayBeAddedBehindALastOneThatWasLinkedByHand)
{
    LongQue que;
    qor_time_que_node_t *last = node_due_at(que.start + 500 * apart, 7);
    {
        lock(que);
        list_add_tail(&last->node, &que->head);
        que->count++;
        unlock(que);
    }

    qor_time_que_node_t *behind = que.arm(last->when + 1, 8);

    EXPECT_EQ(que->head.prev, &behind->node);
    EXPECT_EQ(last->node.next, &behind->node);
}

TEST(TimeQueIndex, AFirstNodeThatWasLinkedByHandIsTakenWhenItIsDue)
{
    LongQue que;
    qor_time_que_node_t *due = node_due_at(util_timestamp() - 1, 7);
    {
        lock(que);
        list_add(&due->node, &que->head);
        que->count++;
        unlock(que);
    }

    EXPECT_EQ(qor_time_que_deque(que), due);

    EXPECT_EQ(que->count, 100);
    qor_time_que_node_destroy(due, nullptr);
}

TEST(TimeQueIndex, NodesAreKeptForLaterUseUpToALimit)
{
    TimeQue que;
    constexpr int number = 1000;
    lock(que);
    for (int i = 0; i < number; i++) {
        time_que_keep_locked(que, qor_time_que_node_create(1, 0, 1));
    }
    int kept = 0;
    while (qor_time_que_node_t *node = time_que_kept_locked(que)) {
        qor_time_que_node_destroy(node, nullptr);
        kept++;
    }
    unlock(que);

    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, number);
}

/* An heir is taken by its due time; it must not stand for two times. */
TEST(TimeQueIndex, ADueTimeChangedAndRestoredLeavesNothingBehind)
{
    LongQue que;
    const int64_t when = que.start + 50 * apart + 1;
    qor_time_que_node_t *first = que.arm(when, 7);
    qor_time_que_node_t *next = que.arm(when + 1, 8);
    next->when = when;
    EXPECT_EQ(qor_time_que_remove(que, 7), first);
    next->when = when + 1;

    EXPECT_EQ(qor_time_que_remove(que, 8), next);
    next->when = when;
    que.arm(when, 'a');
    que.arm(when, 'b');

    EXPECT_EQ(que.names_at(when), "ab");
    EXPECT_TRUE(unlinked(next));
    qor_time_que_node_destroy(first, nullptr);
    qor_time_que_node_destroy(next, nullptr);
}

TEST(TimeQueIndex, ALookForAnotherNodeDoesNotMisleadATake)
{
    LongQue que;
    qor_time_que_node_t *node = que.arm(que.start, 7);
    EXPECT_EQ(qor_time_que_early(que, 7, 2 * far_off), 0); /* has found it, and left it there */
    EXPECT_EQ(qor_time_que_remove(que, 8), nullptr);

    EXPECT_EQ(time_que_take_if(que, is_node, node), node);

    EXPECT_EQ(qor_time_que_remove(que, 7), nullptr);
    qor_time_que_node_destroy(node, nullptr);
}

/* Changes to queued nodes at random; what holds is that the list stays whole. */
TEST(TimeQueIndex, NodesChangedWhileQueuedBreakNothing)
{
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        LongQue que(70, 3);
        std::list<qor_time_que_node_t *> nodes;
        for (list_head *link = que->head.next; link != &que->head; link = link->next) {
            nodes.push_back(reinterpret_cast<qor_time_que_node_t *>(link));
        }
        for (int step = 0; step < 2000; step++) {
            const int64_t when = que.start + static_cast<int64_t>(random() % 20) * apart;
            auto some = std::next(nodes.begin(), static_cast<long>(random() % nodes.size()));
            qor_time_que_node_t *gone = nullptr;
            switch (nodes.size() > 20 ? random() % 8 : 7) {
            case 0:
                (*some)->when = when;
                break;
            case 1:
                (*some)->id = random() % 30;
                break;
            case 2:
            case 3:
                gone = qor_time_que_remove(que, random() % 30);
                break;
            case 4:
                gone = time_que_take_if(que, is_node, *some);
                break;
            case 5:
                qor_time_que_early(que, random() % 30, far_off);
                break;
            default:
                nodes.push_back(que.arm(when, random() % 30));
            }
            if (gone) {
                nodes.remove(gone);
                qor_time_que_node_destroy(gone, nullptr);
            }
            ASSERT_EQ(static_cast<size_t>(que->count), nodes.size());
        }
        size_t linked = 0;
        for (list_head *link = que->head.next; link != &que->head; link = link->next) {
            ASSERT_EQ(link->next->prev, link);
            linked++;
        }
        EXPECT_EQ(linked, nodes.size());
    }
}

TEST(TimeQueIndex, ANodeLinkedByHandIsFoundLikeAnyOther)
{
    LongQue que;
    qor_time_que_node_t *counted = node_due_at(que.start + 50 * apart + 1, 7);
    qor_time_que_node_t *first = node_due_at(que.start - 1, 8);
    {
        lock(que);
        list_add(&counted->node, que->head.next);
        que->count++;
        unlock(que);
    }
    EXPECT_EQ(qor_time_que_remove(que, 7), counted);
    {
        lock(que);
        list_add(&first->node, &que->head);
        unlock(que);
    }
    EXPECT_EQ(qor_time_que_remove(que, 8), first);
    qor_time_que_node_destroy(counted, nullptr);
    qor_time_que_node_destroy(first, nullptr);
    que->count = 100; /* the second one was not counted */
}

TEST(TimeQueIndex, ANodeTakenOutByHandIsNotFound)
{
    LongQue que;
    qor_time_que_node_t *first = que.arm(que.start - 1, 7);

    lock(que);
    list_del(&first->node);
    unlock(que);
    qor_time_que_node_destroy(first, nullptr);

    EXPECT_EQ(qor_time_que_remove(que, 7), nullptr);
    que->count = 100;
}

/* To the millisecond, and by arrival within one. */
TEST(TimeQueIndex, AQueueInOrderPutsEachNodeBehindThoseOfItsTime)
{
    TimeQue que;
    time_que_in_order(que);
    const int64_t start = util_timestamp() + apart;
    std::string names;
    for (const int later : {6, 5, 6, 5, 7, 5, 8, 6}) {
        const char name = static_cast<char>('a' + que->count);
        ASSERT_EQ(qor_time_que_enque(que, node_due_at(start + later, static_cast<size_t>(name))),
                  0);
    }

    for (list_head *link = que->head.next; link != &que->head; link = link->next) {
        names += static_cast<char>(reinterpret_cast<qor_time_que_node_t *>(link)->id);
    }

    EXPECT_EQ(names, "bdfacheg");
}

/* Nodes out of use: so many are kept for the next, the others are freed. */
TEST(TimeQueKept, AreThirtyTwoHoweverOftenTheyAreTaken)
{
    TimeQue que;
    for (int round = 0; round < 3; round++) {
        for (int i = 0; i < 40; i++) {
            time_que_keep_locked(que, new_time_node('k', 0));
        }
        int kept = 0;
        while (qor_time_que_node_t *node = time_que_kept_locked(que)) {
            qor_time_que_node_destroy(node, nullptr);
            kept++;
        }
        EXPECT_EQ(kept, 32);
    }
}
