/* SPDX-License-Identifier: Apache-2.0 */
/* Deferred requests when a bus or a module ends, and when several ends meet: each request ends
 * once. The leak checker sees one that never does, the address checker one that does twice. */
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "actor.hpp"
#include "await.hpp"
#include "deferring.hpp"
#include "inspection.hpp"
#include "leak.hpp"
#include "pool.hpp"
#include "qor_contract.h"
#include "still_bus.hpp"
#include "thread.hpp"
#include "thread_exit_fixture.hpp"
#include "time_que_length.hpp"

namespace {

class DeferredEnds : public Deferring {
protected:
    static constexpr int rounds = 300;
    static constexpr int32_t far = 600000; /* ms */

    /* What a filter behind the handler sees. */
    void watch_points()
    {
        observer.reg = [](qor_context_t *c) {
            qor_context_topic_attr_t after = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                              QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER, 0};
            qor_context_filter(c, topic, &after);
        };
        observer.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            journal.add(std::to_string(msg->ret));
            return 0;
        };
    }

    /* Counts responses by who has brought them about. */
    void count_responses()
    {
        client.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            (msg->ret == 7 ? completed : others)++;
            return 0;
        };
    }

    int all() const { return completed + others; }

    std::atomic<int> completed{0}, others{0};
};

} // namespace

/* Nor does an inspection show them. */
TEST_F(DeferredEnds, TheOpenOnesOfAnotherBusStayOpen)
{
    struct Other : Deferring {
        void TestBody() override {}
        using Deferring::be_up, Deferring::bus, Deferring::deferred, Deferring::response;
    } other;
    be_up();
    other.be_up();
    const uint64_t mine = deferred();
    const uint64_t theirs = other.deferred();
    EXPECT_EQ(Inspection(bus->get()).requests.size(), 1u);
    const auto at_the_request = [](int32_t kind, const void *) {
        return kind == QOR_INFO_REQUEST ? 5 : 0;
    };
    EXPECT_EQ(inspect(bus->get(), at_the_request), 5);

    bus->end();

    EXPECT_EQ(complete(mine, 1, ""), -1);
    EXPECT_EQ(complete(theirs, 1, "pong"), 0);
    EXPECT_EQ(other.response(), "1 pong");
}

/* Which have their own numbers; the limit's timer is known by more than that. */
TEST_F(DeferredEnds, TimersOfTheSameNumberStay)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, far); };
    be_up();
    const uint64_t open = deferred();
    const int32_t serial = static_cast<int32_t>(open >> 32);
    qor_context_task_t run = {};
    qor_context_task_t runx = {};
    qor_context_task_init(
        &run, nullptr, nullptr, serial, [](void *arg) { return arg; }, nullptr);
    qor_context_taskx_init(
        &runx, client.context(), nullptr, serial,
        [](qor_context_t *, int32_t, void *arg) { return arg; }, nullptr);
    run.delay = runx.delay = far / 2;
    ASSERT_GE(qor_bus_timer_post(bus->get(), &run), 0);
    ASSERT_GE(qor_bus_timer_post(bus->get(), &runx), 0);
    EXPECT_EQ(length_of(bus->get()->time_que), 3);

    EXPECT_EQ(complete(open, 1, ""), 0);

    EXPECT_EQ(length_of(bus->get()->time_que), 2);
}

TEST_F(DeferredEnds, ARequestWithoutPayloadHasNone)
{
    be_up();
    token = 0;
    ASSERT_GE(qor_context_req(client.context(), topic, nullptr, 0), 0);
    ASSERT_TRUE(await([this] { return token != 0; }));
    rest();
    char byte = 'x';

    EXPECT_EQ(qor_deferred_request(token, &byte, 1), 0);

    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(complete(token, 1, "p"), -1);
    EXPECT_EQ(complete(token, 1, ""), 0);
    EXPECT_EQ(response(), "1");
}

TEST_F(DeferredEnds, AHandlerThatLeavesWithoutADeferralIsAnsweredBesideOneWith)
{
    be_up(2);
    const uint64_t first = deferred();
    const uint64_t open = deferred();
    EXPECT_EQ(complete(first, 1, ""), 0); /* its place in the table is free */
    EXPECT_TRUE(responses.await(1));
    serve = [](qor_context_t *, qor_context_msg_t *) -> int32_t { pthread_exit(nullptr); };

    ASSERT_GE(ask("ping", 0), 0);

    EXPECT_TRUE(responses.await(2));
    EXPECT_EQ(complete(open, 1, ""), 0);
    EXPECT_TRUE(responses.await(3));
    EXPECT_EQ(responses.text(), "1 -1 1");
}

