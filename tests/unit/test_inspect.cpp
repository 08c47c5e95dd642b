/* SPDX-License-Identifier: Apache-2.0 */
/* Inspection of a bus that stands still: every field against what the test itself has done. */
#include "qor_inspect.h"

#include <cstring>

#include "contract_fixture.hpp"
#include "deferring.hpp"
#include "inspection.hpp"
#include "qor_sched_delegate.h"
#include "qor_topic_core.h"
#include "still_bus.hpp"
#include "thread_call.hpp"

namespace {

std::string null_line(const std::string &condition)
{
    return err_line("qor_inspect", "qor_bus_inspect", "!(" + condition + ") == true.");
}

void *nothing(void *)
{
    return nullptr;
}

/* A timer that does nothing. */
int32_t timer(qor_bus_t *bus, int32_t delay)
{
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, nullptr, qor_bus_session(bus), nothing, nullptr);
    task.delay = delay;
    return qor_bus_timer_post(bus, &task);
}

/* Two modules, of which one serves topic 0, on a bus that runs. */
class Inspect : public Contract {
protected:
    void SetUp() override
    {
        server.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            served += msg->type == QOR_CONTEXT_MSG_REQUEST;
            const int32_t number = number_of(msg);
            if (number == held) {
                door.pass();
            }
            return number == wrong ? -1 : 0;
        };
    }

    void be_up(uint32_t workers = 2)
    {
        bus.reset(new RunningBus(RunningBus::by_start, workers, {&server, &client}, TOPICS));
        bus->start();
        ASSERT_TRUE(bus->up());
        ASSERT_TRUE(settles());
    }

    /* A task of a module that does nothing, or waits at the door. */
    int32_t task(const Module &of, int32_t delay = 0, bool at_door = false)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, of.context(), nullptr, 0,
            [](void *arg) -> void * {
                if (arg) {
                    static_cast<Door *>(arg)->pass();
                }
                return nullptr;
            },
            at_door ? &door : nullptr);
        task.delay = delay;
        return qor_context_handler_post(of.context(), &task);
    }

    int32_t ask_here(int32_t number = 0)
    {
        return qor_context_x_req(client.context(), TOPIC, &number, sizeof(number));
    }

    Inspection look() { return Inspection(bus->get()); }
    qor_info_context_t context(const std::string &name) { return look().context(name); }

    enum { held = 100, wrong = 101 };
    std::atomic<uint32_t> served{0};
};

} // namespace

TEST(InspectNull, EachArgumentIsReported)
{
    Output output;
    StillBus bus(StillBus::bare);
    const qor_see_t see = [](void *, int32_t, const void *) { return 0; };

    EXPECT_EQ(qor_bus_inspect(nullptr, see, nullptr), -1);
    EXPECT_EQ(qor_bus_inspect(bus.get(), nullptr, nullptr), -1);

    EXPECT_EQ(output.printed(), null_line("bus") + null_line("see"));
}

TEST(InspectBus, QueuedTasksAreCountedAndTheMostThatEverWere)
{
    StillBus bus(StillBus::bare);
    EXPECT_EQ(Inspection(bus.get()).bus.queued, 0u);
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(qor_bus_run(bus.get(), nothing, nullptr, nullptr), 0);
    }
    bus.run_next();

    const qor_info_bus_t now = Inspection(bus.get()).bus;

    EXPECT_EQ(now.queued, 2u);
    EXPECT_EQ(now.queued_max, 3u);
    bus.run_all();
    EXPECT_EQ(Inspection(bus.get()).bus.queued, 0u);
    EXPECT_EQ(Inspection(bus.get()).bus.queued_max, 3u);
}

