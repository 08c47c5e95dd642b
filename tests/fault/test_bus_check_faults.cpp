/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_start.h"

#include <string>

#include <gtest/gtest.h>

#include "fault.h"
#include "module.hpp"
#include "output.hpp"

namespace {

void see(void *arg, const qor_bus_finding_t *finding)
{
    *static_cast<std::string *>(arg) += std::string(finding->module) + ": " + finding->text + "\n";
}

class BusCheckFaults : public testing::Test {
protected:
    BusCheckFaults()
    {
        a.descriptor.console = [](qor_context_t *) { return 0; };
    }
    ~BusCheckFaults() override
    {
        fault_arm(FAULT_STACK, -1);
        fault_arm(FAULT_ATTR, -1);
    }

    Module a{"a"};
    qor_context_module_t *table[2] = {&a.descriptor, nullptr};
    std::string all;
    Output out;
};

} // namespace

TEST_F(BusCheckFaults, AStackSizeThatTheSystemRefuses)
{
    fault_arm_from(FAULT_STACK, 0);

    EXPECT_EQ(qor_bus_check(table, see, &all), 1);

    EXPECT_EQ(all, "a: console: stack size refused.\n");
    EXPECT_EQ(fault_locks(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(BusCheckFaults, WithoutAnAttributeNothingIsKnownOfTheStack)
{
    fault_arm_from(FAULT_ATTR, 0);

    EXPECT_EQ(qor_bus_check(table, see, &all), 0);

    EXPECT_EQ(fault_fired(FAULT_ATTR), 1);
}

TEST_F(BusCheckFaults, ItTakesNoMemory)
{
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(qor_bus_check(table, nullptr, nullptr), 0);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
}