TEST_F(DeferredEnds, QuitRefusesTheTokenAndNothingFollows)
{
    watch_points();
    be_up();
    const uint64_t open = deferred();
    bus->quit();
    out.clear();

    EXPECT_EQ(complete(open, 1, ""), -1);
    EXPECT_EQ(qor_deferred_request(open, nullptr, 0), -1);

    EXPECT_EQ(out.printed(), not_open() + not_open("request"));
    bus->end();
    EXPECT_EQ(responses.text() + journal.text(), "");
}

TEST_F(DeferredEnds, QuitRefusesTheTokenBeforeTheLoopHasReturned)
{
    Door running;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_TRUE(running.pass());
        return -5;
    };
    watch_points();
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(running.await(1));

    qor_bus_quit(bus->get());

    EXPECT_EQ(complete(token, 1, ""), -1);
    running.open();
    bus->end();
    EXPECT_EQ(responses.text() + journal.text(), "");
}

TEST_F(DeferredEnds, QuitDiscardsWhatIsCompleteButWhoseHandlerHasNotReturned)
{
    Door running;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg, far), 0);
        EXPECT_EQ(complete(token, 1, ""), 0);
        EXPECT_TRUE(running.pass());
        EXPECT_EQ(std::memcmp(msg->request.buf, "ping", 4), 0); /* it has not been freed */
        return 0;
    };
    watch_points();
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(running.await(1));
    qor_bus_quit(bus->get());
    running.open();
    bus->end();

    EXPECT_EQ(responses.text() + journal.text(), "");
}

TEST_F(DeferredEnds, WhatIsCompleteOnAnotherBusGoesOn)
{
    struct Other : Deferring {
        void TestBody() override {}
        using Deferring::ask, Deferring::response, Deferring::token, Deferring::complete;
        using Deferring::bus, Deferring::be_up, Deferring::serve, Deferring::defer;
    } other;
    Door running;
    other.serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(other.defer(c, msg), 0);
        EXPECT_EQ(Other::complete(other.token, 1, "pong"), 0);
        EXPECT_TRUE(running.pass());
        return 0;
    };
    be_up();
    other.be_up();
    ASSERT_GE(other.ask(), 0);
    ASSERT_TRUE(running.await(1));

    bus->end();
    running.open();

    EXPECT_EQ(other.response(), "1 pong");
    other.bus->end();
}

TEST_F(DeferredEnds, ADeferralOnABusThatQuitsIsRefused)
{
    Door running;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_TRUE(running.pass());
        out.clear();
        EXPECT_EQ(defer(c, msg, far), -1);
        EXPECT_EQ(defer(c, msg), -1);
        const std::string ends = line("context_defer", "the bus or the module ends.");
        EXPECT_EQ(out.printed(), ends + ends);
        return 0;
    };
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(running.await(1));
    qor_bus_quit(bus->get());
    running.open();
    bus->end();

    EXPECT_EQ(token, 0u);
}

TEST_F(DeferredEnds, CloseRefusesTheTokenForGood)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, far); };
    be_up();
    const uint64_t first = deferred();
    bus->end();
    out.clear();
    EXPECT_EQ(complete(first, 1, ""), -1);
    EXPECT_EQ(out.printed(), not_open());

    be_up(); /* the second bus's first is in the place of the first bus's */
    const uint64_t second = deferred();
    EXPECT_EQ(complete(first, 1, ""), -1);
    EXPECT_EQ(complete(second, 2, ""), 0);

    EXPECT_EQ(response(), "2");
}

/* The tasks of the bus are not run; the deferral goes with them. */
TEST_F(DeferredEnds, ManyOpenOnesAreFreedWithTheBus)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        return defer(c, msg, journal.size() % 2 ? far : -1);
    };
    be_up();
    for (int i = 0; i < 40; i++) {
        deferred(std::string(100, 'x'), 50);
        journal.add("one");
    }

    bus->end();

    EXPECT_EQ(responses.text(), "");
}

