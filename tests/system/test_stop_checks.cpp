/* SPDX-License-Identifier: Apache-2.0 */
/* Calls of quit, drain and close that are refused. */
#include <string>

#include <gtest/gtest.h>

#include "await.hpp"
#include "door.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "running_bus.hpp"
#include "stop_fixture.hpp"

TEST_F(Stop, EachFunctionReportsANullBus)
{
    EXPECT_EQ(qor_bus_quit(nullptr), -1);
    EXPECT_EQ(qor_bus_quitting(nullptr), -1);
    EXPECT_EQ(qor_bus_drain(nullptr, 0), -1);
    qor_bus_close(nullptr);

    const std::string text = "!(_this) == true.";
    EXPECT_EQ(out.printed(), err_line("qor_bus", "qor_bus_quit", text) +
                                 err_line("qor_bus", "qor_bus_quitting", text) +
                                 err_line("qor_bus", "qor_bus_drain", text) +
                                 err_line("qor_bus", "qor_bus_close", text));
}

TEST_F(Stop, CloseByATaskIsRefusedEvenAfterQuit)
{
    Module module("module");
    RunningBus bus({&module});
    ASSERT_TRUE(bus.up());
    Door door;
    out.clear();

    ledger.run(bus.get(), [&] {
        qor_bus_close(bus.get());
        qor_bus_quit(bus.get());
        qor_bus_close(bus.get());
    });

    EXPECT_TRUE(await([&] { return qor_bus_quitting(bus.get()) == 1; }));
    EXPECT_EQ(bus.quit(), 0);
    const std::string line = err_line("qor_bus", "qor_bus_close", "the loop is running.");
    EXPECT_EQ(out.printed(), line + line);
}
