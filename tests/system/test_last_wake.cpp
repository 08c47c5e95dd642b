/* SPDX-License-Identifier: Apache-2.0 */
/* What a worker is woken for may end the bus, and its memory, while the thread that has woken it is
 * still on its way out of the queue. */
#include <string>

#include <gtest/gtest.h>

#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_module.h"
#include "running_bus.hpp"

namespace {

qor_bus_t *bus_of_cycle;

void *quit(void *)
{
    qor_bus_quit(bus_of_cycle);
    return nullptr;
}

void *post_quit(void *)
{
    qor_bus_run(bus_of_cycle, quit, nullptr, nullptr);
    return nullptr;
}

} // namespace

TEST(LastWake, ByAWorkerOfABusThatIsClosedAtOnce)
{
    Output out;
    for (int cycle = 0; cycle < 300; cycle++) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        RunningBus bus({}, 1, 3);
        bus_of_cycle = bus.get();
        ASSERT_EQ(qor_bus_run(bus.get(), post_quit, nullptr, nullptr), 0);
        EXPECT_EQ(bus.returned(), 0);
        bus.end();
    }
}

TEST(LastWake, ByAModuleOfABusThatIsClosedAtOnce)
{
    Output out;
    for (int cycle = 0; cycle < 200; cycle++) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        Module module("module"), other("other");
        RunningBus bus({&module, &other}, 1, 3);
        ASSERT_TRUE(bus.up());
        bus_of_cycle = bus.get();
        ASSERT_GE(qor_context_run(
                      module.context(),
                      [](void *to) -> void * {
                          qor_context_run(static_cast<Module *>(to)->context(), quit, nullptr);
                          return nullptr;
                      },
                      &other),
                  0);
        EXPECT_EQ(bus.returned(), 0);
        bus.end();
    }
}