TEST_F(DeferredEnds, AFailedInitOfTheSubscriberDiscardsWhatItHasDeferred)
{
    watch_points();
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, far); };
    server.init = [&](qor_context_t *) {
        EXPECT_TRUE(await([this] { return client.started() && observer.started(); }));
        qor_core_context_lifecycle_start(server.core());
        EXPECT_GE(ask(), 0);
        EXPECT_TRUE(await([this] { return token != 0; })); /* handled by another worker */
        return -1;
    };
    bus.emplace(std::initializer_list<Module *>{&server, &client, &observer}, 8, 4);
    ASSERT_TRUE(await([this] { return server.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));

    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(length_of(bus->get()->time_que), 0);
    out.clear();
    EXPECT_EQ(complete(token, 1, ""), -1);

    EXPECT_EQ(out.printed(), not_open());
    EXPECT_EQ(responses.text() + journal.text(), "");
}

/* Going down, a module waits for its handlers. */
TEST_F(DeferredEnds, AFailedInitLetsAHandlerCompleteWhatItHasDeferred)
{
    Door inside;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg), 0);
        EXPECT_TRUE(inside.pass());
        EXPECT_EQ(complete(token, 1, ""), 0);
        return 0;
    };
    server.init = [&](qor_context_t *) {
        EXPECT_TRUE(await([this] { return client.started() && observer.started(); }));
        qor_core_context_lifecycle_start(server.core());
        EXPECT_GE(ask("ping", 0), 0);
        EXPECT_TRUE(inside.await(1));
        return -1;
    };
    server.unreg = [&](qor_context_t *) { inside.open(); };
    bus.emplace(std::initializer_list<Module *>{&server, &client, &observer}, 8, 4);
    ASSERT_TRUE(await([this] { return server.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));

    EXPECT_EQ(response(), "1");
}

/* The place for its reply, of which the publisher has one. */
TEST_F(DeferredEnds, ADiscardedRequestGivesThePlaceOfItsReplyBack)
{
    server.init = [&](qor_context_t *) {
        EXPECT_TRUE(await([this] { return client.started() && observer.started(); }));
        qor_core_context_lifecycle_start(server.core());
        EXPECT_GE(ask(), 0);
        EXPECT_TRUE(await([this] { return token != 0; }));
        EXPECT_EQ(qor_context_req(client.context(), other_topic, nullptr, 0), -1);
        return -1;
    };
    observer.reg = [](qor_context_t *c) { qor_context_subscribe(c, other_topic, nullptr); };
    observer.handle = [](qor_context_t *, qor_context_msg_t *) { return 3; };
    bus.emplace(RunningBus::by_start, 4, std::vector<Module *>{&server, &client, &observer}, 8);
    qor_contract_t contract;
    qor_contract_init(&contract);
    contract.replies = 1;
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(await([this] { return server.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));

    EXPECT_GE(qor_context_req(client.context(), other_topic, nullptr, 0), 0);

    EXPECT_EQ(response(), "3");
}

TEST_F(DeferredEnds, ThePublishersEndDiscardsTheResponseOnly)
{
    watch_points();
    client.init = [&](qor_context_t *) {
        EXPECT_TRUE(await([this] { return server.started() && observer.started(); }));
        qor_core_context_lifecycle_start(client.core());
        EXPECT_GE(ask(), 0);
        EXPECT_TRUE(await([this] { return token != 0; }));
        return -1;
    };
    bus.emplace(std::initializer_list<Module *>{&server, &client, &observer}, 8, 4);
    ASSERT_TRUE(await([this] { return client.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));
    rest();
    out.clear();

    EXPECT_EQ(complete(token, 9, "pong"), 0);

    EXPECT_TRUE(journal.await(1));
    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(journal.text(), "9");
    EXPECT_EQ(responses.text(), "");
    EXPECT_EQ(out.printed(), "");
}

TEST_F(DeferredEnds, TheMonitorIsToldThatAHandlerIsOverAtItsReturn)
{
    serve = [this](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(watches(), 1);
        return defer(c, msg);
    };
    be_up();
    const uint64_t open = deferred();

    EXPECT_EQ(watches(), 0);

    EXPECT_EQ(complete(open, 1, ""), 0);
    EXPECT_EQ(response(), "1");
}

TEST_F(DeferredEnds, OfACompletionAndTheEndOfItsTimeOneWins)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, 1); };
    count_responses();
    be_up(2);
    int won = 0;
    for (int i = 0; i < rounds; i++) {
        token = 0;
        ASSERT_GE(ask("ping", 0), 0);
        ASSERT_TRUE(await([this] { return token != 0; }));
        const int64_t until = util_timestamp() + 1 + i % 2;
        while (util_timestamp() < until) { /* about when it falls due */
        }
        won += complete(token, 7, "") == 0;
        ASSERT_TRUE(await([&] { return all() == i + 1; }));
    }

    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(completed, won);
    EXPECT_EQ(all(), rounds);
}

