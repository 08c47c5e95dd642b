/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_mng_module.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_context_module.h"
#include "recording_context.hpp"
#include "still_bus.hpp"

namespace {

class MngModuleFaults : public testing::Test {
protected:
    ~MngModuleFaults() override { fault_arm(FAULT_ALLOC, -1); }

    /* The number of allocations of start-up before the first module's context is made. */
    static int before_modules()
    {
        StillBus bus;
        fault_arm(FAULT_ALLOC, -1);
        bus.run_next();
        return fault_calls(FAULT_ALLOC);
    }

    Output out;
};

constexpr int allocations_of_a_context = 3;

} // namespace

TEST_F(MngModuleFaults, InitWithoutMemoryFails)
{
    RecordingContext own;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_mng_module.init(own.get(), nullptr), -1);

    EXPECT_EQ(qor_context_priv_data_get(own.get()), nullptr);
    EXPECT_EQ(out.printed(), err_line("qor_mng_module", "qor_mng_module_init",
                                      "malloc \"qor_mng_module_t\" failed."));
}

TEST_F(MngModuleFaults, AModuleWithoutContextIsPassedOver)
{
    const int number = before_modules();
    Module first("first"), second("second");
    StillBus bus({&first, &second});
    fault_arm(FAULT_ALLOC, number);

    bus.run_all();

    EXPECT_EQ(first.context(), nullptr);
    EXPECT_TRUE(second.started());
    EXPECT_EQ(out.count("[qor_mng_module][err][qor_mng_module_init_module_by_pure]:create context "
                        "failed. module name = first\n"),
              1);
}

TEST_F(MngModuleFaults, AContextThatCannotBeAttachedStays)
{
    const int number = before_modules() + allocations_of_a_context;
    Module first("first"), second("second");
    StillBus bus({&first, &second});
    fault_arm(FAULT_ALLOC, number); /* the delegate */

    bus.run_next();

    EXPECT_EQ(first.context(), nullptr); /* its reg is not called */
    void *address = nullptr;
    const std::string printed = out.printed();
    ASSERT_EQ(sscanf(printed.c_str(),
                     "[qor_mng_module][inf][qor_mng_module_init_module_by_pure]:create first's "
                     "context success. context = %p",
                     &address),
              1);
    const std::string failed = err_line("qor_mng_module", "qor_mng_module_init_module_by_pure",
                                        "context register to bus failed. module name = first") +
                               err_line("qor_core_context", "qor_core_context_destroy",
                                        "context is not ready to destroy.");
    EXPECT_NE(printed.find(failed), std::string::npos) << printed;
    EXPECT_EQ(qor_core_context_type(static_cast<qor_context_t *>(address))->lifecycle,
              QOR_USER_CONTEXT_LIFECYCLE_INIT);
    bus.run_all();
    EXPECT_TRUE(second.started());
}
