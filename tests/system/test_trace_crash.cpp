/* SPDX-License-Identifier: Apache-2.0 */
/* What a recording is worth when its process is killed: all of it up to the last event. */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "module.hpp"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "recording.hpp"
#include "running_bus.hpp"

namespace {

constexpr uint32_t markers = 2;
constexpr uint32_t lanes = 8;

/* A cheap clock: the more of the time is spent writing. */
std::atomic<uint64_t> crash_clock_now{1};
uint64_t crash_clock()
{
    return crash_clock_now.fetch_add(1, std::memory_order_relaxed);
}

/* Memory that outlives the child. */
class SharedMemory {
public:
    explicit SharedMemory(uint32_t events) : size(qor_trace_size(lanes, 16, events))
    {
        at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (at == MAP_FAILED) {
            abort();
        }
    }
    ~SharedMemory() { munmap(at, size); }
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;

    size_t size;
    void *at;
};

/* What a child does until it is killed: two modules play ping-pong, and threads mark 1, 2, 3. */
[[noreturn]] void live(const SharedMemory &memory, bool segfault)
{
    Module server("server"), client("client");
    server.reg = [](qor_context_t *c) { qor_context_subscribe(c, 0, nullptr); };
    client.handle = [](qor_context_t *context, qor_context_msg_t *msg) {
        return msg->type == QOR_CONTEXT_MSG_RESPONSE ? qor_context_req(context, 0, nullptr, 0) : 0;
    };
    RunningBus bus(RunningBus::by_start, 2, {&server, &client});
    qor_trace_config_t config = {};
    config.size = sizeof(config);
    config.mask = QOR_TRACE_ALL & ~QOR_TRACE_LINES;
    config.memory = memory.at;
    config.memory_size = memory.size;
    config.lanes = lanes;
    config.names = 16;
    config.clock = crash_clock;
    if (qor_trace_start(bus.get(), &config) != 0) {
        _exit(1);
    }
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < markers; i++) {
        threads.emplace_back([] {
            for (uint32_t number = 1;; number++) {
                qor_trace_mark(number, static_cast<int32_t>(number));
            }
        });
    }
    bus.start();
    bus.up();
    qor_context_req(client.context(), 0, nullptr, 0);
    if (segfault) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        signal(SIGSEGV, SIG_DFL); /* a sanitizer's would report it */
        raise(SIGSEGV);
    }
    for (;;) {
        pause();
    }
}

/* Whether a lane is one of those that only mark. */
bool marks(const Recording &recording, uint32_t lane)
{
    return recording.role(lane) == 3 && recording.depth(lane) == 0;
}

struct Tally {
    int empty = 0;   /* recordings without events */
    int wrapped = 0; /* with a lane that has written more than it keeps */
    int inside = 0;  /* with a lane whose next event had been begun */
};

/* Whether the slot behind a lane's newest event has been written to since it was that of an older
 * one. */
bool is_inside_a_put(const Recording &recording, uint32_t lane)
{
    const uint64_t written = recording.written(lane);
    const size_t rings = recording.naming(recording.names());
    const size_t at = rings + (static_cast<size_t>(lane) * recording.capacity() +
                               static_cast<size_t>(written & (recording.capacity() - 1))) *
                                  16;
    const int32_t next = static_cast<int32_t>(written + 1);
    const bool begun = static_cast<int32_t>(recording.word(at + 8)) == next;
    const bool complete = static_cast<int32_t>(recording.word(at + 12)) == next;
    return begun || complete;
}

/* What holds of every recording that a killed process has left. */
void check(const Recording &recording, Tally &tally)
{
    ASSERT_EQ(recording.magic(), "QORTRC1\n");
    ASSERT_EQ(recording.state(), 1u);
    uint64_t events = 0;
    bool wrapped = false, inside = false;
    for (uint32_t lane = 1; lane <= recording.lanes_taken(); lane++) {
        const std::vector<RecordedEvent> kept = recording.events(lane);
        events += kept.size();
        wrapped = wrapped || recording.written(lane) > recording.capacity();
        for (const RecordedEvent &event : kept) {
            ASSERT_TRUE(event.type > 0 && event.type <= event_missed) << event.type;
        }
        for (size_t i = 1; i < kept.size(); i++) {
            ASSERT_GE(kept[i].time, kept[i - 1].time) << "lane " << lane;
        }
        if (marks(recording, lane) && !kept.empty() && kept.back().type == event_mark) {
            inside = inside || is_inside_a_put(recording, lane);
            ASSERT_EQ(kept.back().session, static_cast<int32_t>(recording.written(lane)));
            for (size_t i = 1; i < kept.size(); i++) {
                ASSERT_EQ(kept[i].session, kept[i - 1].session + 1);
                ASSERT_EQ(kept[i].session, kept[i].arg);
            }
        }
    }
    tally.empty += events == 0;
    tally.wrapped += wrapped;
    tally.inside += inside;
}

/* Lets a child live for so long and checks what it leaves. */
void kill_one(std::chrono::microseconds after, bool segfault, Tally &tally)
{
    SharedMemory memory(256);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        live(memory, segfault);
    }
    const Recording recording(memory.at);
    int status = 0;
    while (recording.state() == 0 || recording.written(1) == 0) {
        ASSERT_EQ(waitpid(child, &status, WNOHANG), 0) << "the child has ended: " << status;
        std::this_thread::yield();
    }
    if (!segfault) {
        std::this_thread::sleep_for(after);
        kill(child, SIGKILL);
    }
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(WTERMSIG(status), segfault ? SIGSEGV : SIGKILL);
    check(recording, tally);
}

/* So many are killed; QOR_TESTS_KILLS says how many. */
int kills()
{
    const char *given = getenv("QOR_TESTS_KILLS");
    return given ? atoi(given) : 40;
}

TEST(TraceCrash, WhatAKilledProcessHasRecordedIsThere)
{
    std::mt19937 random(20);
    Tally tally;
    const int count = kills();
    for (int i = 0; i < count && !HasFatalFailure(); i++) {
        kill_one(std::chrono::microseconds(random() % 3000), false, tally);
    }
    std::printf("%d killed: %d with a full lane, %d inside an event, %d without events\n", count,
                tally.wrapped, tally.inside, tally.empty);
    EXPECT_EQ(tally.empty, 0);
    EXPECT_GT(tally.wrapped, 0);
    if (count >= 10000) { /* so many that some hundred must have been caught in the act */
        EXPECT_GE(tally.wrapped, 300);
        EXPECT_GE(tally.inside, 300);
    }
}

TEST(TraceCrash, SoIsThatOfOneThatHasCrashed)
{
    Tally tally;
    for (int i = 0; i < 5 && !HasFatalFailure(); i++) {
        kill_one({}, true, tally);
    }
    EXPECT_EQ(tally.empty, 0);
}

} // namespace
