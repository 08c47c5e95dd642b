/* SPDX-License-Identifier: Apache-2.0 */
/* Requests between several threads. */
#include "qor_sched_delegate.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "running_bus.hpp"
#include "sched_delegate_fixture.hpp"
#include "thread.hpp"

TEST_F(SchedDelegate, PublishWaitsForItsSubscriberWhileOthersRegister)
{
    std::atomic<bool> waits{false}, started{false};
    a.on_resume = [&] {
        waits = true;
        return await([&] { return started.load(); }) ? 0 : -1;
    };
    qor_context_subscribe(a.get(), topic, nullptr);
    Thread publishing([&] { EXPECT_EQ(publish(), 0); });
    ASSERT_TRUE(await([&] { return waits.load(); }));

    EXPECT_EQ(qor_context_subscribe(b.get(), topic, nullptr), 0);
    EXPECT_EQ(qor_context_unsubscribe(b.get(), topic), 0);
    started = true;
    publishing.join();
    bus.run_all();

    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST(SchedDelegateThreads, EveryRequestGetsItsResponse)
{
    constexpr int publishers = 3, times = 300;
    RunningBus bus(RunningBus::by_start, /* workers */ 3);
    Journal journal;
    Actor a(journal, "a");
    std::atomic<int> responses{0};
    std::vector<std::unique_ptr<Actor>> actors;
    a.attach(bus.get(), QOR_BUS_ROLE_USER);
    a.on_message = [](qor_context_msg_t *msg) {
        int32_t number;
        memcpy(&number, msg->request.buf, sizeof(number));
        return number;
    };
    qor_context_subscribe(a.get(), 0, nullptr);
    for (int i = 0; i < publishers; i++) {
        actors.push_back(std::make_unique<Actor>(journal, "p"));
        actors.back()->attach(bus.get(), QOR_BUS_ROLE_USER);
        actors.back()->on_message = [&](qor_context_msg_t *msg) {
            EXPECT_EQ(msg->ret, msg->session); /* as the subscriber was asked */
            responses++;
            return 0;
        };
    }
    bus.start();

    std::vector<Thread> threads;
    for (auto &actor : actors) {
        threads.emplace_back([&] {
            for (int k = 0; k < times; k++) {
                qor_context_msg_t msg;
                int32_t session = -1;
                qor_context_session(actor->get(), &session);
                qor_context_msg_fill(&msg, session, 0, &session, sizeof(session));
                EXPECT_EQ(qor_context_handler_publish(actor->get(), &msg), 0);
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(await([&] { return responses == publishers * times; }));
    bus.quit();
}

TEST(SchedDelegateThreads, QuitEndsTheTrafficThatIsUnderWay)
{
    RunningBus bus(RunningBus::by_start, /* workers */ 2);
    Journal journal;
    Actor a(journal, "a"), p(journal, "p");
    std::atomic<int> handled{0};
    Output out; /* refusals after the quit */
    for (Actor *actor : {&a, &p}) {
        actor->attach(bus.get(), QOR_BUS_ROLE_USER);
    }
    a.on_message = [&](qor_context_msg_t *) {
        handled++;
        return 0;
    };
    qor_context_subscribe(a.get(), 0, nullptr);
    qor_context_handler_listen(p.get(), 0, nullptr);
    bus.start();
    Thread publishing([&] {
        for (int32_t sent = 0; sent >= 0;) {
            qor_context_msg_t msg;
            qor_context_msg_fill(&msg, 1, 0, &sent, sizeof(sent));
            sent = qor_context_handler_publish(p.get(), &msg);
        }
    });

    EXPECT_TRUE(await([&] { return handled > 20; }));
    bus.quit();
    publishing.join();

    EXPECT_EQ(bus.returned(), 0);
}
