/* SPDX-License-Identifier: Apache-2.0 */
#include "qor_sched_delegate.h"

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "await.hpp"
#include "fault.h"
#include "leak.hpp"
#include "output.hpp"
#include "qor_topic_core.h"
#include "running_bus.hpp"
#include "still_bus.hpp"

namespace {

constexpr qor_context_topic_t topic = 2;

std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_sched_delegate", "qor_sched_delegate_" + function, text);
}

const std::string clone_line =
    err_line("qor_context_msg", "qor_context_msg_clone", "!(dst) == true.");
const std::string node_line =
    err_line("qor_que", "qor_que_node_create", "malloc \"qor_que_node_t\" failed.");

/* Clones and task nodes are the only allocations that a message costs. */
class SchedDelegateFaults : public testing::Test {
protected:
    SchedDelegateFaults()
    {
        for (Actor *actor : {&p, &a, &b}) {
            actor->attach(bus.get(), QOR_BUS_ROLE_USER);
        }
        s.attach(bus.get(), QOR_BUS_ROLE_SYS);
        qor_context_subscribe(a.get(), topic, nullptr);
        qor_context_subscribe(s.get(), topic, nullptr);
        qor_context_msg_fill_full(msg.get(), 77, topic, question, sizeof(question), room,
                                  sizeof(room));
    }

    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p{journal, "p"}, a{journal, "a"}, b{journal, "b"}, s{journal, "s"};
    char question[10] = "";
    char room[5] = "";
    const std::unique_ptr<qor_context_msg_t> msg = std::make_unique<qor_context_msg_t>();
};

} // namespace

TEST_F(SchedDelegateFaults, CreateWithoutMemoryPrintsALineAndAnEmptyOne)
{
    Actor actor(journal, "new");
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, actor.get()), nullptr);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(qor_context_pub_data_get(actor.get()), nullptr);
    EXPECT_EQ(qor_context_handler_get(actor.get()), nullptr);
    EXPECT_EQ(out.printed(), line("create", "malloc for \"qor_sched_delegate_t\" failed.\n"));
}

TEST_F(SchedDelegateFaults, RegistrationWithoutMemoryIsReportedByEveryStep)
{
    const std::string node = err_line("qor_topic_core", "qor_topic_node_create",
                                      "malloc \"qor_topic_node_t\" failed.\n");
    const auto table = [](const std::string &function) {
        return err_line("qor_topic_core", "qor_topic_core_" + function, "create node failed.");
    };

    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_context_handler_subscribe(b.get(), topic, nullptr), -1);
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_context_handler_listen(b.get(), topic, nullptr), -1);
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_context_handler_filter(b.get(), topic, nullptr), -1);

    std::string lines;
    for (const char *function : {"subscribe", "listen", "filter"}) {
        lines += node + table(function) + line(function, "create node failed.");
    }
    EXPECT_EQ(out.printed(), lines);
}

TEST_F(SchedDelegateFaults, PublishWithoutMemoryForTheCloneIsReported)
{
    qor_context_filter(b.get(), topic, nullptr);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_handler_publish(p.get(), msg.get()), -1);

    EXPECT_EQ(journal.text(), "b:FILTER_BEFORE");
    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(),
              clone_line + line("publish", "clone message faied, source:p, topic:2, session=77, "
                                           "msg_len = 15"));
}

TEST_F(SchedDelegateFaults, PublishThatCannotBePostedFreesItsClone)
{
    fault_arm(FAULT_ALLOC, 1); /* the clone, the relay's node */

    EXPECT_EQ(qor_context_handler_publish(p.get(), msg.get()), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
    /* The subscriber's handle_task is the one that fails: its own way to the bus. */
    EXPECT_EQ(out.count("create a timer failed, source:a, task:task:"), 1);
}

/* A request that a worker runs lends its response the node, see AcceptanceFaults; run by any other
 * thread, the response makes its own. */
TEST_F(SchedDelegateFaults, AResponseOfARequestThatIsRunByHandHasItsOwnNode)
{
    fault_arm(FAULT_ALLOC, -1);

    qor_context_handler_publish(p.get(), msg.get());
    EXPECT_EQ(fault_calls(FAULT_ALLOC), 2);
    bus.run_all();

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 3);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegateFaults, AResponseWithoutMemoryForItsOwnNodeFreesItsMessage)
{
    ASSERT_EQ(qor_context_handler_publish(p.get(), msg.get()), 0);
    fault_arm(FAULT_ALLOC, 0);
    const int live = fault_live();

    bus.run_all();

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), live - 2); /* node and clone */
    EXPECT_EQ(journal.text(), "a:REQUEST");
}

TEST_F(SchedDelegateFaults, ACancelledRequestKeepsNoMemory)
{
    fault_arm(FAULT_ALLOC, -1);
    ASSERT_EQ(qor_context_handler_publish(p.get(), msg.get()), 0);

    ASSERT_EQ(qor_bus_cancel(bus.get(), msg.get()->session), 0);

    EXPECT_EQ(fault_live(), 0);
}

TEST_F(SchedDelegateFaults, ASynchronousRequestCostsNothing)
{
    qor_context_filter(b.get(), topic, nullptr);
    fault_arm(FAULT_ALLOC, -1);

    EXPECT_EQ(qor_context_handler_publishx(p.get(), msg.get()), 0);

    EXPECT_EQ(fault_calls(FAULT_ALLOC), 0);
}

