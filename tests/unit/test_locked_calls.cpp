/* SPDX-License-Identifier: Apache-2.0 */
/* Calls that change an object wait while another thread holds its lock. What they would spoil
 * without shows in few runs only; that they wait shows in each. */
#include <atomic>
#include <functional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "case_name.hpp"
#include "hal_sync.hpp"
#include "lifecycle_fixture.hpp"
#include "pool.hpp"
#include "qor_sched_delegate.h"
#include "qor_topic_core.h"
#include "que_holder.hpp"
#include "still_bus.hpp"
#include "thread_call.hpp"

namespace {

/* Whether a call waits for a mutex, and returns when it is given back. */
void expect_to_wait(hal_thread_mutex_t &mutex, const std::function<void()> &call)
{
    ThreadCall caller;
    {
        hal_scoped_lock lock(mutex);
        caller = ThreadCall([call] {
            call();
            return int32_t{0};
        });
        EXPECT_TRUE(caller.waits());
    }
    EXPECT_EQ(caller.get(), 0);
}

/* A call of an object of type T, which is ready for it. */
template <typename T> struct Call {
    const char *name;
    std::function<void(T &)> make;
};

template <typename T> std::ostream &operator<<(std::ostream &out, const Call<T> &call)
{
    return out << call.name;
}

template <typename T> class LockedCalls : public testing::TestWithParam<Call<T>> {
};

/* Room for one more node, one to take and one to find. */
struct OneQue {
    OneQue()
    {
        qor_que_enque(que, new_node('a'));
        qor_que_enque(que, new_node('b'));
    }
    Output out;
    Que que;
};

struct OneTimeQue {
    OneTimeQue()
    {
        qor_time_que_enque(que, new_time_node('a', 0));
        qor_time_que_enque(que, new_time_node('b', far_off));
    }
    Output out;
    TimeQue que;
};

using LockedQue = LockedCalls<OneQue>;
using LockedTimeQue = LockedCalls<OneTimeQue>;

TEST_P(LockedQue, Wait)
{
    OneQue one;
    expect_to_wait(one.que->mutex, [&] { GetParam().make(one); });
}

TEST_P(LockedTimeQue, Wait)
{
    OneTimeQue one;
    expect_to_wait(one.que->mutex, [&] { GetParam().make(one); });
}

const Call<OneQue> que_calls[] = {
    {"Enque", [](OneQue &one) { EXPECT_EQ(qor_que_enque(one.que, new_node('c')), 0); }},
    {"EnqueBlock",
     [](OneQue &one) { EXPECT_EQ(qor_que_enque_block(one.que, new_node('c'), -1), 0); }},
    {"Deque", [](OneQue &one) { EXPECT_EQ(free_and_name(qor_que_deque(one.que)), "a"); }},
    {"DequeBlock",
     [](OneQue &one) { EXPECT_EQ(free_and_name(qor_que_deque_block(one.que, -1)), "a"); }},
    {"Remove", [](OneQue &one) { EXPECT_EQ(free_and_name(qor_que_remove(one.que, 'b')), "b"); }},
    {"Quit", [](OneQue &one) { qor_que_quit(one.que); }},
};

const Call<OneTimeQue> time_que_calls[] = {
    {"Enque",
     [](OneTimeQue &one) { EXPECT_EQ(qor_time_que_enque(one.que, new_time_node('c', 1)), 0); }},
    {"EnqueBlock",
     [](OneTimeQue &one) {
         EXPECT_EQ(qor_time_que_enque_block(one.que, new_time_node('c', 1), -1), 0);
     }},
    {"Deque", [](OneTimeQue &one) { EXPECT_EQ(free_and_name(qor_time_que_deque(one.que)), "a"); }},
    {"DequeBlock",
     [](OneTimeQue &one) { EXPECT_EQ(free_and_name(qor_time_que_deque_block(one.que, -1)), "a"); }},
    {"Remove",
     [](OneTimeQue &one) { EXPECT_EQ(free_and_name(qor_time_que_remove(one.que, 'b')), "b"); }},
    {"Early", [](OneTimeQue &one) { EXPECT_EQ(qor_time_que_early(one.que, 'b', 1), 0); }},
    {"NextDelay",
     [](OneTimeQue &one) {
         int32_t delay = -1;
         EXPECT_EQ(qor_time_que_next_delay(one.que, &delay), 0);
         EXPECT_LE(delay, 0);
     }},
    {"Quit", [](OneTimeQue &one) { qor_time_que_quit(one.que); }},
};

INSTANTIATE_TEST_SUITE_P(All, LockedQue, testing::ValuesIn(que_calls), case_name<Call<OneQue>>);
INSTANTIATE_TEST_SUITE_P(All, LockedTimeQue, testing::ValuesIn(time_que_calls),
                         case_name<Call<OneTimeQue>>);

/* A quit gives the lock back for each body that it releases: between two nodes another thread may
 * take it, and the quit then waits for it anew. */
template <typename Q> void expect_quit_to_wait_between_nodes(Q *que, void (*quit)(Q *))
{
    static hal_thread_mutex_t *mutex;
    static std::atomic<int> releases;
    static std::atomic<bool> held;
    mutex = &que->mutex;
    releases = 0;
    held = false;
    que->recycle = [](void *) {
        if (++releases == 1) {
            EXPECT_TRUE(await([] { return held.load(); }));
        }
    };
    ThreadCall caller([=] {
        quit(que);
        return int32_t{0};
    });

    ASSERT_TRUE(await([] { return releases == 1; }));
    hal_lock(*mutex);
    held = true;
    EXPECT_TRUE(caller.waits());
    EXPECT_EQ(releases, 1);
    pthread_mutex_unlock(mutex);

    EXPECT_EQ(caller.get(), 0);
    EXPECT_EQ(releases, 2);
}

TEST(LockedQuit, OfAQueueWaitsBetweenNodes)
{
    OneQue one;
    expect_quit_to_wait_between_nodes<qor_que_t>(one.que, qor_que_quit);
}

TEST(LockedQuit, OfATimedQueueWaitsBetweenNodes)
{
    OneTimeQue one;
    expect_quit_to_wait_between_nodes<qor_time_que_t>(one.que, qor_time_que_quit);
}

TEST(LockedPool, APostWaits)
{
    Output out;
    Job job;
    Pool pool(1, 1);

    expect_to_wait(pool->que->mutex, [&] { EXPECT_EQ(job.post(pool), 0); });

    EXPECT_TRUE(job.await_recycled(1));
}

TEST(LockedPool, AQuitWaits)
{
    Output out;
    Pool pool(1, 1);

    expect_to_wait(pool->que->mutex, [&] { qor_thread_pool_quit(pool.get()); });
}

/* A step of the lifecycle, from a state in which it is taken at once. */
struct Step {
    const char *name;
    int32_t from;
    std::function<int32_t(qor_core_context_t *)> make;
};

std::ostream &operator<<(std::ostream &out, const Step &step)
{
    return out << step.name;
}

class LockedLifecycle : public Lifecycle, public testing::WithParamInterface<Step> {};

TEST_P(LockedLifecycle, Waits)
{
    be(GetParam().from);
    const int32_t refcount = core->active_refcount;

    expect_to_wait(core->mutex, [&] { EXPECT_EQ(GetParam().make(core), 0); });

    __atomic_store_n(&core->active_refcount, refcount, __ATOMIC_RELAXED);
}

const Step steps[] = {
    {"Change", INIT,
     [](qor_core_context_t *core) { return qor_core_context_lifecycle_change(core, CREATE); }},
    {"Start", CREATE, qor_core_context_lifecycle_start},
    {"ResumeAfterStart", START, qor_core_context_lifecycle_resume},
    {"Pause", RESUME, qor_core_context_lifecycle_pause},
    {"Stop", PAUSE, qor_core_context_lifecycle_stop},
};

INSTANTIATE_TEST_SUITE_P(All, LockedLifecycle, testing::ValuesIn(steps), case_name<Step>);

/* A kind of registration: how it is made and ended, in the table and by a context, and the mutexes.
 */
struct Kind {
    const char *name;
    decltype(&qor_topic_core_subscribe) add;
    decltype(&qor_topic_core_unsubscribe) remove;
    decltype(&qor_topic_core_unsubscribe_by_node) remove_node;
    decltype(&qor_topic_core_subscriber_node_next) next;
    hal_thread_mutex_t qor_topic_t::*mutex;
    decltype(&qor_context_handler_subscribe) enter;
    decltype(&qor_context_handler_unsubscribe) leave;
    hal_thread_mutex_t qor_sched_delegate_t::*own_mutex;
};

std::ostream &operator<<(std::ostream &out, const Kind &kind)
{
    return out << kind.name;
}

class LockedTopic : public testing::TestWithParam<Kind> {
protected:
    LockedTopic()
    {
        a.attach(bus.get(), QOR_BUS_ROLE_USER);
        b.attach(bus.get(), QOR_BUS_ROLE_USER);
    }