TEST(InspectBus, TimersAndWhenTheNextIsDue)
{
    StillBus bus(StillBus::bare);
    EXPECT_EQ(Inspection(bus.get()).bus.timers, 0u);
    EXPECT_EQ(Inspection(bus.get()).bus.next_timer_ms, INT32_MAX);
    ASSERT_EQ(timer(bus.get(), 500000), 0);
    ASSERT_EQ(timer(bus.get(), 400000), 0);

    qor_info_bus_t now = Inspection(bus.get()).bus;

    EXPECT_EQ(now.timers, 2u);
    EXPECT_LE(now.next_timer_ms, 400000);
    EXPECT_GT(now.next_timer_ms, 300000);
    ASSERT_EQ(timer(bus.get(), 1), 0);
    EXPECT_TRUE(await([&] { return Inspection(bus.get()).bus.next_timer_ms < 0; }));
}

/* Nobody can wait for that: the moment is the test's. */
TEST(InspectBus, AMomentThatIsFarOffIsAsFarAsCanBeTold)
{
    StillBus bus(StillBus::bare);
    ASSERT_EQ(timer(bus.get(), 500000), 0);
    auto *node = reinterpret_cast<qor_time_que_node_t *>(bus.get()->time_que->head.next);

    node->when = util_timestamp() - (int64_t{1} << 40);
    EXPECT_EQ(Inspection(bus.get()).bus.next_timer_ms, -INT32_MAX);
    node->when = util_timestamp() + (int64_t{1} << 40);
    EXPECT_EQ(Inspection(bus.get()).bus.next_timer_ms, INT32_MAX);
}

TEST(InspectBus, PostsThatAreRefusedAreCounted)
{
    StillBus bus(StillBus::bare);
    EXPECT_EQ(Inspection(bus.get()).bus.quitting, 0u);
    qor_bus_quit(bus.get());

    EXPECT_EQ(qor_bus_run(bus.get(), nothing, nullptr, nullptr), -1);
    EXPECT_EQ(timer(bus.get(), 1), -1);

    EXPECT_EQ(Inspection(bus.get()).bus.posts_refused, 2u);
    EXPECT_EQ(Inspection(bus.get()).bus.quitting, 1u);
}

TEST(InspectBus, LinesAreCounted)
{
    Output output;
    StillBus bus(StillBus::bare);
    const uint32_t before = Inspection(bus.get()).bus.lines;

    hal_printf("one\n");
    qor_bus_inspect(nullptr, nullptr, nullptr);

    EXPECT_EQ(Inspection(bus.get()).bus.lines - before, 2u);
}

TEST(InspectBus, ABareOneShowsNothingElse)
{
    StillBus bus(StillBus::bare);

    EXPECT_EQ(Inspection(bus.get()).order, "B");
}

TEST_F(Inspect, WorkersAndThoseThatAreIdle)
{
    be_up(3);
    EXPECT_EQ(look().bus.workers, 3u);
    EXPECT_EQ(look().bus.idle, 3u);
    ASSERT_EQ(task(server, 0, true), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(look().bus.workers, 3u);
    EXPECT_EQ(look().bus.idle, 2u);

    door.open();
    bus->quit();
    EXPECT_EQ(look().bus.workers, 0u);
    EXPECT_EQ(look().bus.idle, 0u);
}

TEST_F(Inspect, TheWalkGoesFromTheBusToContextsInTheirOrderAndTopics)
{
    be_up();
    const Inspection seen = look();

    std::string names;
    for (const qor_info_context_t &one : seen.contexts) {
        names += std::string(one.name) + (one.role == QOR_BUS_ROLE_SYS ? " s " : " u ") +
                 std::to_string(one.lifecycle < 0) + "\n";
    }
    EXPECT_EQ(names, "qor_bus_module s 1\nqor_monitor_module s 1\nqor_mng_module s 1\n"
                     "server u 0\nclient u 0\n");
    EXPECT_EQ(seen.order.substr(0, 7), "BCCCCCT");
    EXPECT_EQ(seen.without_threads().find_first_not_of('T', 6), std::string::npos);
}

TEST_F(Inspect, ALongNameIsCutOff)
{
    std::memcpy(const_cast<char *>(server.descriptor.name), "abcdefghijklmnopqrst", 20);
    be_up();

    EXPECT_STREQ(look().contexts[3].name, "abcdefghijklmnopqrs");
    EXPECT_STREQ(look().topic(TOPIC).subscriber, "abcdefghijklmnopqrs");
}

TEST_F(Inspect, RequestsResponsesAndTasksAreCountedApart)
{
    be_up();
    for (int i = 0; i < 7; i++) {
        ASSERT_GE(ask(), 0);
    }
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(task(server), 0);
    }
    ASSERT_TRUE(settles());

    const qor_info_context_t serving = context("server"), asking = context("client");

    EXPECT_EQ(serving.requests, 7u);
    EXPECT_EQ(serving.responses, 0u);
    EXPECT_EQ(serving.tasks, 3u);
    EXPECT_EQ(asking.requests, 0u);
    EXPECT_EQ(asking.responses, 7u);
    EXPECT_EQ(asking.tasks, 0u);
    EXPECT_EQ(serving.runs, 0u);
    EXPECT_EQ(serving.runs_max, 1u);
    EXPECT_EQ(serving.lifecycle, QOR_USER_CONTEXT_LIFECYCLE_RESUME);
    EXPECT_EQ(serving.contract, 0u);
    EXPECT_EQ(serving.ledger.size, 0u);
}

