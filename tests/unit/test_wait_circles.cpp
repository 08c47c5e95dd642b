/* SPDX-License-Identifier: Apache-2.0 */
/* What is told of a thread that waits for the start of a context that is hard to find. */
#include "wait_circles.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include "module.hpp"
#include "output.hpp"
#include "qor_core_context_priv.hpp"
#include "qor_sched_delegate_priv.hpp"
#include "recording.hpp"
#include "still_bus.hpp"
#include "trace_lane.hpp"

namespace {

class WaitCircles : public testing::Test {
protected:
    static constexpr uint32_t events = 64, names = 4;

    WaitCircles()
    {
        EXPECT_EQ(qor_trace_start(bus.get(), &memory.config), 0);
        attached = qor_sched_delegate_create(bus.get(), QOR_BUS_ROLE_USER, wrapper)->priv;
    }
    ~WaitCircles() override
    {
        qor_context_uninit(wrapper);
        qor_context_destroy(wrapper);
    }

    /* The thread of the test is inside an init, and waits for its own start. */
    void init_and_wait()
    {
        qor_core_context_type(wrapper)->priv->init = user_init_begun;
        trace_lane_begin({trace_what(trace_start, trace_inits, attached->number), 0, -1,
                          trace_from_any, nullptr},
                         QOR_TRACE_CHANGES);
        wait_for(attached->number);
    }

    /* The thread of the test waits for a context with that number from now on. */
    void wait_for(uint32_t who)
    {
        trace_lane_begin(
            {trace_what(trace_wait, trace_waits_start, who), 0, -1, trace_from_any, nullptr},
            QOR_TRACE_CHANGES);
    }

    /* The only wait, which is in no circle. */
    wait_link the_wait()
    {
        wait_link link;
        EXPECT_EQ(wait_read(bus.get(), 0, link), 1u);
        EXPECT_EQ(wait_read(bus.get(), 1, link), 0u);
        EXPECT_EQ(wait_read(bus.get(), 0, link), 1u);
        EXPECT_EQ(link.tid, static_cast<uint32_t>(gettid()));
        EXPECT_EQ(link.next, 0u);
        EXPECT_EQ(link.circle, 0u);
        return link;
    }

    Output output;
    Module module{"module"};
    StillBus bus{StillBus::bare};
    qor_context_t *wrapper = qor_context_create(&qor_core_context_class, &module.descriptor);
    RecordedMemory memory{QOR_TRACE_ALL, 6, events, names};
    qor_sched_delegate_private *attached; /* the module's context */
};

} // namespace

TEST_F(WaitCircles, AContextThatIsNotThereHoldsNobodyUp)
{
    wait_for(3);

    EXPECT_STREQ(the_wait().module, "");
}

TEST_F(WaitCircles, NorDoesOneBeyondTheNames)
{
    wait_for(names + 1 + events * 16 / 32); /* behind them stand the events, these its own */

    EXPECT_STREQ(the_wait().module, "");
}

/* Only user contexts have a start that anybody waits for. */
TEST_F(WaitCircles, NorDoesOneOfAnotherClass)
{
    qor_context_cls_t other = qor_core_context_class;
    attached->cls = &other;
    init_and_wait();

    EXPECT_STREQ(the_wait().module, "module");
    attached->cls = &qor_core_context_class;
}

TEST_F(WaitCircles, AnInitThatWaitsForItselfIsOne)
{
    init_and_wait();

    wait_link link;
    EXPECT_EQ(wait_read(bus.get(), 0, link), 1u);
    EXPECT_STREQ(link.module, "module");
    EXPECT_EQ(link.next, 1u);
    EXPECT_EQ(link.circle, 1u);
}

/* The text may do it, between one line and the next. */
TEST_F(WaitCircles, NobodyWaitsInARecordingThatHasEnded)
{
    wait_for(3);
    wait_link link;
    ASSERT_EQ(wait_read(bus.get(), 0, link), 1u);

    qor_trace_stop();

    EXPECT_EQ(wait_read(bus.get(), 0, link), 0u);
}

TEST_F(WaitCircles, NorInThatOfAnotherBus)
{
    StillBus other(StillBus::bare);
    wait_for(3);
    wait_link link;

    EXPECT_EQ(wait_read(other.get(), 0, link), 0u);
}
