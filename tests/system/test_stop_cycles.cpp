/* SPDX-License-Identifier: Apache-2.0 */
/* Buses that end at any moment, with work in flight, again and again in one process. Linked with
 * the library that counts its own allocations. QOR_STOP_CYCLES sets how many, QOR_STOP_SEED repeats
 * a run. */
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fault.h"
#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_bus_module.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "qor_main.h"
#include "qor_mng_module.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

#if defined(__has_feature)
#define QOR_HAS_FEATURE(x) __has_feature(x)
#else
#define QOR_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || QOR_HAS_FEATURE(thread_sanitizer)
constexpr int default_cycles = 100;
#else
constexpr int default_cycles = 300;
#endif

constexpr int32_t topics = 5;
constexpr auto limit = std::chrono::seconds(2); /* from the first quit to the end of close */

/* Where a cycle's first quit comes from. */
enum Place {
    before_loop,
    at_reg,
    at_init,
    in_task,
    in_module_timer,
    in_bus_timer,
    in_request,
    in_response,
    in_filter,
    in_listener,
    in_console,
    in_thread,
    in_threads,
    places
};

int number_from(const char *variable, int otherwise)
{
    const char *text = std::getenv(variable);
    return text ? std::atoi(text) : otherwise;
}

long thread_count()
{
    long count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        (void)task;
        count++;
    }
    return count;
}

/* Ends the process, with a core to look at, when a cycle hangs. */
class Watchdog {
public:
    explicit Watchdog(unsigned seed) : seed_(seed), thread_([this] { watch(); }) {}
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            over_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    void feed(int cycle)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cycle_ = cycle;
        changed_.notify_all();
    }

private:
    void watch()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!over_) {
            const int cycle = cycle_;
            const bool fed = changed_.wait_for(lock, std::chrono::seconds(30),
                                               [&] { return over_ || cycle_ != cycle; });
            if (!fed) {
                std::fprintf(stderr, "cycle %d of seed %u hangs\n", cycle, seed_);
                std::abort();
            }
        }
    }

    const unsigned seed_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int cycle_ = 0;
    bool over_ = false;
    Thread thread_;
};

class Cycle;

struct Part : Module {
    Part(Cycle &c, int n) : Module("part" + std::to_string(n)), cycle(c), number(n) {}
    Cycle &cycle;
    const int number;
    std::atomic<bool> leaving{false}; /* its unreg has been called */
};

class Cycle {
public:
    explicit Cycle(unsigned seed) : state_(seed)
    {
        place = static_cast<Place>(random(places));
        passes_left_ = static_cast<int>(random(6));
        const int count = 2 + static_cast<int>(random(3));
        for (int i = 0; i < count; i++) {
            add_part(i);
        }
        table_.push_back(nullptr);
        bus_ = qor_bus_create(table_.data(), topics);
        qor_bus_thread_num_set(bus_, 1 + random(5));
    }

    /* From creation to close. */
    void run()
    {
        pass(before_loop);
        Thread impatient([this] { lose_patience(); });
        Thread outsider([this] { meddle(); });
        EXPECT_EQ(qor_bus_loop(bus_), 0);
        impatient.join();
        outsider.join();
        qor_bus_close(bus_);
        ended_ = std::chrono::steady_clock::now();
    }

    std::chrono::steady_clock::duration ending_time() const { return ended_ - asked_at_; }

    Place place;
    Ledger ledger;
    std::atomic<int> asked{0}, answered{0};

private:
    uint32_t random(uint32_t below)
    {
        uint64_t x = state_.fetch_add(0x9e3779b97f4a7c15u) + 0x9e3779b97f4a7c15u;
        x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
        x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
        return static_cast<uint32_t>(x >> 33) % below;
    }

