/* SPDX-License-Identifier: Apache-2.0 */
/* What becomes of arrivals that find no place in a module's queue. */
#include "contract_fixture.hpp"
#include "inspection.hpp"
#include "sleeper.hpp"
#include "thread_call.hpp"

namespace {

class ContractOverflow : public Contract {
protected:
    ContractOverflow()
    {
        server.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            door.pass();
            seen.add(std::string(1, static_cast<char>('a' + number_of(msg))));
            return 0;
        };
    }

    /* The first task is in the handler, which waits at the door; the places are free. */
    void held_with(const qor_contract_t &contract, uint32_t workers = 3)
    {
        qor_contract_t with_losses = contract;
        with_losses.lost = [](void *self, const qor_loss_t *loss) {
            static_cast<ContractOverflow *>(self)->on_lost(*loss);
        };
        with_losses.arg = this;
        running_with(with_losses, workers);
        ASSERT_GE(ask(0), 0);
        ASSERT_TRUE(door.await(1));
        output.clear();
    }

    void on_lost(const qor_loss_t &loss)
    {
        static const char *const kinds[] = {"request", "listener", "task"};
        static const char *const reasons[] = {"oldest", "newest", "transfer", "refused"};
        losses.add(std::string(loss.module) + " " + kinds[loss.kind] + " " + reasons[loss.reason] +
                   " " + std::to_string(loss.topic) + "\n");
        if (inside_lost) {
            inside_lost();
        }
    }

    std::string full_line(const std::string &task, int32_t session) const
    {
        return err_line("qor_core_context", "qor_core_context_handle_task",
                        "queue full, module:server, task:" + task +
                            ", session=" + std::to_string(session));
    }

    /* A task of the server's whose recycle writes R. */
    int32_t run_task(Letters *letters)
    {
        qor_context_task_t task = {};
        qor_context_task_init(
            &task, server.context(), "task", 9,
            [](void *arg) -> void * {
                static_cast<Letters *>(arg)->add("X");
                return nullptr;
            },
            letters);
        task.recycle = [](void *arg) { static_cast<Letters *>(arg)->add("R"); };
        return qor_context_handler_post(server.context(), &task);
    }

    Letters seen;
    Letters losses;
    std::function<void()> inside_lost;
};

} // namespace

TEST_F(ContractOverflow, RefuseGivesThePosterAnErrorAndALine)
{
    held_with(strict_terms(2));
    Letters task;
    ASSERT_GE(ask(1), 0);
    ASSERT_GE(ask(2), 0);

    EXPECT_EQ(ask(3), -1);
    EXPECT_EQ(run_task(&task), -1);

    EXPECT_EQ(output.count("queue full, module:server, task:"), 2);
    EXPECT_EQ(output.count(full_line("task", 9)), 1);
    EXPECT_EQ(task.text(), "");
    EXPECT_EQ(ledger().refused, 2U);
    EXPECT_EQ(ledger().highest, 2U);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "abc");
    EXPECT_EQ(losses.text(), "");
    end();
}

TEST_F(ContractOverflow, DropOldestTakesTheOneAcceptedFirst)
{
    held_with(strict_terms(2, QOR_OVERFLOW_DROP_OLDEST));
    ASSERT_GE(ask(1), 0);
    ASSERT_GE(ask(2), 0);

    EXPECT_GE(ask(3), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "d"; }));
    EXPECT_EQ(losses.text(), "server request oldest 0\n");
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "acd");
    EXPECT_EQ(answers.text(), "daaa");
    EXPECT_EQ(ledger().dropped_oldest, 1U);
    EXPECT_EQ(ledger().accepted, 4U);
    EXPECT_EQ(output.count("handle message failed"), 0);
    end();
}

TEST_F(ContractOverflow, ADroppedTaskIsRecycledAndNotRun)
{
    held_with(strict_terms(1, QOR_OVERFLOW_DROP_OLDEST));
    Letters task;
    ASSERT_EQ(run_task(&task), 0);

    ASSERT_GE(ask(1), 0);

    EXPECT_EQ(task.text(), "R");
    EXPECT_EQ(losses.text(), "server task oldest -1\n");
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "ab");
    EXPECT_EQ(task.text(), "R");
    end();
}