TEST_F(Inspect, APrivateQueueWithWhatWaitsAndWhatIsNotDue)
{
    be_up();
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(task(server), 0);
    }
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(task(server, 400000), 0);
    }

    const qor_info_context_t now = context("server");

    EXPECT_EQ(now.queued, 5u);
    EXPECT_EQ(now.queued_max, 5u);
    EXPECT_EQ(now.delayed, 2u);
    EXPECT_EQ(now.runs, 1u);
    EXPECT_EQ(look().bus.timers, 2u);
    EXPECT_TRUE(await([&] { return context("server").waiting_ms > 20; }));
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(context("server").queued, 2u);
    EXPECT_EQ(context("server").queued_max, 5u);
    EXPECT_EQ(context("server").delayed, 2u);
    EXPECT_EQ(context("server").waiting_ms, 0);
}

TEST_F(Inspect, ManyThatAreNotDueAreCountedAndFewToo)
{
    be_up();
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    for (uint32_t due = 0; due < 4; due++) {
        for (uint32_t delayed = 0; delayed < 8; delayed++) {
            EXPECT_EQ(context("server").queued, due + 8 * due + delayed);
            EXPECT_EQ(context("server").delayed, 8 * due + delayed);
            ASSERT_EQ(task(server, 400000), 0);
        }
        ASSERT_EQ(task(server), 0);
    }
}

TEST_F(Inspect, TasksPastTheFullQueueAreBypassed)
{
    be_up();
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    for (int i = 0; i < 53; i++) {
        ASSERT_EQ(task(server), 0);
    }

    EXPECT_EQ(context("server").queued, 50u);
    EXPECT_EQ(context("server").tasks, 50u);
    EXPECT_EQ(context("server").bypassed, 3u);
    EXPECT_EQ(context("server").refused, 0u);
}

TEST_F(Inspect, PostsToAModuleThatHasFailedAreRefused)
{
    server.init = [](qor_context_t *) { return -1; };
    bus.reset(new RunningBus(RunningBus::by_start, 2, {&server, &client}, TOPICS));
    bus->start();
    ASSERT_TRUE(await([this] { return client.started(); }));
    ASSERT_TRUE(settles());

    EXPECT_EQ(task(server), -1);
    EXPECT_EQ(task(server), -1);

    EXPECT_EQ(context("server").refused, 2u);
    EXPECT_EQ(context("server").tasks, 0u);
    EXPECT_EQ(context("server").lifecycle, QOR_USER_CONTEXT_LIFECYCLE_DESTROY);
}

