/* SPDX-License-Identifier: Apache-2.0 */
/* What an inspection shows of threads, while something is recorded. */
#include "contract_fixture.hpp"
#include "inspection.hpp"
#include "recording.hpp"
#include "still_bus.hpp"

namespace {

std::atomic<uint64_t> ticks{0};

uint64_t set_clock()
{
    return ticks;
}

/* A server of topic 0 whose handler stops at a door; one worker, and a recorder of stacks. */
class InspectThreads : public Contract {
protected:
    void SetUp() override
    {
        server.handle = [this](qor_context_t *, qor_context_msg_t *msg) {
            int32_t number = number_of(msg);
            if (number == 0) {
                door.pass();
                return 0;
            }
            number--; /* so many synchronous requests below */
            return qor_context_x_req(server.context(), TOPIC, &number, sizeof(number)) < 0 ? -1 : 0;
        };
    }

    void be_up(uint64_t hz = 1000000000, uint32_t mask = QOR_TRACE_STACKS)
    {
        ticks = uint64_t{1} << 40;
        bus.reset(new RunningBus(RunningBus::by_start, 1, {&server, &client}, TOPICS));
        memory.config.mask = mask;
        memory.config.clock = set_clock;
        memory.config.clock_hz = hz;
        ASSERT_EQ(qor_trace_start(bus->get(), &memory.config), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
        ASSERT_TRUE(settles());
    }

    Inspection look() { return Inspection(bus->get()); }

    /* The only worker; an empty record when it is not shown. */
    qor_info_thread_t worker()
    {
        qor_info_thread_t found = {};
        for (const qor_info_thread_t &one : look().threads) {
            if (one.role == 1) {
                EXPECT_EQ(found.size, 0u);
                found = one;
            }
        }
        return found;
    }

    /* How old a thing is, so many ticks of the clock later. */
    int32_t age_after(uint64_t hz, uint64_t later)
    {
        door.open();
        bus.reset();
        Door closed;
        server.handle = [&closed](qor_context_t *, qor_context_msg_t *) {
            closed.pass();
            return 0;
        };
        be_up(hz);
        EXPECT_GE(ask(), 0);
        EXPECT_TRUE(closed.await(1));
        ticks += later;
        const int32_t age = worker().inside[0].age_ms;
        closed.open();
        bus.reset();
        return age;
    }

    RecordedMemory memory{QOR_TRACE_STACKS};
};

} // namespace

TEST_F(InspectThreads, AWorkerIsInsideTheRequestThatItHandles)
{
    be_up();
    const int32_t session = ask();
    ASSERT_TRUE(door.await(1));

    const qor_info_thread_t seen = worker();

    EXPECT_GT(seen.tid, 0u);
    EXPECT_STREQ(seen.name, "worker");
    ASSERT_EQ(seen.depth, 1u);
    EXPECT_STREQ(seen.inside[0].name, "server");
    EXPECT_EQ(seen.inside[0].kind, QOR_INSIDE_REQUEST);
    EXPECT_EQ(seen.inside[0].session, session);
    EXPECT_EQ(seen.inside[0].topic, TOPIC);
    EXPECT_EQ(seen.inside[0].age_ms, 0);
    EXPECT_STREQ(seen.inside[1].name, "");
    door.open();
    ASSERT_TRUE(settles());
    EXPECT_EQ(worker().depth, 0u);
}

TEST_F(InspectThreads, TheOutermostAreKeptOfMany)
{
    be_up();
    int32_t calls = 6;
    ASSERT_GE(qor_context_req(client.context(), TOPIC, &calls, sizeof(calls)), 0);
    ASSERT_TRUE(door.await(1));

    const qor_info_thread_t seen = worker();

    EXPECT_EQ(seen.depth, 7u);
    EXPECT_EQ(seen.inside[0].kind, QOR_INSIDE_REQUEST);
    for (int i = 1; i < QOR_INSIDE_MAX; i++) {
        EXPECT_EQ(seen.inside[i].kind, QOR_INSIDE_CALL);
        EXPECT_STREQ(seen.inside[i].name, "server");
    }
}

TEST_F(InspectThreads, AThreadThatWaitsForTheBusSaysSo)
{
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    Thread waiting([this] { qor_bus_drain(bus->get(), -1); });

    EXPECT_TRUE(await([this] {
        for (const qor_info_thread_t &one : look().threads) {
            if (one.role == 3 && one.depth == 1 && one.inside[0].kind == QOR_INSIDE_WAITS_DRAIN) {
                return one.inside[0].topic == -1 && one.inside[0].name[0] == '\0';
            }
        }
        return false;
    }));
    door.open();
}

TEST_F(InspectThreads, AgesAreInMillisecondsWhateverTheClock)
{
    const struct {
        uint64_t hz, later;
        int32_t ms;
    } cases[] = {
        {1000000000, uint64_t{5000} << 20, 5242},    {1000000000, uint64_t{1} << 51, INT32_MAX},
        {1000000000, uint64_t{1} << 50, 1125899906}, {1000, uint64_t{3} << 20, 3145728},
        {1, uint64_t{2} << 20, 2097152000},          {1, uint64_t{3} << 20, INT32_MAX},
        {uint64_t{1} << 60, uint64_t{1} << 51, 1},   {24000000, uint64_t{1} << 30, 44739},
        {1900000, uint64_t{1} << 20, 551},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(age_after(one.hz, one.later), one.ms) << one.hz;
    }
}

TEST_F(InspectThreads, WithoutARecorderThereAreNone)
{
    be_up();
    ASSERT_GE(ask(), 0);
    ASSERT_TRUE(door.await(1));
    EXPECT_GT(look().threads.size(), 0u);
    EXPECT_EQ(inspect(bus->get(),
                      [](int32_t kind, const void *) { return kind == QOR_INFO_THREAD ? 5 : 0; }),
              5);
    door.open();
    ASSERT_TRUE(settles());
    bus->quit();
    ASSERT_EQ(qor_trace_stop(), 0);

    EXPECT_EQ(look().threads.size(), 0u);
}

TEST_F(InspectThreads, TheTextNamesWhatTheyAreInside)
{
    be_up();
    int32_t calls = 1;
    ASSERT_GE(qor_context_req(client.context(), TOPIC, &calls, sizeof(calls)), 0);
    ASSERT_TRUE(door.await(1));
    const qor_info_thread_t seen = worker();
    std::string text;

    EXPECT_EQ(qor_bus_dump(
                  bus->get(),
                  [](void *to, const char *line) {
                      if (std::string(line).compare(0, 7, "thread ") == 0) {
                          *static_cast<std::string *>(to) += line;
                      }
                  },
                  &text),
              0);

    const auto at = [&seen](int i) {
        return ", session " + std::to_string(seen.inside[i].session) + ", topic 0, ms 0";
    };
    EXPECT_NE(text.find("thread " + std::to_string(seen.tid) +
                        ": worker, depth 2 > server request 0" + at(0) + " > server call 7" +
                        at(1)),
              std::string::npos)
        << text;
}

TEST(InspectOneThread, MayEndTheInspection)
{
    StillBus bus(StillBus::bare);
    RecordedMemory memory(QOR_TRACE_ALL);
    ASSERT_EQ(qor_trace_start(bus.get(), &memory.config), 0);
    qor_trace_mark(1, 0); /* gives this thread a lane */
    int threads = 0;

    const int32_t result = inspect(bus.get(), [&](int32_t kind, const void *) {
        threads += kind == QOR_INFO_THREAD;
        return kind == QOR_INFO_THREAD ? 5 : 0;
    });

    EXPECT_EQ(result, 5);
    EXPECT_EQ(threads, 1);
}