    void add_part(int number)
    {
        static const int32_t refcounts[] = {0, 1, 2, 3, -1};
        parts_.push_back(std::make_unique<Part>(*this, number));
        Part &part = *parts_.back();
        const bool fails = number > 0 && random(6) == 0;
        part.descriptor.pure = number == 0 || random(2);
        part.descriptor.refcount = refcounts[random(5)];
        part.reg = [this](qor_context_t *context) {
            for (int i = 0; i < 3; i++) {
                change_registration(context);
            }
            pass(at_reg);
        };
        part.unreg = [&part](qor_context_t *) { part.leaving = true; };
        part.init = [this, fails](qor_context_t *context) {
            for (int i = 0; i < 4; i++) {
                act(context);
            }
            pass(at_init);
            return fails ? -1 : 0;
        };
        part.handle = [this](qor_context_t *context, qor_context_msg_t *msg) {
            return receive(context, msg);
        };
        if (random(3) == 0) {
            part.descriptor.console = console;
        }
        table_.push_back(&part.descriptor);
    }

    static int32_t console(qor_context_t *context)
    {
        Part &part = static_cast<Part &>(Module::of(context));
        while (!part.leaving) {
            part.cycle.pass(in_console);
            part.cycle.request(context);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        return 0;
    }

    int32_t receive(qor_context_t *context, qor_context_msg_t *msg)
    {
        switch (msg->type) {
        case QOR_CONTEXT_MSG_REQUEST:
            pass(in_request);
            break;
        case QOR_CONTEXT_MSG_RESPONSE:
            answered++;
            pass(in_response);
            act(context);
            break;
        case QOR_CONTEXT_MSG_FILTER_BEFORE:
        case QOR_CONTEXT_MSG_FILTER_AFTER:
            pass(in_filter);
            break;
        default:
            pass(in_listener);
            break;
        }
        if (random(8) == 0) {
            change_registration(context);
        }
        return 0;
    }

    void request(qor_context_t *context)
    {
        int32_t question = 0;
        asked++; /* first: the answer may be quicker than this thread */
        if (qor_context_req_ret(context, static_cast<int32_t>(random(topics)), &question,
                                sizeof(question), sizeof(question)) < 0) {
            asked--;
        }
    }

    void change_registration(qor_context_t *context)
    {
        const int32_t topic = static_cast<int32_t>(random(topics));
        switch (random(8)) {
        case 0:
            qor_context_unsubscribe(context, topic);
            break;
        case 1:
            qor_context_unfilter(context, topic);
            break;
        case 2:
            qor_context_filter(context, topic, nullptr);
            break;
        case 3:
            qor_context_listen(context, topic, nullptr);
            break;
        default:
            qor_context_subscribe(context, topic, nullptr);
            break;
        }
    }

    /* Does something that leaves work in flight; what runs then does the same again. */
    void act(qor_context_t *context)
    {
        if (qor_bus_quitting(bus_) && random(4) != 0) {
            return; /* now and then a refused one */
        }
        int32_t session = -1;
        qor_context_session(context, &session);
        const auto again = [this, context](Place here) {
            return [this, context, here] {
                pass(here);
                act(context);
            };
        };
        switch (random(8)) {
        case 0:
        case 1:
            ledger.post(context, session, 0, static_cast<int32_t>(random(2)), again(in_task));
            break;
        case 2:
            ledger.post(context, session, 1 + static_cast<int32_t>(random(3)), 1,
                        again(in_module_timer));
            break;
        case 3:
            ledger.run(bus_, again(in_task));
            break;
        case 4:
            ledger.timer(bus_, session, 1 + static_cast<int32_t>(random(3)), again(in_bus_timer));
            break;
        case 5:
            ledger.post(context, session, 5 + static_cast<int32_t>(random(60000)), 0, nullptr);
            if (random(2) == 0) {
                qor_context_timer_cancel(context, session);
            }
            break;
        case 6:
            request(context);
            ledger.post(context, session, 0, 0, again(in_task));
            break;
        default: {
            int32_t question = 0;
            qor_context_x_req(context, static_cast<int32_t>(random(topics)), &question,
                              sizeof(question));
            ledger.post(context, session, 0, 1, again(in_task));
            break;
        }
        }
    }

    /* Quits when the cycle's place is passed often enough. */
    void pass(Place here)
    {
        if (here == place && passes_left_.fetch_sub(1) <= 0) {
            quit();
        }
    }

    void quit()
    {
        if (!quit_.exchange(true)) {
            asked_at_ = std::chrono::steady_clock::now();
        }
        EXPECT_EQ(qor_bus_quit(bus_), 0);
    }

    /* Ends a cycle that does not come to its place. */
    void lose_patience()
    {
        const bool asks = place == in_thread || place == in_threads;
        const auto patience =
            std::chrono::microseconds(asks ? random(5000) : 20000 + random(20000));
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!quit_ && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        std::vector<Thread> others;
        for (int i = 0; place == in_threads && i < 3; i++) {
            others.emplace_back([this] { quit(); });
        }
        quit();
        for (Thread &other : others) {
            other.join();
        }
    }

    /* A thread of the application's that uses the contexts until the bus quits. */
    void meddle()
    {
        while (!qor_bus_quitting(bus_)) {
            for (const auto &part : parts_) {
                if (qor_context_t *context = part->context()) {
                    request(context);
                }
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        qor_bus_drain(bus_, -1);
    }

    std::atomic<uint64_t> state_;
    std::vector<std::unique_ptr<Part>> parts_;
    std::vector<qor_context_module_t *> table_;
    qor_bus_t *bus_ = nullptr;
    std::atomic<int> passes_left_{0};
    std::atomic<bool> quit_{false};
    std::chrono::steady_clock::time_point asked_at_, ended_;
};

} // namespace

TEST(StopCycles, LeaveNothingBehindAndLoseNothing)
{
    const int cycles = number_from("QOR_STOP_CYCLES", default_cycles);
    const unsigned seed = static_cast<unsigned>(
        number_from("QOR_STOP_SEED", static_cast<int>(std::random_device()() & 0xfffffff)));
    std::fprintf(stderr, "QOR_STOP_SEED=%u QOR_STOP_CYCLES=%d\n", seed, cycles);
    Watchdog watchdog(seed);
    Output out;
    const long threads = thread_count();
    int live = 0;
    std::chrono::steady_clock::duration longest{};
    int slow = 0;
    Ledger::Sums sums = {};
    long asked = 0, answered = 0;
    fault_arm(FAULT_ALLOC, -1);

    for (int i = 0; i < cycles && !HasFailure(); i++) {
        watchdog.feed(i + 1);
        Cycle cycle(seed + static_cast<unsigned>(i) * 7919u);
        SCOPED_TRACE("cycle " + std::to_string(i) + ", place " + std::to_string(cycle.place));

        cycle.run();

        EXPECT_EQ(cycle.ledger.errors(), "");
        EXPECT_LE(cycle.answered, cycle.asked);
        EXPECT_TRUE(await([&] { return thread_count() <= threads; }));
        EXPECT_TRUE(list_empty(&context_head));
        EXPECT_EQ(qor_bus_module.arg, nullptr);
        EXPECT_EQ(qor_mng_module.arg, nullptr);
        EXPECT_EQ(out.count("STOP failed"), 0);
        EXPECT_EQ(out.count("not ready to destroy"), 0);
        if (i == 0) {
            live = fault_live();
        }
        EXPECT_EQ(fault_live(), live);
        longest = std::max(longest, cycle.ending_time());
        slow += cycle.ending_time() >= limit;
        const Ledger::Sums more = cycle.ledger.sums();
        sums.posted += more.posted;
        sums.refused += more.refused;
        sums.ran += more.ran;
        sums.discarded += more.discarded;
        asked += cycle.asked;
        answered += cycle.answered;
        if (!HasFailure()) {
            out.clear();
        }
    }

    /* A machine with much else to do may hold single ones up; what hangs is the watchdog's. */
    EXPECT_LE(slow, cycles / 20);
    EXPECT_EQ(sums.posted, sums.refused + sums.ran + sums.discarded);
    std::fprintf(stderr,
                 "posted %ld: ran %ld, discarded %ld, refused %ld; requests %ld, answered %ld; "
                 "longest end %lld us, %d not within two seconds\n",
                 sums.posted, sums.ran, sums.discarded, sums.refused, asked, answered,
                 static_cast<long long>(
                     std::chrono::duration_cast<std::chrono::microseconds>(longest).count()),
                 slow);
}