TEST_F(Inspect, HandlersThatFailAreCounted)
{
    be_up();
    ASSERT_GE(ask(wrong), 0);
    ASSERT_GE(ask(), 0);
    EXPECT_EQ(ask_here(wrong), -1);
    ASSERT_TRUE(settles());

    EXPECT_EQ(context("server").failed, 2u);
    EXPECT_EQ(context("client").failed, 0u);
}

TEST_F(Inspect, ATopicWithItsRegistrations)
{
    be_up();
    EXPECT_EQ(look().topic(2).size, 0u); /* never had one: not shown */
    qor_context_subscribe(server.context(), 2, nullptr);
    qor_context_subscribe(client.context(), 2, nullptr);
    qor_context_listen(server.context(), 2, nullptr);
    qor_context_filter(server.context(), 2, nullptr);
    qor_context_filter(client.context(), 2, nullptr);
    qor_context_filter(client.context(), 2, nullptr);

    const qor_info_topic_t now = look().topic(2);

    EXPECT_STREQ(now.subscriber, "client");
    EXPECT_EQ(now.subscribers, 2u);
    EXPECT_EQ(now.listeners, 1u);
    EXPECT_EQ(now.filters, 3u);
    qor_context_unsubscribe(client.context(), 2);
    EXPECT_STREQ(look().topic(2).subscriber, "server");
    EXPECT_EQ(look().topic(2).subscribers, 1u);
    qor_context_unsubscribe(server.context(), 2);
    EXPECT_STREQ(look().topic(2).subscriber, "");
    EXPECT_EQ(look().topic(2).subscribers, 0u);
    EXPECT_EQ(look().topic(2).size, sizeof(now)); /* and has had some: shown */
}

TEST_F(Inspect, RequestsOfATopicAreCountedOnceEach)
{
    be_up();
    const auto listen = [](qor_context_t *c) { qor_context_listen(c, TOPIC, nullptr); };
    const auto filter = [](qor_context_t *c) { qor_context_filter(c, TOPIC, nullptr); };
    for (int i = 0; i < 5; i++) {
        ASSERT_GE(ask(), 0);
        ASSERT_GE(ask_here(), 0);
    }
    listen(client.context());
    filter(client.context());
    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask_here(), 0);
    ASSERT_TRUE(settles());
    qor_context_unsubscribe(server.context(), TOPIC);

    EXPECT_EQ(ask(), -1);
    EXPECT_EQ(ask_here(), -1);

    EXPECT_EQ(look().topic(TOPIC).requests, 14u);
    EXPECT_EQ(look().topic(TOPIC).unserved, 2u);
    EXPECT_EQ(qor_context_req(client.context(), TOPICS, nullptr, 0), -1);
    EXPECT_EQ(look().topics.back().role, QOR_BUS_ROLE_SYS);
    EXPECT_EQ(look().topic(QOR_SYS_BUS_REGISTER, QOR_BUS_ROLE_SYS).requests, 2u);
    EXPECT_STREQ(look().topic(QOR_SYS_BUS_REGISTER, QOR_BUS_ROLE_SYS).subscriber, "qor_bus_module");
}

TEST_F(Inspect, RequestsAreCountedWhileRegistrationsComeAndGo)
{
    be_up();
    std::atomic<bool> over{false};
    std::atomic<uint32_t> published{0};
    std::vector<Thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            while (!over) {
                published += ask_here() >= 0;
            }
        });
    }
    ASSERT_TRUE(await([&] { return published > 0; }));
    for (int turn = 0; turn < 2000; turn++) {
        qor_context_listen(server.context(), TOPIC, nullptr);
        qor_topic_core_unlisten(qor_bus_topic_core_get(bus->get(), QOR_BUS_ROLE_USER),
                                &server.core()->base, TOPIC);
    }
    over = true;
    threads.clear();
    ASSERT_TRUE(settles());

    EXPECT_EQ(look().topic(TOPIC).requests, published);
    EXPECT_EQ(served, published);
    EXPECT_EQ(look().topic(TOPIC).listeners, 0u);
}