TEST_F(DeferredEnds, OfACompletionAndAnUnsuccessfulReturnOneWins)
{
    std::atomic<bool> stop{false};
    std::atomic<int> won{0};
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        EXPECT_EQ(defer(c, msg, far), 0);
        return -5;
    };
    count_responses();
    be_up(2);
    Thread completer([&] {
        uint64_t last = 0;
        while (!stop) {
            const uint64_t open = token;
            if (open != last) {
                last = open;
                won += complete(open, 7, "") == 0;
            }
        }
    });
    for (int i = 0; i < rounds; i++) {
        ASSERT_GE(ask("ping", 0), 0);
        ASSERT_TRUE(await([&] { return all() == i + 1; }));
    }
    stop = true;
    completer.join();

    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(completed, won);
    EXPECT_EQ(all(), rounds);
}

TEST_F(DeferredEnds, OfManyCompletionsOneWins)
{
    constexpr int threads = 3;
    std::atomic<int> round{0}, tried{0}, won{0};
    count_responses();
    be_up(2);
    std::vector<Thread> completers;
    for (int t = 0; t < threads; t++) {
        completers.emplace_back([&] {
            for (int i = 1; i <= rounds; i++) {
                if (!await([&] { return round >= i; })) {
                    return;
                }
                char payload[4];
                (void)qor_deferred_request(token, payload, 4);
                won += complete(token, 7, "pong") == 0;
                tried++;
            }
        });
    }
    for (int i = 1; i <= rounds; i++) {
        token = 0;
        ASSERT_GE(ask(), 0);
        ASSERT_TRUE(await([this] { return token != 0; }));
        round = i;
        ASSERT_TRUE(await([&] { return tried == threads * i && all() == i; }));
        ASSERT_EQ(won, i);
    }
    for (Thread &completer : completers) {
        completer.join();
    }

    EXPECT_EQ(completed, rounds);
}

/* Whichever comes first, nothing is lost and nothing is freed twice. */
TEST_F(DeferredEnds, OfACompletionAndQuitOneWins)
{
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, far); };
    count_responses();
    for (int i = 0; i < 60; i++) {
        completed = 0;
        be_up(2);
        token = 0;
        ASSERT_GE(ask(), 0);
        ASSERT_TRUE(await([this] { return token != 0; }));
        std::atomic<bool> ready{false};
        int32_t result = 1;
        Thread completer([&] {
            ready = true;
            result = complete(token, 7, "pong");
        });
        ASSERT_TRUE(await([&] { return ready.load(); }));
        bus->end();
        completer.join();

        EXPECT_LE(completed, result == 0 ? 1 : 0);
        EXPECT_EQ(complete(token, 7, ""), -1);
    }
    EXPECT_EQ(others, 0);
}

/* From before it is made until after the bus is gone, somebody tries the token. */
TEST_F(DeferredEnds, ATokenMayBeTriedWhileItsBusComesAndGoes)
{
    std::atomic<bool> stop{false};
    std::atomic<int> won{0};
    count_responses();
    Thread trier([&] {
        char payload[4];
        while (!stop) {
            const uint64_t open = token;
            (void)qor_deferred_request(open, payload, 4);
            won += complete(open, 7, "pong") == 0;
        }
    });
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) { return defer(c, msg, 2); };
    for (int i = 0; i < 20; i++) {
        be_up(2);
        for (int j = 0; j < 5; j++) {
            ASSERT_GE(ask(), 0);
        }
        bus->end();
    }
    stop = true;
    trier.join();

    EXPECT_LE(completed, won);
    EXPECT_EQ(complete(token, 7, ""), -1);
}

/* Handlers that return without success, their time, and completions, all at once. */
TEST_F(DeferredEnds, UnderLoadEachRequestEndsOnce)
{
    constexpr int number = 2000;
    std::atomic<int> won{0}, served{0};
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<uint64_t> tokens;
    server.descriptor.refcount = 3;
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        const int nth = served++;
        uint64_t made = 0;
        EXPECT_EQ(qor_context_defer(c, msg, 1 + nth % 5, &made), 0);
        std::lock_guard<std::mutex> lock(mutex);
        tokens.push_back(made);
        return nth % 7 == 0 ? -5 : 0;
    };
    count_responses();
    be_up(3);
    std::vector<Thread> completers;
    for (int t = 0; t < 2; t++) {
        completers.emplace_back([&] {
            while (!stop) {
                uint64_t open = 0;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (!tokens.empty()) {
                        open = tokens.back();
                        tokens.pop_back();
                    }
                }
                won += open && complete(open, 7, "pong") == 0;
            }
        });
    }
    for (int i = 0; i < number; i++) {
        ASSERT_GE(ask(), 0);
    }
    EXPECT_TRUE(await([&] { return all() == number; }));
    stop = true;
    for (Thread &completer : completers) {
        completer.join();
    }

    EXPECT_EQ(qor_bus_drain(bus->get(), 60000), 0);
    EXPECT_EQ(all(), number);
    EXPECT_EQ(completed, won);
    EXPECT_EQ(length_of(bus->get()->time_que), 0);
}

