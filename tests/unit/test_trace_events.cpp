/* SPDX-License-Identifier: Apache-2.0 */
/* What the recorder notes of each thing that happens on a bus: the events between two marks. */
#include <gtest/gtest.h>

#include "contract_fixture.hpp"
#include "qor_deferred.h"
#include "qor_periodic.h"
#include "qor_start.h"
#include "recording.hpp"

namespace {

constexpr uint32_t traffic =
    QOR_TRACE_REQUESTS | QOR_TRACE_OBSERVERS | QOR_TRACE_CALLS | QOR_TRACE_TASKS | QOR_TRACE_MARKS;

std::string s(int32_t session)
{
    return " s" + std::to_string(session) + " ";
}

/* A client, and a server of topic 0. */
class TraceEvents : public Contract {
protected:
    /* Makes the bus, with one worker. */
    RunningBus &made(uint32_t mask = traffic, const std::vector<Module *> &others = {},
                     uint32_t workers = 1)
    {
        std::vector<Module *> modules = {&server, &client};
        modules.insert(modules.end(), others.begin(), others.end());
        bus.reset(new RunningBus(RunningBus::by_start, workers, modules, TOPICS));
        memory.config.mask = mask | QOR_TRACE_MARKS;
        EXPECT_EQ(qor_trace_start(bus->get(), &memory.config), 0);
        return *bus;
    }

    void up()
    {
        bus->start();
        ASSERT_TRUE(bus->up());
        ASSERT_EQ(qor_bus_drain(bus->get(), 10000), 0);
    }

    void made_up(uint32_t mask = traffic, const std::vector<Module *> &others = {},
                 uint32_t workers = 1)
    {
        made(mask, others, workers);
        up();
    }

    /* The events of what a task of no module does on a worker, and of what follows from it. */
    std::string told(const std::function<void()> &act)
    {
        job = [act] {
            qor_trace_mark(1, 0);
            act();
        };
        qor_bus_run(bus->get(), on_worker, this, nullptr);
        EXPECT_TRUE(await([this] { return qor_bus_drain(bus->get(), 10000) == 0; }));
        qor_trace_mark(2, 0);
        end();
        return memory.recording().between_marks();
    }

    CopiedRecording now() const { return CopiedRecording(memory.size()); }

    RecordedMemory memory;

private:
    static void *on_worker(void *self)
    {
        static_cast<TraceEvents *>(self)->job();
        return nullptr;
    }

    std::function<void()> job;
};

TEST_F(TraceEvents, ARequestIsToldFromItsPublisherToTheEndOfTheResponse)
{
    server.handle = [](qor_context_t *, qor_context_msg_t *) { return 7; };
    made_up();
    int32_t session = 0;
    const std::string events = told([&] { session = ask(); });
    EXPECT_EQ(events, "from client" + s(session) + "0\n" +        /**/
                          "request server" + s(session) + "0\n" + /**/
                          "start server" + s(session) + "0\n" +   /**/
                          "end server" + s(session) + "7\n" +     /**/
                          "start/1 client" + s(session) + "0\n" + /**/
                          "end/1 client" + s(session) + "0\n");
}

TEST_F(TraceEvents, APublisherThatAsksInsideItsOwnHandlerIsNotToldAgain)
{
    int32_t asked = 0;
    client.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE && !asked) {
            asked = qor_context_req(context, TOPIC, nullptr, 0);
        }
        return 0;
    };
    made_up(QOR_TRACE_REQUESTS);
    int32_t session = 0;
    const std::string events = told([&] { session = ask(); });
    EXPECT_EQ(events.substr(0, events.find("end/1")),
              "from client" + s(session) + "0\n" + /**/
                  "request server" + s(session) + "0\n" + "start server" + s(session) + "0\n" +
                  "end server" + s(session) + "0\n" + "start/1 client" + s(session) + "0\n" +
                  "request server" + s(asked) + "0\n");
}

TEST_F(TraceEvents, ACallIsToldInsideWhatCallsIt)
{
    client.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            qor_context_x_req_s(context, 55, TOPIC, nullptr, 0);
        }
        return 0;
    };
    server.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        return msg->session == 55 ? 3 : 0;
    };
    made_up();
    int32_t session = 0;
    const std::string events = told([&] { session = ask(); });
    EXPECT_EQ(events.substr(events.find("start/1")), "start/1 client" + s(session) + "0\n" + /**/
                                                         "start/7 server s55 0\n" +
                                                         "end/7 server s55 3\n" + "end/1 client" +
                                                         s(session) + "0\n");
}

