/* SPDX-License-Identifier: Apache-2.0 */
/* Periodic timers that end between the two queues. */
#include "bus_periodic.hpp"

#include <gtest/gtest.h>

#include "qor_bus_priv.hpp"
#include "que_front.hpp"
#include "still_bus.hpp"
#include "thread_record.hpp"

namespace {

constexpr periodic_calls calls = {
    bus_periodic_has, bus_periodic_cancel, bus_periodics_end, bus_periodic_due, nullptr, nullptr,
    nullptr};

/* A timer of a bus that does not loop: the test does what loop and worker would. */
class BusPeriodic : public testing::Test {
protected:
    BusPeriodic() : timer(bus_periodic_create(bus.get(), sizeof(bus_periodic), &calls))
    {
        timer->period = 1;
        timer->arg = this;
        timer->recycle = [](void *self) { static_cast<BusPeriodic *>(self)->recycled++; };
        bus_periodic_task(timer)->arg = timer;
    }

    /* As the loop takes it when it is due. */
    qor_time_que_node_t *due() { return qor_time_que_deque_block(bus.get()->time_que, -1); }

    StillBus bus{StillBus::bare};
    bus_periodic *timer;
    int recycled = 0;
};

} // namespace

TEST_F(BusPeriodic, IsQueuedWhenItIsDue)
{
    ASSERT_TRUE(bus_periodic_start(timer));

    bus_periodic_due(due());

    EXPECT_EQ(qor_que_count(bus.get()->que), 1);
    EXPECT_EQ(recycled, 0);
    bus.close();
    EXPECT_EQ(recycled, 1);
}

TEST_F(BusPeriodic, ThatIsCancelledInBetweenEndsWhereItIsDue)
{
    ASSERT_TRUE(bus_periodic_start(timer));
    qor_time_que_node_t *node = due();
    EXPECT_EQ(bus_periodic_cancel(bus.get(), timer->session), 0);
    EXPECT_EQ(recycled, 0);

    bus_periodic_due(node);

    EXPECT_EQ(recycled, 1);
    EXPECT_EQ(qor_que_count(bus.get()->que), 0);
}

TEST_F(BusPeriodic, EndsWhereItIsDueWhenTheTaskQueueQuits)
{
    ASSERT_TRUE(bus_periodic_start(timer));
    qor_time_que_node_t *node = due();
    qor_que_quit(bus.get()->que);

    bus_periodic_due(node);

    EXPECT_EQ(recycled, 1);
    EXPECT_FALSE(bus_periodic_has(bus.get()->priv->periodics, 1));
}

TEST_F(BusPeriodic, EndsWhenItsRunIsNotTheWorkersAnyMore)
{
    ASSERT_TRUE(bus_periodic_start(timer));
    bus_periodic_due(due());
    qor_que_node_t *run = qor_que_node_type(bus.take());
    qor_que_node_t *other = bus_node();
    thread_record record = {};
    record.running = other;
    ASSERT_EQ(thread_record_set(&record), 0);
    uint32_t missed = 0;

    EXPECT_FALSE(bus_periodic_begin(timer, &missed));
    bus_periodic_over(timer);

    thread_record_set(nullptr);
    EXPECT_EQ(record.running, other);
    EXPECT_EQ(recycled, 1);
    qor_que_node_destroy(run, nullptr);
    qor_que_node_destroy(other, nullptr);
}

TEST_F(BusPeriodic, ThatIsMonthsLateCatchesUpInSeveralRuns)
{
    ASSERT_TRUE(bus_periodic_start(timer));
    qor_time_que_node_t *node = due();
    node->when -= int64_t{2} * UINT32_MAX;
    bus_periodic_due(node);
    qor_que_node_t *run = qor_que_node_type(bus.take());
    thread_record record = {};
    record.running = run;
    ASSERT_EQ(thread_record_set(&record), 0);
    uint32_t missed = 0;

    EXPECT_TRUE(bus_periodic_begin(timer, &missed));

    EXPECT_EQ(missed, UINT32_MAX);
    EXPECT_LT(node->when, util_timestamp() - INT32_MAX);
    qor_bus_quit(bus.get());
    bus_periodic_over(timer);
    thread_record_set(nullptr);
    EXPECT_EQ(recycled, 1);
}