TEST_F(SchedDelegateFaults, AListenerTaskIsPostedWithoutItsMessage)
{
    qor_context_topic_attr_t before = {QOR_CONTEXT_TOPIC_ATTR_POINT,
                                       QOR_CONTEXT_TOPIC_ATTR_POINT_BEFORE, 0};
    qor_context_handler_listen(b.get(), topic, &before);
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_handler_publish(p.get(), msg.get()), 0);
    EXPECT_EQ(out.printed(),
              clone_line + line("listen_dispatch_entry", "listen: message clone failed. topic: 2, "
                                                         "session = 77"));
    out.clear();

    qor_context_task_t *task = bus.take();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->arg, nullptr);
    qor_context_task_excute(task);
    StillBus::finish(task);
    EXPECT_EQ(journal.text(), "");
    EXPECT_EQ(b.entries, 0);
    EXPECT_EQ(out.printed(),
              err_line("qor_context_msg", "qor_context_msg_destroy", "!(msg) == true."));

    bus.run_all(); /* the request goes its way */
    EXPECT_EQ(journal.text(), "a:REQUEST p:RESPONSE");
}

TEST_F(SchedDelegateFaults, AListenerTaskThatCannotBePostedFreesItsClone)
{
    qor_context_handler_listen(b.get(), topic, nullptr);
    fault_arm(FAULT_ALLOC, 1); /* the node of the task before the handler */

    EXPECT_EQ(qor_context_handler_publishx(p.get(), msg.get()), 0);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 2); /* clone and node of the task after it */
    EXPECT_EQ(bus.run_all(), 1);
    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(journal.text(), "a:REQUEST b:LISTEN_AFTER");
    EXPECT_EQ(out.printed(), node_line);
}

TEST_F(SchedDelegateFaults, SyscallWithoutMemoryForTheCloneIsReported)
{
    fault_arm(FAULT_ALLOC, 0);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), msg.get()), -1);

    EXPECT_EQ(bus.run_all(), 0);
    EXPECT_EQ(out.printed(), clone_line + line("syscall", "!(new_msg) == true."));
}

TEST_F(SchedDelegateFaults, SyscallThatCannotBePostedFreesItsClone)
{
    fault_arm(FAULT_ALLOC, 1);

    EXPECT_EQ(qor_context_handler_syscall(p.get(), msg.get()), -1);

    EXPECT_EQ(fault_fired(FAULT_ALLOC), 1);
    EXPECT_EQ(fault_live(), 0);
}

TEST_F(SchedDelegateFaults, SyscallFreesItsCloneAfterTheCall)
{
    fault_arm(FAULT_ALLOC, -1);

    qor_context_handler_syscall(p.get(), msg.get());
    EXPECT_EQ(fault_live(), 2);
    bus.run_all();

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(fault_live(), 0);
}

TEST_F(SchedDelegateFaults, CancelFreesTheCloneOfARequest)
{
    fault_arm(FAULT_ALLOC, -1);
    qor_context_handler_publish(p.get(), msg.get());

    EXPECT_EQ(qor_context_handler_cancel(p.get(), 77), 0);

    EXPECT_EQ(fault_live(), 0);
}

TEST_F(SchedDelegateFaults, ARelayThatIsATimerFreesItsCloneWhenTheBusQuits)
{
    Actor to(journal, "to");
    to.attach(bus.get(), QOR_BUS_ROLE_USER);
    to.on_task = [&](qor_context_task_t *task) {
        qor_context_task_t later = *task;
        later.delay = 100000;
        return qor_bus_timer_post(bus.get(), &later);
    };
    qor_context_subscribe(to.get(), topic, nullptr);
    fault_arm(FAULT_ALLOC, -1);
    ASSERT_EQ(qor_context_handler_publish(p.get(), msg.get()), 0);

    qor_bus_quit(bus.get());
    EXPECT_EQ(qor_bus_loop(bus.get()), 0);

    EXPECT_EQ(fault_live(), 0);
    EXPECT_EQ(journal.text(), "");
}

TEST_F(SchedDelegateFaults, DestroyOfTheBusFreesTheCloneOfAQueuedRelay)
{
    int left[2];
    for (int requests = 0; requests < 2; requests++) {
        Actor from(journal, "from"), to(journal, "to");
        qor_bus_t *doomed = nullptr;
        fault_arm(FAULT_ALLOC, -1);
        {
            PrescribedLeak delegates_and_registration;
            doomed = qor_bus_create(bus.table(), topic + 1);
            from.attach(doomed, QOR_BUS_ROLE_USER);
            to.attach(doomed, QOR_BUS_ROLE_USER);
            qor_context_subscribe(to.get(), topic, nullptr);
        }
        qor_time_que_t *time_que = doomed->time_que;
        if (requests) {
            ASSERT_EQ(qor_context_handler_publish(from.get(), msg.get()), 0);
        }

        qor_bus_destroy(doomed);

        qor_time_que_destroy(time_que);
        left[requests] = fault_live();
    }

    EXPECT_EQ(left[0], left[1]);
}

TEST_F(SchedDelegateFaults, PostWithoutMemorySpeaksOfATimer)
{
    qor_context_task_t task = {};
    qor_context_task_init(&task, nullptr, "late", 5, nullptr, nullptr);

    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), -1);
    task.delay = 1;
    fault_arm(FAULT_ALLOC, 0);
    EXPECT_EQ(qor_context_handler_post(p.get(), &task), -1);

    const std::string text = line("post", "create a timer failed, source:p, task:late, session=5");
    EXPECT_EQ(out.printed(), node_line + text +
                                 err_line("qor_time_que", "qor_time_que_node_create",
                                          "malloc \"qor_time_que_node_t\" failed.") +
                                 text);
}

TEST_F(SchedDelegateFaults, DestroyFreesRegistrationsAndNotTheRecord)
{
    qor_sched_delegate_t *delegate = a.delegate();
    fault_arm(FAULT_ALLOC, -1);

    qor_sched_delegate_destroy(delegate);

    EXPECT_EQ(fault_live(), -1); /* the subscription of the set-up */
}