TEST_F(ContractOverflow, ResponsesAndDelayedTasksAreNeverDropped)
{
    Module echo("echo");
    echo.reg = [](qor_context_t *c) { qor_context_subscribe(c, 1, nullptr); };
    Letters order;
    server.handle = [&](qor_context_t *self, qor_context_msg_t *msg) {
        if (msg->type == QOR_CONTEXT_MSG_RESPONSE) {
            order.add("r");
            return 0;
        }
        if (number_of(msg) == 0) {
            qor_context_req(self, 1, nullptr, 0);
            door.pass();
        }
        order.add(std::string(1, static_cast<char>('a' + number_of(msg))));
        return 0;
    };
    running_with(strict_terms(1, QOR_OVERFLOW_DROP_OLDEST), 3, {&echo});
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_TRUE(await([&] { return ledger().waiting == 1; })); /* the response */
    ASSERT_GE(qor_context_timer(
                  server.context(),
                  [](void *letters) -> void * {
                      static_cast<Letters *>(letters)->add("T");
                      return nullptr;
                  },
                  &order, 1),
              0);
    const int64_t since = util_timestamp();
    ASSERT_TRUE(await([&] { return util_timestamp() > since + 1; }));
    ASSERT_GE(ask(1), 0);

    ASSERT_GE(ask(2), 0);

    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(order.text(), "arTc");
    EXPECT_EQ(order.text().find('b'), std::string::npos);
    EXPECT_EQ(ledger().dropped_oldest, 1U);
    EXPECT_EQ(ledger().highest, 1U);
    end();
}

TEST_F(ContractOverflow, DropNewestGivesThePosterWhatItWouldHaveGot)
{
    held_with(strict_terms(1, QOR_OVERFLOW_DROP_NEWEST));
    Letters task;
    ASSERT_GE(ask(1), 0);

    EXPECT_GE(ask(2), 0);
    EXPECT_EQ(run_task(&task), 0);

    EXPECT_TRUE(await([&] { return answers.text() == "d"; }));
    EXPECT_EQ(task.text(), "R");
    EXPECT_EQ(losses.text(), "server request newest 0\nserver task newest -1\n");
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "ab");
    EXPECT_EQ(ledger().dropped_newest, 2U);
    EXPECT_EQ(ledger().accepted, 4U);
    end();
}

TEST_F(ContractOverflow, BlockWaitsForAPlace)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));
    ASSERT_GE(ask(1), 0);
    std::atomic<int32_t> session{-2};
    Thread poster([&] { session = ask(2); });
    const int64_t since = util_timestamp();
    EXPECT_TRUE(await([&] { return util_timestamp() > since + 20; }));
    EXPECT_EQ(session, -2);

    door.open();

    poster.join();
    EXPECT_GE(session, 0);
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "abc");
    end();
}

TEST_F(ContractOverflow, BlockGivesUpWhenTheTimeIsOver)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 30));
    ASSERT_GE(ask(1), 0);
    const int64_t since = util_timestamp();

    EXPECT_EQ(ask(2), -1);

    EXPECT_GE(util_timestamp() - since, 30);
    EXPECT_EQ(output.count("queue full"), 1);
    end();
}

TEST_F(ContractOverflow, BlockedPostersGoOnInTheOrderOfTheirArrival)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));
    ASSERT_GE(ask(1), 0);
    std::vector<ThreadCall> posters;
    for (int i = 2; i < 10; i++) {
        posters.emplace_back([this, i] { return ask(i); });
        ASSERT_TRUE(posters.back().waits());
    }

    door.open();

    for (ThreadCall &poster : posters) {
        EXPECT_GE(poster.get(), 0);
    }
    ASSERT_TRUE(settles());
    EXPECT_EQ(seen.text(), "abcdefghij");
    end();
}

TEST_F(ContractOverflow, ANewcomerDoesNotOvertakeABlockedPoster)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 1000));
    const int32_t waiting = ask(1);
    std::atomic<int32_t> session{-2};
    Sleeper sleeper;
    Thread poster([&] {
        sleeper.here();
        session = ask(2);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    ASSERT_EQ(qor_context_handler_cancel(server.context(), waiting), 0);

    EXPECT_EQ(ask(3), -1); /* though there was a place when it came */
    poster.join();
    EXPECT_GE(session, 0);
    end();
}

TEST_F(ContractOverflow, BlockedPostersTakeAllThePlacesThatComeFree)
{
    held_with(strict_terms(2, QOR_OVERFLOW_BLOCK, 20000));
    int32_t waiting[] = {ask(1), ask(2)};
    for (int round = 0; round < 20; round++) {
        std::atomic<int32_t> sessions[] = {-2, -2};
        Sleeper sleepers[2];
        std::vector<Thread> posters;
        for (int i = 0; i < 2; i++) {
            posters.emplace_back([&, i] {
                sleepers[i].here();
                sessions[i] = ask(3);
            });
            ASSERT_TRUE(await([&] { return sleepers[i].sleeps(); }));
        }

        for (const int32_t session : waiting) { /* before the first of them has woken */
            ASSERT_EQ(qor_context_handler_cancel(server.context(), session), 0);
        }

        for (int i = 0; i < 2; i++) {
            posters[static_cast<size_t>(i)].join();
            waiting[i] = sessions[i];
            ASSERT_GE(waiting[i], 0) << "in round " << round;
        }
    }
    end();
}

TEST_F(ContractOverflow, QuitWakesBlockedPosters)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));
    ASSERT_GE(ask(1), 0);
    std::atomic<int32_t> session{-2};
    Thread poster([&] { session = ask(2); });
    const int64_t since = util_timestamp();
    ASSERT_TRUE(await([&] { return util_timestamp() > since + 20; }));

    qor_bus_quit(bus->get());

    poster.join();
    EXPECT_EQ(session, -1);
    end();
}

