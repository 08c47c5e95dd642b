/* SPDX-License-Identifier: Apache-2.0 */
/* Responses that cannot be handed over. */
#include <atomic>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

constexpr qor_context_topic_t topic = 2;

/* Actors hand their tasks to the bus, as system contexts do. */
class Responses : public testing::Test {
protected:
    Responses()
    {
        p.attach(bus.get(), QOR_BUS_ROLE_USER);
        s.attach(bus.get(), QOR_BUS_ROLE_USER);
        qor_context_subscribe(s.get(), topic, nullptr);
    }

    int32_t publish()
    {
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 77, topic, nullptr, 0);
        return qor_context_handler_publish(p.get(), &msg);
    }

    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p{journal, "p"}, s{journal, "s"};
};

} // namespace

TEST_F(Responses, AreFreedWithoutALineWhenTheBusQuits)
{
    ASSERT_EQ(publish(), 0);
    qor_context_task_t *relay = bus.take();
    ASSERT_NE(relay, nullptr);
    qor_bus_quit(bus.get());

    qor_context_task_excute(relay); /* the leak checker sees a message that stays */
    StillBus::finish(relay);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(out.printed(), "");
}

namespace {

/* A client whose init fills its queue and asks; the response goes past the queue. */
class PastAFullQueue : public testing::Test {
protected:
    PastAFullQueue()
    {
        server.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        client.handle = [this](qor_context_t *, qor_context_msg_t *) { return ++handled; };
        client.init = [this](qor_context_t *c) {
            const auto none = [](void *arg) -> void * { return arg; };
            for (int i = 0; i < 50; i++) {
                EXPECT_GE(qor_context_run(c, none, nullptr), 0);
            }
            EXPECT_GE(qor_context_req(c, 0, nullptr, 0), 0);
            run = bus.take();
            bus.run_next(); /* the server's */
            responded();
            return -1;
        };
        client.unreg = [this](qor_context_t *) { closed = true; };
    }
    ~PastAFullQueue() override { StillBus::finish(run); }

    Output out;
    int handled = 0;
    std::atomic<bool> closed{false};
    std::function<void()> responded = [] {};
    qor_context_task_t *run = nullptr; /* of the client's queue; never begun */
    Module server{"server"};
    Module client{"client", /* pure */ 0};
    StillBus bus{{&server, &client}};
};

} // namespace

TEST_F(PastAFullQueue, AResponseIsFreedWhenTheInitFails)
{
    bus.run_all();

    EXPECT_TRUE(closed);
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(qor_que_count(bus.get()->que), 0);
}

TEST_F(PastAFullQueue, AResponseThatIsBegunLaterIsFreedThen)
{
    std::atomic<qor_context_task_t *> past{nullptr};
    responded = [&] { past = bus.take(); };
    Thread bringing_up([this] { bus.run_all(); });
    ASSERT_TRUE(await([&] { return closed.load(); }));

    qor_context_task_excute(past);

    bringing_up.join();
    StillBus::finish(past);
    EXPECT_EQ(handled, 0);
}