    ~LockedTopic() override { qor_topic_core_destroy(table); }

    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor a{journal, "a"}, b{journal, "b"};
    qor_topic_core_t *table = qor_topic_core_create(1);
};

TEST_P(LockedTopic, ARegistrationWaits)
{
    const Kind &kind = GetParam();
    expect_to_wait(table->ids[0].*kind.mutex,
                   [&] { EXPECT_NE(kind.add(table, a.get(), 0, nullptr), nullptr); });
    kind.remove(table, a.get(), 0);
}

TEST_P(LockedTopic, ARemovalWaits)
{
    const Kind &kind = GetParam();
    ASSERT_NE(kind.add(table, a.get(), 0, nullptr), nullptr);
    expect_to_wait(table->ids[0].*kind.mutex, [&] { kind.remove(table, a.get(), 0); });
}

TEST_P(LockedTopic, TheRemovalOfANodeWaits)
{
    const Kind &kind = GetParam();
    qor_topic_node_t *node = kind.add(table, a.get(), 0, nullptr);
    ASSERT_NE(node, nullptr);
    expect_to_wait(table->ids[0].*kind.mutex, [&] { kind.remove_node(table, node); });
}

TEST_P(LockedTopic, AStepWaits)
{
    const Kind &kind = GetParam();
    qor_topic_node_t *node = kind.add(table, a.get(), 0, nullptr);
    expect_to_wait(table->ids[0].*kind.mutex,
                   [&] { EXPECT_EQ(kind.next(table, 0, nullptr), node); });
    kind.remove(table, a.get(), 0);
}

TEST_P(LockedTopic, TheOwnRegistrationsOfAContextWait)
{
    const Kind &kind = GetParam();
    qor_sched_delegate_t *delegate = a.delegate();
    expect_to_wait(delegate->*kind.own_mutex,
                   [&] { EXPECT_EQ(kind.enter(a.get(), 0, nullptr), 0); });
    expect_to_wait(delegate->*kind.own_mutex, [&] { EXPECT_EQ(kind.leave(a.get(), 0), 0); });
}

TEST_P(LockedTopic, TheEndOfAContextsRegistrationsWaits)
{
    const Kind &kind = GetParam();
    qor_sched_delegate_t *delegate = a.delegate();
    ASSERT_EQ(kind.enter(a.get(), 0, nullptr), 0);
    expect_to_wait(delegate->*kind.own_mutex, [&] { qor_sched_delegate_destroy(delegate); });
}

const Kind kinds[] = {
    {"Subscribe", qor_topic_core_subscribe, qor_topic_core_unsubscribe,
     qor_topic_core_unsubscribe_by_node, qor_topic_core_subscriber_node_next,
     &qor_topic_t::subscriber_mutex, qor_context_handler_subscribe, qor_context_handler_unsubscribe,
     &qor_sched_delegate_t::subscriber_mutex},
    {"Listen", qor_topic_core_listen, qor_topic_core_unlisten, qor_topic_core_unlisten_by_node,
     qor_topic_core_listener_node_next, &qor_topic_t::listener_mutex, qor_context_handler_listen,
     qor_context_handler_unlisten, &qor_sched_delegate_t::listener_mutex},
    {"Filter", qor_topic_core_filter, qor_topic_core_unfilter, qor_topic_core_unfilter_by_node,
     qor_topic_core_filter_node_next, &qor_topic_t::filter_mutex, qor_context_handler_filter,
     qor_context_handler_unfilter, &qor_sched_delegate_t::filter_mutex},
};

INSTANTIATE_TEST_SUITE_P(All, LockedTopic, testing::ValuesIn(kinds), case_name<Kind>);

} // namespace
