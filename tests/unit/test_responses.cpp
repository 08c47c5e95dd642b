/* SPDX-License-Identifier: Apache-2.0 */
/* Responses that cannot be handed over. */
#include <string>

#include <gtest/gtest.h>

#include "actor.hpp"
#include "journal.hpp"
#include "output.hpp"
#include "qor_context_handler.h"
#include "still_bus.hpp"

namespace {

constexpr qor_context_topic_t topic = 2;

/* Actors hand their tasks to the bus, as system contexts do. */
class Responses : public testing::Test {
protected:
    Responses()
    {
        p.attach(bus.get(), QOR_BUS_ROLE_USER);
        s.attach(bus.get(), QOR_BUS_ROLE_USER);
        qor_context_subscribe(s.get(), topic, nullptr);
    }

    int32_t publish()
    {
        qor_context_msg_t msg;
        qor_context_msg_fill(&msg, 77, topic, nullptr, 0);
        return qor_context_handler_publish(p.get(), &msg);
    }

    Output out;
    StillBus bus{StillBus::bare};
    Journal journal;
    Actor p{journal, "p"}, s{journal, "s"};
};

} // namespace

TEST_F(Responses, AreFreedWithoutALineWhenTheBusQuits)
{
    ASSERT_EQ(publish(), 0);
    qor_context_task_t *relay = bus.take();
    ASSERT_NE(relay, nullptr);
    qor_bus_quit(bus.get());

    qor_context_task_excute(relay); /* the leak checker sees a message that stays */
    StillBus::finish(relay);

    EXPECT_EQ(journal.text(), "s:REQUEST");
    EXPECT_EQ(out.printed(), "");
}