TEST_F(TraceEvents, ACallFromOutsideTellsItsCaller)
{
    made_up();
    EXPECT_EQ(told([&] { qor_context_x_req_s(client.context(), 9, TOPIC, nullptr, 0); }),
              "from client s9 0\n"
              "start/7 server s9 0\n"
              "end/7 server s9 0\n");
}

TEST_F(TraceEvents, ARequestThatNobodyServesIsDropped)
{
    made_up();
    EXPECT_EQ(told([&] { qor_context_req_s(client.context(), 9, 3, nullptr, 0); }),
              "drop/1 client s9 3\n");
}

TEST_F(TraceEvents, ObserversAreToldWithTheirPoint)
{
    Module observer("observer");
    observer.reg = [](qor_context_t *context) {
        qor_context_topic_attr_t both = {};
        both.point = QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE | QOR_CONTEXT_TOPIC_ATTR_POINT_AFTER;
        qor_context_listen(context, TOPIC, &both);
        qor_context_filter(context, TOPIC, &both);
    };
    made_up(QOR_TRACE_OBSERVERS, {&observer});
    EXPECT_EQ(told([&] { qor_context_req_s(client.context(), 9, TOPIC, nullptr, 0); }),
              "start/4 observer s9 0\nend/4 observer s9 0\n"
              "start/2 observer s9 0\nend/2 observer s9 0\n"
              "start/5 observer s9 0\nend/5 observer s9 0\n"
              "start/3 observer s9 0\nend/3 observer s9 0\n");
}

TEST_F(TraceEvents, AStrictListenersCopyIsToldInItsTurn)
{
    Module observer("observer");
    observer.reg = [](qor_context_t *context) { qor_context_listen(context, TOPIC, nullptr); };
    made(QOR_TRACE_OBSERVERS | QOR_TRACE_TASKS, {&observer});
    const qor_contract_t strict = strict_terms();
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "observer", &strict), 0);
    up();
    EXPECT_EQ(told([&] { qor_context_req_s(client.context(), 9, TOPIC, nullptr, 0); }),
              "start/2 observer s9 0\nend/2 observer s9 0\n"
              "start/3 observer s9 0\nend/3 observer s9 0\n");
}

void *nothing(void *)
{
    return nullptr;
}

TEST_F(TraceEvents, ATaskIsToldAsPostedStartedAndEnded)
{
    made_up();
    EXPECT_EQ(told([&] { qor_context_run_s(client.context(), 9, nothing, nullptr); }),
              "post client s9 0\n"
              "start/6 client s9 -1\n"
              "end/6 client s9 0\n");
}

TEST_F(TraceEvents, ATimerIsToldWhenItFallsDue)
{
    made_up(QOR_TRACE_TASKS);
    qor_context_timer_s(client.context(), 9, nothing, nullptr, 20);
    ASSERT_TRUE(await(
        [&] { return now().told({event_end}).find("end/6 client s9 0\n") != std::string::npos; }));
    end();
    const std::string events =
        memory.recording().told({event_post, event_due, event_start, event_end});
    EXPECT_EQ(events.find("post client s9 20\ndue - s"), 0u) << events;
    EXPECT_NE(events.find("\nstart/6 client s9 -1\nend/6 client s9 0\n"), std::string::npos);
}

TEST_F(TraceEvents, OnlyAGivenNameIsTold)
{
    made_up(QOR_TRACE_TASKS);
    EXPECT_EQ(told([&] {
                  qor_context_task_t task = {};
                  qor_context_task_init(&task, &client.core()->base,
                                        "a name of more than 22 letters", 9, nothing, nullptr);
                  qor_context_handle_task(&client.core()->base, &task);
              }),
              "post client s9 0\n"
              "start/6 client s9 -1 \"a name of more than 22 letters\"\n"
              "end/6 client s9 0\n");
}

