/* SPDX-License-Identifier: Apache-2.0 */
/* Creating and destroying delegates. */
#include "qor_sched_delegate.h"

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "leak.hpp"
#include "output.hpp"
#include "qor_topic_core.h"
#include "sched_delegate_fixture.hpp"
#include "thread.hpp"

TEST_F(SchedDelegate, CreateAttachesTheContext)
{
    Actor actor(journal, "new");

    qor_sched_delegate_t *delegate =
        qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_SYS, actor.get());

    ASSERT_NE(delegate, nullptr);
    EXPECT_EQ(delegate->bus, bus.get());
    EXPECT_EQ(delegate->role, QOR_BUS_ROLE_SYS);
    EXPECT_EQ(delegate->context, actor.get());
    EXPECT_TRUE(list_empty(&delegate->subscriber_head));
    EXPECT_TRUE(list_empty(&delegate->listener_head));
    EXPECT_TRUE(list_empty(&delegate->filter_head));
    EXPECT_EQ(qor_context_pub_data_get(actor.get()), delegate);
    EXPECT_EQ(reinterpret_cast<void *>(actor.get()->pub_data_recycle),
              reinterpret_cast<void *>(qor_sched_delegate_destroy));
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, AllDelegatesShareOneHandlerTable)
{
    EXPECT_NE(qor_context_handler_get(p.get()), nullptr);
    EXPECT_EQ(qor_context_handler_get(p.get()), qor_context_handler_get(s.get()));
}

TEST_F(SchedDelegate, PostxAndCancelxAreEmpty)
{
    qor_context_task_t task = note_task(p, 5, 0);

    EXPECT_EQ(qor_context_handler_postx(p.get(), &task), -1);
    EXPECT_EQ(qor_context_handler_cancelx(p.get(), 5), -1);

    EXPECT_EQ(out.printed(), err_line("qor_context_handler", "qor_context_handler_postx",
                                      "!(handler->postx) == true.") +
                                 err_line("qor_context_handler", "qor_context_handler_cancelx",
                                          "!(handler->cancelx) == true."));
}

TEST_F(SchedDelegate, DestroyRemovesEveryRegistration)
{
    for (qor_context_topic_t number = 0; number < 3; number++) {
        qor_context_subscribe(a.get(), number, nullptr);
        qor_context_subscribe(a.get(), number, nullptr);
        qor_context_listen(a.get(), number, nullptr);
        qor_context_filter(a.get(), number, nullptr);
        qor_context_subscribe(b.get(), number, nullptr);
    }

    qor_sched_delegate_destroy(a.delegate());

    for (qor_context_topic_t number = 0; number < 3; number++) {
        qor_topic_t &left = bus.get()->user_topic_core->ids[number];
        EXPECT_TRUE(list_empty(&left.listener_head));
        EXPECT_TRUE(list_empty(&left.filter_head));
        EXPECT_EQ(qor_topic_core_subscriber_node_next(bus.get()->user_topic_core, number, nullptr)
                      ->context,
                  b.get());
        EXPECT_EQ(left.subscriber_head.next->next, &left.subscriber_head);
    }
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, DestroyGoesFromSubscriptionsToListenersToFilters)
{
    qor_topic_core_t *table = bus.get()->user_topic_core;
    qor_topic_t &held = table->ids[topic];
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_listen(a.get(), topic, nullptr);
    qor_context_filter(a.get(), topic, nullptr);
    pthread_mutex_lock(&held.listener_mutex);
    pthread_mutex_lock(&held.filter_mutex);
    Thread destroying([&] { qor_sched_delegate_destroy(a.delegate()); });

    EXPECT_TRUE(await([&] { return qor_topic_core_someone_subscribed(table, topic) == 0; }));
    EXPECT_EQ(qor_topic_core_someone_listened(table, topic), 1);
    pthread_mutex_unlock(&held.listener_mutex);
    EXPECT_TRUE(await([&] { return qor_topic_core_someone_listened(table, topic) == 0; }));
    EXPECT_EQ(qor_topic_core_someone_filtered(table, topic), 1);
    pthread_mutex_unlock(&held.filter_mutex);
    destroying.join();

    EXPECT_EQ(qor_topic_core_someone_filtered(table, topic), 0);
}

TEST_F(SchedDelegate, DestroyReportsNull)
{
    qor_sched_delegate_destroy(nullptr);

    EXPECT_EQ(out.printed(), line("destroy", "!(_this) == true."));
}

TEST_F(SchedDelegate, DestroyLeavesTheRecord)
{
    qor_sched_delegate_t *delegate = a.delegate();

    qor_sched_delegate_destroy(delegate);
    qor_sched_delegate_destroy(delegate);

    EXPECT_EQ(delegate->context, a.get());
    EXPECT_TRUE(list_empty(&delegate->subscriber_head));
}

TEST_F(SchedDelegate, DestroyedDelegateTakesNoRegistrations)
{
    qor_sched_delegate_destroy(a.delegate());

    EXPECT_EQ(qor_context_subscribe(a.get(), topic, nullptr), -1);

    EXPECT_EQ(qor_topic_core_someone_subscribed(bus.get()->user_topic_core, topic), 0);
    EXPECT_EQ(out.printed(), line("subscribe", "create node failed."));
}

TEST_F(SchedDelegate, DestroyedDelegateStillServesTasksThatNameIt)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    ASSERT_EQ(publish(), 0);

    qor_sched_delegate_destroy(p.delegate());
    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegate, RegistrationsUnderWayEndWithTheDelegate)
{
    for (int i = 0; i < 200; i++) {
        Actor actor(journal, "brief");
        qor_sched_delegate_t *delegate = actor.attach(bus.get(), QOR_BUS_ROLE_USER);
        Thread registering([&] {
            for (int k = 0; k < 1000 && qor_context_subscribe(actor.get(), topic, nullptr) == 0;
                 k++) {
                qor_context_handler_listen(actor.get(), topic, nullptr);
                qor_context_filter(actor.get(), topic, nullptr);
            }
        });
        qor_sched_delegate_destroy(delegate);
        registering.join();

        qor_topic_t &left = bus.get()->user_topic_core->ids[topic];
        ASSERT_TRUE(list_empty(&left.subscriber_head));
        ASSERT_TRUE(list_empty(&left.listener_head));
        ASSERT_TRUE(list_empty(&left.filter_head));
    }
}

TEST_F(SchedDelegate, CreateWithoutABusAttachesToNone)
{
    const PrescribedLeak unlisted; /* its record goes with its bus */
    Actor actor(journal, "new");

    qor_sched_delegate_t *delegate = actor.attach(nullptr, QOR_BUS_ROLE_USER);

    ASSERT_NE(delegate, nullptr);
    EXPECT_EQ(delegate->bus, nullptr);
    EXPECT_EQ(out.printed(), "");
}
