/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of delegates share: actors on a bus that is driven by hand. */
#ifndef QOR_TESTS_SCHED_DELEGATE_FIXTURE_HPP
#define QOR_TESTS_SCHED_DELEGATE_FIXTURE_HPP

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "still_bus.hpp"

constexpr qor_context_topic_t topic = 2;

inline std::string line(const std::string &function, const std::string &text)
{
    return err_line("qor_sched_delegate", "qor_sched_delegate_" + function, text);
}

inline std::string bad_topic_line()
{
    return err_line("qor_topic_core", "qor_topic_core_topic_check", "topic invalid.\n");
}

inline qor_context_topic_attr_t at_point(int32_t point)
{
    return {QOR_CONTEXT_TOPIC_ATTR_POINT, point, 0};
}

/* A request of the session 77 on the test's topic. */
inline qor_context_msg_t request(qor_context_topic_t number = topic)
{
    qor_context_msg_t msg;
    qor_context_msg_fill(&msg, 77, number, nullptr, 0);
    return msg;
}

/* A publisher p, three more contexts of the application, and a system module s. Tasks run in
 * bus.run_all(), on the test's thread. */
class SchedDelegate : public testing::Test {
protected:
    SchedDelegate()
    {
        for (Actor *actor : {&p, &a, &b, &c}) {
            actor->attach(bus.get(), QOR_BUS_ROLE_USER);
        }
        s.attach(bus.get(), QOR_BUS_ROLE_SYS);
    }

    int32_t publish()
    {
        qor_context_msg_t msg = request();
        return qor_context_handler_publish(p.get(), &msg);
    }

    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p{journal, "p"}, a{journal, "a"}, b{journal, "b"}, c{journal, "c"}, s{journal, "s"};
};

/* A posted task that writes down the session it runs under. */
inline void *note_run(qor_context_t *context, int32_t session, void *)
{
    Actor::of(context).journal.add("ran " + std::to_string(session));
    return nullptr;
}

inline qor_context_task_t note_task(Actor &actor, int32_t session, int32_t delay)
{
    qor_context_task_t task = {};
    qor_context_taskx_init(&task, actor.get(), "note", session, note_run, nullptr);
    task.delay = delay;
    return task;
}

#endif /* QOR_TESTS_SCHED_DELEGATE_FIXTURE_HPP */
