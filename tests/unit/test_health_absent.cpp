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

TEST(HealthAbsent, ArgumentsAreCheckedAllTheSame)
{
    StillBus bus({});
    const auto line = [](void *, const char *) {};
    qor_health_t health = {};
    qor_health_t sized = {};
    sized.size = sizeof(sized);
    const auto printed = [](const auto &call) {
        Output output;
        EXPECT_EQ(call(), -1);
        return output.printed();
    };
    const auto refused = [](const char *function, const char *text) {
        return err_line("qor_health", function, std::string("!(") + text + ") == true.");
    };
    qor_bus_t *const none = nullptr;

    EXPECT_EQ(printed([&] { return qor_bus_explain(none, line, nullptr); }),
              refused("qor_bus_explain", "bus"));
    EXPECT_EQ(printed([&] { return qor_bus_explain(bus.get(), nullptr, nullptr); }),
              refused("qor_bus_explain", "text"));
    EXPECT_EQ(printed([&] { return qor_bus_health(none, 1, &sized); }),
              refused("qor_bus_health", "bus"));
    EXPECT_EQ(printed([&] { return qor_bus_health(bus.get(), 0, &sized); }),
              refused("qor_bus_health", "limit_ms > 0"));
    EXPECT_EQ(printed([&] { return qor_bus_health(bus.get(), 1, nullptr); }),
              refused("qor_bus_health", "health"));
    EXPECT_EQ(printed([&] { return qor_bus_health(bus.get(), 1, &health); }),
              refused("qor_bus_health", "health->size == sizeof(*health)"));
    EXPECT_EQ(printed([&] { return qor_bus_circle_set(none, QOR_CIRCLE_WAIT); }),
              refused("qor_bus_circle_set", "bus"));
    EXPECT_EQ(
        printed([&] { return qor_bus_circle_set(bus.get(), 7); }),
        refused("qor_bus_circle_set", "policy == QOR_CIRCLE_WAIT || policy == QOR_CIRCLE_REFUSE"));
}

} // namespace
