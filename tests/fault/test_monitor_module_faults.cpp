/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_monitor_module.h"

#include <memory>

#include <gtest/gtest.h>

#include "fault.h"
#include "output.hpp"
#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_time_que.h"
#include "recording_context.hpp"

namespace {

class MonitorModuleFaults : public testing::Test {
protected:
    MonitorModuleFaults()
    {
        qor_context_msg_fill(msg.get(), 1, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    }

    ~MonitorModuleFaults() override
    {
        fault_arm(FAULT_ALLOC, -1);
        if (que()) {
            qor_time_que_destroy(que());
        }
    }

    qor_time_que_t *que()
    {
        return static_cast<qor_time_que_t *>(qor_context_priv_data_get(own.get()));
    }

    int32_t send(int32_t session, int32_t state)
    {
        report.session = session;
        report.state = state;
        return qor_monitor_module.handle_message(own.get(), msg.get());
    }

    /* What a call prints that locks a queue that is not there. */
    static std::string without_queue(const std::string &call)
    {
        std::string lines;
        for (const std::string &function : {std::string("lock"), call, std::string("unlock")}) {
            lines += err_line("qor_time_que", "qor_time_que_" + function, "!(_this) == true.");
        }
        return lines;
    }

    RecordingContext own;
    qor_sys_monitor_task_t report = {};
    std::unique_ptr<qor_context_msg_t> msg{new qor_context_msg_t};
    Output out;
};

} // namespace

TEST_F(MonitorModuleFaults, InitWithoutMemorySucceedsAllTheSame)
{
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_monitor_module.init(own.get(), nullptr), 0);

    EXPECT_EQ(que(), nullptr);
    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_create", "!(_this) == true."));
}

TEST_F(MonitorModuleFaults, WithoutAQueueTheConsoleReturnsAfterTheQueuesOwnLines)
{
    EXPECT_EQ(qor_monitor_module.console(own.get()), 0);

    EXPECT_EQ(out.printed(),
              err_line("qor_time_que", "qor_time_que_lock", "!(_this) == true.") +
                  err_line("qor_time_que", "qor_time_que_deque_block_locked", "!(_this) == true.") +
                  err_line("qor_time_que", "qor_time_que_unlock", "!(_this) == true."));
}

TEST_F(MonitorModuleFaults, AStartReportWithoutMemoryIsAccepted)
{
    ASSERT_EQ(qor_monitor_module.init(own.get(), nullptr), 0);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(send(7, QOR_SYS_MONITOR_TASK_START), 0);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(que()->count, 0);
    EXPECT_EQ(out.printed(), err_line("qor_time_que", "qor_time_que_node_create",
                                      "malloc \"qor_time_que_node_t\" failed."));
}

TEST_F(MonitorModuleFaults, WatchesThatWereTakenOutAreUsedAgain)
{
    ASSERT_EQ(qor_monitor_module.init(own.get(), nullptr), 0);
    send(7, QOR_SYS_MONITOR_TASK_START);
    send(7, QOR_SYS_MONITOR_TASK_START);
    send(7, QOR_SYS_MONITOR_TASK_OVER);
    fault_arm(FAULT_ALLOC, -1);

    send(8, QOR_SYS_MONITOR_TASK_START);
    send(9, QOR_SYS_MONITOR_TASK_START);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);

    send(10, QOR_SYS_MONITOR_TASK_START);
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 1);
}

TEST_F(MonitorModuleFaults, WithoutAQueueReportsPrintTheQueuesOwnLines)
{
    EXPECT_EQ(send(7, QOR_SYS_MONITOR_TASK_OVER), 0);

    EXPECT_EQ(out.printed(), without_queue("remove_locked") + without_queue("remove_locked"));
    out.clear();

    EXPECT_EQ(send(7, QOR_SYS_MONITOR_TASK_START), 0);

    EXPECT_EQ(out.printed(), without_queue("enque_locked"));
}