TEST_F(Inspect, AContractsTermsAndLedger)
{
    qor_contract_t contract = strict_terms(2, QOR_OVERFLOW_BLOCK, 60000);
    contract.open_max = 9;
    contract.replies = 8;
    running_with(contract, 3);
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask(), 0);
    ThreadCall first([this] { return ask(); }), second([this] { return ask(); });
    ASSERT_TRUE(await([this] { return context("server").blocked == 2; }));

    const qor_info_context_t now = context("server");

    EXPECT_EQ(now.contract, 1u);
    EXPECT_EQ(now.strict, 1u);
    EXPECT_EQ(now.limit, 1u);
    EXPECT_EQ(now.depth, 2u);
    EXPECT_EQ(now.overflow, QOR_OVERFLOW_BLOCK);
    EXPECT_EQ(now.open_max, 9u);
    EXPECT_EQ(now.replies_max, 8u);
    EXPECT_EQ(now.replies, 0u);
    EXPECT_EQ(now.runs, 1u);
    EXPECT_EQ(now.runs_max, 1u);
    EXPECT_EQ(now.queued, 2u);
    EXPECT_EQ(now.requests, 3u);
    EXPECT_EQ(now.ledger.running, 1u);
    EXPECT_EQ(now.ledger.waiting, 2u);
    const qor_ledger_t copy = ledger();
    EXPECT_EQ(std::memcmp(&now.ledger, &copy, sizeof(copy)), 0);
    EXPECT_EQ(context("client").contract, 0u);
    door.open();
    EXPECT_GE(first.get(), 0);
    EXPECT_GE(second.get(), 0);
    ASSERT_TRUE(settles());
    EXPECT_EQ(context("server").blocked, 0u);
    EXPECT_EQ(context("server").ledger.run, 5u);
}

TEST_F(Inspect, LossesStandInTheLedgerByReason)
{
    running_with(strict_terms(1, QOR_OVERFLOW_DROP_OLDEST));
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    for (int i = 0; i < 4; i++) {
        ASSERT_GE(ask(), 0);
    }

    EXPECT_EQ(context("server").ledger.dropped_oldest, 3u);
    EXPECT_EQ(context("server").ledger.dropped_newest, 0u);
    EXPECT_EQ(context("server").ledger.accepted, 5u);
}

TEST_F(Inspect, TheRefusedAreTheLedgersWhereThereIsOne)
{
    running_with(strict_terms(1));
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(), 0);
    EXPECT_EQ(ask(), -1);
    EXPECT_EQ(ask(), -1);

    EXPECT_EQ(context("server").refused, 2u);
    EXPECT_EQ(context("server").ledger.refused, 2u);
}

TEST_F(Inspect, TheBypassedAreTheLedgersWhereThereIsOne)
{
    running_with(terms([](qor_contract_t &c) { c.depth = 1; }));
    ASSERT_GE(ask(held), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(), 0);
    ASSERT_GE(ask(), 0);
    EXPECT_EQ(context("server").bypassed, 1u);
    EXPECT_EQ(context("server").limit, 0u);
    EXPECT_EQ(context("server").runs_max, 1u);
}

TEST_F(Inspect, RepliesThatAreTaken)
{
    bus.reset(new RunningBus(RunningBus::by_start, 2, {&server, &client}, TOPICS));
    const qor_contract_t contract = terms([](qor_contract_t &c) { c.replies = 5; });
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "client", &contract), 0);
    bus->start();
    ASSERT_TRUE(bus->up());
    ASSERT_GE(ask(held), 0);
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));

    EXPECT_EQ(context("client").replies, 2u);
    EXPECT_EQ(context("client").replies_max, 5u);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(context("client").replies, 0u);
}

