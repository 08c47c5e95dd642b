/* SPDX-License-Identifier: Apache-2.0 */
/* What becomes of the tasks of a module whose init has failed, and in which order it is taken down.
 */
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "failed_init_fixture.hpp"
#include "qor_bus.h"
#include "qor_context_module.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "time_que_length.hpp"

TEST_F(FailedInit, BeginsNoFurtherTask)
{
    Door door;
    Note running(journal, "running"), waiting(journal, "waiting");
    running.body = [&] { door.pass(); };
    std::atomic<qor_bus_t *> on{nullptr};
    doomed.init = [&](qor_context_t *c) {
        running.post(c);
        waiting.post(c);
        return door.await(1) ? -1 : 0;
    };
    doomed.unreg = [&](qor_context_t *) {
        door.open();
        EXPECT_TRUE(journal.await(2)); /* the first is over */
        EXPECT_TRUE(await([&] { return on != nullptr; }));
        EXPECT_TRUE(pass_through(on)); /* and so is the run that it was part of */
        journal.add("unreg");
    };
    RunningBus bus({&doomed}, 1, 2);
    on = bus.get();

    EXPECT_TRUE(doomed.gone());

    EXPECT_EQ(journal.text(), "running -running unreg -waiting uninit");
}

/* A worker has already taken the task that went past the full queue, but not begun it. */
TEST_F(FailedInit, WaitsForARunThatAWorkerIsAboutToRefuse)
{
    Door busy, prepared, refused;
    Sleeper initialiser, worker;
    Note past(journal, "past");
    past.at_recycle = [&] { EXPECT_TRUE(refused.pass()); };
    std::vector<std::unique_ptr<Note>> waiting;
    doomed.init = [&](qor_context_t *c) {
        initialiser.here();
        EXPECT_TRUE(prepared.pass());
        for (int i = 0; i < 50; i++) {
            waiting.push_back(std::make_unique<Note>(journal, "waiting"));
            EXPECT_EQ(waiting.back()->post(c, 60000), 0);
        }
        EXPECT_EQ(past.post(c), 0);
        return -1;
    };
    doomed.unreg = [&](qor_context_t *) { EXPECT_TRUE(refused.await(1)); };
    RunningBus bus({&doomed}, 1, 2);
    ASSERT_TRUE(prepared.await(1));
    std::function<void()> hold = [&] {
        worker.here();
        EXPECT_TRUE(busy.pass());
    };
    qor_bus_run(bus.get(), call, &hold, nullptr);
    ASSERT_TRUE(busy.await(1));

    /* Whoever asks for the lock first, gets it first. */
    qor_time_que_t *que = doomed.core()->que;
    prepared.open();
    ASSERT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 1; }));
    qor_time_que_lock(que);
    EXPECT_TRUE(out.await("init failed ="));
    EXPECT_TRUE(await([&] { return initialiser.sleeps(); }));
    busy.open();
    EXPECT_TRUE(await([&] { return qor_que_count(bus.get()->que) == 0; }));
    EXPECT_TRUE(await([&] { return worker.sleeps(); }));
    qor_time_que_unlock(que);
    EXPECT_TRUE(journal.await(50)); /* those in the queue */
    EXPECT_TRUE(await([&] { return initialiser.sleeps(); }));
    EXPECT_EQ(journal.size(), 50u);
    refused.open();

    EXPECT_TRUE(doomed.gone());
    const std::string text = journal.text();
    const std::string end = "-past uninit";
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

