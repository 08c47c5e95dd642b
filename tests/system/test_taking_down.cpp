/* SPDX-License-Identifier: Apache-2.0 */
/* Whole buses going down. */
#include <atomic>

#include <gtest/gtest.h>

#include "await.hpp"
#include "bring_up_fixture.hpp"
#include "door.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_main.h"
#include "running_bus.hpp"
#include "sleeper.hpp"
#include "thread.hpp"

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
    Thread publisher([&] {
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
