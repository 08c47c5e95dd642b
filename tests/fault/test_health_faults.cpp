/* SPDX-License-Identifier: Apache-2.0 */
/* Explaining and judging a bus allocate nothing; asking for something without memory is refused. */
#include <gtest/gtest.h>

#include "explaining.hpp"
#include "fault.h"
#include "qor_context_module.h"

namespace {

class HealthFaults : public Explaining {
protected:
    HealthFaults() { serve(alpha, 0); }
    ~HealthFaults() override { fault_arm(FAULT_ALLOC, -1); }

    Module alpha{"alpha"};
    Module beta{"beta"};
};

TEST_F(HealthFaults, NothingIsAllocated)
{
    call(alpha, {0});
    run({&alpha}, 1);
    ASSERT_TRUE(await([this] { return explain().circles == 1; }));
    health();
    fault_arm_from(FAULT_ALLOC, 0);

    const int32_t circles = qor_bus_explain(
        bus->get(), [](void *, const char *) {}, nullptr);
    health();

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
    fault_arm(FAULT_ALLOC, -1);
    EXPECT_EQ(circles, 1);
    EXPECT_EQ(judged, 1);
}

TEST_F(HealthFaults, WhatIsAskedForWithoutMemoryIsRefused)
{
    make({&alpha});
    output.clear();
    fault_arm_from(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alpha", 1), -1);
    EXPECT_EQ(qor_bus_stalled_set(bus->get(), nullptr, nullptr), -1);
    EXPECT_EQ(qor_bus_circle_set(bus->get(), QOR_CIRCLE_WAIT), -1);
    fault_arm(FAULT_ALLOC, -1);
    std::string expected;
    for (const char *function :
         {"qor_bus_limit_set", "qor_bus_stalled_set", "qor_bus_circle_set"}) {
        expected += err_line("qor_health", function, "malloc \"bus_sight\" failed.");
    }
    EXPECT_EQ(output.printed(), expected);

    EXPECT_EQ(qor_bus_limit_set(bus->get(), "alpha", 1), 0);
}

TEST_F(HealthFaults, WhatWasAskedForGoesWithTheBus)
{
    make({&alpha});
    const int before = fault_live();
    ASSERT_EQ(qor_bus_limit_set(bus->get(), "alpha", 1), 0);
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), nullptr, nullptr), 0);
    EXPECT_EQ(fault_live(), before + 1);

    end();

    EXPECT_LE(fault_live(), before);
}

/* An init whose start somebody waits for runs on the thread that waits when there is no other. */
TEST_F(HealthFaults, ACircleOnOneThreadIsFound)
{
    serve(beta, 1);
    call(alpha, {1});
    call(beta, {0});
    make({&alpha, &beta}, 1);
    alpha.reg = [](qor_context_t *c) {
        qor_context_subscribe(c, 0, nullptr);
        fault_arm_from(FAULT_THREAD, 0);
    };
    bus->start();

    ASSERT_TRUE(await([this] { return explain().circles == 1; }));

    fault_arm(FAULT_THREAD, -1);
    EXPECT_EQ(plain(explain().lines),
              "bus: workers 1, idle 0, quitting 0, queued 1\n"
              "thread A: worker, depth 3 > beta init 9, session 0, topic -1, ms 0 > alpha init 9, "
              "session 0, topic -1, ms 0 > beta waits 21, session 0, topic -1, ms 0, waits for the "
              "start of beta, held up by thread A\n"
              "circle of 1: beta (thread A)\n");
    end();
}

} // namespace