TEST_F(TraceEvents, ATaskWithoutANameHasNone)
{
    made_up(QOR_TRACE_TASKS);
    EXPECT_EQ(told([&] {
                  qor_context_task_t task = {};
                  qor_context_task_init(&task, &client.core()->base, nullptr, 9, nothing, nullptr);
                  task.name[0] = '\0';
                  qor_context_handle_task(&client.core()->base, &task);
              }),
              "post client s9 0\n"
              "start/6 client s9 -1\n"
              "end/6 client s9 0\n");
}

TEST_F(TraceEvents, ATaskOfAContextWithoutABusIsNobodys)
{
    Module lone("lone");
    made_up(QOR_TRACE_TASKS);
    EXPECT_EQ(told([&] {
                  qor_context_t *context = qor_core_context_class.create(&lone.descriptor);
                  qor_context_task_t task = {};
                  qor_context_task_init(&task, context, nullptr, 9, nothing, nullptr);
                  qor_context_handle_task(context, &task);
                  qor_context_t *inner = qor_core_context_type(context)->context;
                  qor_context_uninit(context);
                  qor_context_destroy(context);
                  qor_context_destroy(inner);
              }),
              "post - s9 0\n"
              "drop/3 - s9 -1\n");
}

TEST_F(TraceEvents, ACancelIsToldWithItsResult)
{
    made_up(QOR_TRACE_TASKS);
    EXPECT_EQ(told([&] {
                  qor_context_timer_s(client.context(), 9, nothing, nullptr, 60000);
                  qor_context_handler_cancel(client.context(), 9);
                  qor_context_handler_cancel(client.context(), 9);
              }),
              "post client s9 60000\n"
              "cancel client s9 0\n"
              "cancel client s9 -1\n");
}

TEST_F(TraceEvents, TheFiftyFirstTaskIsToldToBypassTheQueue)
{
    made_up(QOR_TRACE_TASKS);
    const std::string events = told([&] {
        for (int32_t session = 100; session < 151; session++) {
            qor_context_run_s(client.context(), session, nothing, nullptr);
        }
    });
    EXPECT_EQ(events.find("bypass"), events.rfind("bypass"));
    EXPECT_NE(events.find("post client s150 0\nbypass client s150 0\n"), std::string::npos);
}

