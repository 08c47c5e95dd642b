/* SPDX-License-Identifier: Apache-2.0 */
/* What a library says of health that was built without the recorder. */
#include <gtest/gtest.h>

#include "output.hpp"
#include "qor_health.h"
#include "still_bus.hpp"

namespace {

TEST(HealthAbsent, NothingIsRecorded)
{
    StillBus bus({});
    qor_health_t health = {};
    health.size = sizeof(health);
    Output output;
    EXPECT_EQ(qor_bus_explain(
                  bus.get(), [](void *, const char *) {}, nullptr),
              -1);
    EXPECT_EQ(qor_bus_health(bus.get(), 1, &health), -1);
    EXPECT_EQ(qor_bus_circle_set(bus.get(), QOR_CIRCLE_WAIT), 0);
    EXPECT_EQ(qor_bus_circle_set(bus.get(), QOR_CIRCLE_REFUSE), -1);
    std::string expected;
    for (const char *function : {"qor_bus_explain", "qor_bus_health", "qor_bus_circle_set"}) {
        expected += err_line("qor_health", function, "nothing is recorded.");
    }
    EXPECT_EQ(output.printed(), expected);
}

} // namespace
