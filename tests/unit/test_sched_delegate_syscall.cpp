/* SPDX-License-Identifier: Apache-2.0 */
/* System calls by way of a delegate. */
#include "qor_sched_delegate.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "qor_sys.h"
#include "sched_delegate_fixture.hpp"
#include "still_bus.hpp"

TEST_F(SchedDelegate, SyscallIsATaskWithoutResponse)
{
    qor_context_subscribe(s.get(), QOR_SYS_MONITOR_TASK, nullptr);
    qor_context_subscribe(a.get(), QOR_SYS_MONITOR_TASK, nullptr); /* the application's topic 3 */
    qor_context_msg_t msg = request(QOR_SYS_MONITOR_TASK);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), 0);
    EXPECT_EQ(journal.text(), "");
    qor_context_task_t *task = bus.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->session, 77);
    EXPECT_EQ(task->context, p.get());
    EXPECT_EQ(reinterpret_cast<void *>(task->recycle),
              reinterpret_cast<void *>(qor_context_msg_destroy));
    EXPECT_EQ(qor_context_task_excute(task), nullptr);
    StillBus::finish(task);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, SyscallLeavesFiltersAndListenersOut)
{
    Actor t(journal, "t");
    t.attach(bus.get(), QOR_BUS_ROLE_SYS);
    qor_context_filter(t.get(), topic, nullptr);
    qor_context_handler_listen(t.get(), topic, nullptr);
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    qor_context_handler_syscall(p.get(), &msg);
    qor_context_handler_syscallx(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(journal.text(), "s:REQUEST s:REQUEST");
}

TEST_F(SchedDelegate, SyscallHandsAClone)
{
    char question[] = "who";
    std::string asked;
    qor_context_subscribe(s.get(), topic, nullptr);
    s.on_message = [&](qor_context_msg_t *msg) {
        asked = static_cast<char *>(msg->request.buf);
        return -1;
    };
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 1, topic, question, sizeof(question));

    qor_context_handler_syscall(p.get(), &msg);
    memset(question, 'x', sizeof(question) - 1);
    bus.run_all();

    EXPECT_EQ(asked, "who");
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(out.printed(), ""); /* nobody hears of a failure */
}

TEST_F(SchedDelegate, SyscallReturnsWhatTheModulesTaskHandlerSays)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    s.on_task = [](qor_context_task_t *) { return -6; };
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -6);

    EXPECT_EQ(bus.run_all(), 0);
}

TEST_F(SchedDelegate, SyscallToATopicWithoutModuleIsReported)
{
    qor_context_subscribe(a.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), line("syscall", "!(node) == true."));
    EXPECT_EQ(bus.run_all(), 0);
}

TEST_F(SchedDelegate, SyscallToABadTopicIsReported)
{
    qor_context_msg_t msg = request(QOR_SYS_NUM);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), bad_topic_line() + line("syscall", "!(node) == true."));
}

TEST_F(SchedDelegate, SyscallWithoutDelegateOrBusIsReported)
{
    qor_context_msg_t msg = request();
    qor_bus_t *its_bus = p.delegate()->bus;
    p.delegate()->bus = nullptr;
    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);
    p.delegate()->bus = its_bus;

    qor_context_pub_data_set(p.get(), nullptr, nullptr);
    EXPECT_EQ(qor_context_handler_syscall(p.get(), &msg), -1);

    const std::string text = line("syscall", "!(_this && _this->bus) == true.");
    EXPECT_EQ(out.printed(), text + text);
}

TEST_F(SchedDelegate, SyscallWhoseModuleLeavesIsReportedByItsTask)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    qor_context_handler_syscall(p.get(), &msg);
    qor_context_unsubscribe(s.get(), topic);

    bus.run_all();

    EXPECT_EQ(journal.text(), "");
    EXPECT_EQ(out.printed(), line("syscallx", "no one subscribe, source:p, topic:2, session=77"));
}

TEST_F(SchedDelegate, SyscallxHandlesTheCallersOwnMessage)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    const qor_context_msg_t *own = &msg;
    s.on_message = [own](qor_context_msg_t *seen) {
        EXPECT_EQ(seen, own);
        return -21;
    };

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -21);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(msg.type, QOR_CONTEXT_MSG_REQUEST);
    EXPECT_EQ(msg.ret, 0);
    EXPECT_EQ(out.printed(), "");
}

TEST_F(SchedDelegate, SyscallxTakesAMessageOfAnyType)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();
    msg.type = QOR_CONTEXT_MSG_RESPONSE;

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), 0);

    EXPECT_EQ(journal.text(), "s:RESPONSE");
}

TEST_F(SchedDelegate, SyscallxWithoutModuleIsReported)
{
    qor_context_msg_t msg = request();

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), line("syscallx", "no one subscribe, source:p, topic:2, session=77"));
}

TEST_F(SchedDelegate, SyscallxToABadTopicIsReported)
{
    qor_context_msg_t msg = request(QOR_SYS_NUM);

    EXPECT_EQ(qor_context_handler_syscallx(p.get(), &msg), -1);

    EXPECT_EQ(out.printed(), bad_topic_line() + line("syscallx", "no one subscribe, source:p, "
                                                                 "topic:4, session=77"));
}

TEST_F(SchedDelegate, SystemCallsLeaveTheModuleEntered)
{
    qor_context_subscribe(s.get(), topic, nullptr);
    qor_context_msg_t msg = request();

    qor_context_handler_syscallx(p.get(), &msg);
    EXPECT_EQ(s.entries, 1);
    qor_context_handler_syscall(p.get(), &msg);
    bus.run_all();

    EXPECT_EQ(s.entries, 3);
    EXPECT_EQ(s.leaves, 0);
}
