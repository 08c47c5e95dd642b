/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of the monitor share: its queue, reports, and warnings. */
#ifndef QOR_TESTS_MONITOR_MODULE_FIXTURE_HPP
#define QOR_TESTS_MONITOR_MODULE_FIXTURE_HPP

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qor_context.h"
#include "qor_context_msg.h"
#include "qor_hal.h"
#include "qor_monitor_module.h"
#include "qor_time_que.h"
#include "system_module.hpp"
#include "thread.hpp"

inline const char warning[] = "[qor_monitor_module][wrn][qor_monitor_module_console]:MONITOR: ";

/* The moments of the warnings that begin like that. */
inline std::vector<int64_t> warnings(const Output &out, const std::string &beginning)
{
    const std::string all = out.printed();
    std::vector<int64_t> moments;
    for (size_t at = 0; (at = all.find(warning + beginning, at)) != std::string::npos; at++) {
        const std::string stamp = ", timestamp = ";
        const std::string line = all.substr(at, all.find('\n', at) - at);
        const size_t number = line.rfind(stamp) + stamp.size();
        moments.push_back(std::stoll(line.substr(number)));
        EXPECT_EQ(line.find_first_not_of("0123456789", number), std::string::npos) << line;
    }
    return moments;
}

/* The module in a context of the test's; its console runs where a test runs it. */
class MonitorModule : public SystemModule {
protected:
    MonitorModule() : SystemModule(qor_monitor_module)
    {
        EXPECT_EQ(qor_monitor_module.init(own.get(), nullptr), 0);
        que = static_cast<qor_time_que_t *>(qor_context_priv_data_get(own.get()));
        std::strcpy(report.name, "fetch");
        qor_context_msg_fill(&msg, 1, QOR_SYS_MONITOR_TASK, &report, sizeof(report));
    }

    ~MonitorModule() override { qor_time_que_destroy(que); }

    int32_t send(int32_t session, int32_t state)
    {
        report.session = session;
        report.state = state;
        return qor_monitor_module.handle_message(own.get(), &msg);
    }

    int32_t start(int32_t session) { return send(session, QOR_SYS_MONITOR_TASK_START); }
    int32_t over(int32_t session) { return send(session, QOR_SYS_MONITOR_TASK_OVER); }

    /* Watches a task that has been running for five seconds. */
    void enque_due(int32_t session, const char *name)
    {
        qor_time_que_node_t *node = qor_time_que_node_create(session, 0, sizeof(report));
        qor_sys_monitor_task_t due = {};
        due.session = session;
        std::strncpy(due.name, name, sizeof(due.name) - 1);
        std::memcpy(qor_time_que_node_body(node), &due, sizeof(due));
        qor_time_que_enque(que, node);
    }

    /* Runs the console until the queue quits. */
    Thread console()
    {
        return Thread([this] { EXPECT_EQ(qor_monitor_module.console(own.get()), 0); });
    }

    qor_time_que_t *que;
    qor_sys_monitor_task_t report = {};
};

#endif /* QOR_TESTS_MONITOR_MODULE_FIXTURE_HPP */