TEST_F(Inspect, AContractBeforeItsModuleIsRegistered)
{
    bus_with(strict_terms());
    EXPECT_EQ(look().order, "B");
    std::atomic<uint32_t> depth{0}, accepted{9};
    server.reg = [&](qor_context_t *) {
        depth = context("server").depth;
        accepted = static_cast<uint32_t>(context("server").ledger.accepted);
    };
    bus->start();
    ASSERT_TRUE(bus->up());

    EXPECT_EQ(depth, 50u);
    EXPECT_EQ(accepted, 0u);
    end();
}

TEST_F(Inspect, AContractWhoseQueueIsNotBoundYet)
{
    bus_with(strict_terms());
    qor_context_t *context = qor_context_create(&qor_core_context_class, &server.descriptor);
    qor_sched_delegate_create(bus->get(), QOR_BUS_ROLE_USER, context);

    qor_context_t *inner = qor_core_context_type(context)->context;
    for (int i = 0; i < 51; i++) {
        EXPECT_EQ(qor_context_x_run_s(inner, 9, nothing, nullptr), 0);
    }

    const qor_info_context_t found = look().context("server");

    EXPECT_EQ(found.depth, 50u);
    EXPECT_EQ(found.queued, 50u);
    EXPECT_EQ(found.bypassed, 1u); /* as its own queue has counted */
    EXPECT_EQ(found.ledger.accepted, 0u);
    qor_context_uninit(context);
    qor_context_destroy(context);
}

TEST_F(Deferring, AnOpenRequestIsShownWithItsAge)
{
    be_up();
    EXPECT_EQ(Inspection(bus->get()).requests.size(), 0u);
    const int32_t session = qor_bus_session(bus->get()) + 1;
    const uint64_t first = deferred();
    deferred();

    Inspection seen(bus->get());

    ASSERT_EQ(seen.requests.size(), 2u);
    EXPECT_EQ(seen.order.substr(seen.order.size() - 2), "RR");
    EXPECT_STREQ(seen.requests[0].name, "server");
    EXPECT_EQ(seen.requests[0].topic, topic);
    EXPECT_GE(seen.requests[0].session, session);
    EXPECT_GT(seen.requests[1].session, seen.requests[0].session);
    EXPECT_TRUE(await([&] { return Inspection(bus->get()).requests[0].age_ms > 20; }));
    ASSERT_EQ(complete(first, 0, ""), 0);
    seen = Inspection(bus->get());
    ASSERT_EQ(seen.requests.size(), 1u);
    bus->quit();
    EXPECT_EQ(Inspection(bus->get()).requests.size(), 0u);
}

TEST_F(Deferring, TheNewestComesWithItsOwnSession)
{
    std::atomic<int32_t> session{-1};
    serve = [&](qor_context_t *c, qor_context_msg_t *msg) {
        session = msg->session;
        return defer(c, msg, 300000);
    };
    be_up();
    deferred();

    ASSERT_EQ(Inspection(bus->get()).requests.size(), 1u);
    EXPECT_EQ(Inspection(bus->get()).requests[0].session, session);
    EXPECT_EQ(Inspection(bus->get()).bus.timers, 1u);
}

TEST_F(Inspect, WhateverSeeReturnsButZeroEndsIt)
{
    be_up();
    const std::string all = look().order;
    for (size_t last = 1; last <= all.size(); last++) {
        std::string shown;
        const int32_t result = inspect(bus->get(), [&](int32_t kind, const void *) {
            shown += "BCTHR"[kind];
            return shown.size() == last ? 40 + static_cast<int32_t>(last) : 0;
        });
        EXPECT_EQ(result, 40 + static_cast<int32_t>(last));
        EXPECT_EQ(shown, all.substr(0, last));
    }
    EXPECT_EQ(inspect(bus->get(), [](int32_t, const void *) { return -7; }), -7);
}

