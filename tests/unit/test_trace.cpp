/* SPDX-License-Identifier: Apache-2.0 */
/* The recorder itself: its memory, its lanes, its times, its begin and end. */
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "contract_fixture.hpp"
#include "leak.hpp"
#include "output.hpp"
#include "recording.hpp"
#include "running_bus.hpp"
#include "still_bus.hpp"
#include "thread.hpp"

namespace {

std::atomic<uint64_t> set_clock_now{0};
uint64_t set_clock()
{
    return set_clock_now;
}

qor_context_module_t *no_modules[] = {nullptr};

/* Ends with 0 when a start without a thread key is refused by its line. */
[[noreturn]] void start_without_a_key()
{
    qor_bus_t *bus = qor_bus_create(no_modules, 1);
    RecordedMemory memory;
    pthread_key_t key;
    while (pthread_key_create(&key, nullptr) == 0) {
    }
    Output output;
    const bool refused = qor_trace_start(bus, &memory.config) == -1;
    _exit(refused && output.printed() ==
                         err_line("qor_trace", "qor_trace_start", "no thread key left.")
              ? 0
              : 1);
}

/* The first test, for a process that has recorded keeps its key. */
TEST(TraceKey, IsNeededOnce)
{
    EXPECT_EXIT(start_without_a_key(), ::testing::ExitedWithCode(0), "");
}

/* A bus that does not loop. */
class Trace : public ::testing::Test {
protected:
    ~Trace() override
    {
        qor_trace_stop();
        qor_bus_close(bus);
    }

    std::string refused(const qor_trace_config_t *config)
    {
        Output output;
        EXPECT_EQ(qor_trace_start(bus, config), -1);
        return output.printed();
    }

    static std::string line(const std::string &text)
    {
        return err_line("qor_trace", "qor_trace_start", text);
    }

    void start() { ASSERT_EQ(qor_trace_start(bus, &memory.config), 0); }

    /* The marks that a lane has kept, "1 2 3". */
    static std::string marks(const Recording &recording, uint32_t lane)
    {
        std::string all;
        for (const RecordedEvent &event : recording.events(lane)) {
            all += (all.empty() ? "" : " ") + std::to_string(event.session);
        }
        return all;
    }

    qor_bus_t *bus = qor_bus_create(no_modules, 1);
    RecordedMemory memory{QOR_TRACE_DEFAULT, 2, 64, 4};
};

TEST_F(Trace, ASizeIsHeadsNamesAndRings)
{
    EXPECT_EQ(qor_trace_size(2, 4, 64), 128u + 3 * 128 + 5 * 32 + 3 * 64 * 16);
    EXPECT_EQ(qor_trace_size(2, 4, 0), qor_trace_size(2, 4, 64));
    EXPECT_EQ(qor_trace_size(2, 4, 65), qor_trace_size(2, 4, 128));
    EXPECT_EQ(qor_trace_size(0, 0, 1), 128u + 128 + 32 + 64 * 16);
}

TEST_F(Trace, ASizeThatDoesNotFitIsNone)
{
    EXPECT_EQ(qor_trace_size(1, 1, UINT32_MAX), 0u);
    EXPECT_EQ(qor_trace_size(UINT32_MAX, 1, 64), 0u);
    EXPECT_EQ(qor_trace_size(1, UINT32_MAX, 64), 0u);
    if (sizeof(size_t) == 4) {
        EXPECT_EQ(qor_trace_size(1 << 20, 1, 1 << 10), 0u);
    } else { /* the rings together; together with the names */
        EXPECT_EQ(qor_trace_size(UINT32_MAX - 1, 1, 1u << 31), 0u);
        EXPECT_EQ(qor_trace_size((1u << 29) - 1, 1, 1u << 31), 0u);
        EXPECT_EQ(qor_trace_size((1u << 29) - 2, UINT32_MAX - 1, 1u << 31), 0u);
    }
}

TEST_F(Trace, BadConfigurationsAreRefusedByName)
{
    EXPECT_EQ(refused(nullptr), line("!(config) == true."));
    const auto with = [this](void (*change)(qor_trace_config_t &)) {
        qor_trace_config_t config = memory.config;
        change(config);
        return refused(&config);
    };
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.size--; }),
              line("!(config->size == sizeof(*config)) == true."));
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.memory = nullptr; }),
              line("!(config->memory) == true."));
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.memory = static_cast<char *>(c.memory) + 32; }),
              line("!(address % 64 == 0) == true."));
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.memory_size--; }),
              line("!(config->memory_size >= least) == true."));
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.lanes = UINT32_MAX; }),
              line("!(config->memory_size >= least) == true."));
    EXPECT_EQ(with([](qor_trace_config_t &c) { c.names = UINT32_MAX; }),
              line("!(config->memory_size >= least) == true."));
}

