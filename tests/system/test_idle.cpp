/* SPDX-License-Identifier: Apache-2.0 */
/* A bus with nothing to do costs nothing: none of its threads is woken, not even to look around. On
 * a board that runs from a battery each such look keeps a processor from its deeper sleep. */
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "await.hpp"
#include "module.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_task.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

constexpr int32_t topic = 3;
constexpr int requests = 200;
constexpr int tasks = 20; /* of each kind */

/* The monitor looks once more at what it has last watched, 5 s after that began. */
constexpr std::chrono::seconds last_look(6);

/* How long the bus is watched. QOR_IDLE_SECONDS makes it longer, for what comes once in minutes. */
std::chrono::seconds period()
{
    const char *seconds = std::getenv("QOR_IDLE_SECONDS");
    return std::chrono::seconds(seconds ? std::atoi(seconds) : 60);
}

struct ThreadState {
    std::string name;
    long switches = -1; /* in its life, of both kinds; -1 where they are not told */
};

ThreadState state_of(const std::filesystem::path &thread)
{
    ThreadState state;
    long voluntary = -1;
    long nonvoluntary = -1;
    std::ifstream status(thread / "status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream field(line);
        std::string key;
        field >> key;
        if (key == "Name:") {
            field >> state.name;
        } else if (key == "voluntary_ctxt_switches:") {
            field >> voluntary;
        } else if (key == "nonvoluntary_ctxt_switches:") {
            field >> nonvoluntary;
        }
    }
    if (voluntary >= 0 && nonvoluntary >= 0) {
        state.switches = voluntary + nonvoluntary;
    }
    return state;
}

/* By the number that the kernel has given each. */
using ThreadStates = std::map<std::string, ThreadState>;

/* The process's threads but those; sanitizers and emulators have some of their own. */
ThreadStates threads_besides(const ThreadStates &others)
{
    ThreadStates threads;
    std::error_code none; /* there are none then */
    for (const auto &thread : std::filesystem::directory_iterator("/proc/self/task", none)) {
        const std::string number = thread.path().filename();
        if (others.count(number) == 0) {
            threads[number] = state_of(thread.path());
        }
    }
    return threads;
}

bool switches_are_told(const ThreadStates &threads)
{
    for (const auto &[number, state] : threads) {
        if (state.switches < 0) {
            return false;
        }
    }
    return !threads.empty();
}

/* One line for each thread that has run, begun or ended meanwhile; "" for none. */
std::string stirred(const ThreadStates &before, const ThreadStates &after)
{
    std::ostringstream text;
    for (const auto &[number, state] : after) {
        const auto was = before.find(number);
        if (was == before.end()) {
            text << state.name << " has begun\n";
        } else if (state.switches != was->second.switches) {
            text << state.name << " has run " << state.switches - was->second.switches
                 << " times\n";
        }
    }
    for (const auto &[number, state] : before) {
        if (after.count(number) == 0) {
            text << state.name << " has ended\n";
        }
    }
    return text.str();
}

/* A thread that rests as those of an idle bus should. What stops the process and lets it go on,
 * such as a debugger or a suspend of the machine, stirs it like any other. */
class Witness {
public:
    Witness()
        : thread_([this] {
              id_ = gettid();
              over_.get_future().wait();
          })
    {
    }
    ~Witness()
    {
        over_.set_value();
        thread_.join();
    }
    Witness(const Witness &) = delete;
    Witness &operator=(const Witness &) = delete;

    long switches() const { return state_of("/proc/self/task/" + std::to_string(id_)).switches; }

private:
    std::promise<void> over_;
    std::atomic<int> id_{0};
    Thread thread_;
};

/* Two modules that have something to do for a while, and then nothing. */
class Idle : public testing::Test {
protected:
    Idle()
    {
        server.reg = [](qor_context_t *self) { qor_context_subscribe(self, topic, nullptr); };
        client.handle = [this](qor_context_t *, qor_context_msg_t *) {
            answered++;
            return 0;
        };
    }

    /* Brings the bus up and has it do all of this: requests from two threads at once, of which one
     * is a worker, and delayed tasks of a module and of the bus. */
    void work()
    {
        Output out;
        bus = std::make_unique<RunningBus>(std::vector<Module *>{&client, &server}, topic + 1,
                                           /* workers */ 4);
        ASSERT_TRUE(bus->up());
        qor_context_run(client.context(), send, this);
        send(this);
        for (int i = 1; i <= tasks; i++) {
            qor_context_task_t task = {};
            qor_context_task_init(&task, server.context(), "delayed", i, count, &ran);
            task.delay = 5 * i;
            ASSERT_EQ(qor_bus_timer_post(bus->get(), &task), 0);
            ASSERT_GE(qor_context_handler_post(server.context(), &task), 0);
        }
        ASSERT_TRUE(await([this] { return answered == 2 * requests && ran == 2 * tasks; }));
        ASSERT_EQ(qor_bus_drain(bus->get(), /* milliseconds */ 20000), 0);
    }

    static void *send(void *arg)
    {
        Idle *self = static_cast<Idle *>(arg);
        for (int i = 0; i < requests; i++) {
            int64_t question = i;
            qor_context_req_ret(self->client.context(), topic, &question, sizeof(question),
                                sizeof(question));
        }
        return nullptr;
    }

    static void *count(void *arg)
    {
        ++*static_cast<std::atomic<int> *>(arg);
        return nullptr;
    }

    Module client{"client"};
    Module server{"server"};
    std::atomic<int> answered{0};
    std::atomic<int> ran{0};
    std::unique_ptr<RunningBus> bus;
};

} // namespace

/* Waits for time and not for a condition, and twice, as no other test of the bus does: that nothing
 * happens shows in no other way. */
TEST_F(Idle, ABusWithNothingToDoWakesNoThread)
{
    ASSERT_GT(period().count(), 0);
    Witness witness; /* also the first thread, with which ThreadSanitizer makes its own */
    const ThreadStates others = threads_besides({});
    if (!switches_are_told(others)) {
        GTEST_SKIP() << "/proc/self/task does not tell how often threads have run";
    }
    ASSERT_NO_FATAL_FAILURE(work());
    std::this_thread::sleep_for(last_look);

    for (int attempt = 0; attempt < 5; attempt++) {
        const long witnessed = witness.switches();
        const ThreadStates before = threads_besides(others);
        ASSERT_TRUE(witnessed >= 0 && switches_are_told(before));

        std::this_thread::sleep_for(period());

        const ThreadStates after = threads_besides(others);
        if (witness.switches() == witnessed) {
            EXPECT_EQ(stirred(before, after), "");
            EXPECT_EQ(after.size(), 6U); /* the loop, the workers, and the monitor's console */
            return;
        }
    }
    FAIL() << "the process was stopped in each of five periods, so nothing is known";
}
