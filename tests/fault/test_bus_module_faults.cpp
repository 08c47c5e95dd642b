/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_bus_module.h"

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_impl_context.h"
#include "recording_context.hpp"
#include "still_bus.hpp"

TEST(BusModuleFaults, ARequestWithoutMemoryForTheDelegateFails)
{
    Module module{"gauge"};
    StillBus bus;
    RecordingContext own;
    qor_bus_module.init(own.get(), bus.get());
    qor_context_t *served = qor_context_create(&qor_impl_context_class, &module.descriptor);
    qor_sys_bus_register_request_t request = {served};
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, QOR_SYS_BUS_REGISTER, &request, sizeof(request));
    Output out;
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_bus_module.handle_message(own.get(), &msg), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(served->handler, nullptr);
    EXPECT_EQ(served->pub_data, nullptr);
    EXPECT_EQ(out.printed(), err_line("qor_sched_delegate", "qor_sched_delegate_create",
                                      "malloc for \"qor_sched_delegate_t\" failed.\n"));
    qor_context_destroy(served);
}