TEST_F(Trace, ABusIsNeeded)
{
    Output output;
    EXPECT_EQ(qor_trace_start(nullptr, &memory.config), -1);
    EXPECT_EQ(output.printed(), line("!(bus) == true."));
}

TEST_F(Trace, ARefusedStartLeavesTheMemoryAsItWas)
{
    std::memset(memory.config.memory, 0x5a, memory.size());
    qor_trace_config_t config = memory.config;
    config.memory_size--;
    refused(&config);
    const char *bytes = static_cast<char *>(memory.config.memory);
    EXPECT_EQ(std::count(bytes, bytes + memory.size(), 0x5a),
              static_cast<std::ptrdiff_t>(memory.size()));
}

TEST_F(Trace, ThereIsOneRecorder)
{
    start();
    EXPECT_EQ(refused(&memory.config), line("a recorder or the loop is running."));
}

TEST_F(Trace, MemoryWithoutEndHasRingsThatEnd)
{
    start();
    qor_trace_config_t config = memory.config;
    config.memory_size =
        SIZE_MAX; /* the layout is made before the recording that runs refuses it */

    EXPECT_EQ(refused(&config), line("a recorder or the loop is running."));
}

TEST_F(Trace, TheLineOfARefusalMayBeRecordedItself)
{
    memory.config.mask = QOR_TRACE_ALL;
    start();
    refused(&memory.config);
    EXPECT_NE(memory.recording().told({event_line}).find("[qor_trace]"), std::string::npos);
}

TEST_F(Trace, NothingBeginsOrEndsWhileTheLoopRuns)
{
    Module module("module");
    {
        RunningBus running({&module});
        ASSERT_TRUE(running.up());
        Output output;
        EXPECT_EQ(qor_trace_start(running.get(), &memory.config), -1);
        EXPECT_EQ(output.printed(), line("a recorder or the loop is running."));
    }
    RunningBus running(RunningBus::by_start, 1, {&module});
    ASSERT_EQ(qor_trace_start(running.get(), &memory.config), 0);
    running.start();
    ASSERT_TRUE(running.up());
    Output output;
    EXPECT_EQ(qor_trace_stop(), -1);
    EXPECT_EQ(output.printed(), err_line("qor_trace", "qor_trace_stop", "the loop is running."));
    running.quit();
    EXPECT_EQ(qor_trace_stop(), 0);
}