TEST_F(ContractOverflow, AFailedInitWakesBlockedPosters)
{
    server.init = [this](qor_context_t *) {
        door.pass();
        return -1;
    };
    const auto blocks = [](qor_contract_t &contract) {
        contract.depth = 1;
        contract.overflow = QOR_OVERFLOW_BLOCK;
        contract.wait_time = 60000;
    };
    bus_with(terms(blocks), 1); /* its worker is in the init */
    bus->start();
    ASSERT_TRUE(door.await(1));
    Letters task;
    ASSERT_EQ(run_task(&task), 0);
    std::atomic<int32_t> posted{0};
    Thread poster([&] { posted = run_task(&task); });
    EXPECT_TRUE(await([this] { return Inspection(bus->get()).context("server").blocked == 1; }));

    door.open();

    poster.join();
    EXPECT_EQ(posted, -1);
    EXPECT_TRUE(await([&] { return task.text() == "R"; }));
    end();
}

TEST_F(ContractOverflow, AHandlerOfTheModuleDoesNotWaitForItself)
{
    server.handle = [this](qor_context_t *self, qor_context_msg_t *msg) {
        if (number_of(msg) == 0) {
            int32_t number = 1;
            EXPECT_GE(qor_context_req(self, TOPIC, &number, sizeof(number)), 0);
            EXPECT_EQ(qor_context_req(self, TOPIC, &number, sizeof(number)), -1);
            seen.add("x");
        }
        return 0;
    };
    running_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000));

    ASSERT_GE(ask(0), 0);

    EXPECT_TRUE(await([&] { return seen.text() == "x"; }));
    end();
}

TEST_F(ContractOverflow, AWorkerWaitsWhileAnotherIsAtWork)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000), 2);
    ASSERT_GE(ask(1), 0);
    std::atomic<int32_t> inside{-2};
    std::atomic<int32_t> posted{-2};
    struct Post {
        ContractOverflow *self;
        std::atomic<int32_t> *posted;
        std::atomic<int32_t> *inside;
    } post = {this, &posted, &inside};

    /* One worker is in the handler: it is no worker that waits, so the other may. */
    qor_bus_run(
        bus->get(),
        [](void *arg) -> void * {
            const Post &p = *static_cast<Post *>(arg);
            *p.inside = 0;
            *p.posted = p.self->ask(2);
            return nullptr;
        },
        &post, nullptr);
    ASSERT_TRUE(await([&] { return inside == 0; }));
    const int64_t since = util_timestamp();
    ASSERT_TRUE(await([&] { return util_timestamp() > since + 20; }));
    EXPECT_EQ(posted, -2);
    door.open();
    EXPECT_TRUE(await([&] { return posted >= 0; }));
    end();
}

TEST_F(ContractOverflow, ASingleWorkerOfAnotherBusWaits)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000), 1);
    ASSERT_GE(ask(1), 0);
    struct Post {
        explicit Post(ContractOverflow *test) : self(test) {}
        ContractOverflow *self;
        std::atomic<int32_t> posted{-2};
    } post(this);
    RunningBus other(RunningBus::by_start, 1);
    other.start();

    qor_bus_run(
        other.get(),
        [](void *arg) -> void * {
            Post &own = *static_cast<Post *>(arg);
            own.posted = own.self->ask(2);
            return nullptr;
        },
        &post, nullptr);

    EXPECT_TRUE(await([this] { return Inspection(bus->get()).context("server").blocked == 1; }));
    EXPECT_EQ(post.posted, -2);
    door.open();
    EXPECT_TRUE(await([&] { return post.posted >= 0; }));
    other.end();
    end();
}

TEST_F(ContractOverflow, ASingleWorkerNeverWaits)
{
    Letters results;
    running_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 60000), 1);
    door.open();
    struct Post {
        ContractOverflow *self;
        Letters *results;
    } post = {this, &results};

    qor_bus_run(
        bus->get(),
        [](void *arg) -> void * {
            const Post &p = *static_cast<Post *>(arg);
            p.results->add(p.self->ask(1) >= 0 ? "y" : "n");
            p.results->add(p.self->ask(2) >= 0 ? "y" : "n");
            return nullptr;
        },
        &post, nullptr);

    EXPECT_TRUE(await([&] { return results.text() == "yn"; }));
    EXPECT_TRUE(settles());
    end();
}

