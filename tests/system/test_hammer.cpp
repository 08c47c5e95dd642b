/* SPDX-License-Identifier: Apache-2.0 */
/* Eight threads at once that register, unregister, publish, post, cancel and quit on the contexts
 * of modules that come up, fail to come up and do the same. Above all for the sanitizers.
 * QOR_HAMMER_SECONDS sets how long. */
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ledger.hpp"
#include "output.hpp"
#include "qor_bus.h"
#include "qor_context_handler.h"
#include "qor_context_module.h"
#include "qor_context_msg.h"
#include "running_bus.hpp"
#include "thread.hpp"

namespace {

constexpr int threads = 8;
constexpr int32_t topics = 3; /* few, so that they meet */
constexpr int modules = 5;

std::chrono::milliseconds hammer_time()
{
    if (const char *seconds = std::getenv("QOR_HAMMER_SECONDS")) {
        return std::chrono::seconds(std::atoi(seconds));
    }
    const char *preloaded = std::getenv("LD_PRELOAD");
    const bool valgrind = preloaded && std::strstr(preloaded, "vgpreload");
    return std::chrono::seconds(valgrind ? 3 : 10);
}

/* Each thread has its own numbers. */
class Dice {
public:
    explicit Dice(uint32_t seed) : state_(seed * 2654435761u + 1) {}
    uint32_t operator()(uint32_t below)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_ % below;
    }

private:
    uint32_t state_;
};

std::atomic<uint32_t> next_seed{std::random_device()()};
thread_local Dice dice(next_seed++);

/* Counts over all rounds. */
struct Sums {
    std::atomic<long> rounds{0}, registrations{0}, requests{0}, handled{0}, failed_inits{0};
};

/* One bus, from creation to close. */
class Round {
public:
    explicit Round(Sums &sums) : sums_(sums)
    {
        for (int i = 0; i < modules; i++) {
            add_module(i);
        }
        bus_ = std::make_unique<RunningBus>(table_, topics, 1 + dice(4));
    }

    void run()
    {
        std::vector<Thread> all;
        for (int i = 0; i < threads; i++) {
            all.emplace_back([this] { hammer(); });
        }
        lose_patience();
        for (Thread &one : all) {
            one.join();
        }
        bus_->end();
        EXPECT_EQ(ledger_.errors(), "");
        sums_.rounds++;
    }

private:
    void add_module(int number)
    {
        all_.push_back(std::make_unique<Module>("module" + std::to_string(number)));
        Module &module = *all_.back();
        const bool fails = number > 0 && dice(2);
        module.descriptor.pure = number == 0 || dice(3) > 0;
        module.descriptor.refcount = static_cast<int32_t>(dice(4)) - 1;
        module.reg = [this](qor_context_t *context) { enrol(context); };
        module.init = [this, fails](qor_context_t *context) {
            enrol(context);
            post(context);
            post(context);
            sums_.failed_inits += fails;
            return fails ? -1 : 0;
        };
        module.handle = [this](qor_context_t *context, qor_context_msg_t *msg) {
            sums_.handled++;
            if (msg->type != QOR_CONTEXT_MSG_RESPONSE && dice(6) == 0) {
                leave(context); /* also the registration that this runs for */
            }
            return 0;
        };
        table_.push_back(&module);
    }

    int32_t any_topic() const { return static_cast<int32_t>(dice(topics)); }

    /* The wrapper's own handler removes listeners; the module's shortcut does not. */
    static qor_context_t *wrapper_of(qor_context_t *context)
    {
        return static_cast<qor_context_t *>(qor_context_pub_data_get(context));
    }

    void enrol(qor_context_t *context)
    {
        sums_.registrations++;
        switch (dice(4)) {
        case 0:
            qor_context_filter(context, any_topic(), nullptr);
            break;
        case 1:
            qor_context_listen(context, any_topic(), nullptr);
            break;
        default:
            qor_context_subscribe(context, any_topic(), nullptr);
            break;
        }
    }

    void leave(qor_context_t *context)
    {
        switch (dice(4)) {
        case 0:
            qor_context_unfilter(context, any_topic());
            break;
        case 1:
            qor_context_handler_unlisten(wrapper_of(context), any_topic());
            break;
        default:
            qor_context_unsubscribe(context, any_topic());
            break;
        }
    }

    void post(qor_context_t *context)
    {
        int32_t session = -1;
        qor_context_session(context, &session);
        const int32_t delay = dice(2) ? static_cast<int32_t>(dice(20)) : 0;
        ledger_.post(context, session, delay, static_cast<int32_t>(dice(2)),
                     [this, context] { enrol(context); });
        if (dice(4) == 0) {
            qor_context_timer_cancel(context, session);
        }
    }

    void request(qor_context_t *context)
    {
        int32_t payload = 7;
        sums_.requests++;
        if (dice(4) == 0) {
            qor_context_x_req(context, any_topic(), &payload, sizeof(payload));
        } else {
            qor_context_req_ret(context, any_topic(), &payload, sizeof(payload), sizeof(payload));
        }
    }

    void hammer()
    {
        while (!qor_bus_quitting(bus_->get())) {
            qor_context_t *context = table_[dice(modules)]->context();
            if (!context) {
                std::this_thread::yield();
                continue;
            }
            switch (dice(10)) {
            case 0:
            case 1:
                enrol(context);
                break;
            case 2:
            case 3:
            case 4:
                leave(context);
                break;
            case 5:
                post(context);
                break;
            default:
                request(context);
                break;
            }
            if (dice(3000) == 0) {
                EXPECT_EQ(qor_bus_quit(bus_->get()), 0);
            }
        }
    }

    /* Starts that wait for one another in a circle do so until somebody quits. */
    void lose_patience()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        while (!qor_bus_quitting(bus_->get()) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(qor_bus_quit(bus_->get()), 0);
    }

    Sums &sums_;
    Ledger ledger_;
    std::vector<std::unique_ptr<Module>> all_;
    std::vector<Module *> table_;
    std::unique_ptr<RunningBus> bus_;
};

} // namespace

TEST(Hammer, EverythingAtOnceOnEightThreads)
{
    const auto now = std::chrono::steady_clock::now;
    const auto end = now() + hammer_time();
    const auto last = end + std::chrono::seconds(60); /* for a machine that gets nowhere by then */
    Output out;
    Sums sums;

    const auto hit = [&] { return sums.handled > 0 && sums.failed_inits > 0; };
    while ((now() < end || (!hit() && now() < last)) && !HasFailure()) {
        Round(sums).run();
        if (!HasFailure()) {
            out.clear();
        }
    }

    EXPECT_GT(sums.rounds, 0);
    EXPECT_GT(sums.handled, 0);
    EXPECT_GT(sums.failed_inits, 0);
    std::fprintf(stderr,
                 "%ld rounds: %ld registrations, %ld requests, %ld handled, %ld failed inits\n",
                 sums.rounds.load(), sums.registrations.load(), sums.requests.load(),
                 sums.handled.load(), sums.failed_inits.load());
}