namespace {

/* A subscriber whose requests a pool of the application's handles, so that a handler can outlive
 * the bus. Nothing else runs on it. */
class DeferredOnAPool : public testing::Test {
protected:
    static constexpr qor_context_topic_t topic = 2;

    DeferredOnAPool()
    {
        s.on_task = [this](qor_context_task_t *task) {
            relay = *task;
            qor_context_task_t run = {};
            qor_context_task_init(
                &run, nullptr, "relay", 1,
                [](void *handed) -> void * {
                    return qor_context_task_excute(static_cast<qor_context_task_t *>(handed));
                },
                &relay);
            return qor_thread_pool_post(pool.get(), &run);
        };
        s.on_message = [this](qor_context_msg_t *msg) {
            EXPECT_EQ(qor_context_defer(s.get(), msg, 600000, &token), 0);
            EXPECT_TRUE(door.pass());
            EXPECT_EQ(std::memcmp(msg->request.buf, "ping", 4), 0);
            return 0;
        };
    }

    /* Has a request deferred whose handler then stands at the door. */
    void publish(qor_bus_t *bus)
    {
        char ping[] = "ping";
        p.attach(bus, QOR_BUS_ROLE_USER);
        s.attach(bus, QOR_BUS_ROLE_USER);
        qor_context_subscribe(s.get(), topic, nullptr);
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 77, topic, ping, 4);
        ASSERT_EQ(qor_context_handler_publish(p.get(), &msg), 0);
        ASSERT_TRUE(door.await(1));
    }

    Output out;
    Journal journal;
    Door door;
    Actor p{journal, "p"}, s{journal, "s"};
    qor_context_task_t relay = {};
    uint64_t token = 0;
    Pool pool{1, 1};
};

} // namespace

TEST_F(DeferredOnAPool, AModuleThatHasEndedUnderItsHandlerDefersNoMore)
{
    s.on_message = [this](qor_context_msg_t *msg) {
        EXPECT_TRUE(door.pass());
        EXPECT_EQ(qor_context_defer(s.get(), msg, -1, &token), -1);
        return 0;
    };
    StillBus bus(StillBus::bare);
    publish(bus.get());
    out.clear();

    qor_sched_delegate_destroy(s.delegate());
    door.open();

    EXPECT_TRUE(await([&] { return bus.run_all() == 1; }));
    EXPECT_EQ(journal.text(), "s:REQUEST p:RESPONSE");
    EXPECT_EQ(out.printed(),
              err_line("qor_deferred", "qor_context_defer", "the bus or the module ends."));
}

TEST_F(DeferredOnAPool, CloseDiscardsWhatIsOpenUnderAHandler)
{
    StillBus bus(StillBus::bare);
    publish(bus.get());

    bus.close();

    EXPECT_EQ(qor_deferred_complete(token, 1, nullptr, 0), -1);
    door.open();
}

TEST_F(DeferredOnAPool, CloseDiscardsWhatIsCompleteUnderAHandler)
{
    StillBus bus(StillBus::bare);
    publish(bus.get());
    EXPECT_EQ(qor_deferred_complete(token, 1, nullptr, 0), 0);

    bus.close();

    door.open();
}

/* That leaves the timer queue, but not the timer in it. */
TEST_F(DeferredOnAPool, DestroyingABusDiscardsWhatIsOpen)
{
    qor_context_module_t *none[] = {nullptr};
    qor_bus_t *bus = qor_bus_create(none, 4);
    drop_start_up(bus);
    qor_time_que_t *time_que = bus->time_que;
    list_head *head = bus->head;
    {
        const PrescribedLeak delegates;
        publish(bus);
    }
    EXPECT_EQ(length_of(time_que), 1);

    qor_bus_destroy(bus);

    EXPECT_EQ(length_of(time_que), 0);
    EXPECT_EQ(qor_deferred_complete(token, 1, nullptr, 0), -1);
    door.open();
    qor_time_que_destroy(time_que);
    free(head);
}