TEST_F(TraceEvents, APeriodicRunTellsWhatItMissed)
{
    Door slow;
    client.init = [&](qor_context_t *context) {
        qor_context_every(
            context,
            [](qor_context_t *, int32_t, void *arg, uint32_t) { static_cast<Door *>(arg)->pass(); },
            &slow, nullptr, 20);
        return 0;
    };
    made(QOR_TRACE_TASKS);
    bus->start();
    ASSERT_TRUE(slow.await(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    slow.open();
    ASSERT_TRUE(await(
        [&] { return now().told({event_missed}).find("missed client s") != std::string::npos; }));
    end();
    EXPECT_NE(memory.recording().told({event_start}).find("start/6 client s"), std::string::npos);
}

TEST_F(TraceEvents, RegistrationsAreTold)
{
    made_up(QOR_TRACE_CHANGES);
    const std::string events = told([&] {
        qor_context_subscribe(client.context(), 1, nullptr);
        qor_context_listen(client.context(), 2, nullptr);
        qor_context_filter(client.context(), 3, nullptr);
        qor_context_handler_unsubscribe(client.context(), 1);
        qor_context_handler_unfilter(client.context(), 3);
    });
    EXPECT_EQ(events.substr(0, events.find("wait")), "register client s0 1\n"
                                                     "register/1 client s0 2\n"
                                                     "register/2 client s0 3\n"
                                                     "register/128 client s0 1\n"
                                                     "register/130 client s0 3\n");
}

TEST_F(TraceEvents, AnInitIsToldWithItsResultAndTheLifecycleBesideIt)
{
    client.init = [](qor_context_t *) { return 5; };
    made_up(QOR_TRACE_CHANGES);
    end();
    const std::string events = memory.recording().told({event_start, event_end, event_lifecycle});
    EXPECT_NE(events.find("start/9 client s0 -1\nend/9 client s0 5\nlifecycle client s0 1\n"
                          "lifecycle client s1 2\n"),
              std::string::npos)
        << events;
}

TEST_F(TraceEvents, WaitsAreToldFromTheirBeginToTheirEnd)
{
    made_up(QOR_TRACE_CHANGES);
    EXPECT_EQ(qor_bus_wait_up(bus->get(), 500, nullptr), 0);
    EXPECT_EQ(qor_bus_drain(bus->get(), 400), 0);
    end();
    const std::string events = memory.recording().told({event_wait, event_waited, event_quit});
    EXPECT_NE(events.find("wait/10 - s0 500\nwaited/10 - s0 0\n"
                          "wait/7 - s0 400\nwaited/7 - s0 0\nquit - s0 0\n"),
              std::string::npos)
        << events;
}

TEST_F(TraceEvents, WhoWaitsForAStartIsToldWhoseAndForHowLong)
{
    client.init = [&](qor_context_t *) {
        door.pass();
        return 0;
    };
    made(QOR_TRACE_CHANGES, {}, 2);
    bus->start();
    ASSERT_TRUE(door.await(1));
    Thread waiting([&] { qor_context_x_req_s(server.context(), 9, 1, nullptr, 0); });
    /* Nobody serves topic 1: the client subscribes to it, and so its start is waited for. */
    waiting.join();
    qor_context_subscribe(client.context(), 1, nullptr);
    Thread caller([&] { qor_context_x_req_s(server.context(), 9, 1, nullptr, 0); });
    ASSERT_TRUE(await([&] {
        return now().told({event_wait}).find("wait/5 client s0 -1\n") != std::string::npos;
    }));
    door.open();
    caller.join();
    end();
    EXPECT_NE(memory.recording().told({event_waited}).find("waited/5 client s0 0\n"),
              std::string::npos);
}

TEST_F(TraceEvents, LinesAreToldWithLevelAndTheirFirst31Bytes)
{
    made_up(QOR_TRACE_LINES);
    EXPECT_EQ(told([] {
                  hal_printf("short\n");
                  hal_printf("[%s][err]%s\n", "tag", "abcdefghijklmnopqrstuvwxyz");
              }),
              "line/6 - s0 0 \"short\"\n"
              "line/3 - s0 0 \"[tag][err]abcdefghijklmnopqrstu\"\n");
}

TEST_F(TraceEvents, SystemCallsAreToldOnDemand)
{
    made_up(QOR_TRACE_SYSTEM | QOR_TRACE_TASKS);
    qor_bus_watch_set(bus->get(), 1);
    const std::string events = told([&] {
        qor_sys_monitor_task_t report = {};
        qor_context_sysx_req(&client.core()->base, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    });
    EXPECT_NE(events.find("start/8 qor_monitor_module s"), std::string::npos) << events;
    EXPECT_NE(events.find("end/8 qor_monitor_module s"), std::string::npos) << events;
}

TEST_F(TraceEvents, ADeferredRequestIsToldUntilItIsCompleted)
{
    uint64_t token = 0;
    server.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        return qor_context_defer(context, msg, -1, &token);
    };
    made_up();
    int32_t session = 0;
    const std::string events = told([&] {
        session = ask();
        qor_context_run_s(
            client.context(), 9,
            [](void *arg) -> void * {
                qor_deferred_complete(*static_cast<uint64_t *>(arg), 4, nullptr, 0);
                return nullptr;
            },
            &token);
    });
    EXPECT_NE(events.find("start server" + s(session) + "0\n" + /**/
                          "deferred server" + s(session) + "0\n" + "end server" + s(session) +
                          "0\n"),
              std::string::npos)
        << events;
    EXPECT_NE(events.find("completed server" + s(session) + "4\n"), std::string::npos) << events;
    EXPECT_NE(events.find("start/1 client" + s(session) + "0\n"), std::string::npos) << events;
}

TEST_F(TraceEvents, ATimeLimitAndTheEndOfTheBusCompleteDeferredRequestsToo)
{
    int32_t limit = 20;
    server.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        uint64_t token;
        const int32_t deferred = qor_context_defer(context, msg, limit, &token);
        limit = -1;
        return deferred;
    };
    made_up();
    const int32_t first = ask();
    ASSERT_TRUE(await([&] { return answers.text() == "a" || answers.text() == "-"; }));
    const int32_t second = ask();
    ASSERT_TRUE(await([&] {
        return now().told({event_deferred}).find("server" + s(second)) != std::string::npos;
    }));
    end();
    EXPECT_EQ(memory.recording().told({event_completed}),
              "completed/1 server" + s(first) + std::to_string(QOR_RET_EXPIRED) + "\n" + /**/
                  "completed/2 server" + s(second) + "0\n");
}

TEST_F(TraceEvents, WhatAContractLosesIsToldWithKindAndReason)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    made(QOR_TRACE_REQUESTS, {}, 2);
    const qor_contract_t newest = strict_terms(1, QOR_OVERFLOW_DROP_NEWEST);
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", &newest), 0);
    up();
    ask();
    ASSERT_TRUE(door.await(1));
    ask();
    const int32_t lost = ask();
    qor_context_run_s(server.context(), 9, nothing, nullptr);
    end();
    EXPECT_EQ(memory.recording().told({event_lost}),
              "lost/1 server" + s(lost) + "0\n" + "lost/33 server s9 -1\n");
}

