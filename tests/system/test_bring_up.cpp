/* SPDX-License-Identifier: Apache-2.0 */
/* Whole buses coming up and going down. */
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_main.h"
#include "running_bus.hpp"
#include "sleeper.hpp"

namespace {

constexpr int32_t topic = 3;

class BringUp : public testing::Test {
protected:
    /* Lets a module write down its callbacks. */
    void trace(Module &module)
    {
        const std::string name = module.descriptor.name;
        module.reg = [this, name](qor_context_t *) { journal.add(name + ".reg"); };
        module.init = [this, name](qor_context_t *) {
            journal.add(name + ".init");
            return 0;
        };
        module.unreg = [this, name](qor_context_t *) { journal.add(name + ".unreg"); };
        module.uninit = [this, name](qor_context_t *) { journal.add(name + ".uninit"); };
    }

    Output out;
    Journal journal;
};

} // namespace

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

    std::thread publisher(
        [&] { EXPECT_GE(qor_context_req(client.context(), topic, nullptr, 0), 0); });
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

    std::thread publisher(
        [&] { EXPECT_EQ(qor_context_req(client.context(), topic, nullptr, 0), -1); });
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

/* ---- the end ---- */

TEST_F(BringUp, EndsInReverseOrder)
{
    Module first("first"), later("later", 0);
    trace(first);
    trace(later);
    RunningBus bus({&first, &later});
    ASSERT_TRUE(bus.up());
    journal.clear();
    out.clear();

    bus.end();

    EXPECT_EQ(journal.text(), "later.unreg later.uninit first.unreg first.uninit");
    EXPECT_EQ(out.printed(), "");
    EXPECT_EQ(context_head.next, &context_head);
}

TEST_F(BringUp, MayBeRepeatedInOneProcess)
{
    for (int round = 0; round < 3; round++) {
        Module module("module");
        RunningBus bus({&module});
        EXPECT_TRUE(bus.up()) << round;
    }
}

TEST_F(BringUp, MayEndAtAnyMoment)
{
    for (int round = 0; round < 50; round++) {
        Module first("first"), second("second"), later("later", 0);
        RunningBus bus({&first, &second, &later});
        std::this_thread::sleep_for(std::chrono::microseconds(round * 20));
    }
}

TEST_F(BringUp, QuitDuringAnInitWaitsForIt)
{
    Module module("module");
    Door door;
    std::atomic<bool> over{false};
    module.init = [&](qor_context_t *) {
        door.pass();
        over = true;
        return 0;
    };
    RunningBus bus({&module});
    ASSERT_TRUE(door.await(1));
    qor_bus_quit(bus.get());
    door.open();

    EXPECT_EQ(bus.quit(), 0);

    EXPECT_TRUE(over);
}

TEST_F(BringUp, AHandlerMayQuit)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());

    ASSERT_GE(qor_context_run(
                  module.context(),
                  [](void *arg) -> void * {
                      qor_bus_quit(static_cast<qor_bus_t *>(arg));
                      return nullptr;
                  },
                  bus.get()),
              0);

    EXPECT_EQ(bus.quit(), 0);
}

TEST_F(BringUp, QuitReleasesWhoeverWaitsForAStart)
{
    Module client("client"), server("server");
    Door door;
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, topic, nullptr); };
    server.init = [&](qor_context_t *) { return door.pass() ? 0 : -1; };
    RunningBus bus({&client, &server});
    ASSERT_TRUE(await([&] { return client.started(); }));
    ASSERT_TRUE(door.await(1));
    Sleeper sleeper;
    std::thread publisher([&] {
        sleeper.here();
        EXPECT_EQ(qor_context_req(client.context(), topic, nullptr, 0), -1);
    });
    ASSERT_TRUE(await([&] { return sleeper.sleeps(); }));

    qor_bus_quit(bus.get());

    publisher.join();
    door.open();
    bus.end();
    EXPECT_EQ(out.count("lifecycle already STOP or DESTROY. RESUME failed."), 1);
}

TEST_F(BringUp, AConsoleRunsFromStartUntilItsModulesUnreg)
{
    static Journal *log;
    static std::atomic<bool> asked_to_end;
    log = &journal;
    asked_to_end = false;
    Module module("talker");
    module.descriptor.console = [](qor_context_t *) {
        log->add("begins");
        await([] { return asked_to_end.load(); });
        log->add("ends");
        return int32_t{0};
    };
    module.unreg = [&](qor_context_t *) { asked_to_end = true; };
    module.uninit = [&](qor_context_t *) { journal.add("uninit"); };
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    ASSERT_TRUE(journal.await(1));

    bus.end();

    EXPECT_EQ(journal.text(), "begins ends uninit");
}