TEST_F(ContractOverflow, BypassIsTheDefaultWithoutStrict)
{
    held_with(terms([](qor_contract_t &c) { c.depth = 2; }));
    ASSERT_GE(ask(1), 0);
    ASSERT_GE(ask(2), 0);

    ASSERT_GE(ask(3), 0);

    ASSERT_TRUE(door.await(2));
    EXPECT_EQ(ledger().bypassed, 1U);
    EXPECT_EQ(ledger().accepted, 3U);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(answers.text(), "aaaa");
    end();
}

TEST_F(ContractOverflow, BeforeTheStartItRefusesWhateverThePolicy)
{
    for (const int32_t policy : {QOR_OVERFLOW_REFUSE, QOR_OVERFLOW_DROP_OLDEST,
                                 QOR_OVERFLOW_DROP_NEWEST, QOR_OVERFLOW_BLOCK}) {
        Letters results;
        server.init = [&](qor_context_t *self) {
            for (int i = 0; i < 3; i++) {
                const auto none = [](void *arg) -> void * { return arg; };
                results.add(qor_context_run(self, none, nullptr) < 0 ? "n" : "y");
            }
            return 0;
        };
        running_with(strict_terms(2, policy, 60000));
        EXPECT_EQ(results.text(), "yyn") << policy;
        bus.reset();
    }
    end();
}

TEST_F(ContractOverflow, ALossInsideLostIsCountedNotTold)
{
    held_with(strict_terms(1, QOR_OVERFLOW_DROP_NEWEST));
    ASSERT_GE(ask(1), 0);
    inside_lost = [this] { EXPECT_GE(ask(3), 0); };

    EXPECT_GE(ask(2), 0);

    EXPECT_EQ(losses.text(), "server request newest 0\n");
    EXPECT_EQ(ledger().dropped_newest, 2U);
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(answers.text().size(), 4U);
    end();
}

TEST_F(ContractOverflow, ListenersWhoSawADroppedRequestBeforeSeeItAfter)
{
    Module watcher("watcher");
    Letters saw;
    watcher.reg = [](qor_context_t *c) { qor_context_listen(c, TOPIC, nullptr); };
    watcher.handle = [&](qor_context_t *, qor_context_msg_t *msg) {
        saw.add(msg->type == QOR_CONTEXT_MSG_LISTEN_BEFORE ? "b"
                : msg->ret == QOR_RET_DROPPED              ? "D"
                                                           : "a");
        return 0;
    };
    qor_contract_t contract = strict_terms(1, QOR_OVERFLOW_DROP_NEWEST);
    running_with(contract, 3, {&watcher});
    ASSERT_GE(ask(0), 0);
    ASSERT_TRUE(door.await(1));
    ASSERT_GE(ask(1), 0);

    ASSERT_GE(ask(2), 0);

    EXPECT_TRUE(await([&] { return saw.text().find('D') != std::string::npos; }));
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_TRUE(await([&] { return saw.text().size() == 6; }));
    end();
}

/* Nobody else serves timers meanwhile. */
TEST_F(ContractOverflow, TheLoopNeverWaits)
{
    held_with(strict_terms(1, QOR_OVERFLOW_BLOCK, 600000));
    ASSERT_GE(ask(1), 0);
    struct Timer {
        explicit Timer(ContractOverflow *test) : self(test) {}
        ContractOverflow *self;
        Door run;
        std::atomic<int> recycles{0};
        std::atomic<int32_t> posted{-2};
    } timer(this);
    qor_context_task_t task = {};
    qor_context_task_init(
        &task, nullptr, "timer", 1,
        [](void *arg) -> void * { return static_cast<Timer *>(arg)->run.pass(), arg; }, &timer);
    task.recycle = [](void *arg) { /* the loop's comes first: the task stands at the door */
                                   Timer &own = *static_cast<Timer *>(arg);
                                   if (own.recycles++ == 0) {
                                       own.posted = own.self->ask(2);
                                   }
    };
    task.delay = 1;

    ASSERT_GE(qor_bus_timer_post(bus->get(), &task), 0);

    EXPECT_TRUE(await([&] { return timer.posted != -2; }));
    EXPECT_EQ(timer.posted, -1);
    EXPECT_EQ(output.count("queue full"), 1);
    timer.run.open();
    EXPECT_TRUE(await([&] { return timer.recycles == 2; }));
    end();
}