TEST_F(TraceEvents, WhoWaitsForAPlaceIsTold)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    made(QOR_TRACE_CHANGES, {}, 2);
    const qor_contract_t blocking = strict_terms(1, QOR_OVERFLOW_BLOCK, 20000);
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", &blocking), 0);
    up();
    ask();
    ASSERT_TRUE(door.await(1));
    ask();
    Thread blocked([&] { ask(); });
    ASSERT_TRUE(
        await([&] { return now().told({event_wait}).find("wait/9 server") != std::string::npos; }));
    door.open();
    blocked.join();
    end();
    EXPECT_NE(memory.recording().told({event_waited}).find("waited/9 server"), std::string::npos);
}

TEST_F(TraceEvents, ARequestThatIsHandedOnIsToldAsMoved)
{
    Module newer("newer");
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    made(QOR_TRACE_REQUESTS, {&newer}, 2);
    const qor_contract_t strict = strict_terms();
    ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", &strict), 0);
    up();
    ask();
    ASSERT_TRUE(door.await(1));
    const int32_t moved = ask();
    qor_context_subscribe(newer.context(), TOPIC, nullptr);
    door.open();
    ASSERT_TRUE(await([&] { return answers.text() == "aa"; }));
    end();
    const std::string events = memory.recording().told({event_request, event_start});
    EXPECT_NE(events.find("request/2 newer" + s(moved) + "0\n"), std::string::npos) << events;
    EXPECT_NE(events.find("start newer" + s(moved) + "0\n"), std::string::npos) << events;
}

TEST_F(TraceEvents, ARequestThatTheEndDiscardsIsDropped)
{
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        door.pass();
        return 0;
    };
    made_up(QOR_TRACE_REQUESTS);
    ask();
    ASSERT_TRUE(door.await(1));
    const int32_t discarded = ask();
    qor_bus_quit(bus->get());
    end();
    EXPECT_NE(memory.recording().told({event_drop}).find("drop/4 client" + s(discarded) + "0\n"),
              std::string::npos);
}

TEST_F(TraceEvents, ATaskThatIsRefusedIsDropped)
{
    made_up(QOR_TRACE_TASKS);
    qor_bus_quit(bus->get());
    qor_context_run_s(client.context(), 9, nothing, nullptr);
    end();
    EXPECT_EQ(memory.recording().told({event_drop}), "drop/3 client s9 -1\n");
}

TEST_F(TraceEvents, ATaskThatTheBusRefusesAContextIsDropped)
{
    made_up(QOR_TRACE_TASKS);
    qor_bus_quit(bus->get());
    qor_context_t *wrapper = &client.core()->base;
    qor_context_task_t task = {};
    qor_context_task_init(&task, wrapper, nullptr, 9, nothing, nullptr);

    EXPECT_EQ(qor_context_handler_post(wrapper, &task), -1);

    end();
    EXPECT_EQ(memory.recording().told({event_drop}), "drop/3 client s9 -1\n");
}

TEST_F(TraceEvents, WithStacksAloneThereAreNoEventsButWhatThreadsAreInside)
{
    std::string inside;
    server.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        if (msg->session == 55) {
            inside = now().inside();
        } else {
            qor_context_x_req_s(context, 55, TOPIC, nullptr, 0);
        }
        return 0;
    };
    made_up(QOR_TRACE_STACKS);
    int32_t session = 0;
    EXPECT_EQ(told([&] { session = ask(); }), "");
    /* Behind them what the thread of the test waits for. */
    EXPECT_EQ(inside.find("start server" + s(session) + "0\nstart/7 server s55 0\n"), 0u) << inside;
}

} // namespace