TEST_F(Inspect, SeeMayCallTheBus)
{
    be_up();
    int records = 0;

    const int32_t result = inspect(bus->get(), [&](int32_t kind, const void *) {
        records++;
        EXPECT_GE(ask(), 0);
        EXPECT_EQ(task(server), 0);
        EXPECT_EQ(timer(bus->get(), 1), 0);
        EXPECT_EQ(qor_context_listen(client.context(), TOPIC, nullptr), 0);
        if (kind == QOR_INFO_TOPIC) {
            qor_context_unsubscribe(server.context(), TOPIC);
            qor_context_subscribe(server.context(), TOPIC, nullptr);
        }
        EXPECT_EQ(qor_bus_inspect(
                      bus->get(), [](void *, int32_t, const void *) { return 0; }, nullptr),
                  0);
        return 0;
    });

    EXPECT_EQ(result, 0);
    EXPECT_GE(records, 7);
    EXPECT_TRUE(settles());
}

TEST_F(Inspect, AHandlerMayInspect)
{
    std::atomic<uint32_t> running{0}, runs{0};
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        const Inspection seen(bus->get());
        running = static_cast<uint32_t>(seen.context("server").ledger.running);
        runs = seen.context("server").runs;
        return 0;
    };
    running_with(strict_terms());
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(settles());

    EXPECT_EQ(running, 1u);
    EXPECT_EQ(runs, 1u);
    end();
}

TEST_F(Inspect, ABusThatHasEndedCanBeSeenUntilItIsClosed)
{
    be_up();
    std::string in_uninit;
    server.uninit = [&in_uninit, closed = bus->get()](qor_context_t *) {
        in_uninit = Inspection(closed).order;
    };
    const std::string before = look().without_threads();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(settles());
    bus->quit();

    EXPECT_EQ(look().without_threads(), before);
    EXPECT_EQ(context("server").requests, 1u);
    EXPECT_EQ(look().bus.quitting, 1u);

    end();
    EXPECT_EQ(in_uninit.substr(0, 6), "BCCCCC");
}

TEST_F(Inspect, CloseWaitsForAnInspection)
{
    be_up();
    bus->quit();
    Thread inspector([this] {
        inspect(bus->get(), [this](int32_t, const void *) {
            door.pass();
            return 0;
        });
    });
    ASSERT_TRUE(door.await(1));
    ThreadCall close([this] {
        bus->end();
        return 0;
    });

    EXPECT_TRUE(close.waits());

    door.open();
    EXPECT_EQ(close.get(), 0);
}

TEST_F(Inspect, AThreadThatEndsInSeeHasLeftTheBus)
{
    be_up();
    const auto leave = [](void *arg) -> void * {
        qor_bus_inspect(
            static_cast<qor_bus_t *>(arg),
            [](void *, int32_t, const void *) -> int32_t { pthread_exit(nullptr); }, nullptr);
        return nullptr;
    };
    pthread_t outsider;
    ASSERT_EQ(pthread_create(&outsider, nullptr, leave, bus->get()), 0);
    pthread_join(outsider, nullptr);
    ASSERT_EQ(qor_bus_run(bus->get(), leave, bus->get(), nullptr), 0);
    ASSERT_TRUE(settles());

    bus->quit();
    ThreadCall close([this] {
        bus->end();
        return 0;
    });
    EXPECT_EQ(close.get(), 0);
}

TEST_F(Inspect, AContextThatIsAttachedAgainIsShownOnce)
{
    be_up();
    qor_sys_bus_register_request_t request = {&client.core()->base};
    const size_t before = look().contexts.size();
    ASSERT_TRUE(qor_sched_delegate_create(bus->get(), QOR_BUS_ROLE_USER, request.context));

    EXPECT_EQ(look().contexts.size(), before);
    EXPECT_STREQ(look().contexts.back().name, "client");
}

TEST_F(Inspect, ContextsThatAreAttachedAgainAreShownOnceEach)
{
    be_up();
    const size_t before = look().contexts.size();
    for (const Module *each : {&server, &client, &server}) {
        ASSERT_TRUE(qor_sched_delegate_create(bus->get(), QOR_BUS_ROLE_USER, &each->core()->base));
    }

    EXPECT_EQ(look().contexts.size(), before);
}