/* Everything that a task can be waiting in: the private queue, the bus's queues, a worker. */
TEST_F(FailedInit, IsTakenDownInOrder)
{
    Door gate, door;
    Sleeper initialiser;
    std::function<void()> hold = [&] { EXPECT_TRUE(gate.pass()); };
    std::atomic<qor_bus_t *> on{nullptr};
    Note spread(journal, "spread"), running(journal, "running"), queued(journal, "queued"),
        delayed(journal, "delayed"), late(journal, "late");
    running.body = [&] { EXPECT_TRUE(door.pass()); };
    doomed.init = [&](qor_context_t *c) {
        initialiser.here();
        EXPECT_TRUE(await([&] { return on != nullptr; }));
        EXPECT_EQ(qor_bus_run(on, call, &hold, nullptr), 0); /* on the other worker, until */
        EXPECT_TRUE(gate.await(1));                          /* both of these wait */
        EXPECT_EQ(spread.post(c, 0, 1), 0);                  /* its run waits on the bus, for */
        EXPECT_EQ(running.post(c), 0);                       /* this holds the other worker up */
        gate.open();
        EXPECT_TRUE(door.await(1));
        EXPECT_EQ(queued.post(c), 0);
        EXPECT_EQ(delayed.post(c, 60000), 0);
        EXPECT_EQ(doomed.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_INIT);
        return -1;
    };
    doomed.unreg = [&](qor_context_t *c) {
        journal.add("unreg");
        EXPECT_EQ(doomed.lifecycle(), QOR_USER_CONTEXT_LIFECYCLE_STOP);
        EXPECT_EQ(late.post(c), -1);
        EXPECT_EQ(late.post(c, 1), -1);
        EXPECT_EQ(late.post(c, 0, 1), -1);
    };
    doomed.uninit = [&](qor_context_t *c) {
        journal.add("uninit");
        EXPECT_EQ(late.post(c), -1);
    };
    RunningBus bus({&doomed}, 1, 2);
    on = bus.get();

    EXPECT_TRUE(journal.await(4));
    EXPECT_TRUE(await([&] { return initialiser.sleeps(); }));
    EXPECT_EQ(journal.text(), "unreg -queued -delayed -spread");
    EXPECT_EQ(length_of(bus.get()->time_que), 0);
    EXPECT_EQ(qor_que_count(bus.get()->que), 0);
    door.open();

    EXPECT_TRUE(doomed.gone());
    EXPECT_EQ(journal.text(), "unreg -queued -delayed -spread running -running uninit");
    EXPECT_EQ(out.count("[qor_sched_delegate][err][qor_sched_delegate_post]:create a timer failed, "
                        "source:doomed, task:late, session="),
              4);
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}

/* What has gone past the full queue, at once and later, is recycled as well; and a closed queue is
 * not passed by. */
TEST_F(FailedInit, TakesBackWhatWentPastItsQueue)
{
    Door door;
    Note past(journal, "past"), past_later(journal, "past_later"), late(journal, "late");
    std::vector<std::unique_ptr<Note>> waiting;
    std::function<void()> hold = [&] { EXPECT_TRUE(door.pass()); };
    std::atomic<qor_bus_t *> on{nullptr};
    doomed.init = [&](qor_context_t *c) {
        EXPECT_TRUE(await([&] { return on != nullptr; }));
        EXPECT_EQ(qor_bus_run(on, call, &hold, nullptr), 0);
        EXPECT_TRUE(door.await(1)); /* the other worker */
        for (int i = 0; i < 50; i++) {
            waiting.push_back(std::make_unique<Note>(journal, "waiting"));
            EXPECT_EQ(waiting.back()->post(c, i % 2 ? 60000 : 0), 0);
        }
        EXPECT_EQ(past.post(c), 0);
        EXPECT_EQ(past_later.post(c, 60000), 0);
        EXPECT_EQ(qor_que_count(on.load()->que), 2); /* a loop run, and the run of one task */
        EXPECT_EQ(length_of(on.load()->time_que), 25 + 1);
        return -1;
    };
    doomed.unreg = [&](qor_context_t *c) {
        EXPECT_EQ(late.post(c), -1);
        EXPECT_EQ(late.post(c, 1), -1);
    };
    RunningBus bus({&doomed}, 1, 2);
    on = bus.get();

    EXPECT_TRUE(doomed.gone());
    EXPECT_EQ(length_of(bus.get()->time_que), 0);
    EXPECT_EQ(qor_que_count(bus.get()->que), 0);
    std::string all;
    for (int i = 0; i < 50; i++) {
        all += "-waiting ";
    }
    EXPECT_EQ(journal.text(), all + "-past -past_later uninit");
    door.open();
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
}
