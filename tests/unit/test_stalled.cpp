/* SPDX-License-Identifier: Apache-2.0 */
/* What is told beside the monitor's line about a task that runs long. */
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

#include "explaining.hpp"
#include "monitor_module_fixture.hpp"
#include "qor_topic_core.h"

namespace {

/* A handler of alpha's, for requests of beta's, that does not return. */
class Stalled : public Explaining {
public:
    void told_of(const std::string &text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        told += text;
    }

protected:
    Stalled()
    {
        serve(alpha, 3);
        alpha.handle = [this](qor_context_t *, qor_context_msg_t *) {
            door.pass();
            return 0;
        };
    }

    std::string all_told()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return told;
    }

    static void tell(void *self, const char *task, const char *module, int32_t topic,
                     int32_t session, int32_t age_ms)
    {
        static_cast<Stalled *>(self)->told_of(
            std::string(task) + "/" + module + "/" + std::to_string(topic) + "/" +
            std::to_string(session) + "/" + std::to_string(age_ms) + "\n");
    }

    /* Starts the bus, and has a task stand still. Gives its session. */
    int32_t stand_still()
    {
        bus->start();
        EXPECT_TRUE(bus->up());
        const int32_t session = qor_context_req(beta.context(), 3, nullptr, 0);
        EXPECT_TRUE(door.await(1));
        told_time += 5000;
        return session;
    }

    /* Has the monitor warn of a session now, rather than after five seconds. */
    void warn_of(int32_t session)
    {
        const list_head &monitors =
            bus->get()->sys_topic_core->ids[QOR_SYS_MONITOR_TASK].subscriber_head;
        const auto *node = reinterpret_cast<const qor_topic_node_t *>(
            reinterpret_cast<const char *>(monitors.next) - offsetof(qor_topic_node_t, topic_node));
        auto *que = static_cast<qor_time_que_t *>(qor_context_priv_data_get(node->context));
        qor_sys_monitor_task_t due = {};
        due.session = session;
        std::strcpy(due.name, "fetch");
        qor_time_que_node_t *watched =
            qor_time_que_node_create(static_cast<size_t>(session), 0, sizeof(due));
        std::memcpy(qor_time_que_node_body(watched), &due, sizeof(due));
        ASSERT_EQ(qor_time_que_enque(que, watched), 0);
    }

    Module alpha{"alpha"};
    Module beta{"beta"};
    std::mutex mutex;
    std::string told;
};

TEST_F(Stalled, ModuleTopicAndAgeAreTold)
{
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), tell, this), 0);
    const int32_t session = stand_still();

    warn_of(session);

    const std::string expected = "fetch/alpha/3/" + std::to_string(session) + "/5000\n";
    EXPECT_TRUE(await([&] { return all_told() == expected; })) << all_told();
    EXPECT_EQ(output.count(warning + std::string("fetch, session = ")), 1);
    end();
}

TEST_F(Stalled, WhatIsNotRecordedIsNotKnown)
{
    bus.reset(new RunningBus(RunningBus::by_start, 2, {&alpha, &beta}, TOPICS));
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), tell, this), 0);
    const int32_t session = stand_still();

    warn_of(session);

    const std::string expected = "fetch//-1/" + std::to_string(session) + "/-1\n";
    EXPECT_TRUE(await([&] { return all_told() == expected; })) << all_told();
    end();
}

TEST_F(Stalled, ATaskThatHasEndedIsNotKnown)
{
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), tell, this), 0);
    const int32_t session = stand_still();
    door.open();
    ASSERT_EQ(qor_bus_drain(bus->get(), 60000), 0);

    warn_of(session);

    const std::string expected = "fetch//-1/" + std::to_string(session) + "/-1\n";
    EXPECT_TRUE(await([&] { return all_told() == expected; })) << all_told();
    end();
}

TEST_F(Stalled, WhoeverTookItBackIsNotTold)
{
    make({&alpha, &beta});
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), tell, this), 0);
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), nullptr, nullptr), 0);
    const int32_t session = stand_still();

    warn_of(session);
    warn_of(session + 1);

    EXPECT_TRUE(output.await(warning + std::string("fetch"), 2));
    EXPECT_EQ(all_told(), "");
    end();
}

TEST_F(Stalled, ItMayCallTheBus)
{
    make({&alpha, &beta});
    struct Asks {
        Stalled *test;
        qor_bus_t *bus;
    } asks = {this, bus->get()};
    ASSERT_EQ(qor_bus_stalled_set(
                  bus->get(),
                  [](void *arg, const char *, const char *, int32_t, int32_t, int32_t) {
                      const Asks &of = *static_cast<Asks *>(arg);
                      of.test->told_of(Explanation(of.bus).line("thread ").substr(0, 7));
                  },
                  &asks),
              0);

    const int32_t session = stand_still();
    warn_of(session);

    EXPECT_TRUE(await([&] { return all_told() == "thread "; })) << all_told();
    end();
}

TEST_F(Stalled, AnEventSaysSo)
{
    make({&alpha, &beta}, 2, QOR_TRACE_CHANGES | QOR_TRACE_STACKS);
    const int32_t session = stand_still();
    const auto stalls = [this] { return CopiedRecording(memory.size()).told({event_stall}); };

    warn_of(session);

    const std::string expected = "stall alpha s" + std::to_string(session) + " 5000\n";
    EXPECT_TRUE(await([&] { return stalls() == expected; })) << stalls();
    end();
}

TEST_F(Stalled, WithoutItsClassThereIsNoEvent)
{
    make({&alpha, &beta}, 2, QOR_TRACE_ALL & ~QOR_TRACE_CHANGES);
    ASSERT_EQ(qor_bus_stalled_set(bus->get(), tell, this), 0);
    const int32_t session = stand_still();

    warn_of(session);
    warn_of(session + 1);

    EXPECT_TRUE(output.await(warning + std::string("fetch"), 2));
    EXPECT_EQ(CopiedRecording(memory.size()).told({event_stall}), "");
    end();
}

} // namespace
