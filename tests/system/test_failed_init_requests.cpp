/* SPDX-License-Identifier: Apache-2.0 */
/* What becomes of requests to and from a module whose init has failed. */
#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "failed_init_fixture.hpp"
#include "journal.hpp"
#include "module.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

/* A module that has let others in before its init fails, and one that asks it. */
class FailedInitRequests : public FailedInit {
protected:
    FailedInitRequests()
    {
        doomed.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
        asker.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            EXPECT_EQ(msg->type, QOR_CONTEXT_MSG_RESPONSE);
            results.add(std::to_string(msg->ret));
            return 0;
        };
    }

    Journal results;
    Module asker{"asker"};
};

} // namespace

TEST_F(FailedInitRequests, OfOthersAreAnswered)
{
    constexpr int number = 60; /* ten of them go past the full queue */
    Door door;
    Note running(journal, "running");
    running.body = [&] { EXPECT_TRUE(door.pass()); };
    doomed.init = [&](qor_context_t *c) {
        qor_core_context_lifecycle_start(doomed.core());
        running.post(c);
        EXPECT_TRUE(door.await(1)); /* the other worker */
        for (int i = 0; i < number; i++) {
            EXPECT_GE(qor_context_req(asker.context(), 0, nullptr, 0), 0);
        }
        return -1;
    };
    doomed.handle = [&](qor_context_t *, qor_context_msg_t *) {
        ADD_FAILURE() << "a request has reached the module";
        return 0;
    };
    doomed.unreg = [&](qor_context_t *) { door.open(); };
    RunningBus bus({&doomed, &asker}, 1, 2);

    EXPECT_TRUE(results.await(number));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    std::string all = "-1";
    for (int i = 1; i < number; i++) {
        all += " -1";
    }
    EXPECT_EQ(results.text(), all);
    EXPECT_EQ(out.count("create a timer failed"), 0);
}

/* Its own requests, to itself and to others, are freed; the leak checker sees to that. */
TEST_F(FailedInitRequests, OfItsOwnAreNotAnswered)
{
    Door door, served;
    Module server("server");
    Note running(journal, "running");
    running.body = [&] { EXPECT_TRUE(door.pass()); };
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, 1, nullptr); };
    server.handle = [&](qor_context_t *, qor_context_msg_t *) {
        EXPECT_TRUE(served.pass());
        journal.add("served");
        return 0;
    };
    doomed.init = [&](qor_context_t *c) {
        EXPECT_TRUE(await([&] { return server.started(); }));
        qor_core_context_lifecycle_start(doomed.core());
        EXPECT_GE(qor_context_req(c, 1, nullptr, 0), 0);
        EXPECT_TRUE(served.await(1)); /* the second worker */
        running.post(c);
        EXPECT_TRUE(door.await(1)); /* the third */
        EXPECT_GE(qor_context_req(c, 0, nullptr, 0), 0);
        return -1;
    };
    doomed.handle = [&](qor_context_t *, qor_context_msg_t *) {
        ADD_FAILURE() << "a message has reached the module";
        return 0;
    };
    doomed.unreg = [&](qor_context_t *) { door.open(); };
    RunningBus bus({&doomed, &server}, 2, 3);
    EXPECT_TRUE(doomed.gone());
    served.open(); /* its response comes to a context that is gone */

    EXPECT_TRUE(journal.await(4));
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_EQ(journal.text(), "running -running uninit served");
    EXPECT_EQ(out.count("create a timer failed"), 0);
    EXPECT_EQ(out.count("resume failed"), 0);
}

TEST_F(FailedInitRequests, MeetTheFailureFromManyThreads)
{
    Door asked;
    doomed.init = [&](qor_context_t *) {
        qor_core_context_lifecycle_start(doomed.core());
        EXPECT_TRUE(asked.pass());
        return -1;
    };
    RunningBus bus({&doomed, &asker}, 1, 2);
    ASSERT_TRUE(asked.await(1));
    ASSERT_TRUE(await([&] { return asker.started(); }));
    std::atomic<int> accepted{0};
    std::vector<Thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < 200; n++) {
                accepted += qor_context_req(asker.context(), 0, nullptr, 0) >= 0;
                if (n == 20) {
                    asked.open();
                }
            }
        });
    }
    for (Thread &thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(doomed.gone());
    EXPECT_EQ(qor_bus_drain(bus.get(), 60000), 0);
    EXPECT_GE(accepted, 20);
    EXPECT_EQ(results.size(), static_cast<size_t>(accepted));
}
