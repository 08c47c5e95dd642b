/* SPDX-License-Identifier: Apache-2.0 */
/* Whole buses coming up. */
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bring_up_fixture.hpp"
#include "door.hpp"
#include "module.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_main.h"
#include "running_bus.hpp"
#include "thread.hpp"

TEST_F(BringUp, HappensInTwoPhases)
{
    Module first("first"), later("later", 0), second("second");
    for (Module *module : {&first, &later, &second}) {
        trace(*module);
    }
    RunningBus bus({&first, &later, &second});

    ASSERT_TRUE(bus.up());

    const std::string text = journal.text();
    EXPECT_EQ(text.find("first.reg second.reg "), 0u) << text;
    EXPECT_EQ(text.substr(text.size() - 21), " later.reg later.init") << text;
    EXPECT_EQ(journal.size(), 6u);
}

TEST_F(BringUp, InitsOfAPhaseRunAtTheSameTime)
{
    Module a("a"), b("b"), c("c");
    std::atomic<int> inside{0};
    for (Module *module : {&a, &b, &c}) {
        module->init = [&](qor_context_t *) {
            inside++;
            return await([&] { return inside == 3; }) ? 0 : -1;
        };
    }
    RunningBus bus({&a, &b, &c});

    EXPECT_TRUE(bus.up());
}

TEST_F(BringUp, TheSecondPhaseBeginsOnceHoweverManyFinishTogether)
{
    for (int round = 0; round < 20; round++) {
        Door door;
        std::vector<std::unique_ptr<Module>> pure;
        std::vector<Module *> all;
        for (int i = 0; i < 8; i++) {
            pure.push_back(std::make_unique<Module>("pure" + std::to_string(i)));
            pure.back()->init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
            all.push_back(pure.back().get());
        }
        Module last("last", 0);
        all.push_back(&last);
        RunningBus bus(all, 1, 9);
        ASSERT_TRUE(door.await(8));

        door.open();

        ASSERT_TRUE(bus.up());
    }
    EXPECT_EQ(out.count("create last's context success."), 20);
}

TEST_F(BringUp, AModuleThatFailsLeavesTheOthersAlone)
{
    Module good("good"), bad("bad");
    trace(good);
    trace(bad);
    bad.init = [&](qor_context_t *) {
        /* Not the last one: the second phase would miss it. */
        return await([&] { return good.context() != nullptr; }) ? -3 : 0;
    };
    RunningBus bus({&good, &bad});

    EXPECT_TRUE(await(
        [&] { return good.started() && bad.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));

    bus.end();
    EXPECT_EQ(out.count("context init failed."), 1);
}

TEST_F(BringUp, AFailedModulesRegistrationsAreGone)
{
    Module bad("bad"), good("good");
    bad.reg = [](qor_context_t *c) {
        qor_context_subscribe(c, topic, nullptr);
        qor_context_listen(c, topic, nullptr);
        qor_context_filter(c, topic, nullptr);
    };
    bad.init = [](qor_context_t *) { return -1; };
    RunningBus bus({&bad, &good});
    ASSERT_TRUE(await(
        [&] { return good.started() && bad.lifecycle() == QOR_USER_CONTEXT_LIFECYCLE_DESTROY; }));

    EXPECT_EQ(qor_context_req(good.context(), topic, nullptr, 0), -1);

    EXPECT_EQ(out.count("no one subscribe, source:good, topic:3, session="), 1);
    EXPECT_EQ(out.count("RESUME failed."), 0);
}

TEST_F(BringUp, ARequestWaitsForItsSubscribersStart)
{
    Module client("client"), server("server");
    Door door;
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
    server.init = [&](qor_context_t *) {
        journal.add("init");
        return door.pass() ? 0 : -1;
    };
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        journal.add("request");
        return 0;
    };
    client.handle = [&](qor_context_t *, qor_context_msg_t *) {
        journal.add("response");
        return 0;
    };
    RunningBus bus({&client, &server});
    ASSERT_TRUE(await([&] { return client.started(); }));
    ASSERT_TRUE(door.await(1));

    Thread publisher([&] { EXPECT_GE(qor_context_req(client.context(), topic, nullptr, 0), 0); });
    door.open();
    publisher.join();

    ASSERT_TRUE(journal.await(3));
    EXPECT_EQ(journal.text(), "init request response");
}

TEST_F(BringUp, ARequestToAModuleThatFailsIsRefused)
{
    Module client("client"), server("server");
    Door door;
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
    server.init = [&](qor_context_t *) {
        door.pass();
        return -1;
    };
    RunningBus bus({&client, &server});
    ASSERT_TRUE(await([&] { return client.started(); }));
    ASSERT_TRUE(door.await(1));

    Thread publisher([&] { EXPECT_EQ(qor_context_req(client.context(), topic, nullptr, 0), -1); });
    door.open();
    publisher.join();

    EXPECT_EQ(out.count("no one subscribe, source:client, topic:3"), 1);
}

TEST_F(BringUp, ABusWithoutPureModulesBringsNothingUpAndEnds)
{
    Module later("later", 0);
    RunningBus bus({&later});
    ASSERT_TRUE(await(
        [] { return __atomic_load_n(&context_head.next, __ATOMIC_ACQUIRE) != &context_head; }));

    EXPECT_EQ(bus.quit(), 0);

    EXPECT_EQ(later.context(), nullptr);
}