TEST_F(Trace, TheHeadSaysWhatFollows)
{
    memory.config.clock_hz = 1000;
    counting_clock_now = 77;
    start();
    const Recording now = memory.recording();
    EXPECT_EQ(now.magic(), "QORTRC1\n");
    EXPECT_EQ(now.word(8), 0x01020304u);
    EXPECT_EQ(now.word(12) & 0xffff, 1u);
    EXPECT_EQ(now.word(16), 128u);
    EXPECT_EQ(now.word(20), 128u);
    EXPECT_EQ(now.lanes(), 3u);
    EXPECT_EQ(now.capacity(), 64u);
    EXPECT_EQ(now.word(32), 32u);
    EXPECT_EQ(now.names(), 5u);
    EXPECT_EQ(now.word(40), 16u);
    EXPECT_EQ(now.state(), 1u);
    EXPECT_EQ(now.wide(48), 1000u);
    EXPECT_EQ(now.wide(56), 77u);
    EXPECT_NEAR(static_cast<double>(now.wide(64)) / 1e9, static_cast<double>(time(nullptr)), 60);
    EXPECT_EQ(now.word(72), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(now.word(76), sizeof(void *));
    EXPECT_EQ(now.word(92), static_cast<uint32_t>(QOR_TRACE_DEFAULT));
    EXPECT_NE(now.text(96, 16), "");
    EXPECT_EQ(qor_trace_stop(), 0);
    EXPECT_EQ(now.state(), 2u);
}

TEST_F(Trace, LeftOverMemoryGoesToTheRings)
{
    RecordedMemory large(QOR_TRACE_DEFAULT, 2, 512, 4);
    large.config.memory_size = large.size() - 1;
    ASSERT_EQ(qor_trace_start(bus, &large.config), 0);
    EXPECT_EQ(large.recording().capacity(), 256u);
}

TEST_F(Trace, LanesAndNamesComeFromTheBus)
{
    Module one("one"), two("two");
    RunningBus modules(RunningBus::by_start, 3, {&one, &two});
    RecordedMemory large(QOR_TRACE_DEFAULT, 20, 64, 40);
    large.config.lanes = large.config.names = 0;
    ASSERT_EQ(qor_trace_start(modules.get(), &large.config), 0);
    EXPECT_EQ(large.recording().lanes(), 3u + 4 + 1);
    EXPECT_EQ(large.recording().names(), 2u + 12 + 1);
}

TEST_F(Trace, CloseAndDestroyEndTheRecordingOfTheirBus)
{
    start();
    qor_bus_t *other = qor_bus_create(no_modules, 1);
    qor_bus_close(other);
    EXPECT_EQ(memory.recording().state(), 1u);
    qor_bus_close(bus);
    EXPECT_EQ(memory.recording().state(), 2u);
    EXPECT_EQ(qor_trace_mask_set(1), 0u);

    RecordedMemory second;
    {
        const PrescribedLeak head_and_timers;
        bus = qor_bus_create(no_modules, 1);
    }
    ASSERT_EQ(qor_trace_start(bus, &second.config), 0);
    qor_bus_destroy(bus);
    EXPECT_EQ(second.recording().state(), 2u);
    bus = qor_bus_create(no_modules, 1);
}

TEST_F(Trace, AThreadGoesFromOneRecordingToTheNext)
{
    start();
    qor_trace_mark(1, 0);
    ASSERT_EQ(qor_trace_stop(), 0);
    RecordedMemory second(QOR_TRACE_DEFAULT, 2, 64, 4);
    ASSERT_EQ(qor_trace_start(bus, &second.config), 0);
    qor_trace_mark(2, 0);
    EXPECT_EQ(marks(memory.recording(), 1), "1");
    EXPECT_EQ(marks(second.recording(), 1), "2");
}

TEST_F(Trace, MarksBeforeAndAfterAreNothing)
{
    qor_trace_mark(1, 0);
    start();
    ASSERT_EQ(qor_trace_stop(), 0);
    qor_trace_mark(2, 0);
    EXPECT_EQ(memory.recording().lanes_taken(), 0u);
    EXPECT_EQ(qor_trace_stop(), 0);
}

TEST_F(Trace, TheMaskDecidesAndIsGivenBack)
{
    start();
    EXPECT_EQ(qor_trace_mask_set(0), static_cast<uint32_t>(QOR_TRACE_DEFAULT));
    qor_trace_mark(1, 0);
    EXPECT_EQ(qor_trace_mask_set(UINT32_MAX), 0u);
    EXPECT_EQ(qor_trace_mask_set(QOR_TRACE_MARKS), static_cast<uint32_t>(QOR_TRACE_ALL));
    qor_trace_mark(2, 0);
    EXPECT_EQ(marks(memory.recording(), 1), "2");
}

TEST_F(Trace, AThreadsLaneIsNamedAfterIt)
{
    start();
    Thread thread([] {
        hal_thread_name_set("marker");
        qor_trace_mark(1, 0);
    });
    thread.join();
    const Recording now = memory.recording();
    EXPECT_EQ(now.lanes_taken(), 1u);
    EXPECT_EQ(now.text(now.lane(1) + 16, 16), "marker");
    EXPECT_EQ(now.role(1), 3u);
    EXPECT_NE(now.word(now.lane(1) + 12), 0u);
}

TEST_F(Trace, ThreadsWithoutALaneShareOne)
{
    start();
    for (uint32_t i = 1; i <= 4; i++) {
        Thread thread([i] { qor_trace_mark(i, 0); });
        thread.join();
    }
    const Recording now = memory.recording();
    EXPECT_EQ(now.lanes_taken(), 2u);
    EXPECT_EQ(now.lanes_lacking(), 2u);
    EXPECT_EQ(marks(now, 1), "1");
    EXPECT_EQ(marks(now, 2), "2");
    EXPECT_EQ(marks(now, 0), "3 4");
    EXPECT_EQ(now.role(0), 0u);
}

/* The times of a lane's marks, relative to the first. */
std::string times(const Recording &recording)
{
    std::string all;
    uint64_t first = 0;
    for (const RecordedEvent &event : recording.events(1)) {
        if (event.type == event_mark) {
            first = first ? first : event.time;
            all += (all.empty() ? "" : " ") + std::to_string(event.time - first);
        }
    }
    return all;
}

TEST_F(Trace, TimesAreExactAcrossAnyGap)
{
    memory.config.clock = set_clock;
    set_clock_now = 0xfffffff0;
    start();
    uint64_t gap = 0;
    for (const uint64_t more : {uint64_t{0}, uint64_t{1}, uint64_t{0x10}, uint64_t{1} << 32,
                                uint64_t{1} << 40, (uint64_t{1} << 32) - 1}) {
        gap += more;
        set_clock_now = 0xfffffff0 + gap;
        qor_trace_mark(1, 0);
    }
    const uint64_t high = uint64_t{1} << 32;
    const uint64_t sum = 0x11 + high + (high << 8);
    EXPECT_EQ(times(memory.recording()), "0 1 17 " + std::to_string(0x11 + high) + " " +
                                             std::to_string(sum) + " " +
                                             std::to_string(sum + high - 1));
}

TEST_F(Trace, TimesAreExactWhenTheEventsThatTellThemAreOverwritten)
{
    memory.config.clock = set_clock;
    set_clock_now = 5;
    start();
    qor_trace_mark(1, 0);
    set_clock_now = (uint64_t{7} << 32) + 1;
    for (int i = 0; i < 200; i++) {
        qor_trace_mark(1, 0);
    }
    for (const RecordedEvent &event : memory.recording().events(1)) {
        EXPECT_EQ(event.time, (uint64_t{7} << 32) + 1);
    }
}

TEST_F(Trace, WhatIsWrittenIsKeptOrCounted)
{
    start();
    for (uint32_t i = 0; i < 1000000; i++) {
        qor_trace_mark(i, 0);
    }
    const Recording now = memory.recording();
    EXPECT_EQ(now.written(1), 1000000u);
    const std::vector<RecordedEvent> kept = now.events(1);
    ASSERT_EQ(kept.size(), 63u);
    for (size_t i = 0; i < kept.size(); i++) {
        EXPECT_EQ(kept[i].session, static_cast<int32_t>(1000000 - 63 + i));
    }
}

TEST_F(Trace, TheCountHas64Bits)
{
    start();
    qor_trace_mark(0, 0);
    const Recording now = memory.recording();
    uint32_t *lane =
        reinterpret_cast<uint32_t *>(static_cast<char *>(memory.config.memory) + now.lane(1));
    lane[0] = UINT32_MAX - 1; /* as after so many events */
    qor_trace_mark(1, 0);
    qor_trace_mark(2, 0);
    qor_trace_mark(3, 0);
    EXPECT_EQ(now.written(1), (uint64_t{1} << 32) + 1);
    EXPECT_EQ(now.events(1).back().session, 3);
}

TEST_F(Trace, ASnapshotIsWhatAFileWouldHold)
{
    start();
    for (uint32_t i = 0; i < 100; i++) {
        qor_trace_mark(i, 0);
    }
    const CopiedRecording copy(memory.size());
    EXPECT_EQ(copy.written(1), 100u);
    EXPECT_EQ(copy.magic(), "QORTRC1\n");
    /* Of a full lane the oldest slot is not in a copy: its thread may be writing over it. */
    EXPECT_EQ(marks(copy, 1), marks(memory.recording(), 1));
}

TEST_F(Trace, ASnapshotNeedsRoomAndARecording)
{
    std::vector<char> room(memory.size());
    EXPECT_EQ(qor_trace_snapshot(room.data(), room.size()), -1);
    start();
    EXPECT_EQ(qor_trace_snapshot(nullptr, room.size()), -1);
    EXPECT_EQ(qor_trace_snapshot(room.data(), room.size() - 1), -1);
    EXPECT_EQ(qor_trace_snapshot(room.data(), room.size()), static_cast<int64_t>(room.size()));
}

/* Threads that mark 1, 2, 3, ... until they are told to end. */
class Markers {
public:
    explicit Markers(int count)
    {
        for (int i = 0; i < count; i++) {
            threads_.emplace_back([this] {
                for (uint32_t number = 1; !over_; number++) {
                    qor_trace_mark(number, 0);
                }
            });
        }
    }
    ~Markers()
    {
        over_ = true;
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }

private:
    std::atomic<bool> over_{false};
    std::vector<std::thread> threads_;
};

TEST_F(Trace, WhatASnapshotHasOfALaneHasNoGap)
{
    RecordedMemory large(QOR_TRACE_MARKS, 8, 256, 4);
    ASSERT_EQ(qor_trace_start(bus, &large.config), 0);
    const Markers markers(8);
    ASSERT_TRUE(await([&] { /* all are at it, and some lanes are full */
                            const CopiedRecording copy(large.size());
                            return copy.lanes_taken() == 8 && copy.written(1) > 256;
    }));
    size_t seen = 0;
    for (int i = 0; i < 40; i++) {
        const CopiedRecording copy(large.size());
        for (uint32_t lane = 1; lane <= copy.lanes_taken(); lane++) {
            const std::vector<RecordedEvent> events = copy.events(lane);
            seen += events.size();
            for (size_t at = 1; at < events.size(); at++) {
                ASSERT_EQ(events[at].session, events[at - 1].session + 1) << "lane " << lane;
                ASSERT_GE(events[at].time, events[at - 1].time);
            }
        }
    }
    EXPECT_GT(seen, 0u);
}

TEST_F(Trace, ThreadsMayGoOnWhileItEnds)
{
    for (int round = 0; round < 50; round++) {
        const Markers markers(4); /* with fewer lanes than threads */
        start();
        while (memory.recording().lanes_taken() < 1) {
            qor_trace_mark(1, 0);
        }
        ASSERT_EQ(qor_trace_stop(), 0);
        std::memset(memory.config.memory, 0x5a, memory.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const char *bytes = static_cast<char *>(memory.config.memory);
        ASSERT_EQ(std::count(bytes, bytes + memory.size(), 0x5a),
                  static_cast<std::ptrdiff_t>(memory.size()));
    }
}

/* A clock that keeps whoever reads it, once it is shut. */
Door *clock_door;
uint64_t clock_behind_a_door()
{
    if (clock_door) {
        clock_door->pass();
    }
    return 1;
}

TEST_F(Trace, AnEventUnderWayIsWaitedForAtTheEnd)
{
    memory.config.clock = clock_behind_a_door;
    start();
    qor_trace_mark(1, 0);
    Door door;
    std::atomic<bool> ended{false};
    clock_door = &door;
    Thread marking([] {
        qor_trace_mark(2, 0); /* its lane is had before the clock is read */
    });
    ASSERT_TRUE(door.await(1));
    Thread ending([&] {
        qor_trace_stop();
        std::memset(memory.config.memory, 0x5a, memory.size());
        ended = true;
    });
    for (int i = 0; i < 100 && !ended; i++) { /* which it must not be */
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(ended);
    door.open();
    marking.join();
    ending.join();
    clock_door = nullptr;
    const char *bytes = static_cast<char *>(memory.config.memory);
    EXPECT_EQ(std::count(bytes, bytes + memory.size(), 0x5a),
              static_cast<std::ptrdiff_t>(memory.size()));
}

TEST_F(Trace, TheMaskMayChangeAtAnyTime)
{
    start();
    const Markers markers(4);
    for (int i = 0; i < 2000; i++) {
        qor_trace_mask_set(i % 2 ? QOR_TRACE_ALL : 0);
    }
}

TEST_F(Trace, TheChildOfAForkDoesNotWriteIntoSharedMemory)
{
    void *shared =
        mmap(nullptr, memory.size(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    memory.config.memory = shared;
    start();
    qor_trace_mark(1, 0);
    const pid_t child = fork();
    if (child == 0) {
        qor_trace_mark(2, 0);
        const bool ended = qor_trace_mask_set(1) == 0;
        RecordedMemory own; /* it may record for itself */
        const bool again = qor_trace_start(bus, &own.config) == 0;
        qor_trace_mark(3, 0);
        exit(ended && again && marks(own.recording(), 1) == "3" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    qor_trace_mark(4, 0);
    EXPECT_EQ(marks(memory.recording(), 1), "1 4");
    EXPECT_EQ(memory.recording().state(), 1u);
    qor_trace_stop();
    munmap(shared, memory.size());
}

/* A client that asks a server of topic 0, recorded. */
class TracedModules : public Contract {
protected:
    void record(RecordedMemory &memory, const qor_contract_t *contract = nullptr)
    {
        bus.reset(new RunningBus(RunningBus::by_start, 2, {&server, &client}, TOPICS));
        if (contract) {
            ASSERT_EQ(qor_bus_contract_set(bus->get(), "server", contract), 0);
        }
        ASSERT_EQ(qor_trace_start(bus->get(), &memory.config), 0);
        bus->start();
        ASSERT_TRUE(bus->up());
    }

    static std::string naming(const Recording &recording, const std::string &name)
    {
        for (uint32_t who = 1; who < recording.names(); who++) {
            const size_t at = recording.naming(who);
            if (recording.text(at, 20) == name) {
                return std::to_string(recording.word(at + 20)) + " " +
                       std::to_string(recording.word(at + 24) & 0xffff) + " " +
                       std::to_string(recording.word(at + 24) >> 16) + " " +
                       std::to_string(recording.word(at + 28));
            }
        }
        return "";
    }
};

TEST_F(TracedModules, AreNamedWithRoleFlagsLimitAndDepth)
{
    RecordedMemory memory;
    const qor_contract_t strict = strict_terms(7);
    server.descriptor.refcount = 3;
    client.descriptor.refcount = -1;
    record(memory, &strict);
    end();
    const Recording done = memory.recording();
    const bool little = *reinterpret_cast<const char *>("\1\0") == 1; /* flags come first */
    ASSERT_TRUE(little);
    EXPECT_EQ(naming(done, "server"), "0 5 3 7");
    EXPECT_EQ(naming(done, "client"), "0 0 65535 0");
    EXPECT_EQ(naming(done, "qor_mng_module"), "1 0 65535 0");
}

TEST_F(TracedModules, OneThatIsNotStrictKeepsItsOwnLimit)
{
    RecordedMemory memory;
    const qor_contract_t contract = terms([](qor_contract_t &of) { of.depth = 7; });
    server.descriptor.refcount = 3;
    record(memory, &contract);
    end();
    EXPECT_EQ(naming(memory.recording(), "server"), "0 4 3 7");
}

TEST_F(TracedModules, ContextsThatAreThereAlreadyAreNamed)
{
    StillBus still({&server});
    still.run_all();
    RecordedMemory memory;
    ASSERT_EQ(qor_trace_start(still.get(), &memory.config), 0);
    EXPECT_EQ(naming(memory.recording(), "server"), "0 0 1 0");
    EXPECT_EQ(naming(memory.recording(), "qor_monitor_module"), "1 0 65535 0");
}

TEST_F(TracedModules, BeyondTheNamesAreCounted)
{
    RecordedMemory memory(QOR_TRACE_DEFAULT, 4, 64, 3);
    record(memory);
    end();
    EXPECT_EQ(memory.recording().word(80), 2u); /* three system modules have names, two have not */
}

TEST_F(TracedModules, AWorkersLaneIsAWorkers)
{
    RecordedMemory memory;
    record(memory);
    ask();
    ASSERT_TRUE(await([&] { return answers.text() == "a"; }));
    qor_context_timer_s(
        client.context(), 9, [](void *) -> void * { return nullptr; }, nullptr, 1);
    ASSERT_TRUE(
        await([&] { return CopiedRecording(memory.size()).told({event_due}).find("due") == 0; }));
    end();
    std::string roles;
    const Recording done = memory.recording();
    for (uint32_t lane = 1; lane <= done.lanes_taken(); lane++) {
        roles += std::to_string(done.role(lane));
        EXPECT_EQ(done.text(done.lane(lane) + 16, 16) == "worker", done.role(lane) == 1);
    }
    EXPECT_NE(roles.find('1'), std::string::npos) << roles;
    EXPECT_NE(roles.find('2'), std::string::npos) << roles;
    EXPECT_NE(roles.find('3'), std::string::npos) << roles; /* the thread that asked */
}

TEST_F(TracedModules, AThreadThatATaskEndsIsInsideNothing)
{
    RecordedMemory memory;
    server.handle = [](qor_context_t *, qor_context_msg_t *) -> int32_t { pthread_exit(nullptr); };
    record(memory);
    ask();
    ASSERT_TRUE(await([&] { return answers.text() == "-"; }));
    ASSERT_TRUE(await([&] { return CopiedRecording(memory.size()).inside().empty(); }));
    end();
}

TEST_F(TracedModules, WhatHasBegunEndsWhateverTheMask)
{
    RecordedMemory memory(QOR_TRACE_REQUESTS | QOR_TRACE_STACKS);
    server.handle = [](qor_context_t *, qor_context_msg_t *msg) {
        qor_trace_mask_set(msg->session == 50 ? 0 : QOR_TRACE_REQUESTS | QOR_TRACE_STACKS);
        return 0;
    };
    record(memory);
    qor_context_req_s(client.context(), 50, TOPIC, nullptr, 0);
    ASSERT_TRUE(await([&] { return answers.text() == "a"; }));
    qor_context_req_s(client.context(), 51, TOPIC, nullptr, 0);
    ASSERT_TRUE(await([&] { return answers.text() == "aa"; }));
    end();
    const Recording done = memory.recording();
    EXPECT_EQ(done.told({event_start, event_end}), "start server s50 0\nend server s50 0\n"
                                                   "start/1 client s51 0\nend/1 client s51 0\n");
    EXPECT_EQ(done.inside(), "");
}

TEST_F(TracedModules, MoreThanFiveLevelsAreCounted)
{
    RecordedMemory memory(QOR_TRACE_CALLS | QOR_TRACE_STACKS);
    std::string inside;
    uint32_t depth = 0;
    server.handle = [&](qor_context_t *context, qor_context_msg_t *msg) {
        if (msg->session < 7) {
            return qor_context_x_req_s(context, msg->session + 1, TOPIC, nullptr, 0);
        }
        const CopiedRecording now(memory.size());
        inside = now.inside();
        for (uint32_t lane = 1; lane <= now.lanes_taken(); lane++) {
            depth = std::max(depth, now.depth(lane));
        }
        return 0;
    };
    record(memory);
    ASSERT_EQ(qor_bus_drain(bus->get(), 10000), 0);
    qor_trace_mask_set(QOR_TRACE_CALLS | QOR_TRACE_STACKS);
    Thread thread([&] { qor_context_x_req_s(client.context(), 1, TOPIC, nullptr, 0); });
    thread.join();
    EXPECT_NE(inside.find("start/7 server s1 0\nstart/7 server s2 0\nstart/7 server s3 0\n"
                          "start/7 server s4 0\nstart/7 server s5 0\n"),
              std::string::npos)
        << inside;
    EXPECT_EQ(inside.find("s6"), std::string::npos);
    EXPECT_EQ(depth, 7u);
    end();
    EXPECT_EQ(memory.recording().inside(), "");
}

} // namespace
